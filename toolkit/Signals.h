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
