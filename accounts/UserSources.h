#pragma once

#include "accounts/UserImport.h"

enum class Source { kChosen, kNone, kQuit };

/// Finds the group of the users' mailboxes; false after saying that there is
/// none.
[[nodiscard]] bool FindMailGroup(SUserImport* import);

/// Asks where the users are to be found and finds them.  `kNone`: nobody is to
/// get an account, go on; `kQuit`: end the run.
[[nodiscard]] Source FindUsers(SUserImport* import);

/// The full name of a password entry: its comment up to the first comma, every
/// "&" as the login with an upper-case first letter; the login when that is
/// empty.
[[nodiscard]] SString FullName(const SString& gecos, const SString& login);
