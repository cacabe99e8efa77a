#pragma once

#include "toolkit/SString.h"

/// The current local time as "Sat, 21 Nov 2026 03:56:22 +0000": English names,
/// two-digit day, four-digit year (RFC 822 section 5, RFC 1123 section 5.2.14).
[[nodiscard]] SString RFC822Date();
/// The current time in UTC as "YYYYMMDDhhmmss".
[[nodiscard]] SString MessageIdDate();
