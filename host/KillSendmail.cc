// Ends a running sendmail daemon, which would keep the mail port.
//
//   touches    nothing; ends processes whose names contain "sendmail"
//   identity   root for the signals
//   reminders  "Shutdown sendmail daemon process" when declined or failed; it
//              blocks the server start
//   stops      answer "q"

#include "host/KillSendmail.h"

#include <csignal>

#include "console/Console.h"
#include "driver/Settings.h"
#include "host/Processes.h"

namespace {

constexpr const char* pz_Checking = "Checking for sendmail daemon.... ";

constexpr const char* pz_NeedsShutdown =
    "Sendmail needs to be shutdown for Vellumcraft to have access to the mail port.  Do you want the server killed now?";

constexpr const char* pz_KillIt = "Kill sendmail daemon process? yes/no/quit ";

constexpr const char* pz_Killed = "Sendmail killed successfully.\n\n";

constexpr const char* pz_NotKilled = "Unable to kill sendmail.\n\n";

constexpr const char* pz_WillBeReminded =
    "You will be reminded to do this when the installation has been completed.";

SStringList SendmailProcesses() {
  return ReadProcessInfo().Grep("/sendmail/");
}

// A question may wait for hours: an id found before it may be another process
// by now.
SStringList StillRunning(const SStringList& processes) {
  const SStringList now = SendmailProcesses();
  SStringList running;
  for (const SString& line : processes) {
    if (now.Contains(line)) {
      running.Push(line);
    }
  }
  return running;
}

bool Kill(const SStringList& processes) {
  const bool killed = SignalProcesses(StillRunning(processes), SIGTERM) != 0;
  Print(killed ? pz_Killed : pz_NotKilled);
  return killed;
}

void Remind() {
  PrintMessage(pz_WillBeReminded);
  gstrl_Reminders.Push("Shutdown sendmail daemon process");
  gstrl_Reminders.Push("");
  gf_ShowStoppers = 1;
}

}  // namespace

bool KillSendmail() {
  Print(pz_Checking);
  const SStringList processes = SendmailProcesses();
  if (processes.IsEmpty()) {
    Print("not found (that's good)\n");
    return true;
  }
  Print("found\n\n");
  PrintMessage(pz_NeedsShutdown);
  const char letter = AskLetter(pz_KillIt, "yes");
  if (letter == 'q') {
    return false;
  }
  if (letter != 'y' || !Kill(processes)) {
    Remind();
  }
  return true;
}
