#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Problem.h"

/// What the command line asks for.
struct Options {
  enum class Action { kRun, kShowChanges, kMark, kShowBefore, kShowHelp };
  Action action = Action::kRun;
  std::string root = "/";   // the tree that is rehearsed on
  std::string prepare;      // shell command, its changes are the baseline
  std::string json;         // file for the report, instead of the text
  std::string keep;         // directory for the changed files
  std::string answers;      // file of answers to type
  std::string before;       // path whose former content is asked for
  bool privileged = false;  // leave the program the right to mount
  bool this_host = false;   // among the host's own processes
  bool unwatched = false;   // leave the watch to a rehearsal inside
  std::vector<std::string> program;
};

extern const char* const pz_Usage;

/// Reads the command line; a problem is a line for the user.
[[nodiscard]] Problem ReadOptions(int argc, char** argv, Options& options);
