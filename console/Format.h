#pragma once

#include "toolkit/SString.h"

/// Width in columns of every paragraph and of the header.
constexpr int kScreenWidth = 75;

/// Word-wraps a text: words, split at white space (blank, \t \n \r \f \v), are
/// joined by one blank, and `separator` ends a line before a word that would
/// make it longer than `width` bytes.  A longer word stands alone on its line.
/// Every line, the last included, ends in `separator`; no words give "".
/// `indent` is not used.
[[nodiscard]] SString Format(const SString& text, int width, int indent,
                             const SString& separator);
