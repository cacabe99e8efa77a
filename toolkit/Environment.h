#pragma once

#include "toolkit/SString.h"

/// Sets the variable in the process environment, where children see it.
void PutEnv(const SString& key, const SString& value);
/// The variable's value; "" when it is not set.
[[nodiscard]] SString GetEnv(const char* key);
/// The process id in decimal, for unique file names.
[[nodiscard]] SString ProcessIdString();
