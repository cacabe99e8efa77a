#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "toolkit/Files.h"

/// A spool mailbox, open and locked as delivery agents lock it: PATH.lock,
/// created exclusively, and an fcntl lock on the whole file.  It acts as root
/// where it has to.  A PATH.lock that an earlier run was killed with is taken over.
///
/// Nothing else in the process may open the file meanwhile: closing any of its
/// descriptors would give up the fcntl lock.
class SSpoolFile {
 public:
  explicit SSpoolFile(const SString& path) : path_(path) {}
  /// Gives up the locks; keeps `errno`.
  ~SSpoolFile();
  SSpoolFile(const SSpoolFile&) = delete;
  SSpoolFile& operator=(const SSpoolFile&) = delete;

  /// Opens and locks, waiting ten seconds at most.  0, or the cause in the
  /// words of errno: a link ELOOP, a directory EISDIR, a file of several names
  /// EPERM, another kind of file EINVAL, locked by others EAGAIN.
  [[nodiscard]] int Open();
  /// True when an earlier run was killed while it held the locks, until
  /// `RemoveLeftLock` or `Open`.
  [[nodiscard]] bool HasLeftLock() const;
  void RemoveLeftLock() const;
  /// Bytes read into `buffer`, 0 at the present end, -1 on an error.
  [[nodiscard]] ssize_t Read(char* buffer, std::size_t size);
  /// True when a `Read` has failed.
  [[nodiscard]] bool HasReadError() const { return has_read_error_; }
  /// Begins again at the first byte.
  void Rewind() { offset_ = 0; }
  /// True when there is nothing behind what was read, or when that can't be told
  /// (`Remove` then fails).
  [[nodiscard]] bool IsAtEnd() const;
  [[nodiscard]] const SString& Path() const { return path_; }
  /// What tells the file in this state from every other: its inode, size and
  /// time of change; "" when that can't be told.
  [[nodiscard]] SString Version() const;
  /// True when the file is in the state that this version tells; all of it counts
  /// as read then.  False for "".
  [[nodiscard]] bool HasVersion(const SString& version);
  /// Removes the file; false when the path is another file by now.
  [[nodiscard]] bool Remove();
  /// Puts what was written behind the bytes read up to `Remove` into the spool
  /// again, behind what has come there since; false with `errno` set when some of
  /// it may be missing there.  What was the rest of a message stands there
  /// without a "From " line.
  [[nodiscard]] bool PutBack() const;

 private:
  [[nodiscard]] int TakeLocks();
  [[nodiscard]] bool TakeDotLock();
  [[nodiscard]] bool IsLockLeft(struct stat* status) const;
  [[nodiscard]] SString LockPath() const { return path_ + ".lock"; }

  SString path_;
  SDescriptor file_;
  bool has_dot_lock_ = false;
  struct stat dot_lock_ = {};
  bool has_read_error_ = false;
  off_t offset_ = 0;
  off_t removed_at_ = 0;
};
