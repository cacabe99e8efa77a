#include "tools/rehearse/ServerStart.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "tools/rehearse/CallerMemory.h"
#include "tools/rehearse/Processes.h"

namespace {

constexpr const char* kServer = "vellumcraft";
constexpr const char* kStandIn = "/bin/true";
constexpr int kPauseMilliseconds = 1;

std::string RealPath(const std::string& path) {
  std::array<char, PATH_MAX> resolved = {};
  return realpath(path.c_str(), resolved.data()) == nullptr ? ""
                                                            : resolved.data();
}

std::string BaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

unsigned EffectiveId(pid_t process, const char* field) {
  std::istringstream ids(ProcessStatus(process, field));
  unsigned real = 0;
  unsigned effective = 0;
  ids >> real >> effective;
  return effective;
}

// The file of a call as the caller names it, and where it lies.
struct Program {
  std::string name;
  std::string file;
};

Program ProgramOf(const HeldCall& call) {
  const bool at = call.number == SYS_execveat;
  const std::string name = ReadString(call.caller, call.arguments[at ? 1 : 0]);
  std::string base = ProcessFile(call.caller, "cwd") + "/";
  if (name.starts_with('/')) {
    base = ProcessFile(call.caller, "root");
  } else if (at && call.Int(0) != AT_FDCWD) {
    base = ProcessFile(call.caller, "fd/" + std::to_string(call.Int(0)));
    base += name.empty() ? "" : "/";
  }
  return {name, RealPath(base + name)};
}

bool IsRunning(pid_t process, const struct stat& program) {
  struct stat status = {};
  return stat(ProcessFile(process, "exe").c_str(), &status) == 0 &&
         status.st_dev == program.st_dev && status.st_ino == program.st_ino;
}

// Whether the held call is over without the stand-in running: the thread is
// gone, or in another call.
bool IsOver(const HeldCall& call) {
  const std::string now = ReadFile(ProcessFile(call.caller, "syscall"));
  return now.empty() || (now[0] >= '0' && now[0] <= '9' &&
                         !now.starts_with(std::to_string(call.number) + " "));
}

}  // namespace

std::optional<ServerStart> ReadServerStart(const HeldCall& call) {
  const Program program = ProgramOf(call);
  if (program.file.empty() || (BaseName(program.name) != kServer &&
                               BaseName(program.file) != kServer)) {
    return std::nullopt;
  }
  if (access(program.file.c_str(), X_OK) != 0) {
    return std::nullopt;  // the call fails as it does on the host
  }
  ServerStart start;
  start.program = program.file;
  start.directory = RealPath(ProcessFile(call.caller, "cwd"));
  start.arguments = ReadStrings(
      call.caller, call.arguments[call.number == SYS_execveat ? 2 : 1]);
  start.uid = EffectiveId(call.caller, "Uid");
  start.gid = EffectiveId(call.caller, "Gid");
  return start;
}

bool StandIn::Put(const std::string& program) {
  if (mount(kStandIn, program.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return false;
  }
  place_ = program;
  return true;
}

void StandIn::Remove(const HeldCall& call) {
  struct stat status = {};
  (void)stat(place_.c_str(), &status);
  while (!IsRunning(call.caller, status) && !IsOver(call)) {
    poll(nullptr, 0, kPauseMilliseconds);
  }
  (void)umount2(place_.c_str(), MNT_DETACH);
  place_.clear();
}
