#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/rehearse/Watch.h"

/// A server that would have been started.
struct ServerStart {
  std::string program;
  std::string directory;  // the working directory
  std::vector<std::string> arguments;
  unsigned uid = 0;  // effective
  unsigned gid = 0;
};

/// Reads a call of execve(2) or execveat(2); none unless it would run a program
/// named "vellumcraft".
[[nodiscard]] std::optional<ServerStart> ReadServerStart(const HeldCall& call);

/// Lets a held call of execve run something harmless instead of the program:
/// while the call goes on, true(1) is mounted on that, which ends at once with
/// status 0, as a daemon does once it has gone into the background.
class StandIn {
 public:
  /// Before the call is answered; false when that can't be done.
  [[nodiscard]] bool Put(const std::string& program);

  /// After the answer: waits until the call has run it, and takes it away.
  void Remove(const HeldCall& call);

  [[nodiscard]] bool IsThere() const { return !place_.empty(); }

 private:
  std::string place_;
};
