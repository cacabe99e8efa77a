#include "accounts/SpoolFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "toolkit/Privileges.h"

namespace {

constexpr int kLockAttempts = 100;
constexpr long kAttemptNanoseconds = 100'000'000;  // ten seconds in all

}  // namespace

SSpoolFile::~SSpoolFile() {
  if (has_dot_lock_) {
    const int former_errno = errno;
    const SActAs as_root(SActAs::Root{});
    RemoveFile(path_ + ".lock");
    errno = former_errno;
  }
}

bool SSpoolFile::NamesThisFile() const {
  struct stat named = {};
  struct stat open = {};
  return lstat(path_, &named) == 0 && fstat(file_.Get(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

bool SSpoolFile::TakeDotLock() {
  const SDescriptor lock(
      open(path_ + ".lock",
           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0444));
  has_dot_lock_ = lock.IsOpen();
  if (has_dot_lock_) {
    // By the process id others know at once that a lock was left behind; a lock
    // without it is good, too.
    static_cast<void>(WriteAll(lock.Get(), (SString(getpid()) + "\n").View()));
  }
  return has_dot_lock_;
}

int SSpoolFile::TakeLocks() {
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
  return cause == 0 && !NamesThisFile() ? ESTALE : cause;
}

ssize_t SSpoolFile::Read(char* buffer, std::size_t size) {
  ssize_t n = 0;
  do {
    n = pread(file_.Get(), buffer, size, offset_);
  } while (n < 0 && errno == EINTR);
  offset_ += n > 0 ? n : 0;
  return n;
}

bool SSpoolFile::IsAtEnd() const {
  struct stat status = {};
  return fstat(file_.Get(), &status) == 0 && status.st_size <= offset_;
}

bool SSpoolFile::Remove() {
  const SActAs as_root(SActAs::Root{});
  return NamesThisFile() && RemoveFile(path_);
}
