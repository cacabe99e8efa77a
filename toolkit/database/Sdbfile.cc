#include "toolkit/database/Sdbfile.h"

#include <cerrno>

#include "toolkit/Environment.h"
#include "toolkit/database/DatabaseFile.h"

class Sdbfile::State {
 public:
  std::string name;
  std::string path;
  SDatabaseFile file;
  SString section;
  bool is_open = false;
  bool may_set = false;

  bool Open(bool for_writing);
};

namespace {

bool IsBaseName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

// Opens the file and, for writing, makes the section.
bool Sdbfile::State::Open(bool for_writing) {
  if (!IsBaseName(name) || section[0] != '/') {
    errno = EINVAL;
    return false;
  }
  if (for_writing && !file.IsWriter() &&
      !file.Open(path, SDatabaseFile::Access::kCreate)) {
    return false;
  }
  if (!file.Follow()) {
    return false;
  }
  std::uint32_t id = file.Find(section.View());
  if (id != SDatabaseFile::kNone) {
    return true;
  }
  if (errno != 0) {
    return false;
  }
  if (!for_writing) {
    errno = ENOENT;
    return false;
  }
  return file.Store(SSection(section), &id);
}

Sdbfile::Sdbfile(const SString& name, int /*mode*/, const char* product)
    : state_(std::make_unique<State>()) {
  state_->name = name.Std();
  state_->path = (GetEnv(product) + "/config/" + name).Std();
}

Sdbfile::~Sdbfile() {
  CloseDB();
}

bool Sdbfile::Open(const SString& section, int mode) {
  state_->section = section;
  state_->may_set = false;
  if (!state_->file.IsOpen()) {
    // Names the file for `Follow`, which opens it.
    state_->is_open =
        mode != 0 ||
        state_->file.Open(state_->path, SDatabaseFile::Access::kRead);
    if (!state_->is_open) {
      return false;
    }
  }
  state_->is_open = state_->Open(mode != 0);
  state_->may_set = state_->is_open && mode != 0;
  return state_->is_open;
}

SStringList Sdbfile::Get(const SString& key) const {
  SSection section;
  if (!state_->is_open || !state_->file.Follow()) {
    return {};
  }
  const std::uint32_t id = state_->file.Find(state_->section.View(), &section);
  return id != SDatabaseFile::kNone ? section.Get(key.View()) : SStringList();
}

bool Sdbfile::Set(const SString& key, const SStringList& values) {
  if (!state_->may_set || key.IsEmpty()) {
    errno = state_->may_set ? EINVAL : EBADF;
    return false;
  }
  // Sections stay once they are made: one that isn't found is damaged.
  SSection section;
  std::uint32_t id = state_->file.Find(state_->section.View(), &section);
  if (id == SDatabaseFile::kNone) {
    return false;
  }
  section.Set(key, values);
  return state_->file.Store(section, &id);
}

bool Sdbfile::CloseDB() {
  state_->is_open = false;
  state_->may_set = false;
  return state_->file.Close();
}
