// Compiles an expression into the flat program, in one pass from left to right
// without a syntax tree: what is open is kept on a stack of its own, so that no
// nesting can exhaust the machine's.  Follows Thompson, "Regular expression
// search algorithm" (1968), with the ordered splits that greedy repetition
// needs.  Tested by Pattern_test.cc and PatternExhaustive_test.cc.

#include <algorithm>
#include <string_view>
#include <vector>

#include "toolkit/pattern/Program.h"
#include "toolkit/pattern/Scanner.h"

namespace pattern {
namespace {

constexpr std::size_t kUsualSets = 8;
// Counts that fit the fields of kCount.
constexpr int kMaxShortCount = 255;
// Repeating and choosing between groups moves their code.  Expressions that
// nest such groups by the thousand would move it for seconds.
constexpr std::size_t kMaxMoved = std::size_t{1} << 26;

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
      : in_(text, &code->sets), code_(code), out_(code->instructions) {}
  bool Run();

 private:
  [[nodiscard]] bool IsGood() const { return in_.IsGood(); }
  void Fail() { in_.Fail(); }
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
  std::uint32_t SetOf(const Instruction& single);
  bool ParseAnchor();

  Scanner in_;
  std::size_t moved_ = 0;
  Code* code_;
  std::vector<Instruction>& out_;
  Scope scope_;
  std::vector<Scope> outer_;
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
  in_.Skip();
  outer_.push_back(scope_);
  scope_ = Scope();
  scope_.group = ++code_->groups;
  scope_.begin = out_.size();
  Emit(Op::kOpen, scope_.group);
  scope_.branch = out_.size();
}

void Compiler::CloseGroup() {
  in_.Skip();
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
  const Quantifier quantifier = in_.TakeQuantifier();
  if (IsGood()) {
    RepeatGroup(begin, empty, quantifier);
    scope_.branch_is_empty =
        scope_.branch_is_empty && (empty || quantifier.min == 0);
  }
}

// The jumps at the ends of the alternatives are chained by their targets until
// the end is known.
void Compiler::NextBranch() {
  in_.Skip();
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
  std::size_t jump = IsGood() ? scope_.jump : 0;
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
  for (std::size_t copy = 1; IsGood() && copy < copies; ++copy) {
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
  const Instruction single = in_.Single();
  if (!IsGood()) {
    return;
  }
  const Quantifier quantifier = in_.TakeQuantifier();
  if (IsGood()) {
    RepeatSingle(single, quantifier);
    scope_.branch_is_empty = scope_.branch_is_empty && quantifier.min == 0;
  }
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
    for (int i = 1; IsGood() && i < min; ++i) {
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
  for (int i = 0; IsGood() && i < max; ++i) {
    if (i >= min) {
      Emit(Op::kSplit, 2 * static_cast<std::ptrdiff_t>(max - i));
    }
    Emit(single);
  }
}

bool Compiler::ParseAnchor() {
  const char c = in_.Next();
  if (c != '^' && c != '$') {
    return false;
  }
  in_.Skip();
  Emit(c == '^' ? Op::kBegin : Op::kEnd);
  if (in_.AtQuantifier()) {
    Fail();
  }
  return true;
}

bool Compiler::Run() {
  while (IsGood() && in_.More()) {
    if (in_.Next() == '(') {
      OpenGroup();
    } else if (in_.Next() == ')') {
      CloseGroup();
    } else if (in_.Next() == '|') {
      NextBranch();
    } else if (in_.AtQuantifier()) {
      Fail();
    } else if (!ParseAnchor()) {
      Single();
    }
  }
  EndBranches();
  Emit(Op::kMatch);
  return IsGood() && outer_.empty();
}

}  // namespace

void Compile(std::string_view expression, Code* code) {
  code->sets.reserve(kUsualSets);
  code->sets.emplace_back().Invert();
  code->instructions.reserve(expression.size() + 4);
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
