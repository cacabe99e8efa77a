// Starts the mail server's daemon.
//
//   touches    nothing; starts one process that is never waited for, or sends
//              signal 1 to the running daemon
//   identity   root in the new process only
//   stops      problems that are not solved, no process to be had

#include "driver/StartDaemon.h"

#include <unistd.h>

#include <csignal>

#include "console/Console.h"
#include "driver/Interrupts.h"
#include "driver/Settings.h"
#include "driver/WarnAdmin.h"
#include "host/Processes.h"
#include "toolkit/Privileges.h"

namespace {

// Without a directory: found in the directory in which the program was started.
constexpr const char* pz_Daemon = "vellumcraft";

constexpr int kForkAttempts = 5;
constexpr int kSecondsForStartMessages = 4;
constexpr int kCommandNotFound = 127;

constexpr const char* pz_ProblemsLeft =
    "Before starting Vellumcraft, you should take care of the problems that were noted earlier in the installation procedure.  If you don't, the system may not function properly.";

constexpr const char* pz_Unresolved = "The unresolved items are:";

constexpr const char* pz_StartAnyway =
    "Do you want to try to start the system anyway? yes/no/quit ";

constexpr const char* pz_Starting = "Starting vellumcraft...";

constexpr const char* pz_ErrorsShowNow =
    "If there is a problem, error messages will show up now.";

constexpr const char* pz_NoProcess =
    "ERROR:  Couldn't create a new process with the fork(2) system call.  Try again when the system is less loaded.";

bool AskToStartAnyway() {
  Print("\n");
  PrintMessage(pz_ProblemsLeft);
  PrintMessage(pz_Unresolved);
  Print(ReminderLines(gstrl_Reminders));
  return AskLetter(pz_StartAnyway, "no") == 'y';
}

// A child, waiting longer after each failure; -1 when there is none to be had.
pid_t ForkPatiently() {
  for (int attempt = 1; attempt <= kForkAttempts; ++attempt) {
    const pid_t child = fork();
    if (child >= 0) {
      return child;
    }
    WaitSeconds(attempt);
  }
  return -1;
}

// The daemon outlives this program and whoever called it: it must not keep
// their descriptors open nor ignore what they ignored.
void LeaveNothingBehind() {
  static_cast<void>(close_range(STDERR_FILENO + 1, ~0U, 0));
  for (int number = 1; number < NSIG; ++number) {
    signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunDaemon(const SStringList& arguments) {
  if (BecomeRootForGood()) {
    LeaveNothingBehind();
    execv(pz_Daemon, arguments);
  }
  _exit(kCommandNotFound);
}

}  // namespace

bool StartDaemon() {
  if (gf_VellumcraftIsRunning != 0) {
    KillProgram(pz_Daemon, SIGHUP);
    return true;
  }
  if (gf_ShowStoppers != 0 && !AskToStartAnyway()) {
    return false;
  }
  PrintMessage(pz_Starting);
  PrintMessage(pz_ErrorsShowNow);

  SStringList arguments = pz_Daemon;
  if (!gstr_forThisIP.IsEmpty()) {
    arguments.Push(gstr_forThisIP);
  }
  const pid_t child = ForkPatiently();
  if (child < 0) {
    PrintMessage(pz_NoProcess);
    return false;
  }
  if (child == 0) {
    RunDaemon(arguments);
  }
  WaitSeconds(kSecondsForStartMessages);
  Print("\n");
  return true;
}
