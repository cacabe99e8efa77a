// Moves the mail of a spool mailbox into a POP mailbox.
//
//   touches    the spool file and its lock; the POP mailbox directory and the
//              levels above it
//   identity   root for the spool, the mail owner for the mailbox
//   undoes     what it made, when the copy can't be completed
//
// Mail may arrive meanwhile.  Delivery agents are kept out by the two locks that
// they take (mail.local, procmail and others: PATH.lock and fcntl); for those
// that take none the file is read until it grows no more.  The spool file goes
// only after every message is on disk, and only if the path still is the file
// that was read.
//
// A process that is killed on the way leaves the spool file, and either no "in"
// directory or a whole one; what it left beside it tells the next process which
// (see PopMailbox.h), so that no message is converted twice.

#include "accounts/ConvertMailbox.h"

#include <cerrno>
#include <memory>

#include "accounts/MailboxReader.h"
#include "accounts/PopMailbox.h"
#include "accounts/SpoolFile.h"
#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"
#include "toolkit/Signals.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/Sdbfile.h"

namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;

bool Fail(const SString& problem, int cause) {
  Print("Error: " + problem + " (" + SString(cause) + ")\n");
  return false;
}

bool FailToOpen(const SString& spool, int cause) {
  return Fail("Couldn't open " + Printable(spool), cause);
}

bool FailToCreate(const SString& path) {
  return Fail("Couldn't create " + path, errno);
}

// The server may spread mailboxes over buckets.
void ReadBucketCount() {
  Sdbfile dispatch("Dispatch", 0, "Vellumcraft");
  if (dispatch.Open("/Config", 0)) {
    const SStringList count = dispatch.Get("MailboxBucketCount");
    if (!count.IsEmpty()) {
      PutEnv("MailboxBucketCount", count[0]);
    }
    dispatch.CloseDB();
  }
}

// Hands all bytes up to the present end of the spool to the reader; false when
// one of the two fails.
bool CopyToEnd(SSpoolFile* spool, SMailboxReader* reader, char* buffer) {
  ssize_t n = 0;
  while ((n = spool->Read(buffer, kPiece)) > 0) {
    if (!reader->Take({buffer, static_cast<std::size_t>(n)})) {
      return false;
    }
  }
  return n == 0;
}

// Copies until the spool grows no more while the copy goes to disk, and tells
// the version that was copied.  A last line without line end is ended only when
// nobody seems to be writing it.
bool CopyMessages(SSpoolFile* spool, SPopMailbox* mailbox,
                  SMailboxReader* reader, char* buffer, SString* version) {
  do {
    do {
      if (!CopyToEnd(spool, reader, buffer) || !reader->Flush() ||
          !mailbox->Sync()) {
        return false;
      }
    } while (!spool->IsAtEnd());
    if (!reader->Finish() || !mailbox->Sync()) {
      return false;
    }
    *version = spool->Version();
  } while (!spool->IsAtEnd());
  return true;
}

// Looks only; the mailbox is made when there is something to move.
class Looker : public SMailboxReader::Sink {
 public:
  bool BeginMessage() override { return false; }
  bool Write(std::string_view) override { return false; }
};

enum class Content { kBlank, kMail, kUnrecognized, kUnreadable };

Content LookAt(SSpoolFile* spool, char* buffer) {
  Looker looker;
  SMailboxReader reader(&looker);
  ssize_t n = 0;
  bool goes_on = true;
  while (goes_on && (n = spool->Read(buffer, kPiece)) > 0) {
    goes_on = reader.Take({buffer, static_cast<std::size_t>(n)});
  }
  if (n < 0) {
    return Content::kUnreadable;
  }
  spool->Rewind();
  if (goes_on && reader.Finish()) {
    return Content::kBlank;
  }
  return reader.IsUnrecognized() ? Content::kUnrecognized : Content::kMail;
}

bool SpoolExists(const SString& spool) {
  const SActAs as_root(SActAs::Root{});
  // What can't be looked at is left to the opening to complain of.
  return FileExists(spool) || (errno != ENOENT && errno != ENOTDIR &&
                               errno != ELOOP && errno != ENAMETOOLONG);
}

// The "in" directory of the account.
SString DirectoryOf(const SString& uid) {
  ReadBucketCount();
  return gstr_MailboxDir + GetMailboxSubpath(uid) + "/in";
}

