#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/rehearse/Processes.h"
#include "tools/rehearse/Watch.h"

/// One process that another one signalled.
struct Signalled {
  Process target;
  std::string sender;  // the sender's name
  pid_t sender_id = 0;
  int signal = 0;
  std::string effect;  // what the target is taken to have done, if anything
};

/// What a system call that sends a signal asks for.
struct SignalRequest {
  pid_t sender = 0;  // the process
  pid_t target = 0;  // as kill(2) takes it; a thread's for some calls
  int signal = 0;
};

/// The numbers of all system calls that send signals.
[[nodiscard]] const std::vector<int>& SignalCalls();

/// Reads such a call; none when it names no process.
[[nodiscard]] std::optional<SignalRequest> ReadSignalCall(const HeldCall& call);

/// The processes that a request means, the caller of this excepted.
[[nodiscard]] std::vector<Process> TargetsOf(const SignalRequest& request);

/// kill(2): root may signal anybody, others only processes of their own.
[[nodiscard]] bool MaySignal(pid_t sender, pid_t target);

/// Notes the signals that a program and all its descendants send, without
/// altering them.
class SignalWatch : public Watch {
 public:
  [[nodiscard]] const std::vector<Signalled>& Noted() const { return noted_; }
  void Forget() { noted_.clear(); }

 protected:
  [[nodiscard]] std::vector<sock_filter> Filter() const override;
  [[nodiscard]] Answer AnswerTo(const HeldCall& call) override;

 private:
  std::vector<Signalled> noted_;
};

/// "SIGTERM" and the like.
[[nodiscard]] std::string SignalName(int signal);
