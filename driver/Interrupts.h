#pragma once

#include <sys/types.h>

#include <csignal>
#include <string_view>

/// Set (the initial state) while a signal may end the run at once.
extern volatile std::sig_atomic_t gf_OkToBeKilled;
/// Set when a signal arrived while the end of the run was deferred.
extern volatile std::sig_atomic_t gf_Killed;

/// Installs `HandleSignals` for HUP, INT, QUIT and TERM, with every signal
/// masked while it runs and interrupted system calls restarted.
void SetupSignalHandler();

/// Ends the process with status 3, or, while that is deferred, prints a note
/// and sets `gf_Killed`.  Async-signal-safe.
void HandleSignals(int signal);

/// Ends the run as a hang-up does because the console is gone: at once with
/// status 3, or at the end of the step in hand when that one defers
/// interrupts (then this returns and nothing more can be printed).
void EndWithoutConsole();

/// Defers the end of the run by a signal to the end of the enclosing block.
class [[nodiscard]] SDeferInterrupts {
 public:
  SDeferInterrupts();
  ~SDeferInterrupts();
  SDeferInterrupts(const SDeferInterrupts&) = delete;
  SDeferInterrupts& operator=(const SDeferInterrupts&) = delete;
};

/// One write(2) that reports a reader that is gone and a file that may not grow
/// by EPIPE and EFBIG only, never by SIGPIPE and SIGXFSZ, whose actions are as
/// before when this returns.  Async-signal-safe.
[[nodiscard]] ssize_t WriteWithoutSignal(int fd, std::string_view bytes);

/// Waits that many seconds, however many signals arrive meanwhile.
void WaitSeconds(int seconds);
