// Rewrites a host file in place after a verified backup.
//
//   touches    the file, its first free backup name
//   identity   root; the backup's group is the mail group
//
// In place, because other names may lead to the file and its attributes are the
// host's business.  The price is a moment in which the file is neither old nor
// new; that is why the backup, its name included, is on disk before, and why
// the space is reserved and nothing cut off before all new bytes are written.

#include "host/RewriteHostFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <string>

#include "driver/Interrupts.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"
#include "toolkit/Signals.h"

namespace {

constexpr mode_t kBackupMode = 0664;
constexpr mode_t kPermissionBits = 07777;

// A path that has become a FIFO or a terminal is refused, not waited for.
constexpr int kCautiously = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool AreSameFile(int a, int b) {
  struct stat first = {};
  struct stat second = {};
  return fstat(a, &first) == 0 && fstat(b, &second) == 0 &&
         IsSameFile(first, second);
}

bool IsLockUnknown(int error) {
  return error == EBADF || error == ENOLCK || error == EOPNOTSUPP ||
         error == ENOSYS || error == EINVAL;
}

// Editors lock with one of two calls that know nothing of each other.  The
// lock of the second is for reading because the file is open for reading; it
// keeps writers out all the same.
//
// Where the file system has no locks, or only for files open for writing, nobody
// else can hold one.
bool LockAgainstEditors(int fd) {
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return (flock(fd, LOCK_EX | LOCK_NB) == 0 || IsLockUnknown(errno)) &&
         (fcntl(fd, F_OFD_SETLK, &lock) == 0 || IsLockUnknown(errno));
}

bool ReadContent(int fd, std::string* content) {
  content->clear();
  return lseek(fd, 0, SEEK_SET) == 0 && ReadToEnd(fd, content);
}

bool Holds(int fd, const std::string& content) {
  std::string found;
  return ReadContent(fd, &found) && found == content;
}

// The file, locked and still found under its path, for reading.
SDescriptor OpenLocked(const SString& path) {
  SDescriptor file(open(path, O_RDONLY | kCautiously));
  struct stat status = {};
  if (file.IsOpen() && fstat(file.Get(), &status) == 0 &&
      S_ISREG(status.st_mode) && LockAgainstEditors(file.Get()) &&
      LeadsToOpenFile(path, file.Get())) {
    return file;
  }
  return SDescriptor();
}

// Creates the first backup name that nothing has, and tells it.
SDescriptor CreateBackup(const SString& path, SString* name) {
  for (int n = 0;; ++n) {
    *name = BackupName(path, n);
    if (PathTaken(*name)) {
      continue;
    }
    SDescriptor backup(open(*name,
                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            kBackupMode));
    if (backup.IsOpen() || errno != EEXIST) {
      return backup;
    }
  }
}

// Puts the content on disk under a backup name; "" when that fails.
SString SaveBackup(const SString& path, const std::string& content) {
  SString name;
  SDescriptor backup = CreateBackup(path, &name);
  if (!backup.IsOpen()) {
    return "";
  }
  if (WriteAll(backup.Get(), content) &&
      TEMP_FAILURE_RETRY(fsync(backup.Get())) == 0 &&
      Holds(backup.Get(), content) && backup.Close() && SyncDirectoryOf(name)) {
    return name;
  }
  RemoveFile(name);
  return "";
}

// Gives the owner write permission.  False when that can't be done; `changed`
// tells whether there was need.
bool MakeWriteable(int fd, mode_t* mode, bool* changed) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  *mode = status.st_mode & kPermissionBits;
  *changed = (*mode & S_IWUSR) == 0;
  return !*changed || fchmod(fd, *mode | S_IWUSR) == 0;
}

// The same file for writing; not truncated, so that it keeps what it holds
// until that is overwritten.
SDescriptor OpenForWriting(const SString& path, int same_file) {
  SDescriptor file(open(path, O_WRONLY | kCautiously));
  if (file.IsOpen() && AreSameFile(file.Get(), same_file)) {
    return file;
  }
  return SDescriptor();
}

// A full disk shows before the first byte is overwritten.
bool ReserveSpace(int fd, std::size_t size) {
  const SFailAtSizeLimit no_signal;
  if (size == 0 ||
      TEMP_FAILURE_RETRY(fallocate(fd, FALLOC_FL_KEEP_SIZE, 0,
                                   static_cast<off_t>(size))) == 0) {
    return true;
  }
  return errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
}

bool Store(SDescriptor file, const std::string& content) {
  const int fd = file.Get();
  return ReserveSpace(fd, content.size()) && WriteAll(fd, content) &&
         TEMP_FAILURE_RETRY(
             ftruncate(fd, static_cast<off_t>(content.size()))) == 0 &&
         TEMP_FAILURE_RETRY(fsync(fd)) == 0 && file.Close();
}

// Replaces the content of the locked file, or puts the old one back.
bool Replace(const SString& path, int locked, SDescriptor file,
             const std::string& former, const std::string& content) {
  if (Store(std::move(file), content)) {
    return true;
  }
  // Should this fail, too, there is the backup.
  static_cast<void>(Store(OpenForWriting(path, locked), former));
  return false;
}

std::string Edited(const std::string& former, const SHostFileEdit& edit) {
  std::istringstream in(former);
  SStringList lines;
  in >> lines;
  return edit(std::move(lines)).Std();
}

}  // namespace

SString BackupName(const SString& path, int n) {
  return path + ".bak" + (n == 0 ? SString() : SString(n));
}

bool RewriteHostFile(const SString& path, const SHostFileEdit& edit) {
  const SActAs as_root(SActAs::Root{});
  const SDescriptor locked = OpenLocked(path);
  std::string former;
  if (!locked.IsOpen() || !ReadContent(locked.Get(), &former)) {
    return false;
  }
  const std::string content = Edited(former, edit);

  const SDeferInterrupts until_done;
  const SString backup = SaveBackup(path, former);
  if (backup.IsEmpty()) {
    return false;
  }
  // Somebody who takes no lock may have written meanwhile.
  mode_t mode = 0;
  bool mode_changed = false;
  SDescriptor file;
  if (Holds(locked.Get(), former) &&
      MakeWriteable(locked.Get(), &mode, &mode_changed)) {
    file = OpenForWriting(path, locked.Get());
  }
  if (!file.IsOpen()) {
    RemoveFile(backup);
    return false;
  }
  const bool replaced =
      Replace(path, locked.Get(), std::move(file), former, content);
  if (mode_changed) {
    static_cast<void>(fchmod(locked.Get(), mode));
  }
  return replaced;
}
