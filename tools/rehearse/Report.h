#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/Processes.h"
#include "tools/rehearse/SignalWatch.h"

/// Everything that a rehearsal found out.
struct Findings {
  std::vector<Change> files;
  std::vector<Signalled> signalled;
  std::vector<Process> started;  // still there at the end
  std::vector<Process> ended;    // there before, gone at the end
  std::vector<Listener> listening;
  std::vector<Listener> no_longer_listening;
  std::vector<std::string> read_only;
};

/// The findings for people, with the users' and groups' names of /etc.
[[nodiscard]] std::string ReportAsText(const Findings& findings);

/// The findings as one JSON object.  Bytes of names that are not UTF-8 come as
/// lone surrogates, U+DC80 to U+DCFF.
[[nodiscard]] std::string ReportAsJson(const Findings& findings);
