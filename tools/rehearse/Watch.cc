#include "tools/rehearse/Watch.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Not in the headers of Debian 12's C library.
constexpr unsigned kWaitKillable = 1U << 5;

}  // namespace

int Watch::Announce() const {
  std::vector<sock_filter> filter = Filter();
  const sock_fprog program = {static_cast<unsigned short>(filter.size()),
                              filter.data()};
  const auto install = [&program](unsigned flags) {
    return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                    flags | SECCOMP_FILTER_FLAG_NEW_LISTENER,
                                    &program));
  };
  const int fd = install(kWaitKillable);
  return fd >= 0 ? fd : install(0);
}

bool Watch::Take(pid_t process, int fd) {
  const SDescriptor pidfd(
      static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  announcements_ = SDescriptor(
      static_cast<int>(syscall(SYS_pidfd_getfd, pidfd.Get(), fd, 0)));
  return announcements_.IsOpen();
}

void Watch::AnswerNext() {
  pollfd waiting = {announcements_.Get(), POLLIN, 0};
  if (poll(&waiting, 1, 0) <= 0) {
    return;
  }
  if ((waiting.revents & POLLIN) == 0) {
    announcements_ = SDescriptor();  // nobody is left who could call
    return;
  }
  struct seccomp_notif announced = {};
  if (ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_RECV, &announced) != 0) {
    return;  // the caller was killed meanwhile
  }
  HeldCall call;
  call.id = announced.id;
  call.caller = static_cast<pid_t>(announced.pid);
  call.number = announced.data.nr;
  for (std::size_t i = 0; i < call.arguments.size(); ++i) {
    call.arguments[i] = announced.data.args[i];
  }
  const Answer answer = AnswerTo(call);
  if (answer.descriptor >= 0) {
    struct seccomp_notif_addfd copy = {};
    copy.id = call.id;
    copy.flags = SECCOMP_ADDFD_FLAG_SEND;
    copy.srcfd = static_cast<unsigned>(answer.descriptor);
    copy.newfd_flags = O_CLOEXEC;
    // Fails where the caller has too many, or with an older kernel.
    if (ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_ADDFD, &copy) >= 0) {
      Answered(call);
      return;
    }
  }
  struct seccomp_notif_resp reply = {};
  reply.id = call.id;
  if (answer.go_on) {
    reply.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
  } else {
    reply.error = -answer.error;
  }
  // Fails only when the caller was killed meanwhile.
  (void)ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_SEND, &reply);
  Answered(call);
}

bool Watch::IsWaiting(const HeldCall& call) const {
  return ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_ID_VALID, &call.id) ==
         0;
}
