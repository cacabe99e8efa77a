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

#include "accounts/ConvertMailbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <vector>

#include "accounts/MailboxReader.h"
#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"
#include "toolkit/Spool.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/Sdbfile.h"

namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kMessageMode = 0664;
constexpr std::size_t kPiece = std::size_t{256} * 1024;
constexpr int kLockAttempts = 100;
constexpr long kAttemptNanoseconds = 100'000'000;  // ten seconds in all

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

// The spool file, open and locked.
class Spool {
 public:
  explicit Spool(const SString& path) : path_(path) {}
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  // 0, or the cause in the words of errno.
  int Open();
  // Bytes read into `buffer`, 0 at the end, -1 on an error.
  ssize_t Read(char* buffer, std::size_t size);
  // True when all of the file was read.
  [[nodiscard]] bool IsAtEnd() const;
  // Removes the file that was read; false when the path is another by now.
  bool Remove();

 private:
  int TakeLocks();
  [[nodiscard]] bool NamesThisFile() const;

  SString path_;
  SDescriptor file_;
  bool has_dot_lock_ = false;
  off_t offset_ = 0;
};

Spool::~Spool() {
  if (has_dot_lock_) {
    const SActAs as_root(SActAs::Root{});
    RemoveFile(path_ + ".lock");
  }
}

