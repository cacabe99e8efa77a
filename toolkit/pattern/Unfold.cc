// Loops whose body may match the empty string.
//
// Such a loop ends after an iteration that consumed nothing.  Whether one did
// is no property of instruction and position, so the body is copied: one copy
// for "nothing yet", one for "something".  A byte that is consumed is consumed
// in all the loops around it, hence for loops in each other a single number
// tells the whole state, the level: how many of them, from the outermost on,
// have consumed something.  Afterwards every cycle of the program consumes a
// byte, and nothing but instruction and position decides how it goes on.
// Tested by Pattern_test.cc and PatternExhaustive_test.cc.

#include <algorithm>

#include "toolkit/pattern/Program.h"

namespace pattern {
namespace {

// An instruction of the given code and the level at which it is run.
struct State {
  std::size_t at = 0;
  std::size_t level = 0;
};

class Unfolder {
 public:
  explicit Unfolder(Code* code) : code_(code), in_(code->instructions) {}
  bool Run();

 private:
  void CountDepths();
  bool NumberStates();
  void EmitChain(State state);
  // The state at `at` that `level` becomes there.
  [[nodiscard]] State Enter(std::size_t at, std::size_t level) const {
    return {at, std::min(level, depth_[at])};
  }
  [[nodiscard]] std::size_t Target(std::size_t at) const {
    return static_cast<std::size_t>(static_cast<std::ptrdiff_t>(at) +
                                    in_[at].target);
  }
  std::size_t& Place(State state) {
    return places_[first_state_[state.at] + state.level];
  }
  void EmitTo(Instruction instruction, State target) {
    pending_.push_back({out_.size(), target});
    out_.push_back(instruction);
  }

  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);
  struct Pending {
    std::size_t from;
    State target;
  };
  Code* code_;
  const std::vector<Instruction>& in_;
  std::vector<Instruction> out_;
  std::vector<std::size_t> depth_;        // loops of this kind around each
  std::vector<std::size_t> first_state_;  // of each instruction, in places_
  std::vector<std::size_t> places_;       // of each state, in out_
  std::vector<Pending> pending_;
};

void Unfolder::CountDepths() {
  std::vector<std::ptrdiff_t> change(in_.size() + 1);
  for (std::size_t i = 0; i < in_.size(); ++i) {
    if (in_[i].op == Op::kProgress) {
      ++change[Target(i)];
      --change[i + 1];
    }
  }
  std::ptrdiff_t depth = 0;
  for (std::size_t i = 0; i < in_.size(); ++i) {
    depth += change[i];
    depth_.push_back(static_cast<std::size_t>(depth));
  }
}

bool Unfolder::NumberStates() {
  std::size_t count = 0;
  for (const std::size_t depth : depth_) {
    first_state_.push_back(count);
    count += depth + 1;
    if (count > kMaxInstructions) {
      return false;
    }
  }
  places_.assign(count, kNowhere);
  return true;
}

// Emits the state and what it falls through to, up to a state that has its
// place already.
void Unfolder::EmitChain(State state) {
  for (;;) {
    if (Place(state) != kNowhere) {
      Instruction jump;
      jump.op = Op::kJump;
      EmitTo(jump, state);
      return;
    }
    Place(state) = out_.size();
    const auto [at, level] = state;
    const std::size_t depth = depth_[at];
    Instruction instruction = in_[at];
    switch (instruction.op) {
      case Op::kMatch:
        out_.push_back(instruction);
        return;
      case Op::kByte:
      case Op::kSet:
      case Op::kAny:
        out_.push_back(instruction);
        state = Enter(at + 1, depth);
        break;
      case Op::kRun:
        if (level < depth && instruction.min == 0) {
          Instruction split;
          split.op = Op::kSplit;
          EmitTo(split, Enter(at + 1, level));
          instruction.min = 1;
        }
        out_.push_back(instruction);
        state = Enter(at + 1, depth);
        break;
      case Op::kCount:
        state = Enter(at + 1, level);
        break;
      case Op::kJump:
        state = Enter(Target(at), level);
        break;
      case Op::kSplit:
      case Op::kBack:
        EmitTo(instruction, Enter(Target(at), level));
        state = Enter(at + 1, level);
        break;
      case Op::kProgress:
        if (level == depth) {
          instruction.op = Op::kBack;
          EmitTo(instruction, {Target(at), depth - 1});
        }
        state = Enter(at + 1, std::min(level, depth - 1));
        break;
      case Op::kBegin:
      case Op::kEnd:
      case Op::kOpen:
      case Op::kClose:
        out_.push_back(instruction);
        state = Enter(at + 1, level);
        break;
    }
  }
}

bool Unfolder::Run() {
  CountDepths();
  if (!NumberStates()) {
    return false;
  }
  EmitChain({0, 0});
  for (std::size_t i = 0; i < pending_.size(); ++i) {
    const auto [from, target] = pending_[i];
    if (Place(target) == kNowhere) {
      EmitChain(target);
    }
    out_[from].target =
        static_cast<std::int32_t>(static_cast<std::ptrdiff_t>(Place(target)) -
                                  static_cast<std::ptrdiff_t>(from));
  }
  code_->instructions = std::move(out_);
  return code_->instructions.size() <= kMaxInstructions;
}

}  // namespace

bool Unfold(Code* code) {
  return Unfolder(code).Run();
}

}  // namespace pattern
