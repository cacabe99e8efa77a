#include "tools/rehearse/Aftermath.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <set>
#include <sstream>

#include "tools/rehearse/ReadFile.h"

namespace {

constexpr const char* kInetdConf = "/etc/inetd.conf";
constexpr const char* kServices = "/etc/services";
constexpr const char* kNetFiles[] = {"tcp", "tcp6", "udp", "udp6"};

// Words of a line of /proc/net/tcp.
constexpr std::size_t kLocalAddress = 1;
constexpr std::size_t kInode = 9;

// Signals that do nothing to a process that takes no care of them, or stop it.
constexpr std::array<int, 8> kHarmless = {SIGCHLD, SIGCONT, SIGSTOP, SIGTSTP,
                                          SIGTTIN, SIGTTOU, SIGURG,  SIGWINCH};

// Handlers of these end the process, as a rule.
constexpr std::array<int, 3> kRequestsToEnd = {SIGTERM, SIGINT, SIGQUIT};

template <typename List, typename Item>
bool Contains(const List& list, const Item& item) {
  return std::find(std::begin(list), std::end(list), item) != std::end(list);
}

bool HasSignal(pid_t process, const char* field, int signal) {
  const unsigned long long mask =
      std::strtoull(ProcessStatus(process, field).c_str(), nullptr, 16);
  return (mask >> (signal - 1) & 1) != 0;
}

bool IsOfKernel(pid_t process) {
  return ReadFile(ProcessFile(process, "maps")).empty();
}

// What is blocked is waited for, but a call that waits lifts the block.
bool WaitsForSignals(pid_t process) {
  static const std::string call = std::to_string(SYS_rt_sigtimedwait) + " ";
  return ReadFile(ProcessFile(process, "syscall")).starts_with(call);
}

enum class Effect { kNone, kEnds, kReadsAgain };

Effect EffectOf(pid_t process, int signal) {
  if (process == 1 || signal < 1 || signal >= NSIG || IsOfKernel(process)) {
    return Effect::kNone;
  }
  if (signal == SIGKILL) {
    return Effect::kEnds;
  }
  if (HasSignal(process, "SigIgn", signal) || Contains(kHarmless, signal)) {
    return Effect::kNone;
  }
  const bool handled = HasSignal(process, "SigCgt", signal) ||
                       HasSignal(process, "SigBlk", signal) ||
                       WaitsForSignals(process);
  if (!handled || Contains(kRequestsToEnd, signal)) {
    return Effect::kEnds;
  }
  return signal == SIGHUP ? Effect::kReadsAgain : Effect::kNone;
}

std::vector<std::string> WordsOf(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

// Each line's words up to a comment.
std::vector<std::vector<std::string>> TableOf(const std::string& path) {
  std::vector<std::vector<std::string>> table;
  std::istringstream lines(ReadFile(path));
  for (std::string line; std::getline(lines, line);) {
    table.push_back(WordsOf(line.substr(0, line.find('#'))));
  }
  return table;
}

// Read without the name services: what these load would be the rehearsal's.
std::map<std::string, int> PortsOfServices() {
  std::map<std::string, int> ports;
  for (const std::vector<std::string>& words : TableOf(kServices)) {
    for (std::size_t i = 0; i < words.size() && words.size() > 1; ++i) {
      if (i != 1) {
        ports.emplace(words[i], std::atoi(words[1].c_str()));
      }
    }
  }
  return ports;
}

// The ports of the lines of inetd's configuration that are no comments.
std::set<int> PortsOfInetd() {
  const std::map<std::string, int> services = PortsOfServices();
  std::set<int> ports;
  for (const std::vector<std::string>& words : TableOf(kInetdConf)) {
    if (words.empty()) {
      continue;
    }
    const std::string service = words[0].substr(words[0].rfind(':') + 1);
    const auto found = services.find(service);
    ports.insert(found == services.end() ? std::atoi(service.c_str())
                                         : found->second);
  }
  return ports;
}

int PortOf(const std::string& address) {
  return static_cast<int>(std::strtoul(
      address.substr(address.rfind(':') + 1).c_str(), nullptr, 16));
}

// "tcp" for /proc/net/tcp and the same file of any process.
std::string NetFile(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos || !path.starts_with("/proc/") ||
      !path.substr(0, slash).ends_with("/net")) {
    return "";
  }
  const std::string name = path.substr(slash + 1);
  return Contains(kNetFiles, name) ? name : "";
}

// An empty directory over a process's own.
void Hide(pid_t process) {
  (void)mount("rehearse", ("/proc/" + std::to_string(process)).c_str(), "tmpfs",
              MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=555");
}

}  // namespace

void Aftermath::LetGo(pid_t process, bool all) {
  const std::set<std::string> held = SocketsOf(process);
  const std::set<int> kept = all ? std::set<int>() : PortsOfInetd();
  for (const char* file : kNetFiles) {
    std::istringstream lines(ReadFile(std::string("/proc/self/net/") + file));
    for (std::string line; std::getline(lines, line);) {
      const std::vector<std::string> words = WordsOf(line);
      if (words.size() > kInode && held.contains(words[kInode]) &&
          (all || !kept.contains(PortOf(words[kLocalAddress])))) {
        gone_[words[kInode]] = process;
      }
    }
  }
}

std::string Aftermath::Take(const Process& process, int signal) {
  switch (EffectOf(process.id, signal)) {
    case Effect::kEnds:
      LetGo(process.id, true);
      Hide(process.id);
      return "ended";
    case Effect::kReadsAgain:
      if (process.name == "inetd") {
        LetGo(process.id, false);
      }
      return "read its configuration again";
    case Effect::kNone:
      break;
  }
  return "";
}

std::optional<std::string> Aftermath::Instead(const std::string& path) const {
  const std::string name = NetFile(path);
  if (name.empty() || gone_.empty()) {
    return std::nullopt;
  }
  std::string content;
  std::istringstream lines(ReadFile("/proc/self/net/" + name));
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> words = WordsOf(line);
    const bool gone = words.size() > kInode && IsGone(words[kInode]);
    content += gone ? "" : line + "\n";
  }
  return content;
}

// One that another process holds, too, is still there.
bool Aftermath::IsGone(const std::string& socket) const {
  const auto found = gone_.find(socket);
  if (found == gone_.end()) {
    return false;
  }
  for (const auto& [id, process] : ListProcesses()) {
    if (id != found->second && SocketsOf(id).contains(socket)) {
      return false;
    }
  }
  return true;
}
