// Any expression on any text.  The input is both, parted by its first zero
// byte.  Small ones are compared with the slow matcher, captures included;
// both matchers of the engine must agree on all.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "toolkit/pattern/Match.h"
#include "toolkit/pattern/SlowMatcher.h"

namespace {

constexpr std::size_t kLongestPattern = 40;
constexpr std::size_t kLongestText = 40;
// Instructions times bytes; more would be slow, as it may, and find nothing new.
constexpr std::size_t kMostWork = std::size_t{1} << 20;

bool AreEqual(const SMatch& a, const SMatch& b) {
  if (a.spans.size() != b.spans.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.spans.size(); ++i) {
    if (a.spans[i].begin != b.spans[i].begin ||
        a.spans[i].end != b.spans[i].end) {
      return false;
    }
  }
  return true;
}

void Check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

void CompareWithSlow(std::string_view expression, std::string_view text,
                     const pattern::Code& code, bool found, const SMatch& got) {
  SlowMatcher slow(expression);
  // The engine alone refuses what would grow too large.
  Check(slow.IsValid() || !code.valid);
  if (!code.valid) {
    return;
  }
  SMatch want;
  const bool wanted = slow.Search(text, 0, &want);
  if (!slow.GaveUp()) {
    Check(found == wanted);
    Check(!found || AreEqual(got, want));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t cut = input.find('\0');
  const std::string_view expression = input.substr(0, cut);
  const std::string_view text = cut == std::string_view::npos
                                    ? std::string_view()
                                    : input.substr(cut + 1);
  pattern::Code code;
  pattern::Compile(expression, &code);
  if (code.instructions.size() * text.size() > kMostWork) {
    return 0;
  }
  pattern::Effort effort;
  SMatch match;
  const bool found = pattern::Search(code, text, 0, &match, &effort);
  Check(pattern::Search(code, text, 0, nullptr, &effort) == found);
  if (code.valid) {
    SMatch other;
    Check(pattern::SearchInTwoPasses(code, text, 0, &other, &effort) == found);
    Check(!found || AreEqual(match, other));
  }
  if (expression.size() <= kLongestPattern && text.size() <= kLongestText) {
    CompareWithSlow(expression, text, code, found, match);
  }
  return 0;
}
