#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Descriptor.h"
#include "tools/rehearse/Processes.h"

/// One process that another one signalled.
struct Signalled {
  Process target;
  std::string sender;  // the sender's name
  pid_t sender_id = 0;
  int signal = 0;
};

/// Watches the signals that a program and all its descendants send, without
/// altering them: the kernel announces each such system call (seccomp(2), user
/// notification) and goes on with it once that has been noted.
class SignalWatch {
 public:
  /// In the process that is to be watched, before it runs the program: asks
  /// the kernel for announcements.  The descriptor they come from, -1 with
  /// errno when the kernel can't do that.
  [[nodiscard]] static int Announce();

  /// In the process that watches: takes the descriptor of the other process.
  [[nodiscard]] bool Take(pid_t process, int fd);

  /// Ready for reading when an announcement waits; -1 when nothing is watched.
  [[nodiscard]] int Fd() const { return announcements_.Get(); }

  /// Notes one announced system call and lets it go on.
  void Note();

  [[nodiscard]] const std::vector<Signalled>& Noted() const { return noted_; }
  void Forget() { noted_.clear(); }

 private:
  void NoteCall(pid_t sender, int call, const unsigned long long* arguments);

  Descriptor announcements_;
  std::vector<Signalled> noted_;
};

/// "SIGTERM" and the like.
[[nodiscard]] std::string SignalName(int signal);
