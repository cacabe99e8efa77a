#include "tools/rehearse/Descendants.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

// What is being born while the list is read is caught by the next one.
constexpr int kPauseMilliseconds = 2;

pid_t ParentOf(pid_t process) {
  return std::atoi(ProcessStatus(process, "PPid").c_str());
}

}  // namespace

bool IsDescendant(pid_t process, pid_t ancestor) {
  for (pid_t id = ParentOf(process); id > 0; id = ParentOf(id)) {
    if (id == ancestor) {
      return true;
    }
  }
  return false;
}

std::vector<Process> ListDescendants() {
  std::vector<Process> descendants;
  for (const auto& [id, process] : ListProcesses()) {
    if (IsDescendant(id, getpid())) {
      descendants.push_back(process);
    }
  }
  return descendants;
}

void EndDescendants() {
  for (;;) {
    for (const Process& process : ListDescendants()) {
      kill(process.id, SIGKILL);
    }
    pid_t ended = 0;
    while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0 && errno == ECHILD) {
      return;
    }
    poll(nullptr, 0, kPauseMilliseconds);
  }
}
