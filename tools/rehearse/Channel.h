#pragma once

#include <string>

/// What the two halves of a rehearsal tell each other: the one on the host,
/// which the user sees, and the one that is init in the name spaces.
struct Message {
  enum class Kind : char {
    kReady = 'R',     // to the host: prepared, the program is about to run
    kFailed = 'F',    // to the host: a line for people, nothing was run
    kNotFound = 'N',  // to the host: the program can't be run, errno
    kStopped = 'S',   // to the host: the program was stopped, signal
    kEnded = 'E',     // to the host: the wait status of the program
    kText = 'T',      // to the host: the report for people
    kJson = 'J',      // to the host: the report for programs
    kKeep = 'P',      // to the host: paths to keep, each ends in a NUL
    kSignal = 'K',    // to init: pass on a signal
    kContinue = 'C',  // to init: let the program go on
    kFinish = 'D'     // to init: all is saved, end
  };
  Kind kind = Kind::kFailed;
  std::string text;
};

/// Sends one message; false when the other half is gone.
[[nodiscard]] bool Send(int fd, Message::Kind kind, const std::string& text);

/// Waits for one message; false when the other half is gone.
[[nodiscard]] bool Receive(int fd, Message& message);
