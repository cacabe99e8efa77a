#include "accounts/ShadowPasswords.h"

#include <shadow.h>

#include "accounts/PasswordEntries.h"
#include "toolkit/Privileges.h"

namespace {

constexpr const char* kShadowFile = "/etc/shadow";

}  // namespace

void SShadowPasswords::Read() {
  passwords_.clear();
  setspent();
  while (const spwd* entry = getspent()) {
    if (entry->sp_pwdp != nullptr) {
      passwords_.try_emplace(entry->sp_namp, entry->sp_pwdp);
    }
  }
  endspent();
}

SString SShadowPasswords::Find(const SString& login) {
  const SActAs as_root(SActAs::Root{});
  // Somebody may change a password while the questions are answered.
  const std::string version = FileVersion(kShadowFile);
  if (version != version_) {
    version_ = version;
    Read();
  }
  const auto found = passwords_.find(login.Std());
  if (found != passwords_.end()) {
    return SString(std::string_view(found->second));
  }
  const spwd* entry = getspnam(login);
  return entry == nullptr ? SString() : SString(entry->sp_pwdp);
}
