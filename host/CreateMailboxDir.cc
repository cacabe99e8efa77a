// Makes the directory in which the server keeps mailboxes.
//
//   touches    gstr_MailboxDir, only when it does not exist
//   identity   root to make it and give it to the mail owner
//   reminders  the directory's making, or its owner and group
//   stops      the administrator's "no" after a failure

#include "host/CreateMailboxDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"
#include "toolkit/Signals.h"

namespace {

constexpr mode_t kMode = S_IRWXU | S_IRWXG;

constexpr const char* pz_Checking = "Checking for Mailbox directory.... ";
constexpr const char* pz_Creating = "Creating Mailbox directory.... ";

SString MakeFailed() {
  return "WARNING: Couldn't create the mailbox directory: " + gstr_MailboxDir;
}

SString DirectoryRequired() {
  return "This directory is required for correct operation of the mail system.  Without it, you can not have users retrieve their mail via the network (e.g. via POP3).  Please create this directory with permissions drwxrwx--- owned by user '" +
         gstr_MailOwner + "' and group '" + gstr_MailGroup + "'.";
}

SString GiveFailed() {
  return "WARNING: Couldn't set owner/group for the mailbox directory: " +
         gstr_MailboxDir + ".";
}

void RemindToMake() {
  gstrl_Reminders.Push("Create mailbox directory:     " + gstr_MailboxDir);
  gstrl_Reminders.Push("and set owner/group/perms to: " + gstr_MailOwner + "/" +
                       gstr_MailGroup + "/drwxrwx---");
  gstrl_Reminders.Push("");
}

void RemindToGive() {
  gstrl_Reminders.Push("Set owner/group of " + gstr_MailboxDir +
                       " to: " + gstr_MailOwner + "/" + gstr_MailGroup);
  gstrl_Reminders.Push("");
}

// Gives the new directory to the mail owner.  The directory above may be the
// mail owner's own, who could put a link in place of the new directory: only
// a directory of root's that stands there itself is given away.
bool GiveToMailOwner(const SString& path) {
  const SDescriptor made(
      open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  return made.IsOpen() && fstat(made.Get(), &status) == 0 &&
         status.st_uid == 0 && fchown(made.Get(), gn_MailUID, gn_MailGID) == 0;
}

// Makes a directory beside the path, under a name that a later run finds again
// if this one is killed; its name, "" when it can't be made.
SString MakeBeside(const SString& path) {
  for (const SString& name :
       {path + ".new", path + ".new" + SString(static_cast<int>(getpid()))}) {
    if (MakeDir(name, kMode) ||
        (errno == EEXIST && rmdir(name) == 0 && MakeDir(name, kMode))) {
      return name;
    }
    if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR) {
      break;
    }
  }
  return {};
}

enum class Made { kNo, kNotGiven, kYes };

// Under another name until it is the mail owner's: a directory that is found is
// not looked at again, so a run that is killed must not leave root's there.
Made MakeMailboxDir() {
  SString path = gstr_MailboxDir;
  path.S("/+$", "");
  const SActAs as_root{SActAs::Root()};
  const SHoldSignals until_named;
  const SString made = MakeBeside(path);
  if (made.IsEmpty()) {
    return Made::kNo;
  }
  const bool given = GiveToMailOwner(made);
  if (!RenameToFreeName(made, path)) {
    rmdir(made);
    return Made::kNo;
  }
  return given ? Made::kYes : Made::kNotGiven;
}

}  // namespace

bool CreateMailboxDir() {
  Print(pz_Checking);
  if (IsDirectory(gstr_MailboxDir)) {
    Print("found\n");
    return true;
  }
  Print("not found\n");
  Print(pz_Creating);
  const Made made = MakeMailboxDir();
  if (made == Made::kNo) {
    Print("\n\n");
    PrintMessage(MakeFailed());
    PrintMessage(DirectoryRequired());
    RemindToMake();
    return AskToContinue();
  }
  if (made == Made::kYes) {
    Print("OK\n");
  } else {
    Print("\n\n");
    PrintMessage(GiveFailed());
    RemindToGive();
  }
  return true;
}
