#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "toolkit/database/DatabaseFile.h"

/// A value, key or section path with backslashes, controls and, at the front of
/// a key, "/" and "#" escaped.
[[nodiscard]] std::string EscapeText(std::string_view text, bool is_key);

/// The whole database as text: sections and keys sorted by bytes.  False, with
/// `errno`, when a part of it can't be read.
[[nodiscard]] bool DatabaseAsText(SDatabaseFile* file, std::string* text);

/// Reads what `DatabaseAsText` writes; empty lines and lines that begin with
/// "#" are passed over.  False, with what is wrong and in which line in
/// `problem`, for anything else.
[[nodiscard]] bool DatabaseFromText(std::string_view text,
                                    std::vector<SSection>* sections,
                                    std::string* problem);
