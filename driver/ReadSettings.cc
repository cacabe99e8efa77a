// The system configuration file and the identity of host and mail owner.
//
//   reads      /etc/vellumcraft.conf, or that name + "-" + gstr_forThisIP;
//              host names, password and group databases
//   sets       the settings "settled at start-up" of driver/Settings.h and
//              the environment of the server's programs
//   identity   root

#include "driver/ReadSettings.h"

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Files.h"
#include "toolkit/HostNames.h"

const char* const pz_Difficulty =
    "If you have difficulty resolving this problem, please contact your Vellumcraft vendor.";

namespace {

constexpr const char* pz_ConfigFile = "/etc/vellumcraft.conf";

SString ConfigFileMissing(const SString& path) {
  return "The system configuration file (" + path +
         ") doesn't exist.  This file should have been created by the package installation program (pkgadd). If you haven't run pkgadd, you must do that before running this program.";
}

constexpr const char* pz_PackageProblem =
    "If you have run pkgadd then there is a problem. ";

SString ConfigFileUnreadable(const SString& path) {
  return "Couldn't open " + path + ". ";
}

constexpr const char* pz_NoNodeName =
    "Couldn't determine your system's hostname using the uname(2) system call. ";

SString NoAddress(const SString& path) {
  return "Couldn't determine the IP address of " + gstr_HostName +
         " using the gethostbyname function. If your domain name is incorrect, correct it in " +
         path + ".";
}

SString SettingMissing(const SString& path) {
  return "The configuration file (" + path +
         ") is missing information necessary for correct operation of the mail system. It should have been set up by the package installation program.";
}

SString OwnerUnknown() {
  return "The user ID specified as the owner of the mail system (" +
         gstr_MailOwner +
         ") is not in the password database. Please create the user and run this program again.";
}

constexpr const char* pz_OwnerProblem =
    "If the user is already in the password database then there is a problem. ";

SString GroupUnknown() {
  return "The group ID specified as the primary group of the mail system (" +
         SString(std::to_string(gn_MailGID)) +
         ") is not in the group database.  Please create the group and run this program again.";
}

constexpr const char* pz_GroupProblem =
    "If the group is already in the database then there is a problem. ";

// Prints why the program can't start, what to do and the difficulty note;
// false for the caller to return.
bool Refuse(const SString& reason, const SString& advice = "") {
  PrintMessage(reason);
  PrintParagraph(advice + pz_Difficulty);
  return false;
}

bool ReadConfigFile(const SString& path) {
  if (!FileExists(path)) {
    return Refuse(ConfigFileMissing(path), pz_PackageProblem);
  }
  SStringList lines;
  if (!ReadLines(path, &lines)) {
    PrintParagraph(ConfigFileUnreadable(path) + pz_Difficulty);
    return false;
  }
  lines.ChopLineEnds();
  gstr_DomainName = ReadConfig(lines, "DomainName");
  gstr_Vellumcraft = ReadConfig(lines, "Vellumcraft");
  gstr_ProgramDir = ReadConfig(lines, "ProgramDir");
  gstr_MailboxDir = ReadConfig(lines, "MailboxDir");
  gstr_MailOwner = ReadConfig(lines, "MailUserName");
  gstr_HostName = ReadConfig(lines, "HostName");
  gstrl_BadUsers.Push(gstr_MailOwner);
  return true;
}

// Finds the name of a host whose configuration does not tell it.
bool FindHostName() {
  if (gstr_forThisIP == "127.0.0.1") {
    gstr_HostName = "localhost";
  } else if (!gstr_forThisIP.IsEmpty()) {
    gstr_HostName = GetHostByAddr(gstr_forThisIP).Get(0);
  } else {
    utsname system = {};
    if (uname(&system) != 0) {
      PrintParagraph(SString(pz_NoNodeName) + pz_Difficulty);
      return false;
    }
    gstr_HostName = system.nodename;
  }
  return true;
}

bool SettleHost(const SString& path) {
  if (gstr_HostName.IsEmpty() && !FindHostName()) {
    return false;
  }
  gstr_HostName.S("\\..*", "");
  gstr_HostName += "." + gstr_DomainName;
  gstr_IpAddress = "[" + GetHostByName(gstr_HostName).Get(0) + "]";
  if (gstr_IpAddress.Length() < 3) {
    return Refuse(NoAddress(path));
  }
  return true;
}

// The server's own programs read these, without trailing slashes.
void ExportSettings() {
  PutEnv("DomainName", gstr_DomainName);
  PutEnv("HostName", gstr_HostName);
  PutEnv("MailboxDir", gstr_MailboxDir);
  PutEnv("ModuleName", "Install");
  PutEnv("Vellumcraft", gstr_Vellumcraft);
  PutEnv("ProgramDir", gstr_ProgramDir);
}

bool CheckSettings(const SString& path) {
  for (const SString* setting :
       {&gstr_DomainName, &gstr_Vellumcraft, &gstr_ProgramDir, &gstr_MailboxDir,
        &gstr_MailOwner}) {
    if (setting->IsEmpty()) {
      return Refuse(SettingMissing(path));
    }
  }
  return true;
}

bool SettleMailOwner() {
  const passwd* owner = getpwnam(gstr_MailOwner);
  if (owner == nullptr) {
    return Refuse(OwnerUnknown(), pz_OwnerProblem);
  }
  gn_MailUID = owner->pw_uid;
  gn_MailGID = owner->pw_gid;
  const group* primary = getgrgid(gn_MailGID);
  if (primary == nullptr) {
    return Refuse(GroupUnknown(), pz_GroupProblem);
  }
  gstr_MailGroup = primary->gr_name;
  return true;
}

}  // namespace

SString ReadConfig(const SStringList& lines, const SString& key) {
  const SString line = lines.Grep("/^" + key + "/").Get(0);
  return line.M("^" + key + "=(\\S+)").Get(0);
}

bool ReadSettings() {
  SString path = pz_ConfigFile;
  if (!gstr_forThisIP.IsEmpty()) {
    path += "-" + gstr_forThisIP;
  }
  if (!ReadConfigFile(path) || !SettleHost(path)) {
    return false;
  }
  ExportSettings();
  if (!CheckSettings(path)) {
    return false;
  }
  gstr_Vellumcraft += '/';
  gstr_ProgramDir += '/';
  gstr_MailboxDir += '/';
  return SettleMailOwner();
}
