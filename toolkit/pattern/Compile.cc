// Compiles an expression into the flat program, in one pass from left to right
// without a syntax tree: what is open is kept on a stack of its own, so that no
// nesting can exhaust the machine's.  Follows Thompson, "Regular expression
// search algorithm" (1968), with the ordered splits that greedy repetition
// needs.  Tested by Pattern_test.cc and PatternExhaustive_test.cc.

#include <algorithm>
#include <array>
#include <string_view>

#include "toolkit/pattern/Program.h"

namespace pattern {
namespace {

constexpr int kUnbounded = -1;
constexpr int kMaxCount = 65535;
constexpr std::size_t kUsualSets = 8;
// Counts that fit the fields of kCount.
constexpr int kMaxShortCount = 255;
// Repeating and choosing between groups moves their code.  Expressions that
// nest such groups by the thousand would move it for seconds.
constexpr std::size_t kMaxMoved = std::size_t{1} << 26;

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

struct Quantifier {
  int min = 1;
  int max = 1;
};

// A group that is open, or the whole expression.
struct Scope {
  std::size_t begin = 0;   // its kOpen
  std::size_t branch = 0;  // where the current alternative begins
  std::size_t jump = 0;    // the latest jump to the end, 0 when none
  int group = 0;
  bool branch_is_empty = true;     // the alternative may match nothing
  bool some_branch_empty = false;  // one of the earlier ones may
};

class Compiler {
 public:
  Compiler(std::string_view text, Code* code)
      : text_(text), code_(code), out_(code->instructions) {}
  bool Run();

 private:
  [[nodiscard]] bool More() const { return at_ < text_.size(); }
  void Fail() { good_ = false; }
  void Emit(const Instruction& instruction) {
    if (out_.size() >= kMaxInstructions) {
      Fail();
    } else {
      out_.push_back(instruction);
    }
  }
  void Emit(Op op, std::ptrdiff_t target = 0) {
    Instruction instruction;
    instruction.op = op;
    instruction.target = static_cast<std::int32_t>(target);
    Emit(instruction);
  }
  void Insert(std::size_t at, std::ptrdiff_t target);

  void OpenGroup();
  void CloseGroup();
  void NextBranch();
  void EndBranches();
  void RepeatGroup(std::size_t begin, bool empty, Quantifier quantifier);
  void Single();
  void RepeatSingle(const Instruction& single, Quantifier quantifier);
  std::uint32_t SetOfClass(std::size_t letter);
  std::uint32_t SetOf(const Instruction& single);
  bool ParseAnchor();
  Instruction ParseSingle();
  Instruction ParseEscape();
  Instruction ParseBracket();
  void ParseBracketItem(ByteSet* set);
  bool ParseBracketByte(ByteSet* set, unsigned char* byte);
  [[nodiscard]] bool AtNamedClass() const;
  bool AtQuantifier(Quantifier* quantifier, std::size_t* end) const;
  bool ParseCount(std::size_t* at, int* count) const;
  Quantifier ParseQuantifier();

