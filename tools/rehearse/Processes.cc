#include "tools/rehearse/Processes.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <tuple>

#include "tools/rehearse/ReadFile.h"

namespace {

std::vector<std::string> NumbersIn(const std::string& directory) {
  std::vector<std::string> names;
  DIR* const stream = opendir(directory.c_str());
  if (stream == nullptr) {
    return names;
  }
  while (const dirent* entry = readdir(stream)) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
      names.emplace_back(entry->d_name);
    }
  }
  closedir(stream);
  return names;
}

std::string CommandOf(const std::string& id, const std::string& name) {
  std::string command = ReadFile("/proc/" + id + "/cmdline");
  while (!command.empty() && command.back() == '\0') {
    command.pop_back();
  }
  std::replace(command.begin(), command.end(), '\0', ' ');
  return command.empty() ? std::string("[") + name + "]" : command;
}

// The address as /proc/net writes it: words in the machine's own byte order.
std::string AddressOf(const std::string& hexadecimal) {
  std::array<std::uint32_t, 4> words = {};
  const std::size_t count = std::min<std::size_t>(4, hexadecimal.size() / 8);
  for (std::size_t i = 0; i < count; ++i) {
    words[i] = static_cast<std::uint32_t>(
        std::strtoul(hexadecimal.substr(i * 8, 8).c_str(), nullptr, 16));
  }
  std::array<char, INET6_ADDRSTRLEN> text = {};
  inet_ntop(count == 1 ? AF_INET : AF_INET6, words.data(), text.data(),
            text.size());
  return text.data();
}

// The inode number of the socket that a descriptor is, empty if it is none.
std::string SocketOf(const std::string& directory, const std::string& fd) {
  const std::string path = directory + "/" + fd;
  std::array<char, 64> target = {};
  const ssize_t n = readlink(path.c_str(), target.data(), target.size() - 1);
  const std::string text(target.data(), n < 0 ? 0U : std::size_t(n));
  return text.starts_with("socket:[") ? text.substr(8, text.size() - 9) : "";
}

// Which process holds a socket, by the socket's inode number.
std::map<std::string, pid_t> SocketHolders() {
  std::map<std::string, pid_t> holders;
  for (const std::string& id : NumbersIn("/proc")) {
    for (const std::string& socket : SocketsOf(std::atoi(id.c_str()))) {
      holders.emplace(socket, std::atoi(id.c_str()));
    }
  }
  return holders;
}

}  // namespace

std::set<std::string> SocketsOf(pid_t id) {
  std::set<std::string> sockets;
  const std::string directory = ProcessFile(id, "fd");
  for (const std::string& fd : NumbersIn(directory)) {
    if (std::string socket = SocketOf(directory, fd); !socket.empty()) {
      sockets.insert(std::move(socket));
    }
  }
  return sockets;
}

std::string ProcessFile(pid_t id, const std::string& name) {
  return "/proc/" + std::to_string(id) + "/" + name;
}

std::string ProcessName(pid_t id) {
  std::string name = ReadFile(ProcessFile(id, "comm"));
  if (!name.empty()) {
    name.pop_back();
  }
  return name;
}

std::string ProcessStatus(pid_t id, const std::string& field) {
  std::istringstream lines(ReadFile(ProcessFile(id, "status")));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(field + ":\t")) {
      return line.substr(field.size() + 2);
    }
  }
  return "";
}

std::map<pid_t, Process> ListProcesses() {
  std::map<pid_t, Process> processes;
  for (const std::string& id : NumbersIn("/proc")) {
    Process process;
    process.id = std::atoi(id.c_str());
    process.name = ProcessName(process.id);
    process.command = CommandOf(id, process.name);
    const std::string stat = ReadFile("/proc/" + id + "/stat");
    const auto name_end = stat.rfind(')');
    if (process.id == getpid() || name_end == std::string::npos ||
        stat.substr(name_end, 3) == ") Z") {
      continue;
    }
    // The start time is the 22nd field; the name may hold blanks.
    std::istringstream fields(stat.substr(name_end + 1));
    std::string field;
    for (int i = 0; i < 20; ++i) {
      fields >> field;
    }
    process.start = std::strtoull(field.c_str(), nullptr, 10);
    processes[process.id] = process;
  }
  return processes;
}

std::vector<Listener> ListListeners() {
  std::vector<Listener> listeners;
  const std::map<std::string, pid_t> holders = SocketHolders();
  for (const char* protocol : {"tcp", "tcp6", "udp", "udp6"}) {
    const std::string waits = protocol[0] == 't' ? "0A" : "07";
    std::istringstream lines(
        ReadFile(std::string("/proc/self/net/") + protocol));
    std::string line;
    std::getline(lines, line);  // the heading
    while (std::getline(lines, line)) {
      std::istringstream words(line);
      std::string skipped;
      std::string local;
      std::string state;
      std::string inode;
      words >> skipped >> local >> skipped >> state;
      for (int i = 0; i < 6; ++i) {
        words >> inode;
      }
      const auto colon = local.find(':');
      if (state != waits || colon == std::string::npos) {
        continue;
      }
      Listener listener;
      listener.protocol = protocol;
      listener.address = AddressOf(local.substr(0, colon));
      listener.port = static_cast<int>(
          std::strtoul(local.c_str() + colon + 1, nullptr, 16));
      if (const auto holder = holders.find(inode); holder != holders.end()) {
        listener.id = holder->second;
        listener.process = ProcessName(holder->second);
      }
      listeners.push_back(listener);
    }
  }
  std::sort(listeners.begin(), listeners.end(),
            [](const Listener& a, const Listener& b) {
              return std::tie(a.port, a.protocol, a.address) <
                     std::tie(b.port, b.protocol, b.address);
            });
  return listeners;
}
