// The features through which the server is administered from afar.
//
//   touches    "/Config" of the databases WWW-Server, Dispatch and
//              Account-Manager; sets gn_WWWPort
//   identity   mail owner
//   reminders  none
//   stops      a database can't be opened, answer "q"

#include "serverconfig/ConfigureFeatures.h"

#include "console/Console.h"
#include "driver/Settings.h"
#include "serverconfig/DatabaseMessages.h"
#include "serverconfig/PortNumber.h"
#include "toolkit/database/Sdbfile.h"

namespace {

constexpr int kStandardPort = 80;

constexpr const char* pz_Reading = "Reading configuration information.... ";

constexpr const char* pz_OnForm =
    "This value can be found on the System Configuration form.";

constexpr const char* pz_Overview =
    "Vellumcraft can be configured remotely using a graphical World-Wide-Web browser, or an E-mail client that supports MIME.  The WWW configuration is handled by a server that is built into Vellumcraft. The port used by this server can be modified so it doesn't conflict with a general-purpose WWW server operating on port 80, or any other service provided by this machine.  Also the E-mail configuration mechanism can be turned on or off depending on your needs.";

constexpr const char* pz_Currently =
    "Vellumcraft is currently configured with the following settings:";

constexpr const char* pz_PortLabel =
    "    TCP/IP port for World-Wide-Web configuration: ";
constexpr const char* pz_AccessLabel =
    "    World-Wide-Web configuration allowed from:    ";
constexpr const char* pz_EmailLabel =
    "    Allow configuration via E-mail:               ";
constexpr const char* pz_GreetingLabel =
    "    Send greeting messages to new users:          ";
constexpr int kLabelWidth = 50;

constexpr const char* pz_Change =
    "Do you want to change this information? yes/no/quit ";

constexpr const char* pz_OtherPort =
    "Since the WWW configuration interface is not part of a general-purpose WWW server, you may want to change the port used for this to something other than the standard WWW port (80).  The port should be chosen so that it does not conflict with any other service on this computer.  Even-numbered ports between 26 and 40 are unassigned, so using one of them is recommended.";

constexpr const char* pz_AskPort = "World Wide Web port for configuration: ";

constexpr const char* pz_BadPort =
    "Please enter a valid port number (in the range from 1 to 65535).";

SString PortWillBe(const SString& answer) {
  return "Vellumcraft will use port " + answer +
         " for WWW configuration, so you will need to connect to the server using the URL:";
}

constexpr const char* pz_IsThisOk = "Is this OK? yes/no/quit ";
constexpr const char* pz_SureOfStandard =
    "Are you sure you want to use port 80? yes/no/quit ";

constexpr const char* pz_Restricted =
    "Access to the WWW configuration interface has been restricted to the domains/networks listed above.  If you would like to remove the restrictions, type \"yes\" here.";
constexpr const char* pz_RemoveRestrictions =
    "Remove access restrictions for WWW configuration: yes/no/quit ";

SString EmailExplained() {
  return "You can enable or disable the ability to configure Vellumcraft using E-mail forms.  If disabled, mail sent to <accounts@" +
         gstr_HostName + "> or <configuration@" + gstr_HostName +
         "> will be returned to sender with an error message.";
}
constexpr const char* pz_AllowEmail =
    "Allow E-mail configuration of Vellumcraft : yes/no/quit ";

constexpr const char* pz_GreetingExplained =
    "You can enable or disable the greeting message that gets sent to new users when their accounts are created.  If enabled, Vellumcraft  will automatically send new users a message which shows the account information that was entered for them, and describes how to change it.";
constexpr const char* pz_EnableGreeting = "Enable greeting forms: yes/no/quit ";

SString YesOrNo(bool yes) {
  return yes ? "yes" : "no";
}

// The three databases, and what they said when they were opened.
class Features {
 public:
  bool Open();
  void Read();
  void Close();

  Sdbfile www{"WWW-Server", 0, "Vellumcraft"};
  Sdbfile dispatch{"Dispatch", 0, "Vellumcraft"};
  Sdbfile account_manager{"Account-Manager", 0, "Vellumcraft"};

