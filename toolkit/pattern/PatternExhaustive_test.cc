// Every small pattern on every small text against the slow matcher, and random
// patterns on random texts against the PCRE2 library.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <gtest/gtest.h>
#include <pcre2.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "toolkit/pattern/Match.h"
#include "toolkit/pattern/SlowMatcher.h"

namespace {

// The sanitizers take ten times as long; they look for slips, not for matches.
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kSpared = 1;
constexpr int kRandomPatterns = 10000;
#else
constexpr std::size_t kSpared = 0;
constexpr int kRandomPatterns = 60000;
#endif

// Strings put together; + with a literal in front upsets g++ 12's warnings.
std::string Join(std::initializer_list<std::string_view> pieces) {
  std::string joined;
  for (const std::string_view piece : pieces) {
    joined += piece;
  }
  return joined;
}

std::string Show(const SMatch& match, bool found) {
  if (!found) {
    return "no match";
  }
  std::string shown;
  for (const SMatch::Span& span : match.spans) {
    shown += span.IsSet() ? Join({"(", std::to_string(span.begin), ",",
                                  std::to_string(span.end), ")"})
                          : "(-)";
  }
  return shown;
}

std::vector<std::string> AllTexts(const std::string& alphabet,
                                  std::size_t longest) {
  std::vector<std::string> texts = {""};
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (texts[i].size() < longest) {
      for (const char c : alphabet) {
        texts.push_back(texts[i] + c);
      }
    }
  }
  return texts;
}

// All patterns built from `size` atoms and operators.
class Patterns {
 public:
  Patterns(std::vector<std::string> atoms, std::vector<std::string> suffixes)
      : atoms_(std::move(atoms)), suffixes_(std::move(suffixes)) {}

  const std::vector<std::string>& OfSize(std::size_t size) {
    while (by_size_.size() <= size) {
      Grow();
    }
    return by_size_[size];
  }

 private:
  void Grow() {
    const std::size_t size = by_size_.size();
    std::set<std::string> made;
    if (size == 1) {
      made.insert(atoms_.begin(), atoms_.end());
    }
    for (const std::string& inner : size > 1 ? by_size_[size - 1] : none_) {
      for (const std::string& suffix : suffixes_) {
        made.insert(Join({"(", inner, ")", suffix}));
        if (inner.size() == 1 && inner != "^" && inner != "$") {
          made.insert(inner + suffix);
        }
      }
    }
    for (std::size_t left = 1; left + 2 <= size; ++left) {
      for (const std::string& a : by_size_[left]) {
        for (const std::string& b : by_size_[size - 1 - left]) {
          made.insert(a + b);
          made.insert(Join({"(", a, "|", b, ")"}));
          made.insert(Join({a, "|", b}));
        }
      }
    }
    by_size_.emplace_back(made.begin(), made.end());
  }

  std::vector<std::string> none_;
  std::vector<std::string> atoms_;
  std::vector<std::string> suffixes_;
  std::vector<std::vector<std::string>> by_size_ = {{}};
};

// Compares both matchers of the engine with the slow one; false on the first
// difference.
bool Agrees(const std::string& expression,
            const std::vector<std::string>& texts) {
  pattern::Code code;
  pattern::Compile(expression, &code);
  SlowMatcher slow(expression);
  EXPECT_EQ(code.valid, slow.IsValid()) << expression;
  if (code.valid != slow.IsValid()) {
    return false;
  }
  SMatch want;
  SMatch got;
  for (const std::string& text : texts) {
    const bool wanted = slow.Search(text, 0, &want);
    if (slow.GaveUp()) {
      continue;
    }
    pattern::Effort effort;
    const bool found = pattern::Search(code, text, 0, &got, &effort);
    EXPECT_EQ(Show(got, found), Show(want, wanted))
        << "/" << expression << "/ on \"" << text << '"';
    bool good = Show(got, found) == Show(want, wanted);
    const bool again =
        code.valid && pattern::SearchInTwoPasses(code, text, 0, &got, &effort);
    EXPECT_EQ(Show(got, again), Show(want, wanted))
        << "/" << expression << "/ in two passes on \"" << text << '"';
    good = good && Show(got, again) == Show(want, wanted);
    good = good && pattern::Search(code, text, 0, nullptr, &effort) == wanted &&
           (!code.valid || pattern::SearchInTwoPasses(code, text, 0, nullptr,
                                                      &effort) == wanted);
    EXPECT_TRUE(good) << "/" << expression << "/ on \"" << text << '"';
    if (!good) {
      return false;
    }
  }
  return true;
}

