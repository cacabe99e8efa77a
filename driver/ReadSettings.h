#pragma once

#include "toolkit/SStringList.h"

/// Follows every message about a start that failed.
extern const char* const pz_Difficulty;

/// The value of a key among the lines of the system configuration file: what
/// stands between "=" and the next white space on the first line that begins
/// with the key; "" when that line has no such value or there is none.
[[nodiscard]] SString ReadConfig(const SStringList& lines, const SString& key);

/// Reads the system configuration file, settles the host's name and address and
/// the mail owner, and exports the settings to the environment.  False, with
/// the reason printed, when one of them can't be settled.
[[nodiscard]] bool ReadSettings();
