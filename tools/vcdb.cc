// Looks into the server's databases, and makes them from text.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

#include "toolkit/database/Sdbfile.h"
#include "toolkit/database/Store.h"
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
  SStore store;
  if (!store.Open(file, false)) {
    return FailByErrno(file);
  }
  std::cout << DatabaseAsText(store.All());
  return Written(file);
}

int Load(const SString& file) {
  const std::string text((std::istreambuf_iterator<char>(std::cin)),
                         std::istreambuf_iterator<char>());
  SStore::Sections sections;
  std::string problem;
  if (!DatabaseFromText(text, &sections, &problem)) {
    return Fail(file, problem);
  }
  const SString unfinished = UnfinishedPath(file);
  const SDescriptor made = MakeDatabaseFile(unfinished, sections);
  if (!made.IsOpen()) {
    return FailByErrno(file);
  }
  if (!Rename(unfinished, file) || !SyncDirectoryOf(file)) {
    const int cause = errno;
    RemoveFile(unfinished);
    errno = cause;
    return FailByErrno(file);
  }
  return kDone;
}

int Get(const SString& file, const SString& section, const SString& key) {
  SStore store;
  if (!store.Open(file, false)) {
    return FailByErrno(file);
  }
  const SStore::Section* found = store.Find(section.View());
  if (found == nullptr || !found->keys.contains(key.View())) {
    return Fail(file, "no key \"" + EscapeText(key.View(), true) + "\" in \"" +
                          EscapeText(section.View(), false) + "\"");
  }
  for (const std::string& value : found->keys.find(key.View())->second) {
    std::cout << EscapeText(value, false) << "\n";
  }
  return Written(file);
}

int Set(const SString& file, const SString& section, const SString& key,
        const SStore::Values& values) {
  if (!section.View().starts_with('/') || key.IsEmpty()) {
    return Fail(file, "a section begins with \"/\", a key is not empty");
  }
  SStore store;
  SStore::Change change;
  change.MakeSection(section.View());
  change.Set(section.View(), key.View(), values);
  if (!store.Open(file, true) || !store.Store(change) || !store.Close()) {
    return FailByErrno(file);
  }
  return kDone;
}

int Check(const SString& file) {
  SStore store;
  std::string problem;
  if (!store.Check(file, &problem)) {
    return problem.empty() ? FailByErrno(file) : Fail(file, problem);
  }
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  const SStringList arguments(argv);
  const SString command = arguments.Get(1);
  const SString file = arguments.Get(2);
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
    const SStore::Values values(argv + 5, argv + argc);
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
