#pragma once

#include <string>

#include "toolkit/Files.h"  // SDescriptor, ReadToEnd, WriteAll

/// Everything up to the end of the file; what could be read when that fails.
[[nodiscard]] std::string ReadAll(int fd);

/// The content of a file of /proc or /etc; empty when it can't be read.
[[nodiscard]] std::string ReadFile(const std::string& path);
