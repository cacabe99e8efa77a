#include "tools/rehearse/Confinement.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/close_range.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "tools/rehearse/ReadFile.h"

namespace {

// Rights of root that reach beyond the name spaces.
constexpr std::array<int, 15> kHostRights = {
    CAP_SYS_MODULE, CAP_SYS_RAWIO,     CAP_SYS_BOOT,          CAP_SYS_TIME,
    CAP_MKNOD,      CAP_SYSLOG,        CAP_WAKE_ALARM,        CAP_BLOCK_SUSPEND,
    CAP_PERFMON,    CAP_BPF,           CAP_MAC_ADMIN,         CAP_MAC_OVERRIDE,
    CAP_SYS_PACCT,  CAP_AUDIT_CONTROL, CAP_CHECKPOINT_RESTORE};
// Rights that would let a program leave them on purpose.
constexpr std::array<int, 2> kNameSpaceRights = {CAP_SYS_ADMIN, CAP_SYS_PTRACE};
// Rights over what a program shares with the host when it sees its processes.
constexpr std::array<int, 4> kSharedRights = {
    CAP_NET_ADMIN, CAP_NET_RAW, CAP_AUDIT_WRITE, CAP_SYS_TTY_CONFIG};

template <std::size_t size>
bool Drop(const std::array<int, size>& rights) {
  bool dropped = true;
  for (const int right : rights) {
    // EINVAL: the kernel is older than the right.
    dropped &= prctl(PR_CAPBSET_DROP, right) == 0 || errno == EINVAL;
  }
  return dropped;
}

// The headers of Debian 12 know the first member only.
struct Ruleset {
  std::uint64_t files = 0;
  std::uint64_t ports = 0;
  std::uint64_t scopes = 0;
};

constexpr std::uint64_t kAbstractSockets = 1U << 0;
constexpr std::uint64_t kSignals = 1U << 1;

constexpr long kVersionWithRenames = 2;
constexpr long kVersionWithPorts = 4;
constexpr long kVersionWithScopes = 6;

// One byte is the lowest limit that keeps the kernel from asking the host's
// handler.  Where none is asked and none may be set, no core at all will do.
bool LeaveNoCore() {
  const rlimit one_byte = {1, 1};
  if (setrlimit(RLIMIT_CORE, &one_byte) == 0) {
    return true;
  }
  const int cause = errno;
  rlimit now = {};
  const bool none = getrlimit(RLIMIT_CORE, &now) == 0 && now.rlim_cur == 0 &&
                    !ReadFile("/proc/sys/kernel/core_pattern").starts_with('|');
  errno = cause;
  return none;
}

}  // namespace

bool DropRights(Rights rights) {
  return Drop(kHostRights) &&
         (rights == Rights::kPrivileged || Drop(kNameSpaceRights)) &&
         (rights != Rights::kOnThisHost || Drop(kSharedRights));
}

// Some right over files has to be named.  Devices must not be made anyhow, and
// renaming, which is never allowed by itself, is allowed everywhere.
Problem HideOtherProcesses() {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0,
                               LANDLOCK_CREATE_RULESET_VERSION);
  if (version < kVersionWithRenames) {
    return "";
  }
  Ruleset ruleset;
  ruleset.files = LANDLOCK_ACCESS_FS_REFER | LANDLOCK_ACCESS_FS_MAKE_BLOCK;
  ruleset.scopes =
      version >= kVersionWithScopes ? kAbstractSockets | kSignals : 0;
  const std::size_t size = version >= kVersionWithScopes  ? 3
                           : version >= kVersionWithPorts ? 2
                                                          : 1;
  const SDescriptor rules(static_cast<int>(syscall(
      SYS_landlock_create_ruleset, &ruleset, size * sizeof(std::uint64_t), 0)));
  const SDescriptor top(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct landlock_path_beneath_attr renames = {};
  renames.allowed_access = LANDLOCK_ACCESS_FS_REFER;
  renames.parent_fd = top.Get();
  if (syscall(SYS_landlock_add_rule, rules.Get(), LANDLOCK_RULE_PATH_BENEATH,
              &renames, 0) != 0 ||
      syscall(SYS_landlock_restrict_self, rules.Get(), 0) != 0) {
    return ProblemOf("can't hide the host's processes");
  }
  return "";
}

Problem CloseWaysOut() {
  for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
    struct stat status = {};
    if (fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
      return "descriptor " + std::to_string(fd) + " is a directory of the host";
    }
  }
  if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) !=
          0 ||
      !LeaveNoCore()) {
    return ProblemOf("can't close the ways out");
  }
  return "";
}
