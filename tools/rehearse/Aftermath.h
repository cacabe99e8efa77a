#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "tools/rehearse/Processes.h"

/// Shows a rehearsed program the host as it would be after the signals that it
/// sent and that were never delivered: a process that would have ended is
/// hidden in /proc, and so are the ports that it held, and those that inetd
/// would have let go of.  What a signal does is assumed from what the process
/// blocks, ignores and catches; what it does on top of that nobody can know.
class Aftermath {
 public:
  /// What a process is taken to do, empty where nothing would change.  The
  /// calling process mounts in the name space that the program looks at.
  [[nodiscard]] std::string Take(const Process& process, int signal);

  /// What the program is to read instead of a file of /proc/net; none if the
  /// path names none of these, or nothing is hidden.
  [[nodiscard]] std::optional<std::string> Instead(
      const std::string& path) const;

 private:
  void LetGo(pid_t process, bool all);

  [[nodiscard]] bool IsGone(const std::string& socket) const;

  std::map<std::string, pid_t> gone_;  // sockets by inode number, who held them
};
