#pragma once

#include <vector>

#include "tools/rehearse/Processes.h"

/// Whether a process was started by the ancestor, directly or not.  Holds for
/// those whose parents have ended too, if the ancestor is a subreaper
/// (prctl(2)).
[[nodiscard]] bool IsDescendant(pid_t process, pid_t ancestor);

/// The living descendants of this process.
[[nodiscard]] std::vector<Process> ListDescendants();

/// Kills every descendant of this process, a subreaper, and waits for them.
void EndDescendants();
