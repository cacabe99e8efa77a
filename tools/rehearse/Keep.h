#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"

/// Copies what the changes left at their paths - directories, regular files,
/// links, with mode, owner and times - below a directory; `from` is the
/// rehearsal's root as the caller reaches it.  What was removed is not there.
[[nodiscard]] Problem KeepFiles(const std::vector<std::string>& paths, int from,
                                const std::string& directory);
