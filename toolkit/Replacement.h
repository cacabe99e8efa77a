#pragma once

#include <string>
#include <string_view>

#include "toolkit/pattern/Pattern.h"

/// The part of `text` that the span names; "" for a group that took no part.
[[nodiscard]] std::string_view TextOf(std::string_view text,
                                      const SMatch::Span& span);

/// Appends `replacement` to `out`, its "$1" to "$9" filled in from a match in
/// `text`.  A group that took no part or does not exist gives nothing; any
/// other "$" stands for itself.
void AppendReplacement(std::string_view replacement, std::string_view text,
                       const SMatch& match, std::string* out);
