#pragma once

/// Creates a mail account for every real login of the host.  `full_install` is 1
/// inside the full installation, 0 when nothing else is done.  False ends the
/// run.
bool AddUserAccounts(unsigned full_install);
