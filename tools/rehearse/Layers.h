#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Problem.h"
#include "tools/rehearse/ReadFile.h"

/// One file system of the rehearsal: what the host has, never written to, and
/// what the rehearsal wrote over it.
struct Layer {
  std::string mount_point;  // in the rehearsal, "" for its root
  SDescriptor lower;        // the host's directory, read-only
  SDescriptor upper;        // the overlay's own files, in memory
};

/// What `BuildRoot` made.
struct Root {
  std::vector<Layer> layers;
  std::vector<std::string> read_only;  // file systems that can't be overlaid
};

/// Whose processes and network a rehearsal shows.
enum class World {
  kOwn,       // those that it starts itself
  kThisHost,  // the host's
};

/// Turns this process's own mount name space into the rehearsal's: overlays
/// over `directory` and over every file system mounted below it, with devices,
/// /proc and /sys of their own, and makes that the root directory.  All that
/// is written is kept in memory that nobody outside can see, and goes with the
/// name space.  In a world of its own, the process must be the first of a new
/// process name space.
[[nodiscard]] Problem BuildRoot(const std::string& directory, World world,
                                Root& root);
