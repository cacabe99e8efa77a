#pragma once

#include <string>

/// Verifies every checksum and the structure of the database.  False when
/// something is wrong: `problem` says what and where, or is "" when the file
/// can't be opened or read (`errno`).
[[nodiscard]] bool CheckDatabase(const std::string& path, std::string* problem);
