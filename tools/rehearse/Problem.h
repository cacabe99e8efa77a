#pragma once

#include <cerrno>
#include <cstring>
#include <string>

/// Why something could not be done, in words for people; empty when it could.
using Problem = std::string;

/// "what: reason" with the reason that errno names.
inline Problem ProblemOf(const std::string& what) {
  return what + ": " + std::strerror(errno);
}
