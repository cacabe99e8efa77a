// Stopping the run at any time, except while a step must not be cut.
//
// The handler may interrupt anything, so it only makes async-signal-safe calls.
// Nothing is lost by `_exit`: all output was written when it was printed.

#include "driver/Interrupts.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "toolkit/Signals.h"

volatile std::sig_atomic_t gf_OkToBeKilled = 1;
volatile std::sig_atomic_t gf_Killed = 0;

namespace {

constexpr int kEndedBySignal = 3;

constexpr std::string_view pz_PleaseWait =
    "\nPlease wait until I'm finished with this.\n\n";

// Blocks that defer, one within the other.
int deferring_blocks = 0;
bool console_is_gone = false;

}  // namespace

void SetupSignalHandler() {
  struct sigaction action = {};
  action.sa_handler = HandleSignals;
  sigfillset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    sigaction(signal, &action, nullptr);
  }
}

void HandleSignals(int /*signal*/) {
  if (gf_OkToBeKilled) {
    _exit(kEndedBySignal);
  }
  const int former_errno = errno;
  // A console that does not take the note shows when the step next prints.
  static_cast<void>(WriteWithoutSignal(STDOUT_FILENO, pz_PleaseWait));
  gf_Killed = 1;
  errno = former_errno;
}

void EndWithoutConsole() {
  if (gf_OkToBeKilled) {
    _exit(kEndedBySignal);
  }
  console_is_gone = true;
  gf_Killed = 1;
}

SDeferInterrupts::SDeferInterrupts() {
  ++deferring_blocks;
  gf_OkToBeKilled = 0;
}

SDeferInterrupts::~SDeferInterrupts() {
  if (--deferring_blocks > 0) {
    return;
  }
  gf_OkToBeKilled = 1;
  if (console_is_gone) {
    _exit(kEndedBySignal);
  }
}

ssize_t WriteWithoutSignal(int fd, std::string_view bytes) {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction former = {};
  sigaction(SIGPIPE, &ignore, &former);
  const SFailAtSizeLimit no_signal;
  const ssize_t written = write(fd, bytes.data(), bytes.size());
  const int write_errno = errno;
  if (written < 0) {
    // In the handler, whose mask is full, a signal was not ignored but is
    // pending; ignoring it again discards it.
    sigaction(SIGPIPE, &ignore, nullptr);
    sigaction(SIGXFSZ, &ignore, nullptr);
  }
  sigaction(SIGPIPE, &former, nullptr);
  errno = write_errno;
  return written;
}

void WaitSeconds(int seconds) {
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += seconds;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) ==
         EINTR) {
  }
}