SString LoginOf(const SString& spool) {
  return SString(spool.View().substr(spool.View().rfind('/') + 1));
}

bool FailToCopy(const SSpoolFile& spool, const SPopMailbox& mailbox,
                const SString& directory) {
  if (spool.HasReadError()) {
    return FailToOpen(spool.Path(), errno);
  }
  return FailToCreate(
      mailbox.FailedMessage().IsEmpty() ? directory : mailbox.FailedMessage());
}

bool MoveMessages(SSpoolFile* spool, const SString& directory,
                  SPopMailbox* mailbox, char* buffer) {
  const SFailAtSizeLimit no_signal;  // once for all messages
  if (!mailbox->Make()) {
    FailToCreate(directory);
    mailbox->Undo();
    return false;
  }
  SMailboxReader reader(mailbox);
  SString version;
  if (!CopyMessages(spool, mailbox, &reader, buffer, &version) ||
      !mailbox->Publish(version)) {
    FailToCopy(*spool, *mailbox, directory);
    mailbox->Undo();
    return false;
  }
  if (!spool->Remove()) {
    mailbox->Undo();
    return false;
  }
  mailbox->Forget();
  // Somebody without locks may have written up to the removal.
  while (!spool->IsAtEnd()) {
    if (!CopyToEnd(spool, &reader, buffer) || !reader.Finish() ||
        !mailbox->Sync()) {
      FailToCopy(*spool, *mailbox, directory);
      // Rather twice, in part, than lost.
      return spool->PutBack() ? false : FailToOpen(spool->Path(), errno);
    }
  }
  return true;
}

// There is an "in" directory already.  If an earlier process has copied this very
// spool file there and did not live to remove it, only that is left to do.
bool FinishRemoval(SSpoolFile* spool, SPopMailbox* mailbox,
                   const SString& directory) {
  if (!spool->HasVersion(mailbox->LeftVersion())) {
    Print("Error: POP mailbox already exists\n");
    mailbox->Forget();
    return false;
  }
  if (!mailbox->PublishLeftOver()) {
    return FailToCreate(directory);
  }
  if (!spool->Remove()) {
    return false;
  }
  mailbox->Forget();
  // Somebody without locks may have written up to the removal.
  return spool->IsAtEnd() || spool->PutBack() ||
         FailToOpen(spool->Path(), errno);
}

}  // namespace

bool ConvertMailbox(const SString& spool_path, const SString& uid) {
  if (!SpoolExists(spool_path)) {
    return true;
  }
  SSpoolFile spool(spool_path);
  const int cause = spool.Open();
  if (cause != 0) {
    // While we waited for the locks the user may have fetched the last mail.
    const bool is_gone =
        (cause == ENOENT || cause == ESTALE) && !SpoolExists(spool_path);
    return is_gone || FailToOpen(spool_path, cause);
  }
  const auto buffer = std::make_unique<char[]>(kPiece);
  switch (LookAt(&spool, buffer.get())) {
    case Content::kBlank:
      return true;
    case Content::kUnrecognized:
      return Fail("Mailbox format unrecognized", 0);
    case Content::kUnreadable:
      return FailToOpen(spool_path, errno);
    case Content::kMail:
      break;
  }
  const SString directory = DirectoryOf(uid);
  SPopMailbox mailbox(directory, LoginOf(spool_path));
  if (IsDirectory(directory)) {
    return FinishRemoval(&spool, &mailbox, directory);
  }
  return MoveMessages(&spool, directory, &mailbox, buffer.get());
}

bool ResumeConversion(const SString& spool_path, const SString& uid) {
  const SString directory = DirectoryOf(uid);
  const SSpoolFile spool(spool_path);
  SPopMailbox mailbox(directory, LoginOf(spool_path));
  if (!mailbox.HasLeftOver() && !spool.HasLeftLock()) {
    return true;
  }
  if (SpoolExists(spool_path)) {
    if (!ConvertMailbox(spool_path, uid)) {
      return false;
    }
  } else {
    spool.RemoveLeftLock();
    if (!mailbox.LeftVersion().IsEmpty() && !mailbox.PublishLeftOver()) {
      return FailToCreate(directory);
    }
  }
  mailbox.Forget();
  return true;
}