  std::string_view text_;
  std::size_t at_ = 0;
  bool good_ = true;
  std::size_t moved_ = 0;
  Code* code_;
  std::vector<Instruction>& out_;
  Scope scope_;
  std::vector<Scope> outer_;
  std::array<std::uint32_t, 6> class_sets_ = {};  // kAnySet: not used yet
};

// Code behind `at` moves by one; its own targets are distances and stay.
void Compiler::Insert(std::size_t at, std::ptrdiff_t target) {
  moved_ += out_.size() - at;
  if (out_.size() >= kMaxInstructions || moved_ > kMaxMoved) {
    Fail();
    return;
  }
  Instruction split;
  split.op = Op::kSplit;
  split.target = static_cast<std::int32_t>(target);
  out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(at), split);
}

void Compiler::OpenGroup() {
  ++at_;
  outer_.push_back(scope_);
  scope_ = Scope();
  scope_.group = ++code_->groups;
  scope_.begin = out_.size();
  Emit(Op::kOpen, scope_.group);
  scope_.branch = out_.size();
}

void Compiler::CloseGroup() {
  ++at_;
  if (outer_.empty()) {
    Fail();
    return;
  }
  EndBranches();
  Emit(Op::kClose, scope_.group);
  const std::size_t begin = scope_.begin;
  const bool empty = scope_.branch_is_empty || scope_.some_branch_empty;
  scope_ = outer_.back();
  outer_.pop_back();
  const Quantifier quantifier = ParseQuantifier();
  if (good_) {
    RepeatGroup(begin, empty, quantifier);
    scope_.branch_is_empty =
        scope_.branch_is_empty && (empty || quantifier.min == 0);
  }
}

// The jumps at the ends of the alternatives are chained by their targets until
// the end is known.
void Compiler::NextBranch() {
  ++at_;
  Insert(scope_.branch,
         static_cast<std::ptrdiff_t>(out_.size() - scope_.branch + 2));
  const std::size_t jump = out_.size();
  Emit(Op::kJump,
       scope_.jump == 0 ? 0 : static_cast<std::ptrdiff_t>(jump - scope_.jump));
  scope_.jump = jump;
  scope_.branch = out_.size();
  scope_.some_branch_empty |= scope_.branch_is_empty;
  scope_.branch_is_empty = true;
}

void Compiler::EndBranches() {
  std::size_t jump = good_ ? scope_.jump : 0;
  while (jump != 0) {
    const auto distance = static_cast<std::size_t>(out_[jump].target);
    out_[jump].target = static_cast<std::int32_t>(out_.size() - jump);
    jump = distance == 0 ? 0 : jump - distance;
  }
}

// The code from `begin` on is repeated by copies; an unbounded last copy loops.
void Compiler::RepeatGroup(std::size_t begin, bool empty,
                           Quantifier quantifier) {
  const auto [min, max] = quantifier;
  if (max == 0) {
    out_.resize(begin);
    return;
  }
  const std::size_t length = out_.size() - begin;
  const auto copies =
      static_cast<std::size_t>(max == kUnbounded ? std::max(min, 1) : max);
  const std::size_t total = begin + copies * (length + 1) + 1;
  if (total > kMaxInstructions) {
    Fail();
    return;
  }
  // From the split before an optional copy to the end.
  const auto end_of = [&](std::size_t copy) {
    return static_cast<std::ptrdiff_t>((copies - copy) * (length + 1));
  };
  if (min == 0) {
    Insert(begin, max == kUnbounded ? static_cast<std::ptrdiff_t>(length) + 2
                                    : end_of(0));
  }
  const std::size_t body = begin + (min == 0 ? 1 : 0);
  for (std::size_t copy = 1; good_ && copy < copies; ++copy) {
    if (copy >= static_cast<unsigned>(min)) {
      Emit(Op::kSplit, end_of(copy));
    }
    for (std::size_t i = 0; i < length; ++i) {
      Emit(Instruction(out_[body + i]));
    }
  }
  if (max == kUnbounded) {
    Emit(empty ? Op::kProgress : Op::kBack,
         -static_cast<std::ptrdiff_t>(length));
    code_->has_progress |= empty;
  }
}

void Compiler::Single() {
  const Instruction single = ParseSingle();
  if (!good_) {
    return;
  }
  const Quantifier quantifier = ParseQuantifier();
  if (good_) {
    RepeatSingle(single, quantifier);
    scope_.branch_is_empty = scope_.branch_is_empty && quantifier.min == 0;
  }
}

// The number of the set of the class; it becomes one of the program's when it
// is first used.
std::uint32_t Compiler::SetOfClass(std::size_t letter) {
  std::uint32_t& number = class_sets_[letter];
  if (number == kAnySet) {
    number = static_cast<std::uint32_t>(code_->sets.size());
    code_->sets.push_back(kClasses[letter]);
  }
  return number;
}

// The set of the bytes that `single` matches.
std::uint32_t Compiler::SetOf(const Instruction& single) {
  if (single.op != Op::kByte) {
    return single.set;
  }
  ByteSet set;
  set.Add(single.byte);
  code_->sets.push_back(set);
  return static_cast<std::uint32_t>(code_->sets.size() - 1);
}

void Compiler::RepeatSingle(const Instruction& single, Quantifier quantifier) {
  const auto [min, max] = quantifier;
  if (max == kUnbounded) {
    for (int i = 1; good_ && i < min; ++i) {
      Emit(single);
    }
    Instruction run = single;
    run.op = Op::kRun;
    run.min = min > 0 ? 1 : 0;
    run.set = SetOf(single);
    run.target = 1;
    Emit(run);
    return;
  }
  if (max > 1 && max <= kMaxShortCount) {
    Instruction count = single;
    count.op = Op::kCount;
    count.min = static_cast<std::uint8_t>(min);
    count.max = static_cast<std::uint8_t>(max);
    count.set = SetOf(single);
    count.target = 1 + min + 2 * (max - min);
    Emit(count);
  }
  for (int i = 0; good_ && i < max; ++i) {
    if (i >= min) {
      Emit(Op::kSplit, 2 * static_cast<std::ptrdiff_t>(max - i));
    }
    Emit(single);
  }
}

bool Compiler::ParseAnchor() {
  const char c = text_[at_];
  if (c != '^' && c != '$') {
    return false;
  }
  ++at_;
  Emit(c == '^' ? Op::kBegin : Op::kEnd);
  Quantifier quantifier;
  std::size_t end = 0;
  good_ = good_ && !AtQuantifier(&quantifier, &end);
  return true;
}

Instruction Compiler::ParseSingle() {
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

Instruction Compiler::ParseEscape() {
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
bool Compiler::AtNamedClass() const {
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
bool Compiler::ParseBracketByte(ByteSet* set, unsigned char* byte) {
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
    set->Add(code_->sets[single.set]);
    return false;
  }
  *byte = single.byte;
  return good_;
}

void Compiler::ParseBracketItem(ByteSet* set) {
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

Instruction Compiler::ParseBracket() {
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
  single.set = static_cast<std::uint32_t>(code_->sets.size());
  code_->sets.push_back(set);
  return single;
}

bool Compiler::ParseCount(std::size_t* at, int* count) const {
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

// True when a quantifier begins here; it ends at `end`.
bool Compiler::AtQuantifier(Quantifier* quantifier, std::size_t* end) const {
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

// A quantifier on a quantifier, laziness and possessiveness are refused.
Quantifier Compiler::ParseQuantifier() {
  Quantifier quantifier;
  std::size_t end = 0;
  if (!AtQuantifier(&quantifier, &end)) {
    return {};
  }
  at_ = end;
  const auto [min, max] = quantifier;
  Quantifier second;
  good_ = good_ && !AtQuantifier(&second, &end) && min <= kMaxCount &&
          max <= kMaxCount && (max == kUnbounded || max >= min);
  return quantifier;
}

bool Compiler::Run() {
  code_->sets.reserve(kUsualSets);
  code_->sets.emplace_back().Invert();
  out_.reserve(text_.size() + 4);
  while (good_ && More()) {
    Quantifier quantifier;
    std::size_t end = 0;
    if (text_[at_] == '(') {
      OpenGroup();
    } else if (text_[at_] == ')') {
      CloseGroup();
    } else if (text_[at_] == '|') {
      NextBranch();
    } else if (AtQuantifier(&quantifier, &end)) {
      Fail();
    } else if (!ParseAnchor()) {
      Single();
    }
  }
  EndBranches();
  Emit(Op::kMatch);
  return good_ && outer_.empty();
}

}  // namespace

void Compile(std::string_view expression, Code* code) {
  code->valid = Compiler(expression, code).Run();
  if (!code->valid) {
    return;
  }
  FindHints(code);
  code->valid = !code->has_progress || Unfold(code);
  if (code->valid) {
    CompleteInstructions(code);
  }
}

}  // namespace pattern
