#include "tools/rehearse/SignalWatch.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

#if defined(__x86_64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "the architecture's number for seccomp(2) is missing here"
#endif

// Not in the headers of Debian 12's C library.
constexpr unsigned kWaitKillable = 1U << 5;

constexpr std::array<int, 6> kCalls = {SYS_kill,
                                       SYS_tkill,
                                       SYS_tgkill,
                                       SYS_rt_sigqueueinfo,
                                       SYS_rt_tgsigqueueinfo,
                                       SYS_pidfd_send_signal};

sock_filter Statement(unsigned code, unsigned value) {
  return {static_cast<unsigned short>(code), 0, 0, value};
}

sock_filter Jump(unsigned value, std::size_t if_equal, std::size_t if_not) {
  return {BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned char>(if_equal),
          static_cast<unsigned char>(if_not), value};
}

// Load the architecture, load the call's number, compare; the two results.
std::array<sock_filter, kCalls.size() + 5> MakeFilter() {
  std::array<sock_filter, kCalls.size() + 5> filter = {};
  const std::size_t announce = filter.size() - 1;
  const std::size_t allow = announce - 1;
  filter[0] =
      Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch));
  filter[1] = Jump(kArchitecture, 0, allow - 2);
  filter[2] =
      Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
  for (std::size_t i = 0; i < kCalls.size(); ++i) {
    filter[3 + i] =
        Jump(static_cast<unsigned>(kCalls[i]), announce - (4 + i), 0);
  }
  filter[allow] = Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  filter[announce] = Statement(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
  return filter;
}

// The process that a descriptor of another process stands for: a pidfd or, as
// pidfd_send_signal(2) takes them too, a directory of /proc.  0 if neither.
pid_t ProcessOfDescriptor(pid_t holder, unsigned long long fd) {
  std::istringstream lines(ReadFile("/proc/" + std::to_string(holder) +
                                    "/fdinfo/" + std::to_string(fd)));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Pid:")) {
      return std::atoi(line.c_str() + 4);
    }
  }
  const std::string link =
      "/proc/" + std::to_string(holder) + "/fd/" + std::to_string(fd);
  std::array<char, 64> target = {};
  const ssize_t n = readlink(link.c_str(), target.data(), target.size() - 1);
  return n > 6 && std::string(target.data()).starts_with("/proc/")
             ? std::atoi(target.data() + 6)
             : 0;
}

pid_t GroupOf(pid_t process) {
  return static_cast<pid_t>(syscall(SYS_getpgid, process));
}

// kill(2): root may signal anybody, others only processes of their own.
bool MaySignal(pid_t sender, pid_t target) {
  std::istringstream of_sender(ProcessStatus(sender, "Uid"));
  std::istringstream of_target(ProcessStatus(target, "Uid"));
  unsigned real = 0;
  unsigned effective = 0;
  unsigned target_real = 0;
  unsigned target_saved = 0;
  of_sender >> real >> effective;
  of_target >> target_real >> target_saved >> target_saved;
  return effective == 0 || effective == target_real ||
         effective == target_saved || real == target_real ||
         real == target_saved;
}

}  // namespace

int SignalWatch::Announce() {
  auto filter = MakeFilter();
  const sock_fprog program = {filter.size(), filter.data()};
  const auto install = [&program](unsigned flags) {
    return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                    flags | SECCOMP_FILTER_FLAG_NEW_LISTENER,
                                    &program));
  };
  const int fd = install(kWaitKillable);
  return fd >= 0 ? fd : install(0);
}

bool SignalWatch::Take(pid_t process, int fd) {
  const Descriptor pidfd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  announcements_ = Descriptor(
      static_cast<int>(syscall(SYS_pidfd_getfd, pidfd.Get(), fd, 0)));
  return announcements_.IsOpen();
}

void SignalWatch::Note() {
  pollfd waiting = {announcements_.Get(), POLLIN, 0};
  if (poll(&waiting, 1, 0) <= 0) {
    return;
  }
  if ((waiting.revents & POLLIN) == 0) {
    announcements_.Close();  // nobody is left who could send signals
    return;
  }
  struct seccomp_notif call = {};
  if (ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
    return;  // the caller was killed meanwhile
  }
  std::array<unsigned long long, 6> arguments = {};
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    arguments[i] = call.data.args[i];
  }
  NoteCall(static_cast<pid_t>(call.pid), call.data.nr, arguments.data());
  struct seccomp_notif_resp answer = {};
  answer.id = call.id;
  answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
  // Fails only when the caller was killed meanwhile.
  (void)ioctl(announcements_.Get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
}

void SignalWatch::NoteCall(pid_t sender, int call,
                           const unsigned long long* arguments) {
  const bool has_group = call == SYS_tgkill || call == SYS_rt_tgsigqueueinfo;
  const int signal = static_cast<int>(arguments[has_group ? 2 : 1]);
  auto target = static_cast<pid_t>(arguments[0]);
  if (call == SYS_pidfd_send_signal) {
    target = ProcessOfDescriptor(sender, arguments[0]);
  }
  // A call comes from a thread; the process is what is known by name.
  const pid_t sender_id = std::atoi(ProcessStatus(sender, "Tgid").c_str());
  if (signal == 0 || (call == SYS_pidfd_send_signal && target == 0)) {
    return;
  }
  for (const auto& [id, process] : ListProcesses()) {
    const bool meant =
        target > 0 ? id == target
        : target == -1
            ? id != sender_id
            : GroupOf(id) == (target == 0 ? GroupOf(sender_id) : -target);
    if (meant && id != sender_id && MaySignal(sender, id)) {
      noted_.push_back({process, ProcessName(sender_id), sender_id, signal});
    }
  }
}

std::string SignalName(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal)
                         : std::string("SIG") + name;
}
