// Looks at the running host through its commands, and signals its processes.
//
//   touches    nothing; signals reach other processes
//   identity   commands run as the real user, root, for the whole of their
//              life: a shell gives up a differing effective id by itself, and
//              the queue listing and the process table are root's to see.
//              Root for /proc and for the signals
//
// A command is started by posix_spawn, which holds every signal back until the
// new process has its own dispositions: no handler of ours ever runs in it.

#include "host/Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>

#include "driver/Settings.h"
#include "host/FixedPaths.h"
#include "host/ProcFiles.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

constexpr std::size_t kLongestLine = 511;

// The shell's own results.
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

// What the process table keeps of a name: the target UNIX, Linux.
constexpr std::size_t kNameLengths[] = {8, 15};

// The system's own processes, whatever they are called.
constexpr int kLastSystemProcess = 10;

// The fixed probes depend on nothing that the administrator may have set, such
// as a width of lines.
char probe_path[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin";
char probe_language[] = "LC_ALL=C";
char* const probe_environment[] = {probe_path, probe_language, nullptr};

// The attributes of a new process: real ids, default dispositions, no signal
// blocked.
class SpawnAttributes {
 public:
  SpawnAttributes() {
    sigset_t signals;
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_RESETIDS |
                                               POSIX_SPAWN_SETSIGDEF |
                                               POSIX_SPAWN_SETSIGMASK);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
  }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  [[nodiscard]] const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

// The descriptors of a new process: nothing to read, its output to a pipe.
class SpawnDescriptors {
 public:
  SpawnDescriptors(int output, bool drop_errors) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null",
                                     O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    if (drop_errors) {
      posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null",
                                       O_WRONLY, 0);
    }
  }
  ~SpawnDescriptors() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnDescriptors(const SpawnDescriptors&) = delete;
  SpawnDescriptors& operator=(const SpawnDescriptors&) = delete;

  [[nodiscard]] const posix_spawn_file_actions_t* Get() const {
    return &actions_;
  }

 private:
  posix_spawn_file_actions_t actions_;
};

enum class Kind { kCommand, kFixedProbe };

// Starts the shell on the command; its id, -1 when it can't be started.
pid_t StartShell(const SString& command, int output, Kind kind) {
  const bool is_probe = kind == Kind::kFixedProbe;
  SStringList arguments = "sh";
  arguments.Push("-c");
  arguments.Push(command);
  const SpawnAttributes attributes;
  const SpawnDescriptors descriptors(output, is_probe);
  pid_t shell = -1;
  const int error =
      posix_spawn(&shell, kShell, descriptors.Get(), attributes.Get(),
                  arguments, is_probe ? probe_environment : environ);
  return error == 0 ? shell : -1;
}

// Exit status of a child, -1 when it was ended or can't be waited for.
int Wait(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

SStringList CutIntoLines(std::string_view bytes) {
  SStringList lines;
  while (!bytes.empty()) {
    const std::string_view longest = bytes.substr(0, kLongestLine);
    const std::size_t end = std::min(longest.find('\n'), longest.size() - 1);
    lines.Push(SString(bytes.substr(0, end + 1)));
    bytes.remove_prefix(end + 1);
  }
  return lines;
}

// Runs the command and fills in the lines of its output.  False when the shell
// or the command could not be executed.
bool Run(const SString& command, Kind kind, SStringList* lines) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  SDescriptor output(ends[0]);
  SDescriptor input(ends[1]);
  const pid_t shell = StartShell(command, input.Get(), kind);
  static_cast<void>(input.Close());
  if (shell < 0) {
    return false;
  }
  std::string bytes;
  static_cast<void>(ReadToEnd(output.Get(), &bytes));
  *lines = CutIntoLines(bytes);
  // A command that still writes must not wait for a reader.
  static_cast<void>(output.Close());
  const int status = Wait(shell);
  return status != kCannotExecute && status != kNotFound;
}

// The id that a line of `ReadProcessInfo` begins with; 0 when there is none.
pid_t ProcessId(const SString& line) {
  pid_t id = 0;
  const std::string_view text = line.View();
  std::from_chars(text.data(), text.data() + text.size(), id);
  return id;
}

}  // namespace

SStringList ReadCommand(const SString& command) {
  SStringList lines;
  static_cast<void>(Run(command, Kind::kCommand, &lines));
  return lines;
}

SStringList ReadMailq() {
  return ReadCommand(gstr_Sendmail + " -bp");
}

SStringList BoundSockets() {
  SStringList lines;
  if (!Run(SString(kNetstat) + " -an", Kind::kFixedProbe, &lines)) {
    return ProcListeningPorts();
  }
  return lines.Grep("s/^tcp(\\s+\\S+){3}\\.(\\d+)\\s+.*LISTEN\\s*$/$2/");
}

SStringList ReadProcessInfo() {
  SStringList lines;
  if (Run(SString(kPs) + " -e", Kind::kFixedProbe, &lines)) {
    lines.Shift();  // the heading
  } else {
    const SActAs as_root(SActAs::Root{});  // sees hidden processes, too
    lines = ProcProcessLines();
  }
  return lines.Grep("s/^\\s*(\\d+).*\\s(\\S+)\\s*$/$1 $2/");
}

int SignalProcesses(const SStringList& processes, int signal) {
  int any = 0;
  const SActAs as_root(SActAs::Root{});
  for (const SString& line : processes) {
    const pid_t id = ProcessId(line);
    if (id > kLastSystemProcess && id != getpid() && kill(id, signal) == 0) {
      any = 1;
    }
  }
  return any;
}

int KillProgram(const SString& name, int signal) {
  if (!name.HasMatch("\\w")) {
    return 0;
  }
  const SStringList processes = ReadProcessInfo();
  SStringList called;
  for (const std::size_t length : kNameLengths) {
    const SString cut(name.View().substr(0, length));
    called.Push(processes.Grep("/ " + cut + "$/"));
  }
  called.Unique();
  return SignalProcesses(called, signal);
}
