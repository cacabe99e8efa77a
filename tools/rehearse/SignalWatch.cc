#include "tools/rehearse/SignalWatch.h"

#include <linux/filter.h>
#include <signal.h>
#include <sys/syscall.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tools/rehearse/CallFilter.h"

namespace {

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

}  // namespace

const std::vector<int>& SignalCalls() {
  static const std::vector<int> calls = {SYS_kill,
                                         SYS_tkill,
                                         SYS_tgkill,
                                         SYS_rt_sigqueueinfo,
                                         SYS_rt_tgsigqueueinfo,
                                         SYS_pidfd_send_signal};
  return calls;
}

std::optional<SignalRequest> ReadSignalCall(const HeldCall& call) {
  const bool has_group =
      call.number == SYS_tgkill || call.number == SYS_rt_tgsigqueueinfo;
  SignalRequest request;
  // A call comes from a thread; the process is what is known by name.
  request.sender = std::atoi(ProcessStatus(call.caller, "Tgid").c_str());
  request.signal = call.Int(has_group ? 2 : 1);
  request.target = call.Int(0);
  if (call.number == SYS_pidfd_send_signal) {
    request.target = ProcessOfDescriptor(call.caller, call.arguments[0]);
    if (request.target == 0) {
      return std::nullopt;
    }
  }
  return request;
}

std::vector<Process> TargetsOf(const SignalRequest& request) {
  std::vector<Process> targets;
  for (const auto& [id, process] : ListProcesses()) {
    const pid_t target = request.target;
    const bool meant =
        target > 0 ? id == target
        : target == -1
            ? id != request.sender
            : GroupOf(id) == (target == 0 ? GroupOf(request.sender) : -target);
    if (meant) {
      targets.push_back(process);
    }
  }
  return targets;
}

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

std::vector<sock_filter> SignalWatch::Filter() const {
  CallFilter filter(CallFilter::Foreign::kGoOn);
  for (const int number : SignalCalls()) {
    filter.Announce(number);
  }
  return filter.Finish();
}

Answer SignalWatch::AnswerTo(const HeldCall& call) {
  const std::optional<SignalRequest> request = ReadSignalCall(call);
  if (!request || request->signal == 0) {
    return {};
  }
  for (const Process& process : TargetsOf(*request)) {
    if (process.id != request->sender && MaySignal(call.caller, process.id)) {
      noted_.push_back({process, ProcessName(request->sender), request->sender,
                        request->signal, ""});
    }
  }
  return {};
}

std::string SignalName(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal)
                         : std::string("SIG") + name;
}