bool Spool::NamesThisFile() const {
  struct stat named = {};
  struct stat open = {};
  return lstat(path_, &named) == 0 && fstat(file_.Get(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

int Spool::TakeLocks() {
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (!has_dot_lock_) {
      const SDescriptor lock(
          open(path_ + ".lock",
               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0444));
      has_dot_lock_ = lock.IsOpen();
      if (!has_dot_lock_ && errno != EEXIST) {
        return errno;
      }
    }
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (has_dot_lock_ && fcntl(file_.Get(), F_SETLK, &whole) == 0) {
      return 0;
    }
    const timespec pause = {0, kAttemptNanoseconds};
    nanosleep(&pause, nullptr);
  }
  return EAGAIN;
}

int Spool::Open() {
  const SActAs as_root(SActAs::Root{});
  file_ = SDescriptor(
      open(path_, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!file_.IsOpen() || fstat(file_.Get(), &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return EINVAL;
  }
  if (status.st_nlink != 1) {
    return EPERM;
  }
  const int cause = TakeLocks();
  return cause == 0 && !NamesThisFile() ? ESTALE : cause;
}

ssize_t Spool::Read(char* buffer, std::size_t size) {
  ssize_t n = 0;
  do {
    n = pread(file_.Get(), buffer, size, offset_);
  } while (n < 0 && errno == EINTR);
  offset_ += n > 0 ? n : 0;
  return n;
}

bool Spool::IsAtEnd() const {
  struct stat status = {};
  return fstat(file_.Get(), &status) == 0 && status.st_size == offset_;
}

bool Spool::Remove() {
  const SActAs as_root(SActAs::Root{});
  return NamesThisFile() && IsAtEnd() && RemoveFile(path_);
}

// The POP mailbox under construction.
class Mailbox : public SMailboxReader::Sink {
 public:
  explicit Mailbox(const SString& directory) : directory_(directory) {
    buffer_.reserve(2 * kPiece);
  }

  // Makes the directory and the missing levels between it and the mailboxes.
  bool MakeDirectory();
  bool BeginMessage() override;
  bool Write(std::string_view bytes) override;
  // Everything is on disk.
  bool Sync();
  bool EndMessage();
  // Removes what was made; mail that the server delivered meanwhile stays.
  void Undo();
  // The message that could not be written was told.
  [[nodiscard]] bool WasTold() const { return was_told_; }

 private:
  bool Flush();

  SString directory_;
  SDescriptor directory_file_;
  std::vector<SString> made_directories_;
  SString message_;
  SDescriptor message_file_;
  std::string buffer_;
  bool was_told_ = false;
};

bool Mailbox::MakeDirectory() {
  for (std::size_t slash = directory_.View().find(
           '/', static_cast<std::size_t>(gstr_MailboxDir.Length()));
       slash != std::string_view::npos;
       slash = directory_.View().find('/', slash + 1)) {
    const SString level(directory_.View().substr(0, slash));
    if (MakeDir(level, kDirectoryMode)) {
      made_directories_.push_back(level);
    } else if (errno != EEXIST) {
      return false;
    }
  }
  if (!MakeDir(directory_, kDirectoryMode)) {
    return false;
  }
  made_directories_.push_back(directory_);
  directory_file_ =
      SDescriptor(open(directory_, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory_file_.IsOpen();
}

bool Mailbox::BeginMessage() {
  if (!EndMessage()) {
    return false;
  }
  message_ = NewMessageID(gstr_HostName);
  message_file_ = SDescriptor(openat(
      directory_file_.Get(), message_,
      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMessageMode));
  if (!message_file_.IsOpen()) {
    was_told_ = true;
    return FailToCreate(directory_ + "/" + message_);
  }
  return true;
}

bool Mailbox::Write(std::string_view bytes) {
  buffer_.append(bytes);
  return buffer_.size() < kPiece || Flush();
}

bool Mailbox::Flush() {
  const bool flushed = WriteAll(message_file_.Get(), buffer_);
  buffer_.clear();
  if (!flushed && !was_told_) {
    was_told_ = true;
    return FailToCreate(directory_ + "/" + message_);
  }
  return flushed;
}

bool Mailbox::EndMessage() {
  return !message_file_.IsOpen() || (Flush() && message_file_.Close());
}

bool Mailbox::Sync() {
  // One call for any number of messages, and for the account itself where it
  // lies on the same file system.
  if ((message_file_.IsOpen() && !Flush()) ||
      syncfs(directory_file_.Get()) != 0) {
    return false;
  }
  for (const SString& made : made_directories_) {
    if (!SyncDirectoryOf(made)) {
      return false;
    }
  }
  return fsync(directory_file_.Get()) == 0;
}

void Mailbox::Undo() {
  const int former_errno = errno;
  message_file_ = SDescriptor();
  const SString ours = ProcessIdString() + "@" + gstr_HostName;
  for (const SString& name : ReadDir(directory_)) {
    if (name.View().ends_with(ours.View())) {
      unlinkat(directory_file_.Get(), name, 0);
    }
  }
  while (!made_directories_.empty()) {
    rmdir(made_directories_.back());
    made_directories_.pop_back();
  }
  errno = former_errno;
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

// Reads up to the present end of the spool.
bool CopyToEnd(Spool* spool, SMailboxReader* reader, char* buffer) {
  ssize_t n = 0;
  while ((n = spool->Read(buffer, kPiece)) > 0) {
    if (!reader->Take({buffer, static_cast<std::size_t>(n)})) {
      return false;
    }
  }
  return n == 0;
}

bool CopyMessages(Spool* spool, Mailbox* mailbox, SMailboxReader* reader,
                  char* buffer) {
  do {
    if (!CopyToEnd(spool, reader, buffer) || !mailbox->Sync()) {
      return false;
    }
  } while (!spool->IsAtEnd());
  return reader->Finish() && mailbox->EndMessage() && mailbox->Sync();
}

// Looks only; the mailbox is made when there is something to move.
class Looker : public SMailboxReader::Sink {
 public:
  bool BeginMessage() override { return false; }
  bool Write(std::string_view) override { return false; }
};

enum class Content { kBlank, kMail, kUnrecognized, kUnreadable };

Content LookAt(const SString& path, char* buffer) {
  const SActAs as_root(SActAs::Root{});
  const SDescriptor file(
      open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  Looker looker;
  SMailboxReader reader(&looker);
  ssize_t n = 0;
  while ((n = read(file.Get(), buffer, kPiece)) > 0) {
    if (!reader.Take({buffer, static_cast<std::size_t>(n)})) {
      return reader.IsUnrecognized() ? Content::kUnrecognized : Content::kMail;
    }
  }
  if (n < 0) {
    return Content::kUnreadable;
  }
  if (!reader.Finish()) {
    return reader.IsUnrecognized() ? Content::kUnrecognized : Content::kMail;
  }
  return Content::kBlank;
}

bool SpoolExists(const SString& spool) {
  const SActAs as_root(SActAs::Root{});
  return PathTaken(spool);
}

}  // namespace

bool ConvertMailbox(const SString& spool_path, const SString& uid) {
  if (!SpoolExists(spool_path)) {
    return true;
  }
  Spool spool(spool_path);
  const int cause = spool.Open();
  if (cause != 0) {
    return FailToOpen(spool_path, cause);
  }
  const auto buffer = std::make_unique<char[]>(kPiece);
  switch (LookAt(spool_path, buffer.get())) {
    case Content::kBlank:
      return true;
    case Content::kUnrecognized:
      return Fail("Mailbox format unrecognized", 0);
    case Content::kUnreadable:
      return FailToOpen(spool_path, errno);
    case Content::kMail:
      break;
  }
  ReadBucketCount();
  const SString directory = gstr_MailboxDir + GetMailboxSubpath(uid) + "/in";
  if (IsDirectory(directory)) {
    Print("Error: POP mailbox already exists\n");
    return false;
  }
  Mailbox mailbox(directory);
  if (!mailbox.MakeDirectory()) {
    FailToCreate(directory);
    mailbox.Undo();
    return false;
  }
  SMailboxReader reader(&mailbox);
  if (CopyMessages(&spool, &mailbox, &reader, buffer.get()) && spool.Remove()) {
    return true;
  }
  if (!mailbox.WasTold() && errno != 0) {
    FailToCreate(directory);
  }
  mailbox.Undo();
  return false;
}
