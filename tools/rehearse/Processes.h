#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// A process of the rehearsal.
struct Process {
  pid_t id = 0;
  std::string name;              // what the process table keeps of it
  std::string command;           // its arguments, joined by blanks
  unsigned long long start = 0;  // tells processes apart whose id is the same
};

/// Every living process but this one, by id.
[[nodiscard]] std::map<pid_t, Process> ListProcesses();

/// The path of a process's file in /proc, as in "syscall".
[[nodiscard]] std::string ProcessFile(pid_t id, const std::string& name);

/// The name that the process table keeps of a process, empty if there is none.
[[nodiscard]] std::string ProcessName(pid_t id);

/// One field of /proc/ID/status, as in "PPid"; empty if there is none.
[[nodiscard]] std::string ProcessStatus(pid_t id, const std::string& field);

/// The sockets that a process holds, by inode number.
[[nodiscard]] std::set<std::string> SocketsOf(pid_t id);

/// A socket that waits for others: TCP in state "listen", or bound UDP.
struct Listener {
  std::string protocol;  // "tcp", "tcp6", "udp", "udp6"
  std::string address;
  int port = 0;
  std::string process;  // its holder's name, empty if that can't be found
  pid_t id = 0;

  bool operator==(const Listener& other) const = default;
};

/// The sockets of this network name space that wait for others, by port.
[[nodiscard]] std::vector<Listener> ListListeners();
