// Puts the server's sendmail emulator in the place of the system's sendmail.
//
//   touches    gstr_Sendmail, which becomes a link; the old program keeps its
//              first free backup name beside it
//   identity   root
//   reminders  "Create link: 'ln -s ..." when the link can't be made
//   stops      mail in the old queue, unless the answer is "n"

#include "host/InstallSendmail.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "console/Console.h"
#include "driver/Settings.h"
#include "host/Processes.h"
#include "host/RewriteHostFile.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"
#include "toolkit/Signals.h"

namespace {

constexpr const char* pz_Installing = "Installing sendmail emulator.... ";

constexpr const char* pz_QueueNotEmpty =
    "Your current 'sendmail' needs to be replaced with a sendmail emulation program.  However sendmail's queue is not empty.  Here is the output of the 'mailq' command:";

constexpr const char* pz_NeverDelivered =
    "You should have sendmail deliver its queued messages before continuing with this installation or the messages will never be delivered!";

constexpr const char* pz_DeliverNow =
    "Do you want to deliver the queue now? yes/no/quit ";

constexpr const char* pz_HowToDeliver =
    "Try 'sendmail -q' to deliver the queue.  This may take a long time, so you may want to check sendmail's progress periodically with the 'mailq' command.  When the queue is empty, run this program again.";

constexpr const char* pz_SeveralTimes =
    "Note: you may have to run 'sendmail -q' several times to completely empty the queue.";

// Longer listings are cut to the second number of lines.
constexpr int kLongestListing = 20;
constexpr int kLinesOfLongListing = 15;

SString Emulator() {
  return gstr_ProgramDir + "bin/sendmail";
}

// From the directory of the link to the root directory and down again.
SString LinkTarget() {
  return "../.." + Emulator();
}

// The two ways to fail are told apart by their texts: the first begins in lower
// case, and one quote of it and of its reminder is missing.
void WarnOfNewLink() {
  Print("\n\n");
  PrintMessage("WARNING: couldn't create a symbolic link from " +
               gstr_Sendmail + " to " + LinkTarget() + "'");
  gstrl_Reminders.Push("Create link: 'ln -s " + LinkTarget() + " " +
                       gstr_Sendmail);
}

void WarnOfReplacement() {
  Print("\n\n");
  PrintMessage("WARNING: Couldn't create a symbolic link from " +
               gstr_Sendmail + " to '" + LinkTarget() + "'");
  gstrl_Reminders.Push("Create link: 'ln -s " + LinkTarget() + " " +
                       gstr_Sendmail + "'");
}

bool IsLink(const SString& path) {
  struct stat status = {};
  return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// A new link at a path that names no file; a dangling one is replaced.
bool CreateLink() {
  const SActAs as_root(SActAs::Root{});
  const SHoldSignals until_linked;
  if (IsLink(gstr_Sendmail)) {
    RemoveFile(gstr_Sendmail);
  }
  const bool linked = symlink(LinkTarget(), gstr_Sendmail) == 0;
  static_cast<void>(SyncDirectoryOf(gstr_Sendmail));
  return linked;
}

bool SendmailExists() {
  const SActAs as_root(SActAs::Root{});
  return FileExists(gstr_Sendmail);
}

bool EmulatorIsInstalled() {
  const SActAs as_root(SActAs::Root{});
  const SString installed = RealPath(gstr_Sendmail);
  return installed == Emulator() ||
         (!installed.IsEmpty() && installed == RealPath(Emulator()));
}

SString Shown(SStringList listing) {
  const int surplus = listing.Count() - kLinesOfLongListing;
  if (listing.Count() > kLongestListing) {
    listing.Splice(kLinesOfLongListing, surplus);
    listing.Push("\n[" + SString(surplus) + " more lines deleted]\n");
  }
  return listing.Join();
}

// Whether the old program may go although it has mail in its queue.
bool AskAboutQueue(const SStringList& listing) {
  Print("\n\n");
  PrintMessage(pz_QueueNotEmpty);
  Print(Shown(listing) + "\n");
  PrintMessage(pz_NeverDelivered);
  const char letter = AskLetter(pz_DeliverNow, "yes");
  if (letter == 'y') {
    PrintMessage(pz_HowToDeliver);
    PrintMessage(pz_SeveralTimes);
  }
  return letter == 'n';
}

// True for a link to the emulator that a run which was killed has left.
bool IsOurLink(const SString& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path, target, sizeof target);
  return length >= 0 &&
         LinkTarget().View() ==
             std::string_view(target, static_cast<std::size_t>(length));
}

SString FirstFreeBackupName() {
  int n = 0;
  while (PathTaken(BackupName(gstr_Sendmail, n)) &&
         !IsOurLink(BackupName(gstr_Sendmail, n))) {
    ++n;
  }
  return BackupName(gstr_Sendmail, n);
}

// Makes the link under the backup name, then lets link and program change
// places in one step: there is no moment without either.
bool ExchangeForLink(const SString& backup) {
  if (!IsOurLink(backup) && symlink(LinkTarget(), backup) != 0) {
    return false;
  }
  if (renameat2(AT_FDCWD, backup, AT_FDCWD, gstr_Sendmail, RENAME_EXCHANGE) ==
      0) {
    return true;
  }
  RemoveFile(backup);
  return false;
}

bool ReplaceByLink() {
  const SActAs as_root(SActAs::Root{});
  const SHoldSignals until_linked;
  const SString backup = FirstFreeBackupName();
  // File systems that can't exchange two names have the slower way.
  const bool linked =
      ExchangeForLink(backup) || (RenameToFreeName(gstr_Sendmail, backup) &&
                                  symlink(LinkTarget(), gstr_Sendmail) == 0);
  static_cast<void>(SyncDirectoryOf(gstr_Sendmail));
  return linked;
}

}  // namespace

bool InstallSendmail() {
  Print(pz_Installing);
  if (!SendmailExists()) {
    if (CreateLink()) {
      Print("done\n");
    } else {
      WarnOfNewLink();
    }
    return true;
  }
  if (EmulatorIsInstalled()) {
    Print("done\n");
    return true;
  }
  const SStringList listing = ReadMailq();
  if (listing.Count() > 1 && !AskAboutQueue(listing)) {
    return false;
  }
  if (ReplaceByLink()) {
    Print("done\n");
  } else {
    WarnOfReplacement();
  }
  return true;
}
