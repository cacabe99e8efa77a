#pragma once

#include <string>
#include <unordered_map>

#include "toolkit/SString.h"

/// The shadow passwords, read in one pass as root, because each single look-up
/// would read the whole file.  Names that the pass did not give are looked up
/// one by one.
class SShadowPasswords {
 public:
  /// The stored form of the login's password; "" when there is none to be had.
  [[nodiscard]] SString Find(const SString& login);

 private:
  void Read();

  std::unordered_map<std::string, std::string> passwords_;
  std::string version_;  // of the file that was read
};
