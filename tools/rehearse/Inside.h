#pragma once

#include "tools/rehearse/Options.h"

/// What the half on the host hands to the half in the name spaces.
struct Start {
  const Options* options = nullptr;
  int channel = -1;       // to the other half
  int terminal = -1;      // where the program is to be in the foreground
  std::string directory;  // the working directory
};

/// The life of init in the name spaces: builds the root directory, runs the
/// preparation and the program, and reports.  Everything in the rehearsal ends
/// when this returns and the process with it.
void RunInside(const Start& start);
