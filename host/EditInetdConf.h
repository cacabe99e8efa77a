#pragma once

#include "toolkit/SStringList.h"

/// Finds the services that the Internet daemon would keep from the mail server
/// and offers to disable them.  False when the administrator quits.
bool EditInetdConf();

/// Comments out every line of the Internet daemon's configuration that is for
/// one of the services (pattern characters in the names keep their meaning).
/// False, with the file as it was, when that fails (see `RewriteHostFile`).
[[nodiscard]] bool UpdateInetdConf(const SStringList& services);
