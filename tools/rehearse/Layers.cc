// The root directory of a rehearsal.
//
// The whole tree of the host is made read-only in the private name space first,
// so that whatever is overlooked later can't be written through.  A file system
// in memory then covers /sys; it holds each overlay's own files and the place
// where the new root is put together.  pivot_root(2) makes that the root, and
// the old tree is detached: only the descriptors in the layers still reach it.

#include "tools/rehearse/Layers.h"

#include <fcntl.h>
#include <linux/mount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace {

const std::string kStage = "/sys";
const std::string kNewRoot = kStage + "/root";

// File systems that are made anew or that no rehearsal is to see.
constexpr std::array<std::string_view, 20> kKernelFileSystems = {
    "autofs",   "binfmt_misc", "bpf",        "cgroup",   "cgroup2",
    "configfs", "debugfs",     "devpts",     "devtmpfs", "efivarfs",
    "fusectl",  "hugetlbfs",   "mqueue",     "nsfs",     "proc",
    "pstore",   "rpc_pipefs",  "securityfs", "sysfs",    "tracefs"};

struct Mount {
  std::string path;
  std::string type;
  unsigned long flags = 0;
};

bool IsBelow(const std::string& path, const std::string& directory) {
  return directory == "/" ||
         (path.size() > directory.size() && path.starts_with(directory) &&
          path[directory.size()] == '/');
}

// mountinfo writes blanks and backslashes as octal escapes.
std::string Unescape(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

unsigned long FlagsOf(const std::string& options) {
  unsigned long flags = 0;
  std::istringstream words(options);
  for (std::string word; std::getline(words, word, ',');) {
    if (word == "ro") {
      flags |= MS_RDONLY;
    }
    if (word == "nosuid") {
      flags |= MS_NOSUID;
    }
    if (word == "noexec") {
      flags |= MS_NOEXEC;
    }
  }
  return flags;
}

bool IsVisible(const std::string& path, unsigned long id) {
  struct statx status = {};
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
               STATX_MNT_ID, &status) == 0 &&
         status.stx_mnt_id == id;
}

// The file systems that a program can reach below the directory, parents first.
std::vector<Mount> MountsBelow(const std::string& directory) {
  std::vector<Mount> mounts;
  std::istringstream lines(ReadFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    unsigned long id = 0;
    std::string skipped;
    std::string path;
    std::string options;
    words >> id >> skipped >> skipped >> skipped >> path >> options;
    while (words >> skipped && skipped != "-") {
    }
    Mount mount;
    words >> mount.type;
    mount.path = Unescape(path);
    mount.flags = FlagsOf(options);
    const bool of_kernel =
        std::find(kKernelFileSystems.begin(), kKernelFileSystems.end(),
                  mount.type) != kKernelFileSystems.end();
    if (mount.path != directory && IsBelow(mount.path, directory) &&
        !IsBelow(mount.path, "/dev") && !IsBelow(mount.path, "/proc") &&
        !IsBelow(mount.path, "/sys") && !of_kernel &&
        IsVisible(mount.path, id)) {
      mounts.push_back(mount);
    }
  }
  std::sort(mounts.begin(), mounts.end(),
            [](const Mount& a, const Mount& b) { return a.path < b.path; });
  return mounts;
}

bool MakeReadOnly(const std::string& path) {
  struct mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  return syscall(SYS_mount_setattr, AT_FDCWD, path.c_str(), AT_RECURSIVE,
                 &attributes, sizeof attributes) == 0;
}

// An overlay shows its own directory's owner, mode and times for its root.
bool CopyAttributes(int from, const std::string& to) {
  struct stat status = {};
  if (fstat(from, &status) != 0) {
    return false;
  }
  const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
  return chown(to.c_str(), status.st_uid, status.st_gid) == 0 &&
         chmod(to.c_str(), status.st_mode & 07777) == 0 &&
         utimensat(AT_FDCWD, to.c_str(), times.data(), 0) == 0;
}

