#include "tools/rehearse/Keep.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <climits>

namespace {

// Directories on the way are made like those of the rehearsal.
bool MakeParents(int from, int to, const std::string& path) {
  for (auto slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string parent = path.substr(0, slash);
    struct stat status = {};
    if (mkdirat(to, parent.c_str(), 0700) == 0 &&
        fstatat(from, parent.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        (fchownat(to, parent.c_str(), status.st_uid, status.st_gid, 0) != 0 ||
         fchmodat(to, parent.c_str(), status.st_mode & 07777, 0) != 0)) {
      return false;
    }
  }
  return true;
}

bool CopyRegular(int from, int to, const std::string& path,
                 const struct stat& status) {
  const SDescriptor source(openat(
      from, path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const SDescriptor copy(
      openat(to, path.c_str(),
             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
  std::string content;
  return source.IsOpen() && copy.IsOpen() &&
         ReadToEnd(source.Get(), &content) && WriteAll(copy.Get(), content) &&
         fchown(copy.Get(), status.st_uid, status.st_gid) == 0 &&
         fchmod(copy.Get(), status.st_mode & 07777) == 0 &&
         futimens(copy.Get(), times.data()) == 0;
}

bool CopyLink(int from, int to, const std::string& path,
              const struct stat& status) {
  std::array<char, PATH_MAX> target = {};
  return readlinkat(from, path.c_str(), target.data(), target.size() - 1) > 0 &&
         symlinkat(target.data(), to, path.c_str()) == 0 &&
         fchownat(to, path.c_str(), status.st_uid, status.st_gid,
                  AT_SYMLINK_NOFOLLOW) == 0;
}

bool MakeDirectory(int to, const std::string& path, const struct stat& status) {
  return (mkdirat(to, path.c_str(), 0700) == 0 || errno == EEXIST) &&
         fchownat(to, path.c_str(), status.st_uid, status.st_gid,
                  AT_SYMLINK_NOFOLLOW) == 0 &&
         fchmodat(to, path.c_str(), status.st_mode & 07777, 0) == 0;
}

}  // namespace

Problem KeepFiles(const std::vector<std::string>& paths, int from,
                  const std::string& directory) {
  if (mkdir(directory.c_str(), 0700) != 0) {
    return ProblemOf("can't make " + directory);
  }
  const SDescriptor to(
      open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const std::string& absolute : paths) {
    const std::string path = absolute.substr(1);
    struct stat status = {};
    if (path.empty() ||
        fstatat(from, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    const mode_t mode = status.st_mode;
    const bool kept =
        MakeParents(from, to.Get(), path) &&
        (S_ISDIR(mode)   ? MakeDirectory(to.Get(), path, status)
         : S_ISREG(mode) ? CopyRegular(from, to.Get(), path, status)
         : S_ISLNK(mode) ? CopyLink(from, to.Get(), path, status)
                         : true);
    if (!kept) {
      return ProblemOf("can't keep " + absolute);
    }
  }
  return "";
}
