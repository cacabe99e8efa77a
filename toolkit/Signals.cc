#include "toolkit/Signals.h"

#include <cerrno>
#include <initializer_list>

namespace {

// That fail at the size limit, one within another.  A signal handler may begin
// one at any time: the count tells only of signals that are ignored already.
volatile std::sig_atomic_t blocks = 0;

sigset_t HeldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    sigaddset(&held, signal);
  }
  return held;
}

}  // namespace

SHoldSignals::SHoldSignals() {
  static const sigset_t held = HeldSignals();
  sigprocmask(SIG_BLOCK, &held, &former_);
}

SHoldSignals::~SHoldSignals() {
  const int former_errno = errno;
  sigprocmask(SIG_SETMASK, &former_, nullptr);
  errno = former_errno;
}

SFailAtSizeLimit::SFailAtSizeLimit() : former_{} {
  if (blocks == 0) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &former_);
  }
  blocks = blocks + 1;
}

SFailAtSizeLimit::~SFailAtSizeLimit() {
  blocks = blocks - 1;
  if (blocks > 0) {
    return;
  }
  const int former_errno = errno;
  sigaction(SIGXFSZ, &former_, nullptr);
  errno = former_errno;
}
