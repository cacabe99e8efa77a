#pragma once

#include <sys/stat.h>

#include "toolkit/SStringList.h"

// Thin layers over the POSIX calls named with each function.  None prints or
// throws; failure is an empty or false result with `errno` left as the cause.
// Every function acts with the effective identity in force (see
// toolkit/Privileges.h).

/// True when the path names anything, links followed (stat).
[[nodiscard]] bool FileExists(const SString& path);
/// True when the path names anything, a dangling link included (lstat).
[[nodiscard]] bool PathTaken(const SString& path);
/// True for an existing directory, links followed.
[[nodiscard]] bool IsDirectory(const SString& path);
/// True for an existing regular file, links followed.
[[nodiscard]] bool IsRegular(const SString& path);
/// True when the owner's write permission bit is set (what the mode says, also
/// for root); false when the mode can't be read.
[[nodiscard]] bool IsWriteable(const SString& path);
/// True when both statuses are those of one file, whatever its names are.
[[nodiscard]] bool IsSameFile(const struct stat& one, const struct stat& other);
/// True when the path itself is a name of the open file at this moment.
[[nodiscard]] bool NamesOpenFile(const SString& path, int fd);
/// True when the path leads to the open file at this moment, links followed.
[[nodiscard]] bool LeadsToOpenFile(const SString& path, int fd);
/// Size in bytes, links followed; -1 when it can't be told.
[[nodiscard]] long long FileSize(const SString& path);

/// Creates one directory with the permission bits of `mode`, less the process
/// mask (mkdir).  An existing directory is a failure.
[[nodiscard]] bool MakeDir(const SString& path, unsigned long mode);
/// The absolute path with every link resolved (realpath); "" when it can't be
/// resolved.
[[nodiscard]] SString RealPath(const SString& path);
/// The names in the directory without "." and "..", sorted by bytes; empty
/// when it can't be read.
[[nodiscard]] SStringList ReadDir(const SString& directory);
[[nodiscard]] bool Rename(const SString& from, const SString& to);
/// A rename that replaces nothing: false with `EEXIST` when `to` is taken.  On a
/// file system that knows no such rename a file has both names for a moment, and
/// a directory is renamed after a look whether the name is free.
[[nodiscard]] bool RenameToFreeName(const SString& from, const SString& to);
bool RemoveFile(const SString& path);
/// The whole content of a file; "" when it can't be read.
[[nodiscard]] SString MapFileRead(const SString& path);
/// The lines of a file, each with its line end; false when it can't be opened
/// or read to its end, then `lines` is empty.  Never creates the file.
[[nodiscard]] bool ReadLines(const SString& path, SStringList* lines);
/// Last component of every path, less `suffix` where it ends in it.
[[nodiscard]] SStringList BaseName(const SStringList& paths,
                                   const SString& suffix);

/// Appends what the descriptor gives up to its end.  False when a read fails
/// (interruptions don't count): `content` has what came before.
[[nodiscard]] bool ReadToEnd(int fd, std::string* content);
/// Writes all bytes to the descriptor, going on after short and interrupted
/// writes.  The limit for the size of files is a failure like a full disk.
[[nodiscard]] bool WriteAll(int fd, std::string_view bytes);
/// Makes a file that was not there with this content; `mode` less the process
/// mask.  A process that is killed leaves it whole or not at all, on file
/// systems that know files without a name (O_TMPFILE).  False, with nothing made,
/// when the path is taken (EEXIST), also by a dangling link, or can't be written.
[[nodiscard]] bool CreateWholeFile(const SString& path, mode_t mode,
                                   std::string_view content);
/// Waits until the directory that holds `path` is on disk (fsync), so that a
/// name made or removed there outlives a power failure.
[[nodiscard]] bool SyncDirectoryOf(const SString& path);

/// Name of the user that owns the file, of a link the link itself (lstat); ""
/// when it can't be told.
[[nodiscard]] SString FileOwner(const SString& path);
/// Name of the file's group, as `FileOwner`.
[[nodiscard]] SString FileGroup(const SString& path);

/// A file descriptor that is closed at the end of the enclosing block.
class [[nodiscard]] SDescriptor {
 public:
  explicit SDescriptor(int fd = -1) : fd_(fd) {}
  SDescriptor(const SDescriptor&) = delete;
  SDescriptor& operator=(const SDescriptor&) = delete;
  SDescriptor(SDescriptor&& other) noexcept : fd_(other.Release()) {}
  SDescriptor& operator=(SDescriptor&& other) noexcept;
  /// Closes without looking at the result and keeps `errno`.
  ~SDescriptor();

  [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
  [[nodiscard]] int Get() const { return fd_; }
  /// Gives the descriptor away without closing it.
  int Release();
  /// Closes now; false when close reports an error.
  [[nodiscard]] bool Close();

 private:
  int fd_;
};
