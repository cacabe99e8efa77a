// A preloaded library that lets the n-th system call of a program fail, be cut
// short, or be its last one.
//
//     LD_PRELOAD=build/libvc_faults.so FAULT_MODE=kill FAULT_AT=7 program
//
//   FAULT_MODE      count   change nothing
//                   fail    the call does nothing and fails
//                   short   a write stores half of its bytes and says so
//                   torn    a write stores half of its bytes, then the process
//                           is killed; any other call as with "kill"
//                   kill    the process is killed before the call
//                   signal  the process sends itself FAULT_SIGNAL (15) before the
//                           call, which is made if it lives on
//   FAULT_AT        the first call to be hit, counted from 1; none without it
//   FAULT_TIMES     how many calls in a row are hit (1; 0 for all that follow)
//   FAULT_ERRNO     what a failing call leaves: ENOSPC, EACCES ... or a number
//                   (EIO)
//   FAULT_CALLS     names of the calls that count, "write,fsync" (all)
//   FAULT_PATHS     prefixes of the paths that count, "/etc/:/usr/lib/"; calls
//                   without a path, or on descriptors without one, then don't
//   FAULT_PROGRAMS  names of the programs that are watched (all)
//   FAULT_LOG       a file to which every counted call is appended, one a line:
//                   process id, number, call, effective ids, path; the ids as
//                   USER:GROUP:OTHER,OTHER...
//   FAULT_HURRY     the milliseconds that a wait of the program's takes at most
//
// Calls by the C library's own insides (fopen's, the resolver's) are not seen,
// only the ones that the program makes.  stat and read are watched, too, for
// what they do when they fail.  A killed process dies by SIGKILL.

// With it the headers would rename open to open64, and both are wanted here.
#undef _FILE_OFFSET_BITS

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

enum class Mode { kOff, kCount, kFail, kShort, kTorn, kKill, kSignal };
enum class Verdict { kPass, kFail, kHalf, kHalfAndDie };

struct Plan {
  Mode mode = Mode::kOff;
  long first = 0;
  long times = 1;
  int error = EIO;
  int signal = SIGTERM;
  std::string calls;
  std::string paths;
  long longest_wait = -1;
  int log = -1;
};

std::string Variable(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? "" : value;
}

long NumberOr(const std::string& text, long otherwise) {
  return text.empty() ? otherwise : strtol(text.c_str(), nullptr, 10);
}

Mode ModeNamed(const std::string& name) {
  constexpr struct {
    const char* name;
    Mode mode;
  } kModes[] = {{"count", Mode::kCount}, {"fail", Mode::kFail},
                {"short", Mode::kShort}, {"torn", Mode::kTorn},
                {"kill", Mode::kKill},   {"signal", Mode::kSignal}};
  for (const auto& known : kModes) {
    if (name == known.name) {
      return known.mode;
    }
  }
  return Mode::kOff;
}

int ErrorNamed(const std::string& name) {
  for (int number = 1; number < 200; ++number) {
    const char* known = strerrorname_np(number);
    if (known != nullptr && name == known) {
      return number;
    }
  }
  return static_cast<int>(NumberOr(name, EIO));
}

// True when one of the pieces of `list` satisfies `matches`; for an empty list.
template <typename Predicate>
bool AnyOf(std::string_view list, char separator, Predicate matches) {
  if (list.empty()) {
    return true;
  }
  while (!list.empty()) {
    const std::size_t end = list.find(separator);
    const std::string_view piece = list.substr(0, end);
    if (!piece.empty() && matches(piece)) {
      return true;
    }
    list.remove_prefix(end == list.npos ? list.size() : end + 1);
  }
  return false;
}

// The log is opened before the program can change its identity, and kept out of
// the way of its descriptors.
int OpenLog(const std::string& path) {
  if (path.empty()) {
    return -1;
  }
  const long fd = syscall(SYS_openat, AT_FDCWD, path.c_str(),
                          O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  const long high = syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, 900);
  syscall(SYS_close, fd);
  return static_cast<int>(high);
}

