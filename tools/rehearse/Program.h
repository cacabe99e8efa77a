#pragma once

#include <sys/types.h>

#include <optional>

#include "tools/rehearse/Channel.h"
#include "tools/rehearse/Dialogue.h"
#include "tools/rehearse/Options.h"
#include "tools/rehearse/Watch.h"

/// The program that is rehearsed, or why it doesn't run.
struct StartedProgram {
  pid_t id = -1;
  std::optional<Message> failure;  // as the other half is told
};

/// Starts the program of a rehearsal, watched, with what rights the options
/// leave it, on the dialogue's terminal or on `terminal`, in whose foreground
/// it is to be (-1: neither).
[[nodiscard]] StartedProgram StartProgram(const Options& options,
                                          const Dialogue& dialogue,
                                          int terminal, Watch& watch);

/// The words of a command, as exec(3) takes them.
[[nodiscard]] std::vector<char*> ArgumentsOf(
    const std::vector<std::string>& words);

/// In a new process: signals are as a program expects them.
void ResetSignals();
