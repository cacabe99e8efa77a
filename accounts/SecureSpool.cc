#include "accounts/SecureSpool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "console/Console.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

constexpr mode_t kSpoolMode = 0660;
constexpr mode_t kPermissionBits = 07777;

bool IsPlainSpool(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1;
}

}  // namespace

void SecureSpool(const SString& path, uid_t user, gid_t mail_group) {
  const SActAs as_root(SActAs::Root{});
  struct stat named = {};
  if (lstat(path, &named) != 0) {
    return;
  }
  if (!IsPlainSpool(named)) {
    Print("\nALERT: Possible security problem with " + Printable(path) + "\n");
    return;
  }
  // Between the look and the opening the user may have put another file there.
  const SDescriptor file(
      open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat opened = {};
  if (!file.IsOpen() || fstat(file.Get(), &opened) != 0 ||
      opened.st_dev != named.st_dev || opened.st_ino != named.st_ino ||
      !IsPlainSpool(opened)) {
    return;
  }
  const bool is_right = opened.st_uid == user && opened.st_gid == mail_group;
  if (!is_right && fchown(file.Get(), user, mail_group) != 0) {
    return;
  }
  if ((opened.st_mode & kPermissionBits) != kSpoolMode) {
    static_cast<void>(fchmod(file.Get(), kSpoolMode));
  }
}