Plan MakePlan() {
  Plan plan;
  const std::string_view program = program_invocation_short_name;
  if (!AnyOf(Variable("FAULT_PROGRAMS"), ',',
             [&](std::string_view name) { return name == program; })) {
    return plan;
  }
  plan.mode = ModeNamed(Variable("FAULT_MODE"));
  plan.first = NumberOr(Variable("FAULT_AT"), 0);
  plan.times = NumberOr(Variable("FAULT_TIMES"), 1);
  plan.error = ErrorNamed(Variable("FAULT_ERRNO"));
  plan.signal = static_cast<int>(NumberOr(Variable("FAULT_SIGNAL"), SIGTERM));
  plan.calls = Variable("FAULT_CALLS");
  plan.paths = Variable("FAULT_PATHS");
  plan.longest_wait = NumberOr(Variable("FAULT_HURRY"), -1);
  if (plan.mode != Mode::kOff) {
    plan.log = OpenLog(Variable("FAULT_LOG"));
  }
  return plan;
}

const Plan& ThePlan() {
  static const Plan plan = MakePlan();
  return plan;
}

// Made at start, with the identity and the directory of the start.
__attribute__((constructor)) void Prepare() {
  ThePlan();
}

std::atomic<long> calls_counted = 0;

std::string PathOf(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  char path[4096];
  const long length = syscall(SYS_readlink, link.c_str(), path, sizeof path);
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

std::string PathAt(int directory, const char* path) {
  const std::string text = path == nullptr ? "" : path;
  return directory == AT_FDCWD || text.starts_with('/')
             ? text
             : PathOf(directory) + "/" + text;
}

std::string EffectiveIds() {
  gid_t groups[64];
  const int count = getgroups(64, groups);
  std::string ids =
      std::to_string(geteuid()) + ":" + std::to_string(getegid()) + ":";
  for (int i = 0; i < count; ++i) {
    if (i > 0) {
      ids += ',';
    }
    ids += std::to_string(groups[i]);
  }
  return ids;
}

void Log(const Plan& plan, long number, const char* call,
         const std::string& path) {
  if (plan.log < 0) {
    return;
  }
  const std::string line = std::to_string(getpid()) + " " +
                           std::to_string(number) + " " + call + " " +
                           EffectiveIds() + " " + path + "\n";
  syscall(SYS_write, plan.log, line.data(), line.size());
}

[[noreturn]] void Die() {
  syscall(SYS_kill, syscall(SYS_getpid), SIGKILL);
  __builtin_trap();
}

// Counts the call and says what is to become of it.
Verdict Judge(const char* call, const std::string& path, bool is_write) {
  const Plan& plan = ThePlan();
  if (plan.mode == Mode::kOff ||
      !AnyOf(plan.calls, ',',
             [&](std::string_view name) { return name == call; }) ||
      !AnyOf(plan.paths, ':', [&](std::string_view prefix) {
        return path.compare(0, prefix.size(), prefix) == 0;
      })) {
    return Verdict::kPass;
  }
  const long number = ++calls_counted;
  Log(plan, number, call, path);
  if (plan.first == 0 || number < plan.first ||
      (plan.times != 0 && number >= plan.first + plan.times)) {
    return Verdict::kPass;
  }
  switch (plan.mode) {
    case Mode::kFail:
      errno = plan.error;
      return Verdict::kFail;
    case Mode::kShort:
      return is_write ? Verdict::kHalf : Verdict::kPass;
    case Mode::kTorn:
      if (is_write) {
        return Verdict::kHalfAndDie;
      }
      Die();
    case Mode::kKill:
      Die();
    case Mode::kSignal:
      syscall(SYS_kill, syscall(SYS_getpid), plan.signal);
      return Verdict::kPass;
    default:
      return Verdict::kPass;
  }
}

// The function of that name that the program would have called without us.
template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string Text(const char* path) {
  return path == nullptr ? "" : path;
}

std::size_t Half(std::size_t size) {
  return size > 1 ? size / 2 : size;
}

mode_t ModeArgument(int flags, va_list rest) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0
             ? static_cast<mode_t>(va_arg(rest, int))
             : 0;
}

