// The matcher that never gives up.
//
// A pass from the end of the text backwards finds out, for each position, the
// instructions from which a match can be completed: a set, computed from the
// set one byte later and the byte between.  A pass forward from the first
// position whose set holds the program's beginning then runs the program and
// takes, at each choice, the preferred way if it is in the set.  It never goes
// back, so its captures are those of a backtracking matcher.  The method is
// that of Frisch and Cardelli, "Greedy regular expression matching" (2004);
// the sets are numbered and their transitions remembered as in Thompson's
// lazily built automaton (see Cox, "Regular expression matching can be simple
// and fast", 2007).
//
// Time: text length x program length at worst, when no transition is ever met
// again; else a table look-up for each byte.  Memory: a table of at most
// kMaxStates sets, forgotten and begun anew when it is full, and one set for
// each kBlock bytes of the text, from which the second pass recomputes the
// sets of a block.  Tested by Pattern_test.cc and PatternExhaustive_test.cc.

#include <algorithm>
#include <vector>

#include "toolkit/pattern/Match.h"
#include "toolkit/pattern/StateSets.h"

namespace pattern {
namespace {

class TwoPasses {
 public:
  TwoPasses(const Code& code, std::string_view text, std::size_t from)
      : code_(code), text_(text), from_(from), sets_(code) {}
  bool FindStart(bool any);
  void Walk(SMatch* match);
  void Report(Effort* effort) const;

 private:
  [[nodiscard]] bool IsSpecial(std::size_t at) const {
    return at == 0 || (at + 1 == text_.size() && text_[at] == '\n');
  }
  State Before(std::size_t at, State later);
  bool ReadBlock(std::size_t low, std::size_t high, bool any, State* state);
  void Load(std::size_t at);
  bool Lives(std::size_t instruction, std::size_t at) {
    if (at < low_ || at > high_) {
      Load(at);
    }
    return sets_.Has(block_[at - low_], instruction);
  }

  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  const Code& code_;
  std::string_view text_;
  std::size_t from_;
  StateSets sets_;
  std::size_t start_ = kNone;
  // The sets at the ends of the blocks, the last block's first.
  std::vector<Word> ends_;
  // The states of the positions from low_ to high_.
  std::vector<State> block_;
  std::size_t low_ = 1;
  std::size_t high_ = 0;
  std::uint64_t backward_ = 0;
  std::uint64_t forward_ = 0;
};

State TwoPasses::Before(std::size_t at, State later) {
  const auto byte = static_cast<unsigned char>(text_[at]);
  if (!IsSpecial(at)) {
    return sets_.Before(later, byte);
  }
  const bool at_end = at + 1 == text_.size() && text_[at] == '\n';
  return sets_.BeforeAt(later, byte, {at == 0, at_end});
}

// Reads the block backwards; true when one match is all that is asked for and
// there is one.  Behind a dead state only the start of the text is different.
bool TwoPasses::ReadBlock(std::size_t low, std::size_t high, bool any,
                          State* state) {
  std::size_t at = high;
  while (at > low) {
    // The ends of the text take no part in the quick loop.
    if (at > 1 && at < text_.size()) {
      at = sets_.ReadBack(text_.data(), std::max<std::size_t>(low, 1), at,
                          state);
    }
    if (at > low) {
      --at;
      *state = Before(at, *state);
    }
    if ((*state & kStarts) != 0) {
      start_ = at;
      if (any) {
        backward_ += high - at;
        return true;
      }
    } else if ((*state & kDead) != 0 && at > low) {
      at = low == 0 ? 1 : low;
    }
  }
  backward_ += high - low;
  return false;
}

// The first pass.  With `any` it ends at the first sign of a match.
bool TwoPasses::FindStart(bool any) {
  const std::size_t size = text_.size();
  State state = sets_.Last({size == 0, true});
  if ((state & kStarts) != 0) {
    start_ = size;
  }
  std::size_t high = size;
  for (;;) {
    const Word* row = sets_.Row(state);
    ends_.insert(ends_.end(), row, row + sets_.Words());
    if (high == from_ || (any && start_ != kNone)) {
      break;
    }
    const std::size_t low = std::max(from_, (high - 1) / kBlock * kBlock);
    if (ReadBlock(low, high, any, &state)) {
      break;
    }
    high = low;
  }
  return start_ != kNone;
}

// Recomputes the sets of the block that `at` lies in.
void TwoPasses::Load(std::size_t at) {
  const std::size_t blocks = (text_.size() + kBlock - 1) / kBlock;
  const std::size_t block = std::min(at / kBlock, blocks == 0 ? 0 : blocks - 1);
  low_ = std::max(block * kBlock, start_);
  high_ = std::min((block + 1) * kBlock, text_.size());
  const std::size_t from_last = blocks == 0 ? 0 : blocks - 1 - block;
  sets_.Reserve();
  State state = sets_.Restore(&ends_[from_last * sets_.Words()]);
  block_.resize(high_ - low_ + 1);
  block_[high_ - low_] = state;
  for (std::size_t i = high_; i-- > low_;) {
    state = Before(i, state);
    block_[i - low_] = state;
  }
  backward_ += high_ - low_;
}

// The second pass.
void TwoPasses::Walk(SMatch* match) {
  std::vector<SMatch::Span>& spans = match->spans;
  spans.assign(static_cast<std::size_t>(code_.groups) + 1, {});
  std::size_t at = 0;
  std::size_t position = start_;
  for (;; ++forward_) {
    const Instruction& i = code_.instructions[at];
    const auto target =
        static_cast<std::size_t>(static_cast<std::ptrdiff_t>(at) + i.target);
    switch (i.op) {
      case Op::kByte:
      case Op::kSet:
      case Op::kAny:
        ++position;
        ++at;
        break;
      case Op::kRun: {
        const ByteSet& set = code_.sets[i.set];
        const std::size_t first = position;
        if (i.min > 0) {
          for (++position; Lives(at, position);) {
            ++position;
          }
        } else {
          while (position < text_.size() && set.Has(text_[position]) &&
                 Lives(at, position + 1)) {
            ++position;
          }
        }
        forward_ += position - first;
        ++at;
        break;
      }
      case Op::kOpen:
        spans[static_cast<std::size_t>(i.target)].begin = position;
        ++at;
        break;
      case Op::kClose:
        spans[static_cast<std::size_t>(i.target)].end = position;
        ++at;
        break;
      case Op::kSplit:
        at = Lives(at + 1, position) ? at + 1 : target;
        break;
      case Op::kBack:
        at = Lives(target, position) ? target : at + 1;
        break;
      case Op::kJump:
        at = target;
        break;
      case Op::kCount:
      case Op::kBegin:
      case Op::kEnd:
      case Op::kProgress:
        ++at;
        break;
      case Op::kMatch:
        spans[0] = {start_, position};
        return;
    }
  }
}

void TwoPasses::Report(Effort* effort) const {
  effort->backward += backward_;
  effort->states += sets_.Made();
  effort->forward += forward_;
}

}  // namespace

bool SearchInTwoPasses(const Code& code, std::string_view text,
                       std::size_t from, SMatch* match, Effort* effort) {
  TwoPasses passes(code, text, from);
  const bool found = passes.FindStart(match == nullptr);
  if (found && match != nullptr) {
    passes.Walk(match);
  }
  passes.Report(effort);
  return found;
}

}  // namespace pattern
