#pragma once

#include <sys/types.h>

#include "toolkit/SString.h"

/// Gives the user's spool file to the user and the mail group, mode 0660, as
/// root.  A path that is no regular file of a single name is reported and left
/// alone; any other failure ends the check silently.
void SecureSpool(const SString& path, uid_t user, gid_t mail_group);
