// What can be known of a program before it runs: cheap tests that most texts
// fail, and what must stand behind a run.  Every hint is a necessary condition;
// where one would cost more than a few steps it is left out.

#include <algorithm>
#include <array>
#include <string_view>

#include "toolkit/pattern/Program.h"

namespace pattern {
namespace {

constexpr std::size_t kMaxSteps = 48;

// How common each byte is in the files and listings that are searched.
constexpr std::array<unsigned char, 256> MakeRanks() {
  constexpr std::string_view kCommon =
      " etaoinsrlhdcumpfgybw0123456789./:-_vkT\t*S,AECLIRNDMOPUBF";
  std::array<unsigned char, 256> ranks = {};
  for (std::size_t i = 0; i < kCommon.size(); ++i) {
    ranks[static_cast<unsigned char>(kCommon[i])] =
        static_cast<unsigned char>(kCommon.size() - i);
  }
  return ranks;
}

constexpr std::array<unsigned char, 256> kRanks = MakeRanks();

struct FirstBytes {
  ByteSet set;
  bool at_end = false;  // or "$", which also matches where nothing is left
  bool begins = false;  // some way passes "^"
  bool known = true;    // false: may match the empty string, or too long
};

// The bytes with which what begins at `from` can begin.
FirstBytes FindFirst(const Code& code, std::size_t from) {
  FirstBytes first;
  std::array<std::size_t, kMaxSteps> to_do;
  std::size_t count = 0;
  to_do[count++] = from;
  for (std::size_t steps = 0; count > 0; ++steps) {
    if (steps + 2 >= kMaxSteps) {
      first.known = false;
      return first;
    }
    const std::size_t at = to_do[--count];
    const Instruction& i = code.instructions[at];
    const std::size_t target =
        static_cast<std::size_t>(static_cast<std::ptrdiff_t>(at) + i.target);
    switch (i.op) {
      case Op::kByte:
        first.set.Add(i.byte);
        break;
      case Op::kSet:
        first.set.Add(code.sets[i.set]);
        break;
      case Op::kRun:
        first.set.Add(code.sets[i.set]);
        if (i.min == 0) {
          to_do[count++] = at + 1;
        }
        break;
      case Op::kEnd:
        first.set.Add('\n');
        first.at_end = true;
        break;
      case Op::kBegin:
        first.begins = true;
        to_do[count++] = at + 1;
        break;
      case Op::kSplit:
      case Op::kBack:
        to_do[count++] = target;
        to_do[count++] = at + 1;
        break;
      case Op::kCount:
      case Op::kOpen:
      case Op::kClose:
      case Op::kProgress:
        to_do[count++] = at + 1;
        break;
      case Op::kJump:
        to_do[count++] = target;
        break;
      case Op::kAny:
      case Op::kMatch:
        first.known = false;
        return first;
    }
  }
  return first;
}

// The bytes with which what ends before `end` can end; false when it may be
// empty.  Only for programs of up to 64 instructions.
bool FindLast(const Code& code, std::size_t end, ByteSet* last) {
  std::array<std::size_t, 64> to_do;
  std::uint64_t seen = std::uint64_t{1} << end;
  std::size_t count = 0;
  to_do[count++] = end;
  const auto visit = [&](std::size_t at) {
    if (((seen >> at) & 1) == 0) {
      seen |= std::uint64_t{1} << at;
      to_do[count++] = at;
    }
  };
  // Handles the instruction at `at`, from which control goes on: a consuming
  // one contributes its bytes, any other is gone back through.
  const auto leave = [&](std::size_t at) {
    const Instruction& i = code.instructions[at];
    switch (i.op) {
      case Op::kByte:
        last->Add(i.byte);
        break;
      case Op::kRun:
        last->Add(code.sets[i.set]);
        if (i.min == 0) {
          visit(at);
        }
        break;
      case Op::kSet:
      case Op::kAny:
        last->Add(code.sets[i.set]);
        break;
      default:
        visit(at);
    }
  };
  while (count > 0) {
    const std::size_t at = to_do[--count];
    if (at == 0) {
      return false;
    }
    if (code.instructions[at - 1].op != Op::kJump) {
      leave(at - 1);
    }
    for (std::size_t i = 0; i < code.instructions.size(); ++i) {
      const Instruction& other = code.instructions[i];
      const bool jumps = other.op >= Op::kSplit && other.op <= Op::kJump;
      if (jumps && static_cast<std::ptrdiff_t>(i) + other.target ==
                       static_cast<std::ptrdiff_t>(at)) {
        visit(i);
      }
    }
  }
  return true;
}

// Walks over the instructions that every match passes.
class MandatoryWalk {
 public:
  explicit MandatoryWalk(Code* code) : code_(*code), hints_(code->hints) {}
  void Run();

 private:
  void EndLiteral();
  void Require(const ByteSet& set);

