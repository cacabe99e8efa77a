// Adds the server's services to the host's services database.
//
//   touches    gstr_ServicesFile, after a backup beside it
//   identity   root for the edit, else the mail owner
//   reminders  "Add to services database:    ENTRY" when declined or failed
//   stops      answer "q", and "no" or "q" when asked whether to continue

#include "host/AddServices.h"

#include <netdb.h>

#include "console/Console.h"
#include "driver/Settings.h"
#include "host/RewriteHostFile.h"

namespace {

constexpr const char* pz_Checking = "Checking services database.... ";

constexpr const char* pz_Missing =
    "Your services database is missing the following entries:";

SString UpdateByHand() {
  return "If you use NIS or NIS+ you will need to update those databases by hand.  However if you want them added to the " +
         gstr_ServicesFile + " file, that can be done automatically.";
}

SString AskForUpdate() {
  return "Do you want " + gstr_ServicesFile + " updated for you? yes/no/quit ";
}

SString UpdateFailed() {
  return "WARNING: Update of " + gstr_ServicesFile +
         " failed.  You will have to update the services database manually.";
}

constexpr const char* pz_WillBeReminded =
    "You will be reminded to do this when the installation has been completed.";

// What the new block in the services file begins with.
constexpr const char* pz_BlockHead =
    "##\n"
    "## Services added during installation of Vellumcraft.\n"
    "## Sorry that they aren't in order....\n"
    "##\n";

constexpr int kPortColumn = 10;

// "smtp       25/tcp"
SString Entry(const SString& name, const SString& port) {
  return name + SString(' ', kPortColumn - name.Length()) + " " + port + "/tcp";
}

SStringList MissingEntries() {
  SStringList names = gstrl_Services;
  SStringList ports = gstrl_ServicePorts;
  SStringList missing;
  while (!names.IsEmpty()) {
    const SString name = names.Shift();
    const SString port = ports.Shift();
    if (getservbyname(name, "tcp") == nullptr) {
      missing.Push(Entry(name, port));
    }
  }
  return missing;
}

bool Remind(const SStringList& missing) {
  Print("\n");
  PrintMessage(pz_WillBeReminded);
  for (const SString& entry : missing) {
    gstrl_Reminders.Push("Add to services database:    " + entry);
  }
  gstrl_Reminders.Push("");
  return AskToContinue();
}

}  // namespace

bool UpdateServicesFile(const SStringList& entries) {
  return RewriteHostFile(gstr_ServicesFile, [&entries](SStringList lines) {
    SString content;
    while (lines.Get(0).HasMatch("^#")) {
      content += lines.Shift();
    }
    content += pz_BlockHead + entries.Join("\n") + "\n";
    return content + lines.Join();
  });
}

bool AddServices() {
  Print(pz_Checking);
  const SStringList missing = MissingEntries();
  if (missing.IsEmpty()) {
    Print("OK\n");
    return true;
  }
  Print("\n\n");
  PrintMessage(pz_Missing);
  Print("    " + missing.Join("\n    ") + "\n\n");
  PrintMessage(UpdateByHand());

  const char letter = AskLetter(AskForUpdate(), "yes");
  if (letter == 'q') {
    return false;
  }
  if (letter == 'y') {
    if (UpdateServicesFile(missing)) {
      return true;
    }
    PrintParagraph(UpdateFailed());
  }
  return Remind(missing);
}
