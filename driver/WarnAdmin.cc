// The completion report.

#include "driver/WarnAdmin.h"

#include "console/Console.h"
#include "driver/Settings.h"

namespace {

constexpr const char* pz_TasksLeft =
    "The installation is complete but there are some tasks that you still need to do.  If the system generated any warnings when it started up (or if you didn't start it), then you should perform the unfinished tasks, and re-run this installation program.";

constexpr const char* pz_ToBeDone =
    "The following tasks still need to be done:";

constexpr const char* pz_Complete = "Installation is complete.";

constexpr const char* pz_ByBrowser =
    "To administer Vellumcraft using a World Wide Web browser such as NCSA Mosaic, use the URL:";

SString ByMail() {
  return "To administer Vellumcraft via E-mail, request account management forms from <Accounts@" +
         gstr_HostName + "> and configuration forms from <Configuration@" +
         gstr_HostName +
         ">.  The body of the message should contain a list of the forms you want to retrieve.  Account management forms include the \"Account\", \"List\", and \"SMTP aliases\" forms.  Configuration forms include the \"System\", \"Security\", \"SMTP\", and \"Queue\" forms.  For a complete list and detailed instructions, please refer to the Vellumcraft Reference Manual.";
}

SString WebAddress() {
  const SString port = gn_WWWPort == 80 ? SString() : ":" + SString(gn_WWWPort);
  return "http://" + gstr_HostName + port;
}

void PrintReminders() {
  PrintMessage(pz_TasksLeft);
  PrintParagraph(pz_ToBeDone);
  Print("\n" + ReminderLines(gstrl_Reminders));
}

void PrintHowToAdminister() {
  PrintMessage(pz_Complete);
  PrintMessage(pz_ByBrowser);
  Print(SString(' ', 10) + WebAddress() + "\n\n");
  PrintParagraph(ByMail());
}

}  // namespace

SString ReminderLines(const SStringList& reminders) {
  return "    " + reminders.Join("\n    ") + "\n";
}

bool WarnAdmin() {
  Print("\n");
  if (gstrl_Reminders.IsEmpty()) {
    PrintHowToAdminister();
  } else {
    PrintReminders();
  }
  Print("\n");
  return true;
}
