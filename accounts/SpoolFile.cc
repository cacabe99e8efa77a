#include "accounts/SpoolFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Privileges.h"

namespace {

constexpr int kLockAttempts = 100;
constexpr long kAttemptNanoseconds = 100'000'000;  // ten seconds in all

constexpr mode_t kLockMode = 0444;

// A process id first, as delivery agents write and read it; then what tells our
// locks from those of other programs, and from those of other hosts that share
// the spool.
SString LockText(const SString& process_id) {
  return process_id + "\nVellumcraft installation on " + gstr_HostName + "\n";
}

SString VersionOf(const struct stat& status) {
  return SString(std::to_string(status.st_ino) + "." +
                 std::to_string(status.st_size) + "." +
                 std::to_string(status.st_mtim.tv_sec) + "." +
                 std::to_string(status.st_mtim.tv_nsec));
}

bool IsRunning(const SString& process_id) {
  const long number = std::strtol(process_id, nullptr, 10);
  return number <= 0 || kill(static_cast<pid_t>(number), 0) == 0 ||
         errno != ESRCH;
}

}  // namespace

SSpoolFile::~SSpoolFile() {
  if (has_dot_lock_) {
    const int former_errno = errno;
    const SActAs as_root(SActAs::Root{});
    // An agent that took our lock for a dead one has its own there now.
    struct stat status = {};
    if (lstat(LockPath(), &status) == 0 && IsSameFile(status, dot_lock_)) {
      RemoveFile(LockPath());
    }
    errno = former_errno;
  }
}

bool SSpoolFile::IsLockLeft(struct stat* status) const {
  const SDescriptor lock(
      open(LockPath(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  char text[512];
  if (!lock.IsOpen() || fstat(lock.Get(), status) != 0 || status->st_uid != 0 ||
      !S_ISREG(status->st_mode)) {
    return false;
  }
  const ssize_t n = read(lock.Get(), text, sizeof text);
  if (n <= 0) {
    return false;
  }
  const std::string_view whole(text, static_cast<std::size_t>(n));
  const SString process_id(whole.substr(0, whole.find('\n')));
  return whole == LockText(process_id).View() && !IsRunning(process_id);
}

bool SSpoolFile::HasLeftLock() const {
  const SActAs as_root(SActAs::Root{});
  struct stat status = {};
  return IsLockLeft(&status);
}

// Another process may have done the same, and locked, in between: the lock is
// moved aside, looked at, and put back if it is another.
void SSpoolFile::RemoveLeftLock() const {
  const SActAs as_root(SActAs::Root{});
  struct stat left = {};
  if (!IsLockLeft(&left)) {
    return;
  }
  const SString aside = LockPath() + "." + ProcessIdString();
  struct stat moved = {};
  if (!Rename(LockPath(), aside)) {
    return;
  }
  const bool is_left = lstat(aside, &moved) == 0 && IsSameFile(moved, left);
  if (is_left || link(aside, LockPath()) == 0) {
    RemoveFile(aside);
  }
}

bool SSpoolFile::TakeDotLock() {
  has_dot_lock_ = CreateWholeFile(LockPath(), kLockMode,
                                  LockText(ProcessIdString()).View());
  if (!has_dot_lock_ && errno != EEXIST) {
    // On a full disk there may be room for a lock without text.
    has_dot_lock_ = CreateWholeFile(LockPath(), kLockMode, "");
  }
  if (has_dot_lock_ && lstat(LockPath(), &dot_lock_) != 0) {
    has_dot_lock_ = false;
  }
  return has_dot_lock_;
}

int SSpoolFile::TakeLocks() {
  RemoveLeftLock();
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (!has_dot_lock_ && !TakeDotLock() && errno != EEXIST) {
      return errno;
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

int SSpoolFile::Open() {
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
  return cause == 0 && !NamesOpenFile(path_, file_.Get()) ? ESTALE : cause;
}

ssize_t SSpoolFile::Read(char* buffer, std::size_t size) {
  ssize_t n = 0;
  do {
    n = pread(file_.Get(), buffer, size, offset_);
  } while (n < 0 && errno == EINTR);
  has_read_error_ = n < 0;
  offset_ += n > 0 ? n : 0;
  return n;
}

bool SSpoolFile::IsAtEnd() const {
  struct stat status = {};
  return fstat(file_.Get(), &status) != 0 || status.st_size <= offset_;
}

SString SSpoolFile::Version() const {
  struct stat status = {};
  return fstat(file_.Get(), &status) == 0 ? VersionOf(status) : SString();
}

bool SSpoolFile::HasVersion(const SString& version) {
  struct stat status = {};
  if (fstat(file_.Get(), &status) != 0 || VersionOf(status) != version) {
    return false;
  }
  offset_ = status.st_size;
  return true;
}

bool SSpoolFile::Remove() {
  const SActAs as_root(SActAs::Root{});
  removed_at_ = offset_;
  return NamesOpenFile(path_, file_.Get()) && RemoveFile(path_);
}

bool SSpoolFile::PutBack() const {
  constexpr int kFlags =
      O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const SActAs as_root(SActAs::Root{});
  struct stat former = {};
  std::string late;
  if (fstat(file_.Get(), &former) != 0 ||
      lseek(file_.Get(), removed_at_, SEEK_SET) != removed_at_ ||
      !ReadToEnd(file_.Get(), &late)) {
    return false;
  }
  SDescriptor spool(open(path_, kFlags | O_CREAT | O_EXCL, 0600));
  if (spool.IsOpen()) {
    if (fchown(spool.Get(), former.st_uid, former.st_gid) != 0 ||
        fchmod(spool.Get(), former.st_mode & 07777) != 0) {
      // A spool that is not the user's would hold up what comes.
      const int cause = errno;
      RemoveFile(path_);
      errno = cause;
      return false;
    }
  } else if (errno == EEXIST) {
    spool = SDescriptor(open(path_, kFlags));
  }
  struct stat status = {};
  if (!spool.IsOpen() || fstat(spool.Get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1 ||
      status.st_uid != former.st_uid) {
    errno = EPERM;
    return false;
  }
  return WriteAll(spool.Get(), late) &&
         TEMP_FAILURE_RETRY(fsync(spool.Get())) == 0 && spool.Close();
}
