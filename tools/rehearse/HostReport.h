#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/HostGuard.h"

/// Everything that a rehearsal among the host's own processes found out.
struct HostFindings {
  std::vector<std::string> program;
  int status = 0;  // as waitpid(2) has it
  std::vector<Change> files;
  std::vector<Signalled> signals;
  std::vector<ServerStart> starts;
  std::vector<Refusal> refusals;
  std::vector<Process> left_running;  // when the program had ended
  std::vector<std::string> read_only;
};

/// What an administrator wants to know before the real run, for people.
[[nodiscard]] std::string HostReportAsText(const HostFindings& findings,
                                           const Changes& changes);

/// The same as one JSON object.
[[nodiscard]] std::string HostReportAsJson(const HostFindings& findings,
                                           const Changes& changes);
