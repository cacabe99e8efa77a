#include "accounts/PasswordEntries.h"

#include <pwd.h>
#include <sys/stat.h>

namespace {

constexpr const char* kPasswordFile = "/etc/passwd";

}  // namespace

std::string FileVersion(const SString& path) {
  struct stat status = {};
  if (stat(path, &status) != 0) {
    return "none";
  }
  std::string version;
  for (const auto part : {static_cast<long long>(status.st_dev),
                          static_cast<long long>(status.st_ino),
                          static_cast<long long>(status.st_size),
                          static_cast<long long>(status.st_mtim.tv_sec),
                          static_cast<long long>(status.st_mtim.tv_nsec),
                          static_cast<long long>(status.st_ctim.tv_sec),
                          static_cast<long long>(status.st_ctim.tv_nsec)}) {
    version += std::to_string(part) + " ";
  }
  return version;
}

void SPasswordEntries::Read() {
  entries_.clear();
  setpwent();
  while (const passwd* entry = getpwent()) {
    entries_.try_emplace(entry->pw_name, Ids{entry->pw_uid, entry->pw_gid});
  }
  endpwent();
}

bool SPasswordEntries::Find(const SString& login, Ids* ids) {
  if (login.IsEmpty()) {
    // The system may find an entry that has none; nobody has that login.
    return false;
  }
  // A user may be removed while accounts are made.
  const std::string version = FileVersion(kPasswordFile);
  if (version != version_) {
    version_ = version;
    Read();
  }
  const auto found = entries_.find(login.Std());
  if (found != entries_.end()) {
    *ids = found->second;
    return true;
  }
  const passwd* entry = getpwnam(login);
  if (entry != nullptr) {
    *ids = {entry->pw_uid, entry->pw_gid};
  }
  return entry != nullptr;
}
