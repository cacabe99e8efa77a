// The elements of an expression, in the dialect that docs/patterns.md lists.

#include "toolkit/pattern/Scanner.h"

namespace pattern {
namespace {

constexpr int kMaxCount = 65535;

constexpr std::string_view kClassLetters = "dDsSwW";

constexpr std::array<ByteSet, 6> MakeClasses() {
  std::array<ByteSet, 6> classes;
  classes[0].AddRange('0', '9');
  for (const char c : {' ', '\t', '\n', '\f', '\r'}) {
    classes[2].Add(static_cast<unsigned char>(c));
  }
  classes[4].AddRange('0', '9');
  classes[4].AddRange('a', 'z');
  classes[4].AddRange('A', 'Z');
  classes[4].Add('_');
  for (std::size_t i = 0; i < 6; i += 2) {
    classes[i + 1] = classes[i];
    classes[i + 1].Invert();
  }
  return classes;
}

constexpr std::array<ByteSet, 6> kClasses = MakeClasses();

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

// The number of the set of the class; it becomes one of the program's when it
// is first used.
std::uint32_t Scanner::SetOfClass(std::size_t letter) {
  std::uint32_t& number = class_sets_[letter];
  if (number == kAnySet) {
    number = static_cast<std::uint32_t>(sets_.size());
    sets_.push_back(kClasses[letter]);
  }
  return number;
}

Instruction Scanner::Single() {
  Instruction single;
  switch (text_[at_]) {
    case '[':
      return ParseBracket();
    case '\\':
      return ParseEscape();
    case '.':
      ++at_;
      single.op = Op::kAny;
      single.set = kAnySet;
      return single;
    default:
      single.op = Op::kByte;
      single.byte = static_cast<unsigned char>(text_[at_++]);
      return single;
  }
}

Instruction Scanner::ParseEscape() {
  Instruction single;
  ++at_;
  if (!More()) {
    Fail();
    return single;
  }
  const char c = text_[at_++];
  const std::size_t letter = kClassLetters.find(c);
  if (letter != std::string_view::npos) {
    single.op = Op::kSet;
    single.set = SetOfClass(letter);
    return single;
  }
  constexpr std::string_view kControls = "t\tn\nr\rf\f";
  const std::size_t control = IsLetter(c) ? kControls.find(c) : 0;
  if (IsDigit(c) || control == std::string_view::npos) {
    Fail();
    return single;
  }
  single.op = Op::kByte;
  single.byte =
      static_cast<unsigned char>(IsLetter(c) ? kControls[control + 1] : c);
  return single;
}

// "[:alpha:]" and its like are read as classes elsewhere; they are refused here
// rather than taken for something else.
bool Scanner::AtNamedClass() const {
  if (at_ + 1 >= text_.size() || text_[at_] != '[') {
    return false;
  }
  const char mark = text_[at_ + 1];
  if (mark != ':' && mark != '.' && mark != '=') {
    return false;
  }
  for (std::size_t i = at_ + 2; i + 1 < text_.size(); ++i) {
    if (text_[i] == ']' || text_[i] == '\\' || text_[i] == '[') {
      return false;
    }
    if (text_[i] == mark && text_[i + 1] == ']') {
      return true;
    }
  }
  return false;
}

// One item of a bracket class; true when it is a single byte, which may begin
// or end a range.  Classes are added to `set` at once.
bool Scanner::ParseBracketByte(ByteSet* set, unsigned char* byte) {
  if (AtNamedClass()) {
    Fail();
    return false;
  }
  if (text_[at_] != '\\') {
    *byte = static_cast<unsigned char>(text_[at_++]);
    return true;
  }
  const Instruction single = ParseEscape();
  if (good_ && single.op == Op::kSet) {
    set->Add(sets_[single.set]);
    return false;
  }
  *byte = single.byte;
  return good_;
}

void Scanner::ParseBracketItem(ByteSet* set) {
  unsigned char low = 0;
  const bool is_byte = ParseBracketByte(set, &low);
  const bool range = good_ && at_ + 1 < text_.size() && text_[at_] == '-' &&
                     text_[at_ + 1] != ']';
  if (!range) {
    if (is_byte) {
      set->Add(low);
    }
    return;
  }
  ++at_;
  unsigned char high = 0;
  if (!is_byte || !ParseBracketByte(set, &high) || high < low) {
    Fail();
    return;
  }
  set->AddRange(low, high);
}

Instruction Scanner::ParseBracket() {
  Instruction single;
  ByteSet set;
  ++at_;
  const bool negated = More() && text_[at_] == '^';
  at_ += negated ? 1 : 0;
  const std::size_t first = at_;
  while (good_ && More() && (at_ == first || text_[at_] != ']')) {
    ParseBracketItem(&set);
  }
  if (!good_ || !More()) {
    Fail();
    return single;
  }
  ++at_;
  if (negated) {
    set.Invert();
  }
  single.op = Op::kSet;
  single.set = static_cast<std::uint32_t>(sets_.size());
  sets_.push_back(set);
  return single;
}

bool Scanner::ParseCount(std::size_t* at, int* count) const {
  const std::size_t begin = *at;
  *count = 0;
  while (*at < text_.size() && IsDigit(text_[*at])) {
    if (*count <= kMaxCount) {
      *count = *count * 10 + (text_[*at] - '0');
    }
    ++*at;
  }
  return *at > begin;
}

// True when a quantifier begins here; it ends before `end`.
bool Scanner::ReadQuantifier(Quantifier* quantifier, std::size_t* end) const {
  if (!More()) {
    return false;
  }
  std::size_t i = at_ + 1;
  switch (text_[at_]) {
    case '*':
      *quantifier = {0, kUnbounded};
      break;
    case '+':
      *quantifier = {1, kUnbounded};
      break;
    case '?':
      *quantifier = {0, 1};
      break;
    case '{':
      if (!ParseCount(&i, &quantifier->min)) {
        return false;
      }
      quantifier->max = quantifier->min;
      if (i < text_.size() && text_[i] == ',') {
        ++i;
        if (!ParseCount(&i, &quantifier->max)) {
          quantifier->max = kUnbounded;
        }
      }
      if (i >= text_.size() || text_[i] != '}') {
        return false;
      }
      ++i;
      break;
    default:
      return false;
  }
  *end = i;
  return true;
}

bool Scanner::AtQuantifier() const {
  Quantifier quantifier;
  std::size_t end = 0;
  return ReadQuantifier(&quantifier, &end);
}

// A quantifier on a quantifier, laziness and possessiveness are refused.
Quantifier Scanner::TakeQuantifier() {
  Quantifier quantifier;
  std::size_t end = 0;
  if (!ReadQuantifier(&quantifier, &end)) {
    return {};
  }
  at_ = end;
  const auto [min, max] = quantifier;
  good_ = good_ && !AtQuantifier() && min <= kMaxCount && max <= kMaxCount &&
          (max == kUnbounded || max >= min);
  return quantifier;
}

}  // namespace pattern
