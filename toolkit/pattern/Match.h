// The two matchers behind SPattern, for the files of this folder and their
// tests only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "toolkit/pattern/Pattern.h"
#include "toolkit/pattern/Program.h"

namespace pattern {

/// What a search has cost, in steps that each take constant time.
struct Effort {
  std::uint64_t tried = 0;     // by the backtracking matcher, before giving up
  std::uint64_t backward = 0;  // bytes read by the backward pass
  std::uint64_t states = 0;    // sets of instructions made for it
  std::uint64_t forward = 0;   // instructions run by the forward pass
};

/// Finds the leftmost match at or after `from`; see SPattern::Search.  With
/// `match` null only whether there is one.
[[nodiscard]] bool Search(const Code& code, std::string_view text,
                          std::size_t from, SMatch* match, Effort* effort);

/// The same for any text, in linear time; Search turns to it when
/// backtracking takes long.
[[nodiscard]] bool SearchInTwoPasses(const Code& code, std::string_view text,
                                     std::size_t from, SMatch* match,
                                     Effort* effort);

enum class Outcome { kMatched, kFailed, kGaveUp };

/// Tries matches by backtracking, with a fixed stack and a bound on the work.
class Backtracker {
 public:
  /// With `match` null the groups are not recorded.
  Backtracker(const Code& code, std::string_view text, SMatch* match);

  /// Tries a match that begins at `start`, where the prefix has been found.  After a failure `*next` is the
  /// next position where one may begin.
  Outcome Try(std::size_t start, std::size_t* next);
  [[nodiscard]] std::uint64_t Work(std::size_t length) const {
    return static_cast<std::uint64_t>(Allowance(length) - left_);
  }

 private:
  enum class Kind : std::uint8_t { kBranch, kRun, kOpen, kClose };
  // Where to go on after a failure, or what to restore then.
  struct Frame {
    const Instruction* at;
    const char* position;  // kRun: the next place to give back to
    std::size_t value;     // kRun: the last one; groups: what was there
    Kind kind;
  };
  static constexpr std::size_t kFrames = 192;

  // Backtracking may cost what the other matcher would, not much more.
  static std::int64_t Allowance(std::size_t length) {
    return 256 + static_cast<std::int64_t>(length / 8);
  }
  [[nodiscard]] const char* EndOfRun(const Instruction& run,
                                     const char* from) const;
  const char* GiveBack(const Instruction& run, const char* high,
                       const char* low);
  [[nodiscard]] bool CantStart(const Instruction* at,
                               const char* position) const;
  bool Resume(const Instruction** at, const char** position);
  [[nodiscard]] std::size_t Offset(const char* position) const {
    return static_cast<std::size_t>(position - begin_);
  }

  const Code& code_;
  const char* begin_;
  const char* end_;
  const ByteSet* sets_;
  SMatch::Span* spans_ = nullptr;
  std::int64_t left_;
  Frame* top_;
  Frame stack_[kFrames];
};

}  // namespace pattern