// How many of the bytes lie in whole sectors up to the half of the write.
std::size_t SectorsOfHalf(std::size_t size, off_t at) {
  constexpr std::size_t kSector = 512;
  const auto start = static_cast<std::size_t>(at);
  const std::size_t cut = (start + Half(size)) / kSector * kSector;
  return cut > start ? cut - start : 0;
}

// `torn` is the part that is stored when the process is killed.
template <typename Write>
ssize_t JudgedWrite(const char* call, int fd, std::size_t size, Write write,
                    std::size_t torn) {
  switch (Judge(call, PathOf(fd), true)) {
    case Verdict::kFail:
      return -1;
    case Verdict::kHalf:
      return write(Half(size));
    case Verdict::kHalfAndDie:
      if (torn > 0) {
        write(torn);
      }
      Die();
    default:
      return write(size);
  }
}

}  // namespace

// A wrapper for a function that fails with `failure`, logged under `call`, on a
// path that `path` tells.  `parameters` and `arguments` are in parentheses.
#define WRAP_AS(result, name, call, parameters, arguments, path, failure) \
  extern "C" result name parameters {                                     \
    static auto* const next = Next<result parameters>(#name);             \
    if (Judge(call, path, false) == Verdict::kFail) {                     \
      return failure;                                                     \
    }                                                                     \
    return next arguments;                                                \
  }
#define WRAP(name, parameters, arguments, path) \
  WRAP_AS(int, name, #name, parameters, arguments, path, -1)

#define WRAP_OPEN(name, call)                                          \
  extern "C" int name(const char* path, int flags, ...) {              \
    static auto* const next = Next<int(const char*, int, ...)>(#name); \
    va_list rest;                                                      \
    va_start(rest, flags);                                             \
    const mode_t mode = ModeArgument(flags, rest);                     \
    va_end(rest);                                                      \
    if (Judge(call, Text(path), false) == Verdict::kFail) {            \
      return -1;                                                       \
    }                                                                  \
    return next(path, flags, mode);                                    \
  }
WRAP_OPEN(open, "open")
WRAP_OPEN(open64, "open")

#define WRAP_OPENAT(name, call)                                             \
  extern "C" int name(int directory, const char* path, int flags, ...) {    \
    static auto* const next = Next<int(int, const char*, int, ...)>(#name); \
    va_list rest;                                                           \
    va_start(rest, flags);                                                  \
    const mode_t mode = ModeArgument(flags, rest);                          \
    va_end(rest);                                                           \
    if (Judge(call, PathAt(directory, path), false) == Verdict::kFail) {    \
      return -1;                                                            \
    }                                                                       \
    return next(directory, path, flags, mode);                              \
  }
WRAP_OPENAT(openat, "openat")
WRAP_OPENAT(openat64, "openat")

WRAP_AS(FILE*, fopen, "fopen", (const char* path, const char* mode),
        (path, mode), Text(path), nullptr)
WRAP_AS(FILE*, fopen64, "fopen", (const char* path, const char* mode),
        (path, mode), Text(path), nullptr)
WRAP_AS(DIR*, opendir, "opendir", (const char* path), (path), Text(path),
        nullptr)

// The descriptor is gone even when close reports an error.
extern "C" int close(int fd) {
  static auto* const next = Next<int(int)>("close");
  const bool fails = Judge("close", PathOf(fd), false) == Verdict::kFail;
  const int error = errno;
  const int result = next(fd);
  if (fails) {
    errno = error;
    return -1;
  }
  return result;
}

extern "C" ssize_t write(int fd, const void* bytes, std::size_t size) {
  static auto* const next =
      Next<ssize_t(int, const void*, std::size_t)>("write");
  return JudgedWrite(
      "write", fd, size, [&](std::size_t n) { return next(fd, bytes, n); },
      Half(size));
}

extern "C" ssize_t pwrite(int fd, const void* bytes, std::size_t size,
                          off_t at) {
  static auto* const next =
      Next<ssize_t(int, const void*, std::size_t, off_t)>("pwrite");
  return JudgedWrite(
      "pwrite", fd, size, [&](std::size_t n) { return next(fd, bytes, n, at); },
      SectorsOfHalf(size, at));
}

extern "C" ssize_t pwrite64(int fd, const void* bytes, std::size_t size,
                            off_t at) {
  static auto* const next =
      Next<ssize_t(int, const void*, std::size_t, off_t)>("pwrite64");
  return JudgedWrite(
      "pwrite", fd, size, [&](std::size_t n) { return next(fd, bytes, n, at); },
      SectorsOfHalf(size, at));
}

// Half of a vector is its first element, or half of that.
extern "C" ssize_t writev(int fd, const iovec* vector, int count) {
  static auto* const next = Next<ssize_t(int, const iovec*, int)>("writev");
  const std::size_t first = count > 0 ? vector[0].iov_len : 0;
  return JudgedWrite(
      "writev", fd, first,
      [&](std::size_t n) {
        if (n == first) {
          return next(fd, vector, count);
        }
        const iovec half = {vector[0].iov_base, n};
        return next(fd, &half, 1);
      },
      Half(first));
}

WRAP_AS(ssize_t, read, "read", (int fd, void* bytes, std::size_t size),
        (fd, bytes, size), PathOf(fd), -1)
WRAP_AS(ssize_t, pread, "pread",
        (int fd, void* bytes, std::size_t size, off_t at),
        (fd, bytes, size, at), PathOf(fd), -1)
WRAP_AS(ssize_t, pread64, "pread",
        (int fd, void* bytes, std::size_t size, off_t at),
        (fd, bytes, size, at), PathOf(fd), -1)

WRAP(ftruncate, (int fd, off_t size), (fd, size), PathOf(fd))
WRAP_AS(int, ftruncate64, "ftruncate", (int fd, off_t size), (fd, size),
        PathOf(fd), -1)
WRAP(fallocate, (int fd, int mode, off_t at, off_t size), (fd, mode, at, size),
     PathOf(fd))
WRAP_AS(int, fallocate64, "fallocate", (int fd, int mode, off_t at, off_t size),
        (fd, mode, at, size), PathOf(fd), -1)
WRAP(fsync, (int fd), (fd), PathOf(fd))
WRAP(fdatasync, (int fd), (fd), PathOf(fd))
WRAP(syncfs, (int fd), (fd), PathOf(fd))
WRAP(flock, (int fd, int operation), (fd, operation), PathOf(fd))

WRAP(stat, (const char* path, struct stat* status), (path, status), Text(path))
WRAP_AS(int, stat64, "stat", (const char* path, struct stat64* status),
        (path, status), Text(path), -1)
WRAP(lstat, (const char* path, struct stat* status), (path, status), Text(path))
WRAP_AS(int, lstat64, "lstat", (const char* path, struct stat64* status),
        (path, status), Text(path), -1)
WRAP(fstat, (int fd, struct stat* status), (fd, status), PathOf(fd))
WRAP_AS(int, fstat64, "fstat", (int fd, struct stat64* status), (fd, status),
        PathOf(fd), -1)
WRAP_AS(ssize_t, readlink, "readlink",
        (const char* path, char* target, std::size_t size),
        (path, target, size), Text(path), -1)

WRAP(rename, (const char* from, const char* to), (from, to), Text(to))
WRAP(renameat, (int a, const char* from, int b, const char* to),
     (a, from, b, to), Text(to))
WRAP(renameat2,
     (int a, const char* from, int b, const char* to, unsigned flags),
     (a, from, b, to, flags), Text(to))
WRAP(link, (const char* from, const char* to), (from, to), Text(to))
WRAP(linkat, (int a, const char* from, int b, const char* to, int flags),
     (a, from, b, to, flags), Text(to))
WRAP(symlink, (const char* target, const char* path), (target, path),
     Text(path))
WRAP(symlinkat, (const char* target, int directory, const char* path),
     (target, directory, path), PathAt(directory, path))
WRAP(unlink, (const char* path), (path), Text(path))
WRAP(unlinkat, (int directory, const char* path, int flags),
     (directory, path, flags), PathAt(directory, path))
WRAP(mkdir, (const char* path, mode_t mode), (path, mode), Text(path))
WRAP(mkdirat, (int directory, const char* path, mode_t mode),
     (directory, path, mode), PathAt(directory, path))
WRAP(rmdir, (const char* path), (path), Text(path))

WRAP(chmod, (const char* path, mode_t mode), (path, mode), Text(path))
WRAP(fchmod, (int fd, mode_t mode), (fd, mode), PathOf(fd))
WRAP(fchmodat, (int directory, const char* path, mode_t mode, int flags),
     (directory, path, mode, flags), PathAt(directory, path))
WRAP(chown, (const char* path, uid_t uid, gid_t gid), (path, uid, gid),
     Text(path))
WRAP(lchown, (const char* path, uid_t uid, gid_t gid), (path, uid, gid),
     Text(path))
WRAP(fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid), PathOf(fd))
WRAP(fchownat,
     (int directory, const char* path, uid_t uid, gid_t gid, int flags),
     (directory, path, uid, gid, flags), PathAt(directory, path))

WRAP(seteuid, (uid_t uid), (uid), "")
WRAP(setegid, (gid_t gid), (gid), "")
WRAP(setgroups, (std::size_t count, const gid_t* groups), (count, groups), "")
WRAP(setresuid, (uid_t real, uid_t effective, uid_t saved),
     (real, effective, saved), "")
WRAP(setresgid, (gid_t real, gid_t effective, gid_t saved),
     (real, effective, saved), "")

WRAP(uname, (utsname * system), (system), "")
WRAP(kill, (pid_t process, int signal), (process, signal), "")
WRAP_AS(pid_t, fork, "fork", (), (), "", -1)
WRAP(pipe2, (int* ends, int flags), (ends, flags), "")
WRAP_AS(void*, mmap, "mmap",
        (void* at, std::size_t size, int protection, int flags, int fd,
         off_t from),
        (at, size, protection, flags, fd, from), "", MAP_FAILED)
WRAP_AS(void*, mmap64, "mmap",
        (void* at, std::size_t size, int protection, int flags, int fd,
         off_t from),
        (at, size, protection, flags, fd, from), "", MAP_FAILED)
WRAP_AS(pid_t, waitpid, "waitpid", (pid_t process, int* status, int options),
        (process, status, options), "", -1)

// Returns its error instead of leaving it in errno.
extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes,
                           char* const arguments[], char* const environment[]) {
  static auto* const next = Next<decltype(posix_spawn)>("posix_spawn");
  if (Judge("posix_spawn", Text(path), false) == Verdict::kFail) {
    return errno;
  }
  return next(process, path, actions, attributes, arguments, environment);
}

// An end of waiting that lies in the past ends it, too.
extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* wait,
                               timespec* left) {
  static auto* const next = Next<decltype(clock_nanosleep)>("clock_nanosleep");
  const long longest = ThePlan().longest_wait;
  if (longest < 0) {
    return next(clock, flags, wait, left);
  }
  timespec now = {};
  clock_gettime(clock, &now);
  const bool is_end = (flags & TIMER_ABSTIME) != 0;
  const long milliseconds =
      (wait->tv_sec - (is_end ? now.tv_sec : 0)) * 1000 +
      (wait->tv_nsec - (is_end ? now.tv_nsec : 0)) / 1'000'000;
  const long short_wait = std::clamp(milliseconds, 0L, longest);
  const timespec part = {short_wait / 1000, short_wait % 1000 * 1'000'000};
  return next(clock, 0, &part, left);
}
