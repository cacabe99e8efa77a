#pragma once

#include "accounts/UserImport.h"

/// Queues, as the outcome of the import asks for them, the greeting of the new
/// users, the summary for the Postmaster and the notice to users with ".forward"
/// files.  What can't be written is left out silently.
void QueueNotices(const SUserImport& import);
