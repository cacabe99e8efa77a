#pragma once

#include <csignal>

/// Holds back HUP, INT, QUIT and TERM to the end of the enclosing block; what
/// arrives meanwhile is delivered then.  For stores of a few system calls.
class [[nodiscard]] SHoldSignals {
 public:
  SHoldSignals();
  ~SHoldSignals();
  SHoldSignals(const SHoldSignals&) = delete;
  SHoldSignals& operator=(const SHoldSignals&) = delete;

 private:
  sigset_t former_;
};

/// To the end of the enclosing block what would make a file larger than the
/// process may make it fails with EFBIG, as a full disk fails, instead of ending
/// the process by SIGXFSZ.  Costs no system call within a block that has it
/// already.
class [[nodiscard]] SFailAtSizeLimit {
 public:
  SFailAtSizeLimit();
  ~SFailAtSizeLimit();
  SFailAtSizeLimit(const SFailAtSizeLimit&) = delete;
  SFailAtSizeLimit& operator=(const SFailAtSizeLimit&) = delete;

 private:
  struct sigaction former_;
};