void ExpectAllAgree(Patterns patterns, std::size_t largest,
                    const std::vector<std::string>& texts) {
  std::size_t count = 0;
  for (std::size_t size = 1; size <= largest - kSpared; ++size) {
    for (const std::string& expression : patterns.OfSize(size)) {
      ++count;
      ASSERT_TRUE(Agrees(expression, texts));
    }
  }
  std::printf("%zu patterns on %zu texts\n", count, texts.size());
}

TEST(PatternExhaustiveTest, AllSmallPatternsOnAllSmallTexts) {
  ExpectAllAgree(Patterns({"a", "b", ".", ""}, {"*", "+", "?", ""}), 5,
                 AllTexts("ab", 6));
}

TEST(PatternExhaustiveTest, AllSmallPatternsWithCounts) {
  ExpectAllAgree(
      Patterns({"a", "b", ""}, {"{0}", "{2}", "{0,2}", "{1,2}", "{2,}", "*"}),
      4, AllTexts("ab", 6));
}

TEST(PatternExhaustiveTest, AllSmallPatternsWithAnchorsAndLineFeeds) {
  ExpectAllAgree(Patterns({"a", "^", "$", "\n", "[^a]"}, {"*", "+", "?"}), 4,
                 AllTexts("a\n", 6));
}

TEST(PatternExhaustiveTest, AllSmallPatternsWithClasses) {
  ExpectAllAgree(Patterns({"\\s", "\\S", "\\d", " ", "1"}, {"*", "+"}), 4,
                 AllTexts(" 1a", 4));
}

// Loops in each other whose bodies may be empty.
TEST(PatternExhaustiveTest, AllNestedEmptyLoops) {
  ExpectAllAgree(Patterns({"a", "b", ""}, {"*", "+"}), 6, AllTexts("ab", 4));
}

class RandomPatterns {
 public:
  explicit RandomPatterns(unsigned seed) : random_(seed) {}

  std::string Make(int depth) {
    std::string made = MakeSequence(depth);
    while (Below(4) == 0) {
      made += '|';
      made += MakeSequence(depth);
    }
    return made;
  }

