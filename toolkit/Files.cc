#include "toolkit/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "toolkit/Signals.h"

namespace {

constexpr std::size_t kFirstPiece = 4096;

bool ReadWhole(const SString& path, std::string* content) {
  const SDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.IsOpen() && ReadToEnd(file.Get(), content)) {
    return true;
  }
  content->clear();
  return false;
}

bool HasType(const SString& path, mode_t type) {
  struct stat status = {};
  return stat(path, &status) == 0 && (status.st_mode & S_IFMT) == type;
}

SString DirectoryOf(const SString& path) {
  const std::size_t slash = path.View().rfind('/');
  return slash == std::string_view::npos
             ? SString(".")
             : SString(path.View().substr(0, slash == 0 ? 1 : slash));
}

}  // namespace

bool FileExists(const SString& path) {
  struct stat status = {};
  return stat(path, &status) == 0;
}

bool PathTaken(const SString& path) {
  struct stat status = {};
  return lstat(path, &status) == 0;
}

bool IsDirectory(const SString& path) {
  return HasType(path, S_IFDIR);
}

bool IsRegular(const SString& path) {
  return HasType(path, S_IFREG);
}

bool IsWriteable(const SString& path) {
  struct stat status = {};
  return stat(path, &status) == 0 && (status.st_mode & S_IWUSR) != 0;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool NamesOpenFile(const SString& path, int fd) {
  struct stat named = {};
  struct stat open = {};
  return lstat(path, &named) == 0 && fstat(fd, &open) == 0 &&
         IsSameFile(named, open);
}

bool LeadsToOpenFile(const SString& path, int fd) {
  struct stat reached = {};
  struct stat open = {};
  return stat(path, &reached) == 0 && fstat(fd, &open) == 0 &&
         IsSameFile(reached, open);
}

long long FileSize(const SString& path) {
  struct stat status = {};
  return stat(path, &status) == 0 ? status.st_size : -1;
}

bool MakeDir(const SString& path, unsigned long mode) {
  return mkdir(path, static_cast<mode_t>(mode)) == 0;
}

SString RealPath(const SString& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr),
                                                        free);
  return SString(resolved.get());
}

SStringList ReadDir(const SString& directory) {
  SStringList names;
  DIR* stream = opendir(directory);
  if (stream == nullptr) {
    return names;
  }
  // An errno of the work in between is none of the reading.
  while (const dirent* entry = (errno = 0, readdir(stream))) {
    const SString name = entry->d_name;
    if (!(name == ".") && !(name == "..")) {
      names.Push(name);
    }
  }
  // Half of the names would be worse than none.
  const int cause = errno;
  if (cause != 0) {
    names.Reset();
  }
  closedir(stream);
  errno = cause;
  names.Sort();
  return names;
}

bool Rename(const SString& from, const SString& to) {
  return rename(from, to) == 0;
}

bool RenameToFreeName(const SString& from, const SString& to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return false;
  }
  if (link(from, to) == 0) {
    if (RemoveFile(from) || errno == ENOENT) {
      return true;
    }
    const int cause = errno;
    RemoveFile(to);
    errno = cause;
    return false;
  }
  // No further names for directories, nor for anything on some file systems.
  if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS &&
      errno != EINVAL) {
    return false;
  }
  if (PathTaken(to)) {
    errno = EEXIST;
    return false;
  }
  return Rename(from, to);
}

bool RemoveFile(const SString& path) {
  return unlink(path) == 0;
}

SString MapFileRead(const SString& path) {
  std::string content;
  static_cast<void>(ReadWhole(path, &content));
  return SString(std::move(content));
}

bool ReadLines(const SString& path, SStringList* lines) {
  lines->Reset();
  std::string content;
  if (!ReadWhole(path, &content)) {
    return false;
  }
  lines->PushLines(content);
  return true;
}

SStringList BaseName(const SStringList& paths, const SString& suffix) {
  SStringList names;
  for (const SString& path : paths) {
    std::string_view name = path.View();
    name.remove_prefix(name.rfind('/') + 1);
    if (name.ends_with(suffix.View())) {
      name.remove_suffix(suffix.View().size());
    }
    names.Push(SString(name));
  }
  return names;
}

bool ReadToEnd(int fd, std::string* content) {
  while (true) {
    const std::size_t filled = content->size();
    content->resize(std::max(kFirstPiece, 2 * filled));
    const ssize_t n =
        read(fd, content->data() + filled, content->size() - filled);
    content->resize(filled + static_cast<std::size_t>(n > 0 ? n : 0));
    if (n == 0) {
      return true;
    }
    if (n < 0 && errno != EINTR) {
      return false;
    }
  }
}

bool WriteAll(int fd, std::string_view bytes) {
  const SFailAtSizeLimit no_signal;
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    } else if (n == 0) {
      errno = ENOSPC;
      return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool CreateWholeFile(const SString& path, mode_t mode,
                     std::string_view content) {
  const SDescriptor nameless(
      open(DirectoryOf(path), O_WRONLY | O_TMPFILE | O_CLOEXEC, mode));
  if (nameless.IsOpen() && WriteAll(nameless.Get(), content)) {
    // Without /proc a descriptor could be given a name by root only.
    const SString descriptor = "/proc/self/fd/" + SString(nameless.Get());
    if (linkat(AT_FDCWD, descriptor, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0) {
      return true;
    }
    if (errno == EEXIST) {
      return false;
    }
  }
  SDescriptor file(
      open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file.IsOpen()) {
    return false;
  }
  if (WriteAll(file.Get(), content) && file.Close()) {
    return true;
  }
  const int cause = errno;
  RemoveFile(path);
  errno = cause;
  return false;
}

bool SyncDirectoryOf(const SString& path) {
  const SDescriptor opened(
      open(DirectoryOf(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems keep their directories in another way.
  return opened.IsOpen() && (fsync(opened.Get()) == 0 || errno == EINVAL ||
                             errno == ENOSYS || errno == EOPNOTSUPP);
}

SString FileOwner(const SString& path) {
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    return {};
  }
  const passwd* owner = getpwuid(status.st_uid);
  return owner == nullptr ? SString() : SString(owner->pw_name);
}

SString FileGroup(const SString& path) {
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    return {};
  }
  const group* owner = getgrgid(status.st_gid);
  return owner == nullptr ? SString() : SString(owner->gr_name);
}

SDescriptor& SDescriptor::operator=(SDescriptor&& other) noexcept {
  if (this != &other) {
    SDescriptor closed(fd_);
    fd_ = other.Release();
  }
  return *this;
}

SDescriptor::~SDescriptor() {
  if (fd_ >= 0) {
    const int former_errno = errno;
    close(fd_);
    errno = former_errno;
  }
}

int SDescriptor::Release() {
  return std::exchange(fd_, -1);
}

bool SDescriptor::Close() {
  return close(Release()) == 0;
}