  SStringList access;  // as it is shown
  bool is_restricted = false;
  bool email_allowed = true;
  bool greeting_sent = true;
  SStringList default_domain;
};

bool Features::Open() {
  return www.Open("/Config", 1) && dispatch.Open("/Config", 1) &&
         account_manager.Open("/Config", 1);
}

void Features::Read() {
  const SStringList socket = www.Get("Socket");
  gn_WWWPort = socket.IsEmpty() ? kStandardPort : PortNumber(socket[0]);
  access = www.Get("WWWAccess");
  is_restricted = !access.IsEmpty();
  if (access.Contains("none")) {
    access = SStringList("nowhere");
  } else if (!is_restricted) {
    access = SStringList("everywhere");
  }
  email_allowed = !(dispatch.Get("EmailConfig")[0] == "no");
  greeting_sent = !(account_manager.Get("SuppressGreeting")[0] == "yes");
  default_domain = dispatch.Get("DefaultDomain");
  if (default_domain[0].IsEmpty()) {
    default_domain.Reset();
  }
}

void Features::Close() {
  account_manager.CloseDB();
  dispatch.CloseDB();
  www.CloseDB();
}

void SettleCompletionDomain(Features* features) {
  Print("\n");
  if (features->default_domain.IsEmpty()) {
    Print("Your Address Completion Domain is being set to \"" + gstr_HostName +
          "\".\n");
    features->dispatch.Set("DefaultDomain", gstr_HostName);
  } else {
    Print("Your Address Completion Domain was already set to \"" +
          features->default_domain.Join(",") + "\".\n");
  }
  Print(SString(pz_OnForm) + "\n");
}

void ShowSettings(const Features& features) {
  Print("\n");
  PrintMessage(pz_Overview);
  PrintMessage(pz_Currently);
  Print(pz_PortLabel + SString(gn_WWWPort) + "\n\n");
  Print(pz_AccessLabel +
        features.access.Join("\r\n" + SString(' ', kLabelWidth)) + "\n\n");
  Print(pz_EmailLabel + YesOrNo(features.email_allowed) + "\n\n");
  Print(pz_GreetingLabel + YesOrNo(features.greeting_sent) + "\n\n");
}

// What the administrator answers to a port that was understood.
char ConfirmPort(const SString& answer, int port) {
  const bool is_standard = port == kStandardPort;
  Print("\n");
  PrintMessage(PortWillBe(answer));
  Print("\thttp://" + gstr_HostName +
        (is_standard ? SString() : ":" + SString(port)) + "\n\n");
  return AskLetter(is_standard ? pz_SureOfStandard : pz_IsThisOk, "yes");
}

bool ChangePort(Features* features) {
  if (gn_WWWPort == kStandardPort) {
    Print("\n");
    PrintMessage(pz_OtherPort);
  }
  while (true) {
    const SString answer = Ask(SString("\n") + pz_AskPort, SString(gn_WWWPort));
    const int port = PortNumber(answer);
    if (port == 0) {
      Print("\n");
      PrintMessage(pz_BadPort);
      continue;
    }
    const char letter = ConfirmPort(answer, port);
    if (letter == 'q') {
      return false;
    }
    if (letter != 'n') {
      features->www.Set("Socket", answer);
      gn_WWWPort = port;
      return true;
    }
  }
}

bool OfferToRemoveRestrictions(Features* features) {
  if (!features->is_restricted) {
    return true;
  }
  Print("\n");
  PrintMessage(pz_Restricted);
  const char letter = AskLetter(pz_RemoveRestrictions, "no");
  if (letter == 'y') {
    features->www.Set("WWWAccess", SStringList());
  }
  return letter != 'q';
}

bool ChangeEmail(Features* features) {
  Print("\n");
  PrintMessage(EmailExplained());
  const char letter =
      AskLetter(pz_AllowEmail, YesOrNo(features->email_allowed));
  if (letter == 'y' || letter == 'n') {
    features->dispatch.Set("EmailConfig", YesOrNo(letter == 'y'));
  }
  return letter != 'q';
}

bool ChangeGreeting(Features* features) {
  PrintMessage(pz_GreetingExplained);
  const char letter =
      AskLetter(pz_EnableGreeting, YesOrNo(features->greeting_sent));
  if (letter == 'y' || letter == 'n') {
    features->account_manager.Set("SuppressGreeting", YesOrNo(letter == 'n'));
  }
  return letter != 'q';
}

// False when the administrator quits.
bool ChangeSettings(Features* features) {
  if (!ChangePort(features) || !OfferToRemoveRestrictions(features) ||
      !ChangeEmail(features) || !ChangeGreeting(features)) {
    return false;
  }
  Print("\n");
  return true;
}

}  // namespace

bool ConfigureFeatures() {
  Features features;
  Print(pz_Reading);
  if (!features.Open()) {
    Print("\n");
    PrintConfigurationTrouble();
    return false;
  }
  features.Read();
  Print("done\n");
  SettleCompletionDomain(&features);
  ShowSettings(features);
  const char letter = AskLetter(pz_Change, "no");
  const bool go_on =
      letter != 'q' && (letter != 'y' || ChangeSettings(&features));
  features.Close();
  return go_on;
}
