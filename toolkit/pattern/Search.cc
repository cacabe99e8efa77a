// The search for a pattern in a text: first the hints, which most texts fail,
// then backtracking from each place where a match may begin, and when that
// takes long the two passes.  Tested by Pattern_test.cc and
// PatternExhaustive_test.cc.

#include <cstring>

#include "toolkit/pattern/Match.h"

namespace pattern {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

std::size_t FindByteOf(const ByteSet& set, std::string_view text,
                       std::size_t from) {
  if (from > text.size()) {
    return kNone;
  }
  const char* const end = text.data() + text.size();
  const char* const found = set.Find(text.data() + from, end);
  return found == end ? kNone : static_cast<std::size_t>(found - text.data());
}

// Looks for the least common byte and then compares around it.
std::size_t FindLiteral(const Hints& hints, std::string_view text,
                        std::size_t from) {
  const std::string& literal = hints.literal;
  const std::size_t before = hints.literal_rare;
  while (text.size() - from >= literal.size()) {
    const std::size_t places = text.size() - from - literal.size() + 1;
    const void* found =
        std::memchr(text.data() + from + before, literal[before], places);
    if (found == nullptr) {
      return kNone;
    }
    from = static_cast<std::size_t>(static_cast<const char*>(found) -
                                    text.data()) -
           before;
    if (std::memcmp(text.data() + from, literal.data(), literal.size()) == 0) {
      return from;
    }
    ++from;
  }
  return kNone;
}

// The byte before "$" is the last one, or the one before a final line feed.
bool MayEnd(const Hints& hints, std::string_view text) {
  if (!text.empty() && hints.last.Has(text.back())) {
    return true;
  }
  return text.size() > 1 && text.back() == '\n' &&
         hints.last.Has(text[text.size() - 2]);
}

bool MayBegin(const Hints& hints, std::string_view text) {
  return hints.has_first && hints.prefix.empty()
             ? !text.empty() && hints.first.Has(text.front())
             : text.starts_with(hints.prefix);
}

bool MayMatch(const Hints& hints, std::string_view text, std::size_t from) {
  if (hints.anchored && (from > 0 || !MayBegin(hints, text))) {
    return false;
  }
  if (hints.has_last && !MayEnd(hints, text)) {
    return false;
  }
  if (!hints.literal.empty()) {
    return hints.literal_first || FindLiteral(hints, text, from) != kNone;
  }
  return !hints.has_required || FindByteOf(hints.required, text, from) != kNone;
}

// The first place at or after `from` where a match may begin.
std::size_t NextStart(const Hints& hints, std::string_view text,
                      std::size_t from) {
  if (hints.anchored) {
    return from == 0 ? from : kNone;
  }
  if (hints.literal_first) {
    return from > text.size() ? kNone : FindLiteral(hints, text, from);
  }
  if (hints.has_first) {
    return FindByteOf(hints.first, text, from);
  }
  return from <= text.size() ? from : kNone;
}

}  // namespace

bool Search(const Code& code, std::string_view text, std::size_t from,
            SMatch* match, Effort* effort) {
  const Hints& hints = code.hints;
  if (!code.valid || from > text.size() || !MayMatch(hints, text, from)) {
    return false;
  }
  std::size_t start = NextStart(hints, text, from);
  if (start == kNone) {
    return false;
  }
  Backtracker backtracker(code, text, match);
  Outcome outcome = Outcome::kFailed;
  while (outcome == Outcome::kFailed && start != kNone) {
    std::size_t next = 0;
    outcome = backtracker.Try(start, &next);
    if (outcome == Outcome::kFailed) {
      start = NextStart(hints, text, next);
    }
  }
  effort->tried += backtracker.Work(text.size());
  if (outcome == Outcome::kGaveUp) {
    return SearchInTwoPasses(code, text, start, match, effort);
  }
  return outcome == Outcome::kMatched;
}

}  // namespace pattern
