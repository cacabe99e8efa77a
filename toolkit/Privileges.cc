// Every change of the effective identity, and nothing else.
//
// The saved user id stays root, so the way back is open as long as the process
// lives; groups can only be set by root, so each change goes through it.

#include "toolkit/Privileges.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace {

constexpr int kCannotGoOn = 255;

[[noreturn]] void EndForIdentity() {
  constexpr std::string_view kNote =
      "The effective identity could not be changed; ending.\n";
  static_cast<void>(write(STDERR_FILENO, kNote.data(), kNote.size()));
  _exit(kCannotGoOn);
}

bool SetUser(uid_t uid) {
  return seteuid(uid) == 0 && geteuid() == uid;
}

bool SetGroup(gid_t gid) {
  return setegid(gid) == 0 && getegid() == gid;
}

}  // namespace

bool BecomeMailOwner(uid_t uid, gid_t gid) {
  return SetUser(0) && setgroups(0, nullptr) == 0 && SetGroup(gid) &&
         SetUser(uid);
}

SActAs::SActAs(Root /*identity*/)
    : former_uid_(geteuid()), former_gid_(getegid()) {
  if (!SetUser(getuid())) {
    EndForIdentity();
  }
  succeeded_ = true;
}

SActAs::SActAs(uid_t uid, gid_t gid)
    : former_uid_(geteuid()), former_gid_(getegid()) {
  const int count = getgroups(0, nullptr);
  if (count < 0) {
    return;
  }
  former_groups_.resize(static_cast<std::size_t>(count));
  if (getgroups(count, former_groups_.data()) != count || !SetUser(0)) {
    return;
  }
  groups_changed_ = true;
  succeeded_ = setgroups(1, &gid) == 0 && SetGroup(gid) && SetUser(uid);
  if (!succeeded_) {
    GoBack();
  }
}

SActAs::~SActAs() {
  if (succeeded_) {
    GoBack();
  }
}

void SActAs::GoBack() {
  const int former_errno = errno;
  const bool back =
      !groups_changed_ ||
      (SetUser(0) &&
       setgroups(former_groups_.size(), former_groups_.data()) == 0 &&
       SetGroup(former_gid_));
  if (!back || !SetUser(former_uid_)) {
    EndForIdentity();
  }
  errno = former_errno;
}

bool BecomeRootForGood() {
  return SetUser(getuid());
}