  std::string MakeText(std::size_t longest) {
    static const std::string kBytes = "aaabb1 \t\n.-/x";
    std::string text;
    for (std::size_t n = Below(longest + 1); n > 0; --n) {
      text += kBytes[Below(kBytes.size())];
    }
    return text;
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string MakeSequence(int depth) {
    std::string made;
    for (std::size_t n = Below(4) + (depth > 2 ? 1 : 0); n > 0; --n) {
      made += MakeItem(depth);
    }
    return made;
  }

  std::string MakeItem(int depth) {
    static const std::vector<std::string> kAtoms = {
        "a",    "a",      "b",       "ab",   "\\s",    "\\S", "\\d",
        "\\.",  ".",      "[ab]",    "[^a]", "[\\s,]", "1",   "[a-c1-]",
        "[]a]", "[^]\n]", "\\w",     "\\W",  "\\D",    "\\t", "\\n",
        "{",    "x{",     "[^\\d.]", "}",    "]",      "-",   "/"};
    // A group that is repeated no times and holds "^" confuses PCRE2 10.42,
    // which then believes the whole pattern to be anchored: the last one is not
    // for groups.
    static const std::vector<std::string> kSuffixes = {
        "", "", "", "*", "+", "?", "{2}", "{1,2}", "{0,1}", "{2,}", "*", "{0}"};
    switch (Below(12)) {
      case 0:
        return "^";
      case 1:
        return "$";
      case 2:
      case 3:
      case 4:
        if (depth > 0) {
          return Join({"(", Make(depth - 1), ")",
                       kSuffixes[Below(kSuffixes.size() - 1)]});
        }
        [[fallthrough]];
      default:
        return kAtoms[Below(kAtoms.size())] +
               kSuffixes[Below(kSuffixes.size())];
    }
  }

  std::mt19937 random_;
};

class Peer {
 public:
  explicit Peer(const std::string& expression) {
    int error = 0;
    std::size_t offset = 0;
    code_ = pcre2_compile(
        reinterpret_cast<PCRE2_SPTR>(expression.data()), expression.size(),
        PCRE2_DOTALL | PCRE2_NO_START_OPTIMIZE, &error, &offset, nullptr);
    context_ = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(context_, 50000);
    if (code_ != nullptr) {
      data_ = pcre2_match_data_create_from_pattern(code_, nullptr);
    }
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() {
    pcre2_match_data_free(data_);
    pcre2_match_context_free(context_);
    pcre2_code_free(code_);
  }
  [[nodiscard]] bool IsValid() const { return code_ != nullptr; }

  // 1 found, 0 not found, -1 given up.
  int Search(const std::string& text, std::size_t from, std::size_t groups,
             SMatch* match) {
    const int result =
        pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(text.data()),
                    text.size(), from, 0, data_, context_);
    if (result <= 0) {
      return result == PCRE2_ERROR_NOMATCH ? 0 : -1;
    }
    const PCRE2_SIZE* ends = pcre2_get_ovector_pointer(data_);
    match->spans.assign(groups + 1, {});
    for (std::size_t i = 0; i < static_cast<std::size_t>(result); ++i) {
      if (ends[2 * i] != PCRE2_UNSET) {
        match->spans[i] = {ends[2 * i], ends[2 * i + 1]};
      }
    }
    return 1;
  }

 private:
  pcre2_code* code_ = nullptr;
  pcre2_match_data* data_ = nullptr;
  pcre2_match_context* context_ = nullptr;
};

TEST(PatternExhaustiveTest, RandomPatternsMatchAsInPcre2) {
  RandomPatterns random(20261121);
  int compared = 0;
  for (int i = 0; i < kRandomPatterns; ++i) {
    const std::string expression = random.Make(3);
    pattern::Code code;
    pattern::Compile(expression, &code);
    Peer peer(expression);
    ASSERT_EQ(code.valid, peer.IsValid()) << expression;
    for (int n = 0; code.valid && n < 12; ++n) {
      const std::string text = random.MakeText(n < 8 ? 14 : 60);
      const std::size_t from = n % 4 == 3 ? text.size() / 3 : 0;
      SMatch want;
      SMatch got;
      const int wanted =
          peer.Search(text, from, static_cast<std::size_t>(code.groups), &want);
      if (wanted < 0) {
        continue;
      }
      ++compared;
      pattern::Effort effort;
      const bool found = pattern::Search(code, text, from, &got, &effort);
      ASSERT_EQ(Show(got, found), Show(want, wanted == 1))
          << "/" << expression << "/ on \"" << text << "\" from " << from;
      const bool again =
          pattern::SearchInTwoPasses(code, text, from, &got, &effort);
      ASSERT_EQ(Show(got, again), Show(want, wanted == 1))
          << "/" << expression << "/ in two passes on \"" << text << "\" from "
          << from;
    }
  }
  // Few are beyond what the other library allows itself.
  EXPECT_GT(compared, 8 * kRandomPatterns);
}

}  // namespace
