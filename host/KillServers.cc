// Ends other servers that hold the mail server's ports.
//
//   touches    nothing; ends the processes that the administrator names
//   identity   root for the signals
//   reminders  "Shutdown server:    SERVICE" when none is named, "Kill program
//              (and prevent boot startup): NAME" when one can't be killed, both
//              of which block the server start; "Prevent boot startup of 'NAME'"
//              when it was; "Kill -HUP [inetd-pid]"
//   stops      nothing

#include "host/KillServers.h"

#include <csignal>

#include "console/Console.h"
#include "driver/Settings.h"
#include "host/Processes.h"

namespace {

constexpr const char* pz_Checking = "Checking for active server processes.... ";

constexpr const char* pz_ActiveServers =
    "Vellumcraft replaces many services, some of which are currently active.  Before you can start up Vellumcraft, you will have to shutdown these servers.  You have active servers for the following:";

constexpr const char* pz_CanBeListed =
    "If you don't already know the names of the servers that have these ports open, they can be listed for you.  Do you want to see a list of processes currently running on your system?";

constexpr const char* pz_ListThem = "List running processes? yes/no ";

constexpr const char* pz_HereIsAList =
    "Here is a list of some of the processes currently running on your system:";

constexpr const char* pz_PleaseSpecify =
    "Please specify which processes need to be killed to free up the services noted above. To kill them, list them here separated by commas or spaces.";

constexpr const char* pz_PressReturn =
    "Press 'Return' if you don't want any processes killed.";

constexpr const char* pz_WhichProcesses = "Which processes?  ";

constexpr const char* pz_NoneKilled = "No processes killed.";

// Never the holders of a mail port.
constexpr const char* const kNotOffered[] = {
    "sched",   "swapper",  "init", "pageout", "pagedaemon",
    "fsflush", "Install",  "biod", "cmdtool", "cron",
    "csh",     "in.named", "ksh",  "listen",  "lockd",
    "lpsched", "openwin",  "ps",   "sh",      "statd",
    "syslogd", "tcsh",     "vi",   "xinit",   "xnews"};

constexpr int kServiceWidth = 10;
constexpr int kNameWidth = 12;
constexpr int kNamesInRow = 4;

constexpr const char* kIndent = "        ";
constexpr const char* kServiceIndent = "\n                    ";

// "smtp      (port=25)"
SStringList BusyPorts() {
  const SStringList bound = BoundSockets();
  SStringList busy;
  for (int i = 0; i < gstrl_Services.Count(); ++i) {
    const SString& name = gstrl_Services.Get(i);
    const SString& port = gstrl_ServicePorts.Get(i);
    if (bound.Contains(port)) {
      busy.Push(name + SString(' ', kServiceWidth - name.Length()) +
                "(port=" + port + ")");
    }
  }
  return busy;
}

// The names that are worth a thought, each once, in order.
SStringList NamesToOffer(const SStringList& processes) {
  SStringList names = processes.Grep("s/.* //");
  names.Sort();
  names.Unique();
  for (const char* name : kNotOffered) {
    names.Delete(name);
  }
  return names;
}

void PrintNames(SStringList names) {
  SString rows = kIndent;
  for (int column = 1; !names.IsEmpty(); ++column) {
    const SString name = names.Shift();
    rows += name;
    if (column < kNamesInRow) {
      rows += " " + SString(' ', kNameWidth - name.Length());
    } else if (!names.IsEmpty()) {
      rows += SString("\n") + kIndent;
      column = 0;
    }
  }
  Print(rows + "\n\n");
}

void OfferList(const SStringList& processes) {
  PrintMessage(pz_CanBeListed);
  if (AskLetter(pz_ListThem, "yes") == 'y') {
    PrintMessage(pz_HereIsAList);
    PrintNames(NamesToOffer(processes));
  }
}

SStringList AskWhichToKill() {
  PrintMessage(pz_PleaseSpecify);
  PrintMessage(pz_PressReturn);
  Print(pz_WhichProcesses);
  return GetInput("", 0).Split("[\\s,]+");
}

void RemindOfServers(const SStringList& busy) {
  for (const SString& service : busy) {
    gstrl_Reminders.Push("Shutdown server:    " + service);
  }
  gstrl_Reminders.Push("");
  gf_ShowStoppers = 1;
  PrintMessage(pz_NoneKilled);
}

// Starts its other services again when it is not ended but hung up.
void ResetInetd() {
  if (KillProgram("inetd", SIGHUP) != 0) {
    Print(SString(kIndent) + "Killed (with -HUP) inetd\n");
    return;
  }
  Print(SString(kIndent) + "Couldn't 'kill -HUP [inetd-pid]'\n");
  gstrl_Reminders.Push("Kill -HUP [inetd-pid]");
}

void Kill(const SString& name) {
  if (KillProgram(name, SIGTERM) != 0) {
    Print(SString(kIndent) + "Killed " + name + "\n");
    gstrl_Reminders.Push("Prevent boot startup of '" + name + "'");
    return;
  }
  Print(SString(kIndent) + "Couldn't kill " + name + "\n");
  gstrl_Reminders.Push("Kill program (and prevent boot startup): " + name);
  gf_ShowStoppers = 1;
}

void KillAll(const SStringList& names) {
  for (const SString& name : names) {
    if (name == "inetd") {
      ResetInetd();
    } else {
      Kill(name);
    }
  }
  Print("\n");
  gstrl_Reminders.Push("");
}

}  // namespace

bool KillServers() {
  Print(pz_Checking);
  const SStringList busy = BusyPorts();
  if (busy.IsEmpty()) {
    Print("none found (that's good)\n");
    return true;
  }
  const SStringList processes = ReadProcessInfo();
  gf_VellumcraftIsRunning = processes.Grep("/ vellumcra?f?t?$/").Count();
  if (gf_VellumcraftIsRunning != 0) {
    Print("Vellumcraft is running\n");
    return true;
  }
  Print("\n\n");
  PrintParagraph(pz_ActiveServers);
  Print(kServiceIndent + busy.Join(kServiceIndent) + "\n\n");
  OfferList(processes);

  const SStringList names = AskWhichToKill();
  if (names.IsEmpty()) {
    RemindOfServers(busy);
  } else {
    KillAll(names);
  }
  return true;
}
