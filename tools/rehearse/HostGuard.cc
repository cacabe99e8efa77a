#include "tools/rehearse/HostGuard.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "tools/rehearse/CallFilter.h"
#include "tools/rehearse/CallerMemory.h"
#include "tools/rehearse/Descendants.h"
#include "tools/rehearse/NetworkCalls.h"

namespace {

struct NamedCall {
  int number;
  const char* what;
};

// What changes the host, or is a way round this guard.
constexpr std::array kRefused = std::to_array<NamedCall>({
    {SYS_mount, "mount"},
    {SYS_umount2, "umount"},
    {SYS_pivot_root, "pivot_root"},
    {SYS_move_mount, "move_mount"},
    {SYS_open_tree, "open_tree"},
    {SYS_fsopen, "fsopen"},
    {SYS_fsmount, "fsmount"},
    {SYS_mount_setattr, "mount_setattr"},
    {SYS_setns, "setns"},
    {SYS_swapon, "swapon"},
    {SYS_swapoff, "swapoff"},
    {SYS_reboot, "reboot"},
    {SYS_kexec_load, "kexec_load"},
    {SYS_sethostname, "sethostname"},
    {SYS_setdomainname, "setdomainname"},
    {SYS_settimeofday, "settimeofday"},
    {SYS_clock_settime, "clock_settime"},
    {SYS_init_module, "init_module"},
    {SYS_finit_module, "finit_module"},
    {SYS_delete_module, "delete_module"},
    {SYS_acct, "acct"},
    {SYS_quotactl, "quotactl"},
    {SYS_vhangup, "vhangup"},
    {SYS_open_by_handle_at, "open_by_handle_at"},
    {SYS_bpf, "bpf"},
    {SYS_perf_event_open, "perf_event_open"},
    {SYS_add_key, "add_key"},
    {SYS_request_key, "request_key"},
    {SYS_keyctl, "keyctl"},
    {SYS_ptrace, "ptrace"},
    {SYS_process_vm_readv, "process_vm_readv"},
    {SYS_process_vm_writev, "process_vm_writev"},
    {SYS_process_madvise, "process_madvise"},
    {SYS_pidfd_getfd, "pidfd_getfd"},
    {SYS_migrate_pages, "migrate_pages"},
    {SYS_move_pages, "move_pages"},
});

// New name spaces would bring rights with them.
constexpr unsigned kNewNameSpaces = CLONE_NEWNS | CLONE_NEWCGROUP |
                                    CLONE_NEWUTS | CLONE_NEWIPC |
                                    CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

// Who gets the signals of a descriptor; typing on another's terminal.
constexpr std::array<unsigned, 6> kRefusedRequests = {
    FIOSETOWN, SIOCSPGRP, TIOCSTI, TIOCCONS, TIOCLINUX, TIOCSIG};

// Calls that change a process, and the argument that names it, 0 the caller.
struct ProcessCall {
  int number;
  unsigned argument;
  const char* what;
};

constexpr std::array kProcessCalls = std::to_array<ProcessCall>({
    {SYS_prlimit64, 0, "prlimit"},
    {SYS_sched_setaffinity, 0, "sched_setaffinity"},
    {SYS_sched_setparam, 0, "sched_setparam"},
    {SYS_sched_setscheduler, 0, "sched_setscheduler"},
    {SYS_sched_setattr, 0, "sched_setattr"},
    {SYS_setpriority, 1, "setpriority"},
    {SYS_ioprio_set, 1, "ioprio_set"},
    {SYS_fcntl, 2, "fcntl"},
});

// As far as a name has to be read to know whether it is one of /proc.
constexpr std::size_t kLongestPath = 64;

// The first argument of setpriority(2) and of ioprio_set(2) for one process.
constexpr int kIoPriorityOfProcess = 1;

const std::vector<int>& OpenCalls() {
  static const std::vector<int> calls = {
#ifdef SYS_open
      SYS_open,
#endif
      SYS_openat, SYS_openat2};
  return calls;
}

bool IsAnyOf(const std::vector<int>& numbers, int number) {
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

pid_t ProcessOfThread(pid_t thread) {
  return std::atoi(ProcessStatus(thread, "Tgid").c_str());
}

bool IsRehearsed(pid_t process) {
  return IsDescendant(process, getpid());
}

}  // namespace

std::vector<sock_filter> HostGuard::Filter() const {
  CallFilter filter(CallFilter::Foreign::kFail);
  for (const int number : SignalCalls()) {
    filter.Announce(number);
  }
  for (const int number : OpenCalls()) {
    filter.Announce(number);
  }
  filter.Announce(SYS_execve);
  filter.Announce(SYS_execveat);
  for (const int number : NetworkCalls()) {
    if (number == SYS_sendto) {
      filter.AnnounceUnlessZero(number, 4);
    } else {
      filter.Announce(number);
    }
  }
  for (const NamedCall& call : kRefused) {
    filter.Announce(call.number);
  }
  for (const ProcessCall& call : kProcessCalls) {
    if (call.number == SYS_fcntl) {
      filter.AnnounceIf(call.number, 1, F_SETOWN);
      filter.AnnounceIf(call.number, 1, F_SETOWN_EX);
    } else if (call.number == SYS_setpriority ||
               call.number == SYS_ioprio_set) {
      filter.Announce(call.number);  // 0 may be a whole user
    } else {
      filter.AnnounceUnlessZero(call.number, call.argument);
    }
  }
  for (const unsigned request : kRefusedRequests) {
    filter.AnnounceIf(SYS_ioctl, 1, request);
  }
  filter.AnnounceIfAny(SYS_unshare, 0, kNewNameSpaces);
  filter.AnnounceIfAny(SYS_clone, 0, kNewNameSpaces);
  // Its flags can't be seen by a filter; callers then use clone(2).  Rings
  // make calls that no filter sees at all.
  filter.Fail(SYS_clone3, ENOSYS);
  filter.Fail(SYS_io_uring_setup, ENOSYS);
  return filter.Finish();
}

Answer HostGuard::AnswerTo(const HeldCall& call) {
  if (IsAnyOf(SignalCalls(), call.number)) {
    return AnswerSignal(call);
  }
  if (call.number == SYS_execve || call.number == SYS_execveat) {
    return AnswerStart(call);
  }
  if (IsAnyOf(OpenCalls(), call.number)) {
    return AnswerOpen(call);
  }
  if (IsAnyOf(NetworkCalls(), call.number)) {
    const Contact contact = ContactOf(call);
    return contact.what.empty() ? Answer{}
                                : Refuse(call, contact.what, contact.error);
  }
  for (const NamedCall& refused : kRefused) {
    if (refused.number == call.number) {
      return Refuse(call, refused.what, EPERM);
    }
  }
  switch (call.number) {
    case SYS_ioctl:
      return Refuse(call, "ioctl", EPERM);
    case SYS_unshare:
    case SYS_clone:
      return Refuse(call, "new name spaces", EPERM);
    default:
      return AnswerAboutProcess(call);
  }
}

void HostGuard::Answered(const HeldCall& call) {
  if (stand_in_.IsThere()) {
    stand_in_.Remove(call);
  }
}

Answer HostGuard::AnswerSignal(const HeldCall& call) {
  const std::optional<SignalRequest> request = ReadSignalCall(call);
  if (!request) {
    return {false, EBADF};
  }
  if (request->signal < 0 || request->signal >= NSIG) {
    return {false, EINVAL};
  }
  const bool many = request->target <= 0 && (call.number == SYS_kill);
  return many ? SignalMany(*request) : SignalOne(call, *request);
}

Answer HostGuard::SignalOne(const HeldCall& call,
                            const SignalRequest& request) {
  const pid_t process = ProcessOfThread(request.target);
  if (process == 0) {
    return {false, request.target > 0 ? ESRCH : EINVAL};
  }
  if (process == request.sender || IsRehearsed(process)) {
    if (call.number != SYS_pidfd_send_signal) {
      return {};
    }
    // The descriptor may be another one when the call goes on.
    if (!MaySignal(call.caller, process)) {
      return {false, EPERM};
    }
    return {false, kill(process, request.signal) == 0 ? 0 : errno};
  }
  if (!MaySignal(call.caller, process)) {
    return {false, EPERM};
  }
  if (request.signal != 0) {
    SignalRequest to_process = request;
    to_process.target = process;
    for (const Process& target : TargetsOf(to_process)) {
      NoteSignal(request, target);
    }
  }
  return {false, 0};
}

Answer HostGuard::SignalMany(const SignalRequest& request) {
  const std::vector<Process> targets = TargetsOf(request);
  const bool all_ours =
      std::all_of(targets.begin(), targets.end(),
                  [](const Process& target) { return IsRehearsed(target.id); });
  if (request.target != -1 && all_ours) {
    return {};
  }
  bool permitted = false;
  for (const Process& target : targets) {
    const bool is_init = request.target == -1 && target.id == 1;
    if (is_init || !MaySignal(request.sender, target.id)) {
      continue;
    }
    permitted = true;
    if (IsRehearsed(target.id)) {
      kill(target.id, request.signal);
    } else if (request.signal != 0) {
      NoteSignal(request, target);
    }
  }
  return {false, permitted ? 0 : targets.empty() ? ESRCH : EPERM};
}

void HostGuard::NoteSignal(const SignalRequest& request,
                           const Process& target) {
  const std::string sender = ProcessName(request.sender);
  signals_.push_back({target, sender, request.sender, request.signal,
                      aftermath_.Take(target, request.signal)});
}

// A file is opened where the program says; only the lists of ports are made up.
Answer HostGuard::AnswerOpen(const HeldCall& call) {
  const std::size_t path =
      call.number == SYS_openat2 || call.number == SYS_openat ? 1 : 0;
  const std::optional<std::string> content = aftermath_.Instead(
      ReadString(call.caller, call.arguments[path], kLongestPath));
  if (!content || !IsWaiting(call)) {
    return {};
  }
  instead_ = SDescriptor(memfd_create("ports", MFD_CLOEXEC));
  if (!WriteAll(instead_.Get(), *content) ||
      lseek(instead_.Get(), 0, SEEK_SET) != 0) {
    return {};
  }
  Answer answer;
  answer.descriptor = instead_.Get();
  return answer;
}

Answer HostGuard::AnswerStart(const HeldCall& call) {
  const std::optional<ServerStart> start = ReadServerStart(call);
  if (!start || !IsWaiting(call)) {
    return {};
  }
  starts_.push_back(*start);
  return stand_in_.Put(start->program) ? Answer{} : Answer{false, EACCES};
}

Answer HostGuard::AnswerAboutProcess(const HeldCall& call) {
  for (const ProcessCall& known : kProcessCalls) {
    if (known.number != call.number) {
      continue;
    }
    const bool has_kind =
        call.number == SYS_setpriority || call.number == SYS_ioprio_set;
    const int one_process =
        call.number == SYS_setpriority ? PRIO_PROCESS : kIoPriorityOfProcess;
    const bool of_one = (!has_kind || call.Int(0) == one_process) &&
                        (call.number != SYS_fcntl || call.Int(1) == F_SETOWN);
    const pid_t process = call.Int(known.argument);
    if (of_one && (process == 0 || IsRehearsed(ProcessOfThread(process)))) {
      return {};
    }
    return Refuse(call, std::string(known.what) + " of other processes", EPERM);
  }
  return {};
}

Answer HostGuard::Refuse(const HeldCall& call, const std::string& what,
                         int error) {
  ++refusals_[{what, ProcessName(ProcessOfThread(call.caller))}];
  return {false, error};
}

std::vector<Refusal> HostGuard::Refusals() const {
  std::vector<Refusal> refusals;
  for (const auto& [about, count] : refusals_) {
    refusals.push_back({about.first, about.second, count});
  }
  return refusals;
}
