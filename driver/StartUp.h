#pragma once

#include "toolkit/SStringList.h"

/// What the program was started to do, told by its own name.
enum class RunMode { kInstall, kAddAccounts };

/// Adding accounts for a name that ends in "AddUserAccounts".
[[nodiscard]] RunMode RunModeOf(const SString& program_name);

/// Prepares the process: standard descriptors, root check, file-creation mask,
/// signals.  False, with the refusal printed, when not started by root.
[[nodiscard]] bool PrepareProcess(RunMode mode);

/// Seeds the random generator, takes an address of this host when that is the
/// first argument, reads the settings and goes on as the mail owner.  False, with
/// the reason printed, when the host can't be installed on as it is.
[[nodiscard]] bool SettleRun(const SStringList& arguments);
