// Offers to set the setgid bit on the user maildrop directory.
//
//   touches    the mode of gstr_MaildropDir, nothing else
//   identity   root for the stat and the chmod, else the mail owner
//   reminders  "chmod g+s DIR" when declined or failed
//   stops      directory missing or unreadable, answer "q"

#include "host/FixMaildropDir.h"

#include <sys/stat.h>

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

// New files take the directory's group only when both bits are set.
constexpr mode_t kInheritsGroup = S_ISGID | S_IXGRP;
constexpr mode_t kPermissionBits = 07777;

constexpr const char* pz_Checking = "Checking user maildrop directory.... ";

SString NotFound() {
  return "The user maildrop directory, " + gstr_MaildropDir +
         ", was not found on your system.  This is currently hardcoded into Vellumcraft as the location for user maildrops.  We will need to make modifications to the Install program to let you specify a different location.";
}

SString StatFailed() {
  return "Couldn't stat(2) the user maildrop directory, " + gstr_MaildropDir +
         ", to determine permissions.  Perhaps running this program again will fix the problem....";
}

constexpr const char* pz_ContactVendor =
    "Contact your Vellumcraft vendor if you need help resolving this problem.";

constexpr const char* pz_Aborted = "Installation aborted.";

SString NotSetgid() {
  return "The user maildrop directory, " + gstr_MaildropDir +
         ", does not have the setgid flag set.  Without this set, any file created in that directory will be assigned the group of the creating user, rather than the 'mail' group.";
}

constexpr const char* pz_WhySetgid =
    "Since Vellumcraft does not invoke /usr/bin/mail as root, it is important that every user's maildrop file has the proper group ownership (any improper permissions on existing maildrop files will be corrected later in this installation).  The long-term solution is to make sure the setgid bit is set.";

constexpr const char* pz_SetSetgid =
    "Do you want the setgid bit set? yes/no/quit ";

SString ChmodFailed() {
  return "WARNING: failed to set the setgid bit on " + gstr_MaildropDir +
         ".  You will be reminded to do this at the end of the installation.";
}

bool ReadMode(mode_t* mode) {
  const SActAs as_root{SActAs::Root()};
  struct stat status = {};
  if (stat(gstr_MaildropDir, &status) != 0) {
    return false;
  }
  *mode = status.st_mode & kPermissionBits;
  return true;
}

bool SetMode(mode_t mode) {
  const SActAs as_root{SActAs::Root()};
  return chmod(gstr_MaildropDir, mode) == 0;
}

void Remind() {
  gstrl_Reminders.Push("chmod g+s " + gstr_MaildropDir);
  gstrl_Reminders.Push("");
}

// Asks whether to set the bit in a directory of this mode.
bool OfferSetgid(mode_t mode) {
  Print("\n\n");
  PrintMessage(NotSetgid());
  PrintMessage(pz_WhySetgid);
  const char letter = AskLetter(pz_SetSetgid, "yes");
  if (letter == 'q') {
    return false;
  }
  if (letter != 'y') {
    Remind();
  } else if (!SetMode(mode | kInheritsGroup)) {
    PrintMessage(ChmodFailed());
    Remind();
  }
  return true;
}

}  // namespace

bool FixMaildropDir() {
  Print(pz_Checking);
  if (!IsDirectory(RealPath(gstr_MaildropDir))) {
    Print("not found!\n\n");
    PrintMessage(NotFound());
    PrintMessage(pz_ContactVendor);
    return false;
  }
  mode_t mode = 0;
  if (!ReadMode(&mode)) {
    Print("failed!\n\n");
    PrintMessage(StatFailed());
    PrintMessage(pz_ContactVendor);
    PrintMessage(pz_Aborted);
    return false;
  }
  if ((mode & kInheritsGroup) == kInheritsGroup) {
    Print("OK\n");
    return true;
  }
  return OfferSetgid(mode);
}
