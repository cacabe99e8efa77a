#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace pattern {
struct Code;
}

/// Where a match and its groups lie in a text.  Entry 0 is the whole match,
/// entry n the group whose opening parenthesis is the n-th.
struct SMatch {
  struct Span {
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    std::size_t begin = kNone;
    std::size_t end = kNone;
    /// False for a group that took no part in the match.
    [[nodiscard]] bool IsSet() const { return begin != kNone; }
    [[nodiscard]] std::size_t Length() const { return end - begin; }
  };
  std::vector<Span> spans;
};

/// A compiled pattern.  Immutable.  The dialect, the method and the limits are
/// described in docs/patterns.md.
class SPattern {
 public:
  /// The compiled form of `expression`, from a small cache of the process;
  /// never null.  An expression that can't be parsed gives a pattern that
  /// matches nothing.
  [[nodiscard]] static std::shared_ptr<const SPattern> Get(
      std::string_view expression);

  SPattern(const SPattern&) = delete;
  SPattern& operator=(const SPattern&) = delete;
  ~SPattern();

  /// False when the expression can't be parsed.
  [[nodiscard]] bool IsValid() const;
  /// Number of groups.
  [[nodiscard]] int GroupCount() const;

  /// True when the pattern matches anywhere in `text`.
  [[nodiscard]] bool Matches(std::string_view text) const;
  /// Finds the leftmost match that begins at or after `from` (anchors and the
  /// text before `from` keep their meaning) and fills `match`, which keeps its
  /// storage from call to call.  False when there is none; `match` is then
  /// left in no particular state.  Time is bounded by the product of pattern
  /// and text length; nothing recurses.
  [[nodiscard]] bool Search(std::string_view text, std::size_t from,
                            SMatch* match) const;

 private:
  explicit SPattern(std::string_view expression);
  std::unique_ptr<const pattern::Code> code_;
};
