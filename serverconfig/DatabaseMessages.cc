#include "serverconfig/DatabaseMessages.h"

#include "console/Console.h"
#include "driver/Settings.h"

const char* const pz_ContactVendor =
    "Contact your Vellumcraft vendor if you need help resolving this problem.";

const char* const pz_InstallationAborted = "Installation aborted.";

SString ConfigDirectory() {
  return gstr_Vellumcraft + "config";
}

SString DatabaseOwnership() {
  return "The directory should be owned by " + gstr_MailOwner + " with group " +
         gstr_MailGroup +
         " and mode 750.  Each database in the directory should have the same owner and group, and have mode 640.";
}

void PrintConfigurationTrouble() {
  PrintMessage(
      "ERROR: Couldn't open a configuration database. There is probably a permission problem in the " +
      ConfigDirectory() + " directory.");
  PrintMessage(DatabaseOwnership());
  PrintMessage(pz_ContactVendor);
  PrintMessage(pz_InstallationAborted);
}
