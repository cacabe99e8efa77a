#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>

#include "toolkit/SString.h"

/// User and group ids by login, read in one pass over the password database;
/// names that the pass did not give are looked up one by one.
class SPasswordEntries {
 public:
  struct Ids {
    uid_t uid;
    gid_t gid;
  };
  /// False when there is no such login (any more).
  [[nodiscard]] bool Find(const SString& login, Ids* ids);

 private:
  void Read();

  std::unordered_map<std::string, Ids> entries_;
  std::string version_;
};

/// What tells one version of a file from the next: device, inode, size, times.
[[nodiscard]] std::string FileVersion(const SString& path);
