// The pattern engine of the toolkit: Perl's syntax as far as the system uses
// it, the leftmost match, and the captures of a greedy backtracking matcher.
//
//   Scanner.cc    the elements of an expression
//   Compile.cc    one pass over them into a flat program
//   Unfold.cc     loops whose body may be empty
//   Hints.cc      cheap tests that most texts fail
//   Search.cc     the tests, then the matchers
//   Backtrack.cc  the matcher for everyday texts, which may give up
//   TwoPass.cc    the matcher that never does
//   StateSets.cc  what its first pass finds out
//   Cache.cc      compiled patterns by their text
//
// limits    expressions of more than 65,536 instructions (counted repetitions
//           are written out) count as unparsable; so do groups with
//           quantifiers or alternatives that nest by the thousand
// time      program length x text length at worst; mostly one step a byte
// memory    bounded: see TwoPass.cc; nothing recurses
// sources   Thompson 1968, Frisch and Cardelli 2004, Cox 2007 (Compile.cc,
//           TwoPass.cc)
// tests     Pattern_test.cc (rules, the system's patterns, limits),
//           PatternExhaustive_test.cc (every small pattern on every small
//           text; random ones against another library), fuzz/patterns_fuzz.cc

#include "toolkit/pattern/Pattern.h"

#include "toolkit/pattern/Match.h"

SPattern::SPattern(std::string_view expression) {
  auto code = std::make_unique<pattern::Code>();
  pattern::Compile(expression, code.get());
  code_ = std::move(code);
}

SPattern::~SPattern() = default;

bool SPattern::IsValid() const {
  return code_->valid;
}

int SPattern::GroupCount() const {
  return code_->groups;
}

bool SPattern::Matches(std::string_view text) const {
  pattern::Effort effort;
  return pattern::Search(*code_, text, 0, nullptr, &effort);
}

bool SPattern::Search(std::string_view text, std::size_t from,
                      SMatch* match) const {
  pattern::Effort effort;
  return pattern::Search(*code_, text, from, match, &effort);
}
