// Looks into the server's databases, and makes them from text.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/TextForm.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kMisused = 2;

constexpr const char* kUsage =
    "usage: vcdb dump FILE\n"
    "       vcdb load FILE < TEXT\n"
    "       vcdb get FILE SECTION KEY\n"
    "       vcdb set FILE SECTION KEY [VALUE]...\n"
    "       vcdb check FILE...\n";

int Fail(const SString& file, const std::string& cause) {
  std::cerr << "vcdb: " << file << ": " << cause << "\n";
  return kFailed;
}

int FailByErrno(const SString& file) {
  if (errno == EBADMSG) {
    return Fail(file, "damaged, or no database");
  }
  if (errno == EWOULDBLOCK) {
    return Fail(file, "somebody else is changing it");
  }
  return Fail(file, std::strerror(errno));
}

int Written(const SString& file) {
  std::cout.flush();
  return std::cout ? kDone : Fail(file, "the output can't be written");
}

int Dump(const SString& file) {
  SDatabaseFile database;
  std::string text;
  if (!database.Open(file.Std(), SDatabaseFile::Access::kRead) ||
      !DatabaseAsText(&database, &text)) {
    return FailByErrno(file);
  }
  std::cout << text;
  return Written(file);
}

// Fills a new file and puts it in place; an existing database is held against
// other writers meanwhile, and a file that is none is left alone.
bool Replace(const SString& file, const std::vector<SSection>& sections) {
  SDatabaseFile former;
  const bool exists = former.Open(file.Std(), SDatabaseFile::Access::kWrite);
  SDatabaseFile fresh;
  if ((!exists && errno != ENOENT) || !fresh.Begin(file.Std())) {
    return false;
  }
  for (const SSection& section : sections) {
    std::uint32_t id = SDatabaseFile::kNone;
    if (!fresh.Store(section, &id)) {
      return false;
    }
  }
  return fresh.Install(exists ? &former : nullptr) && fresh.Close();
}

int Load(const SString& file) {
  std::string text;
  std::vector<SSection> sections;
  std::string problem;
  // Not by std::cin, which takes a failed read for the end.
  if (!ReadToEnd(STDIN_FILENO, &text)) {
    return Fail(file, "the input can't be read");
  }
  if (!DatabaseFromText(text, &sections, &problem)) {
    return Fail(file, problem);
  }
  return Replace(file, sections) ? kDone : FailByErrno(file);
}

int Get(const SString& file, const SString& section, const SString& key) {
  SDatabaseFile database;
  if (!database.Open(file.Std(), SDatabaseFile::Access::kRead)) {
    return FailByErrno(file);
  }
  SSection found;
  const std::uint32_t id = database.Find(section.View());
  if ((id == SDatabaseFile::kNone && errno != 0) ||
      (id != SDatabaseFile::kNone && !database.Read(id, &found))) {
    return FailByErrno(file);
  }
  const SStringList values = found.Get(key.View());
  if (!values.Defined()) {
    return Fail(file, "no key \"" + EscapeText(key.View(), true) + "\" in \"" +
                          EscapeText(section.View(), false) + "\"");
  }
  for (const SString& value : values) {
    std::cout << EscapeText(value.View(), false) << "\n";
  }
  return Written(file);
}

int Set(const SString& file, const SString& section, const SString& key,
        const SStringList& values) {
  if (section[0] != '/' || key.IsEmpty()) {
    return Fail(file, "a section begins with \"/\", a key is not empty");
  }
  SDatabaseFile database;
  if (!database.Open(file.Std(), SDatabaseFile::Access::kCreate)) {
    return FailByErrno(file);
  }
  SSection changed(section);
  std::uint32_t id = database.Find(section.View());
  if ((id == SDatabaseFile::kNone && errno != 0) ||
      (id != SDatabaseFile::kNone && !database.Read(id, &changed))) {
    return FailByErrno(file);
  }
  changed.Set(key, values);
  if (!database.Store(changed, &id) || !database.Close()) {
    return FailByErrno(file);
  }
  return kDone;
}

int Check(const SString& file) {
  std::string problem;
  if (!CheckDatabase(file.Std(), &problem)) {
    return problem.empty() ? FailByErrno(file) : Fail(file, problem);
  }
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  const SStringList arguments(argv);
  const SString& command = arguments.Get(1);
  const SString& file = arguments.Get(2);
  if (command == "dump" && argc == 3) {
    return Dump(file);
  }
  if (command == "load" && argc == 3) {
    return Load(file);
  }
  if (command == "get" && argc == 5) {
    return Get(file, arguments.Get(3), arguments.Get(4));
  }
  if (command == "set" && argc >= 5) {
    const SStringList values(argv + 5);
    return Set(file, arguments.Get(3), arguments.Get(4), values);
  }
  if (command == "check" && argc >= 3) {
    int status = kDone;
    for (int i = 2; i < argc; ++i) {
      status = std::max(status, Check(arguments.Get(i)));
    }
    return status;
  }
  std::cerr << kUsage;
  return kMisused;
}
