#include "toolkit/database/Sdbfile.h"

#include <cerrno>

#include "toolkit/Environment.h"
#include "toolkit/database/Lists.h"
#include "toolkit/database/Store.h"

class Sdbfile::State {
 public:
  SString path;
  SStore store;
  std::string section;
};

Sdbfile::Sdbfile(const SString& name, int /*mode*/, const char* product)
    : state_(std::make_unique<State>()) {
  state_->path = GetEnv(product) + "/config/" + name;
}

Sdbfile::~Sdbfile() = default;

bool Sdbfile::Open(const SString& section, int mode) {
  const bool for_writing = mode != 0;
  SStore& store = state_->store;
  if (!store.IsOpen() || (for_writing && !store.IsForWriting())) {
    if (!store.Open(state_->path, for_writing)) {
      return false;
    }
  }
  store.Refresh();
  if (store.Find(section.View()) == nullptr) {
    SStore::Change change;
    change.MakeSection(section.View());
    if (!for_writing) {
      errno = ENOENT;
      return false;
    }
    if (!store.Store(change)) {
      return false;
    }
  }
  state_->section = section.Std();
  return true;
}

SStringList Sdbfile::Get(const SString& key) const {
  state_->store.Refresh();
  const SStore::Section* section = state_->store.Find(state_->section);
  return section == nullptr ? SStringList() : ValuesOf(*section, key);
}

bool Sdbfile::Set(const SString& key, const SStringList& values) {
  SStore::Change change;
  change.Set(state_->section, key.View(), PlainValues(values));
  return state_->store.Store(change);
}

bool Sdbfile::CloseDB() {
  return state_->store.Close();
}
