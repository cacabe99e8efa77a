#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <vector>

#include "tools/rehearse/ReadFile.h"

struct sock_filter;

/// A system call that the kernel holds until it has been answered.
struct HeldCall {
  std::uint64_t id = 0;
  pid_t caller = 0;  // the thread
  int number = 0;
  std::array<std::uint64_t, 6> arguments = {};

  /// An argument that the kernel takes for an int or a process id.
  [[nodiscard]] int Int(std::size_t i) const {
    return static_cast<int>(arguments[i]);
  }
};

/// What the caller is told.
struct Answer {
  bool go_on = true;    // the kernel does what was asked
  int error = 0;        // else the call fails with this errno, or returns 0
  int descriptor = -1;  // else it returns a copy of this one
};

/// Watches system calls of a program and all its descendants: the kernel
/// announces each that a filter picks (seccomp(2), user notification) and holds
/// it until it has been answered.
class Watch {
 public:
  Watch() = default;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  virtual ~Watch() = default;

  /// In the process that is to be watched, before it runs the program: asks
  /// the kernel for announcements.  The descriptor they come from, -1 with
  /// errno when the kernel can't do that.
  [[nodiscard]] int Announce() const;

  /// In the process that watches: takes the descriptor of the other process.
  [[nodiscard]] bool Take(pid_t process, int fd);

  /// Ready for reading when an announcement waits; -1 when nothing is watched.
  [[nodiscard]] int Fd() const { return announcements_.Get(); }

  /// Answers one announced call.
  void AnswerNext();

 protected:
  [[nodiscard]] virtual std::vector<sock_filter> Filter() const = 0;
  [[nodiscard]] virtual Answer AnswerTo(const HeldCall& call) = 0;
  /// After the answer has been given.
  virtual void Answered(const HeldCall& /*call*/) {}
  /// False once the caller is gone and its id may be somebody else's.
  [[nodiscard]] bool IsWaiting(const HeldCall& call) const;

 private:
  SDescriptor announcements_;
};
