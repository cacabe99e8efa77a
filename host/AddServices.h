#pragma once

#include "toolkit/SStringList.h"

/// Checks that the server's services are known to the host's services database
/// and offers to add those that are missing.  False when the administrator
/// quits.
bool AddServices();

/// Inserts the entries, lines without line ends, into the services file behind
/// the comments that it begins with.  False, with the file as it was, when that
/// fails (see `RewriteHostFile`).
[[nodiscard]] bool UpdateServicesFile(const SStringList& entries);
