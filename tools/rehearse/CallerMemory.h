#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

/// Up to `size` bytes of another process's memory; fewer where it ends.
[[nodiscard]] std::string ReadMemory(pid_t process, std::uint64_t address,
                                     std::size_t size);

/// A string that ends in a NUL byte, without it; cut off at `limit` bytes.
[[nodiscard]] std::string ReadString(pid_t process, std::uint64_t address,
                                     std::size_t limit = 4096);

/// The strings of a list that ends in a null pointer; at most a thousand.
[[nodiscard]] std::vector<std::string> ReadStrings(pid_t process,
                                                   std::uint64_t address);
