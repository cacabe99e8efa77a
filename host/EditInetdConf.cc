// Takes the mail services away from the Internet daemon.
//
//   touches    gstr_InetdConf, after a backup beside it; hangs up inetd
//   identity   root to read and edit the file and to signal, else the mail owner
//   reminders  "Remove from FILE:   SERVICE" when declined or failed,
//              "kill -HUP [inetd-pid]"; both block the server start when inetd
//              may still answer for SMTP
//   stops      answer "q", and "no" or "q" when asked whether to continue

#include "host/EditInetdConf.h"

#include <csignal>

#include "console/Console.h"
#include "driver/Settings.h"
#include "host/Processes.h"
#include "host/RewriteHostFile.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

// Further names under which inetd may have the server's services.
constexpr const char* const kOtherNames[] = {"mail", "pop-3"};

constexpr const char* pz_Checking = "Checking inetd configuration.... ";

SString CouldNotOpen() {
  return "WARNING: Couldn't open " + gstr_InetdConf;
}

constexpr const char* pz_Conflicts =
    "Your Internet Daemon (inetd) is currently configured to handle the following services:";

SString NeedToBeDisabled() {
  return "These will need to be disabled in " + gstr_InetdConf +
         " for the mail system to be able to take over for inetd.";
}

constexpr const char* pz_DoThis =
    "Would you like this to be done for you? yes/no/quit ";

SString UpdateFailed() {
  return "WARNING: Update of " + gstr_InetdConf +
         " failed.  You will have to update the configuration file manually later.";
}

constexpr const char* pz_ResetFailed =
    "WARNING: Couldn't reset inetd by sending it a HUP signal.  You will be reminded to do this when the installation is finished.";

constexpr const char* pz_WillBeReminded =
    "You will be reminded to do this when the installation has been completed.";

constexpr const char* pz_HangUp = "kill -HUP [inetd-pid]";

bool ReadConfiguration(SStringList* lines) {
  const SActAs as_root(SActAs::Root{});
  return ReadLines(gstr_InetdConf, lines);
}

// The services of the active lines that the mail server needs for itself.
SStringList FindConflicts(const SStringList& lines) {
  SStringList names = lines.Grep("!/^\\s*(#|$)/");
  names.S("^\\s+", "");
  names.S("\\s.*", "");

  SStringList wanted = gstrl_Services;
  for (const char* name : kOtherNames) {
    wanted.Push(name);
  }
  SStringList conflicts;
  for (const SString& name : wanted) {
    if (names.Contains(name)) {
      conflicts.Push(name);
    }
  }
  return conflicts;
}

bool IsMailTransport(const SString& service) {
  return service == "smtp" || service == "mail";
}

void BlockStartForMailTransport(const SStringList& services) {
  for (const SString& service : services) {
    if (IsMailTransport(service)) {
      gf_ShowStoppers = 1;
    }
  }
}

void ResetInetd(const SStringList& conflicts) {
  if (KillProgram("inetd", SIGHUP) != 0) {
    return;
  }
  PrintMessage(pz_ResetFailed);
  gstrl_Reminders.Push(pz_HangUp);
  gstrl_Reminders.Push("");
  BlockStartForMailTransport(conflicts);
}

bool Remind(const SStringList& conflicts) {
  PrintMessage(pz_WillBeReminded);
  for (const SString& name : conflicts) {
    gstrl_Reminders.Push("Remove from " + gstr_InetdConf + ":   " + name);
  }
  BlockStartForMailTransport(conflicts);
  gstrl_Reminders.Push("");
  gstrl_Reminders.Push(pz_HangUp);
  gstrl_Reminders.Push("");
  return AskToContinue();
}

char OfferEdit(const SStringList& conflicts) {
  Print("\n\n");
  PrintMessage(pz_Conflicts);
  Print("    " + conflicts.Join("\n    ") + "\n\n\n");
  PrintMessage(NeedToBeDisabled());
  return AskLetter(pz_DoThis, "yes");
}

}  // namespace

bool UpdateInetdConf(const SStringList& services) {
  const SString active = "^\\s*(" + services.Join("|") + ")(\\s)";
  return RewriteHostFile(gstr_InetdConf, [&active](SStringList lines) {
    lines.S(active, "#$1$2");
    return lines.Join();
  });
}

bool EditInetdConf() {
  Print(pz_Checking);
  SStringList lines;
  if (!ReadConfiguration(&lines)) {
    Print("\n\n");
    PrintMessage(CouldNotOpen());
    return true;
  }
  const SStringList conflicts = FindConflicts(lines);
  if (conflicts.IsEmpty()) {
    Print("OK\n");
    return true;
  }
  const char letter = OfferEdit(conflicts);
  if (letter == 'q') {
    return false;
  }
  if (letter != 'y') {
    Print("\n");
    return Remind(conflicts);
  }
  if (!UpdateInetdConf(conflicts)) {
    PrintMessage(UpdateFailed());
    return Remind(conflicts);
  }
  ResetInetd(conflicts);
  return true;
}
