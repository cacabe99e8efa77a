#pragma once

#include "toolkit/SString.h"

/// The TCP port that a text names: a decimal number from 1 to 65535, blanks
/// round it and a fraction ignored; 0 for any other text.
[[nodiscard]] int PortNumber(const SString& text);
