#include "toolkit/Signals.h"

#include <cerrno>
#include <initializer_list>

SHoldSignals::SHoldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    sigaddset(&held, signal);
  }
  sigprocmask(SIG_BLOCK, &held, &former_);
}

SHoldSignals::~SHoldSignals() {
  const int former_errno = errno;
  sigprocmask(SIG_SETMASK, &former_, nullptr);
  errno = former_errno;
}

SFailAtSizeLimit::SFailAtSizeLimit() : former_{} {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGXFSZ, &ignore, &former_);
}

SFailAtSizeLimit::~SFailAtSizeLimit() {
  const int former_errno = errno;
  sigaction(SIGXFSZ, &former_, nullptr);
  errno = former_errno;
}