// Puts an overlay over one directory of the host at its place in the new root.
bool AddOverlay(const std::string& source, const std::string& mount_point,
                unsigned long flags, Root& root) {
  const std::string number =
      std::to_string(root.layers.size() + root.read_only.size());
  const std::string upper = kStage + "/upper" + number;
  const std::string work = kStage + "/work" + number;
  Layer layer;
  layer.mount_point = mount_point;
  layer.lower =
      SDescriptor(open(source.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!layer.lower.IsOpen() || mkdir(upper.c_str(), 0755) != 0 ||
      mkdir(work.c_str(), 0755) != 0 ||
      !CopyAttributes(layer.lower.Get(), upper)) {
    return false;
  }
  layer.upper =
      SDescriptor(open(upper.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  // "." spares the escapes that commas and colons in a path would need.
  const std::string options = "lowerdir=.,upperdir=" + upper +
                              ",workdir=" + work +
                              ",redirect_dir=on,metacopy=off,index=off";
  if (!layer.upper.IsOpen() || fchdir(layer.lower.Get()) != 0 ||
      mount("rehearse", (kNewRoot + mount_point).c_str(), "overlay",
            flags | MS_NODEV, options.c_str()) != 0) {
    return false;
  }
  root.layers.push_back(std::move(layer));
  return true;
}

bool BindReadOnly(const std::string& source, const std::string& target) {
  return mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) ==
             0 &&
         mount(nullptr, target.c_str(), nullptr,
               MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NODEV, nullptr) == 0;
}

// A file that is mounted on a file becomes an ordinary one with its content.
bool CopyMountedFile(const std::string& source, const std::string& target) {
  const SDescriptor from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
  const SDescriptor to(open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  std::string content;
  return from.IsOpen() && to.IsOpen() && ReadToEnd(from.Get(), &content) &&
         WriteAll(to.Get(), content) && CopyAttributes(from.Get(), target);
}

Problem AddMount(const Mount& mount, const std::string& directory, Root& root) {
  const std::string place =
      directory == "/" ? mount.path : mount.path.substr(directory.size());
  const std::string target = kNewRoot + place;
  struct stat status = {};
  if (stat(mount.path.c_str(), &status) != 0) {
    return "";  // out of reach for the program as well
  }
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) {
    return "";  // the empty file below stands in for a socket or a device
  }
  const bool writable =
      S_ISREG(status.st_mode)
          ? CopyMountedFile(mount.path, target)
          : (mount.flags & MS_RDONLY) == 0 &&
                AddOverlay(mount.path, place, mount.flags, root);
  if (writable) {
    return "";
  }
  root.read_only.push_back(place);
  return BindReadOnly(mount.path, target)
             ? ""
             : ProblemOf("can't show " + mount.path + " in the rehearsal");
}

bool BindFile(const std::string& source, const std::string& target) {
  return mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// Where devices can't be made, as in containers, those that are there serve.
bool MakeDevice(const std::string& directory, const std::string& name,
                unsigned minor, unsigned major = 1) {
  const std::string path = directory + "/" + name;
  if (mknod(path.c_str(), S_IFCHR | 0666, makedev(major, minor)) == 0) {
    return chmod(path.c_str(), 0666) == 0;
  }
  return errno == EPERM && mknod(path.c_str(), S_IFREG | 0666, 0) == 0 &&
         BindFile("/dev/" + name, path);
}

// Whom programs ask for users, groups and host names: without them, a
// rehearsal on this host would see fewer than the host has.
constexpr std::array<const char*, 7> kNameServices = {
    "/run/nscd/socket",
    "/run/nslcd/socket",
    "/run/samba/winbindd/pipe",
    "/run/systemd/resolve/io.systemd.Resolve",
    "/run/systemd/userdb/io.systemd.DynamicUser",
    "/run/systemd/userdb/io.systemd.Multiplexer",
    "/var/lib/sss/pipes/nss"};

// The socket itself answers; that of an overlay is nobody's.
void ShowNameServices() {
  for (const std::string path : kNameServices) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
      (void)BindFile(path, kNewRoot + path);  // fewer names are no failure
    }
  }
}

Problem AddDevices() {
  const std::string dev = kNewRoot + "/dev";
  mkdir(dev.c_str(), 0755);
  if (mount("rehearse", dev.c_str(), "tmpfs", MS_NOSUID | MS_NOEXEC,
            "mode=755,size=64k") != 0) {
    return ProblemOf("can't mount devices");
  }
  const std::string pts = dev + "/pts";
  const std::string shm = dev + "/shm";
  if (!MakeDevice(dev, "null", 3) || !MakeDevice(dev, "zero", 5) ||
      !MakeDevice(dev, "full", 7) || !MakeDevice(dev, "random", 8) ||
      !MakeDevice(dev, "urandom", 9) || !MakeDevice(dev, "tty", 0, 5) ||
      symlink("pts/ptmx", (dev + "/ptmx").c_str()) != 0 ||
      symlink("/proc/self/fd", (dev + "/fd").c_str()) != 0 ||
      symlink("/proc/self/fd/0", (dev + "/stdin").c_str()) != 0 ||
      symlink("/proc/self/fd/1", (dev + "/stdout").c_str()) != 0 ||
      symlink("/proc/self/fd/2", (dev + "/stderr").c_str()) != 0 ||
      mkdir(pts.c_str(), 0755) != 0 || mkdir(shm.c_str(), 01777) != 0) {
    return ProblemOf("can't make devices");
  }
  if (mount("rehearse", pts.c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
            "newinstance,ptmxmode=0666,mode=620") != 0 ||
      mount("rehearse", shm.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
            "mode=1777") != 0) {
    return ProblemOf("can't mount terminals");
  }
  return "";
}

// The kernel's own settings belong to the real host: they may be read only.
Problem AddKernelViews(World world) {
  const std::string proc = kNewRoot + "/proc";
  const std::string sys = kNewRoot + "/sys";
  mkdir(proc.c_str(), 0555);
  mkdir(sys.c_str(), 0555);
  const unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
  if (mount("rehearse", proc.c_str(), "proc", flags, nullptr) != 0) {
    return ProblemOf("can't mount /proc");
  }
  if (mount("rehearse", sys.c_str(), "sysfs", flags | MS_RDONLY, nullptr) !=
      0) {
    return ProblemOf("can't mount /sys");
  }
  // The files of the host's processes take orders, too.
  if (world == World::kThisHost && !BindReadOnly(proc, proc)) {
    return ProblemOf("can't protect /proc");
  }
  for (const char* name : {"sys", "sysrq-trigger", "irq", "bus", "fs"}) {
    const std::string path = proc + "/" + name;
    if (access(path.c_str(), F_OK) == 0 && !BindReadOnly(path, path)) {
      return ProblemOf("can't protect " + path.substr(kNewRoot.size()));
    }
  }
  for (const char* name : {"kcore", "kmsg"}) {
    const std::string path = proc + "/" + name;
    if (access(path.c_str(), F_OK) == 0 &&
        !BindFile(kNewRoot + "/dev/null", path)) {
      return ProblemOf("can't hide " + path.substr(kNewRoot.size()));
    }
  }
  return "";
}

Problem EnterRoot() {
  if (chdir(kNewRoot.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
      umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
    return ProblemOf("can't enter the rehearsal's root directory");
  }
  return "";
}

}  // namespace

Problem BuildRoot(const std::string& directory, World world, Root& root) {
  const std::vector<Mount> mounts = MountsBelow(directory);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      !MakeReadOnly("/")) {
    return ProblemOf("can't make the host's file systems read-only");
  }
  if (mount("rehearse", kStage.c_str(), "tmpfs", 0, "mode=700") != 0 ||
      mkdir(kNewRoot.c_str(), 0755) != 0) {
    return ProblemOf("can't mount a file system in memory");
  }
  if (!AddOverlay(directory, "", 0, root)) {
    return ProblemOf("can't mount an overlay over " + directory);
  }
  for (const Mount& mount : mounts) {
    if (Problem problem = AddMount(mount, directory, root); !problem.empty()) {
      return problem;
    }
  }
  if (Problem problem = AddDevices(); !problem.empty()) {
    return problem;
  }
  if (Problem problem = AddKernelViews(world); !problem.empty()) {
    return problem;
  }
  if (world == World::kThisHost) {
    ShowNameServices();
  }
  return EnterRoot();
}
