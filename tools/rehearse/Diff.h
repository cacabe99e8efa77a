#pragma once

#include <string>
#include <vector>

/// What the differences of two texts are called and look like.
struct DiffStyle {
  std::string before_name;
  std::string after_name;
  /// Name at each part the last line above it that begins with this; 0: none.
  char heading = 0;
};

/// The differences of two texts in the unified form of diff(1), with three
/// lines of context; empty when there are none.  Always right, and as short as
/// can be up to a thousand changed lines.
[[nodiscard]] std::string UnifiedDiff(const std::string& before,
                                      const std::string& after,
                                      const DiffStyle& style);