  const Code& code_;
  Hints& hints_;
  std::string literal_;
  int required_count_ = 257;
  bool at_start_ = true;        // nothing but groups and "^" so far
  bool literal_first_ = false;  // the literal being collected began there
};

void MandatoryWalk::EndLiteral() {
  // With "^" a prefix is compared anyway, and one byte is not worth a search.
  const bool useless =
      hints_.anchored && (literal_first_ || literal_.size() < 2);
  if (literal_.size() > hints_.literal.size() && !useless) {
    hints_.literal = literal_;
    hints_.literal_first = literal_first_;
  }
  literal_.clear();
}

void MandatoryWalk::Require(const ByteSet& set) {
  const int count = at_start_ ? required_count_ : set.Count();
  if (count < required_count_) {
    required_count_ = count;
    hints_.has_required = true;
    hints_.required = set;
  }
}

void MandatoryWalk::Run() {
  const std::vector<Instruction>& instructions = code_.instructions;
  std::ptrdiff_t reach = 0;  // everything before it can be jumped over
  for (std::size_t at = 0; at < instructions.size(); ++at) {
    const Instruction& i = instructions[at];
    const bool mandatory = static_cast<std::ptrdiff_t>(at) >= reach;
    if (i.op == Op::kSplit || i.op == Op::kJump) {
      reach = std::max(reach, static_cast<std::ptrdiff_t>(at) + i.target);
    }
    if (i.op == Op::kByte && mandatory) {
      literal_first_ = literal_.empty() ? at_start_ : literal_first_;
      literal_ += static_cast<char>(i.byte);
      at_start_ = false;
      continue;
    }
    if (i.op == Op::kOpen || i.op == Op::kClose || i.op == Op::kCount) {
      continue;
    }
    EndLiteral();
    if (mandatory && (i.op == Op::kSet || (i.op == Op::kRun && i.min > 0))) {
      Require(code_.sets[i.set]);
    }
    if (i.op == Op::kEnd && mandatory && at > 0 && at < 64 &&
        at + 2 == instructions.size()) {
      hints_.has_last = FindLast(code_, at, &hints_.last);
    }
    at_start_ = at_start_ && i.op == Op::kBegin;
  }
}

void PickRareByte(Hints* hints) {
  const std::string& literal = hints->literal;
  for (std::size_t i = 1; i < literal.size(); ++i) {
    const auto rank = [&](std::size_t at) {
      return kRanks[static_cast<unsigned char>(literal[at])];
    };
    if (rank(i) < rank(hints->literal_rare)) {
      hints->literal_rare = i;
    }
  }
}

// The bytes that the program begins with, when nothing but "^" is before.
void FindPrefix(Code* code) {
  Hints& hints = code->hints;
  std::size_t at = code->instructions[0].op == Op::kBegin ? 1 : 0;
  for (; code->instructions[at].op == Op::kByte; ++at) {
    hints.prefix += static_cast<char>(code->instructions[at].byte);
  }
  hints.behind_prefix = at;
}

bool BeginsAnchored(const Code& code) {
  std::size_t at = 0;
  while (code.instructions[at].op == Op::kOpen) {
    ++at;
  }
  return code.instructions[at].op == Op::kBegin;
}

}  // namespace

void FindHints(Code* code) {
  Hints& hints = code->hints;
  hints.anchored = BeginsAnchored(*code);
  MandatoryWalk(code).Run();
  PickRareByte(&hints);
  const bool has_prefix =
      hints.anchored && code->instructions[1].op == Op::kByte;
  if (!hints.literal_first && !has_prefix) {
    const FirstBytes first = FindFirst(*code, 0);
    hints.has_first = first.known && !first.at_end;
    hints.first = first.set;
  }
}

void CompleteInstructions(Code* code) {
  std::vector<Instruction>& instructions = code->instructions;
  std::ptrdiff_t reach = 0;
  for (std::size_t at = 0; at < instructions.size(); ++at) {
    Instruction& i = instructions[at];
    const auto here = static_cast<std::ptrdiff_t>(at);
    if (i.op == Op::kSplit || i.op == Op::kJump) {
      reach = std::max(reach, here + i.target);
    } else if (i.op == Op::kOpen || i.op == Op::kClose) {
      i.final = !code->has_progress && here >= reach;
    } else if (i.op == Op::kRun || i.op == Op::kCount) {
      const FirstBytes next =
          FindFirst(*code, at + static_cast<std::size_t>(i.target));
      if (next.known) {
        i.follow_kind = next.at_end ? Follow::kSetOrEnd : Follow::kSet;
        i.follow = static_cast<std::uint32_t>(code->sets.size());
        i.final = !next.set.Meets(code->sets[i.set]);
        code->sets.push_back(next.set);
      }
    }
  }
  // What lies in a loop may have to be restored.
  auto loop = static_cast<std::ptrdiff_t>(instructions.size());
  for (std::size_t at = instructions.size(); at-- > 0;) {
    Instruction& i = instructions[at];
    const auto here = static_cast<std::ptrdiff_t>(at);
    if (i.op == Op::kBack) {
      loop = std::min(loop, here + i.target);
    } else if ((i.op == Op::kOpen || i.op == Op::kClose) && here >= loop) {
      i.final = false;
    }
  }
  const Hints& hints = code->hints;
  if (!code->has_progress && (hints.anchored || hints.literal_first)) {
    FindPrefix(code);
  }
  std::size_t at = 0;
  while (instructions[at].op == Op::kOpen) {
    ++at;
  }
  if (instructions[at].op == Op::kRun) {
    code->hints.leading_run = static_cast<std::int32_t>(at);
  }
}

}  // namespace pattern
