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
#include <unordered_map>

#include "toolkit/pattern/Match.h"

namespace pattern {
namespace {

constexpr std::size_t kBlock = 1024;
constexpr std::size_t kMaxStates = 2 * kBlock;

using Word = std::uint64_t;
constexpr std::size_t kWordBits = 64;

// What is particular to a position.
struct Place {
  bool at_begin = false;
  bool at_end = false;
};

// A state is named by the index of its row in the table, with marks that the
// first pass looks for.
using State = std::uint32_t;
constexpr State kUnknown = 0xffffffff;
constexpr State kStarts = 0x80000000;  // a match can begin here
constexpr State kDead = 0x40000000;    // and no byte before could change it
constexpr State kRow = 0x3fffffff;

class Sets {
 public:
  explicit Sets(const Code& code);

  // The set at a position before which nothing of the text is read.
  State Last(Place place) { return Make(kUnknown, -1, place); }
  // The set one byte before `later`.
  State Before(State later, unsigned char byte) {
    State& known = table_[(later & kRow) + byte];
    if (known == kUnknown) {
      const State made = Make(later, byte, {});
      // Making it may have moved or emptied the table.
      if (!forgotten_) {
        table_[(later & kRow) + byte] = made;
      }
      return made;
    }
    return known;
  }
  // Reads the text backwards from `at` to `low` as long as all is known and
  // the states are not marked; gives the position reached.
  std::size_t ReadBack(const char* text, std::size_t low, std::size_t at,
                       State* state) const {
    const State* const table = table_.data();
    State now = *state & kRow;
    while (at > low) {
      const State next = table[now + static_cast<unsigned char>(text[at - 1])];
      if (next > kRow) {
        break;
      }
      now = next;
      --at;
    }
    *state = now;
    return at;
  }
  // The set before `later` where "^" or "$" may match.
  State BeforeAt(State later, unsigned char byte, Place place) {
    return Make(later, byte, place);
  }
  [[nodiscard]] bool Has(State state, std::size_t instruction) const {
    return Bit(Row(state), instruction);
  }
  [[nodiscard]] std::size_t Words() const { return words_; }
  [[nodiscard]] const Word* Row(State state) const {
    return &rows_[(state & kRow) / 256 * words_];
  }
  State Restore(const Word* row);
  // Makes room for the states of one block.
  void Reserve() {
    if (count_ + kBlock + 2 > kMaxStates) {
      Forget();
    }
  }
  [[nodiscard]] std::uint64_t Made() const { return made_; }

 private:
  static bool Bit(const Word* row, std::size_t at) {
    return ((row[at / kWordBits] >> (at % kWordBits)) & 1) != 0;
  }
  void SortInstructions();
  bool Lives(const Instruction& i, std::size_t at, const Word* later, int byte,
             Place place) const;
  State Make(State later, int byte, Place place);
  State Number();
  [[nodiscard]] State MarksOf(const Word* row) const;
  [[nodiscard]] std::size_t Hash(const Word* row) const;
  void Forget();

  const Code& code_;
  std::size_t words_;
  std::vector<std::size_t> order_;  // each after those it hands over to
  std::vector<Word> later_;
  std::vector<Word> made_row_;
  std::vector<Word> rows_;
  std::vector<State> table_;  // 256 for each state
  std::unordered_multimap<std::size_t, State> numbers_;
  std::size_t count_ = 0;
  std::uint64_t made_ = 0;
  bool forgotten_ = false;
};

Sets::Sets(const Code& code)
    : code_(code),
      words_((code.instructions.size() + kWordBits - 1) / kWordBits),
      later_(words_),
      made_row_(words_) {
  SortInstructions();
}

// Without consuming a byte no way leads back to where it came from, so there
// is an order; found by a depth-first walk.
void Sets::SortInstructions() {
  const std::vector<Instruction>& in = code_.instructions;
  std::vector<char> seen(in.size());
  std::vector<std::size_t> path;
  const auto next_of = [&](std::size_t at) {
    const Op op = in[at].op;
    const bool falls_through =
        op == Op::kCount || op == Op::kBegin || op == Op::kEnd ||
        op == Op::kOpen || op == Op::kClose || op == Op::kSplit ||
        op == Op::kBack || (op == Op::kRun && in[at].min == 0);
    if (falls_through && seen[at + 1] == 0) {
      return at + 1;
    }
    if (op == Op::kSplit || op == Op::kBack || op == Op::kJump) {
      const auto target = static_cast<std::size_t>(
          static_cast<std::ptrdiff_t>(at) + in[at].target);
      return seen[target] == 0 ? target : at;
    }
    return at;
  };
  for (std::size_t root = 0; root < in.size(); ++root) {
    if (seen[root] != 0) {
      continue;
    }
    seen[root] = 1;
    path.push_back(root);
    while (!path.empty()) {
      const std::size_t at = path.back();
      const std::size_t next = next_of(at);
      if (next == at) {
        order_.push_back(at);
        path.pop_back();
      } else {
        seen[next] = 1;
        path.push_back(next);
      }
    }
  }
}

// Whether a match can be completed from this instruction.  What it hands over
// to at the same position is decided already in made_row_.
bool Sets::Lives(const Instruction& i, std::size_t at, const Word* later,
                 int byte, Place place) const {
  const auto reads = [&](const ByteSet& set) {
    return byte >= 0 && set.Has(static_cast<unsigned char>(byte));
  };
  const auto here = [&](std::ptrdiff_t distance) {
    return Bit(
        made_row_.data(),
        static_cast<std::size_t>(static_cast<std::ptrdiff_t>(at) + distance));
  };
  switch (i.op) {
    case Op::kByte:
      return byte == i.byte && Bit(later, at + 1);
    case Op::kSet:
      return reads(code_.sets[i.set]) && Bit(later, at + 1);
    case Op::kAny:
      return byte >= 0 && Bit(later, at + 1);
    case Op::kRun:
      if (reads(code_.sets[i.set]) &&
          (Bit(later, at) || (i.min > 0 && Bit(later, at + 1)))) {
        return true;
      }
      return i.min == 0 && here(1);
    case Op::kBegin:
      return place.at_begin && here(1);
    case Op::kEnd:
      return place.at_end && here(1);
    case Op::kCount:
    case Op::kOpen:
    case Op::kClose:
      return here(1);
    case Op::kSplit:
    case Op::kBack:
      return here(1) || here(i.target);
    case Op::kJump:
      return here(i.target);
    case Op::kProgress:
      return false;
    case Op::kMatch:
      return true;
  }
  return false;
}

State Sets::Make(State later, int byte, Place place) {
  if (later == kUnknown) {
    std::fill(later_.begin(), later_.end(), 0);
  } else {
    std::copy_n(Row(later), words_, later_.begin());
  }
  std::fill(made_row_.begin(), made_row_.end(), 0);
  for (const std::size_t at : order_) {
    if (Lives(code_.instructions[at], at, later_.data(), byte, place)) {
      made_row_[at / kWordBits] |= Word{1} << (at % kWordBits);
    }
  }
  return Number();
}

// The number of made_row_.
State Sets::Number() {
  forgotten_ = false;
  const std::size_t hash = Hash(made_row_.data());
  const auto [begin, end] = numbers_.equal_range(hash);
  for (auto it = begin; it != end; ++it) {
    if (std::equal(made_row_.begin(), made_row_.end(), Row(it->second))) {
      return it->second;
    }
  }
  if (count_ == kMaxStates) {
    Forget();
  }
  const State state =
      static_cast<State>(count_ * 256) | MarksOf(made_row_.data());
  ++count_;
  ++made_;
  rows_.insert(rows_.end(), made_row_.begin(), made_row_.end());
  table_.resize(table_.size() + 256, kUnknown);
  numbers_.emplace(hash, state);
  return state;
}

State Sets::MarksOf(const Word* row) const {
  State marks = Bit(row, 0) ? kStarts : 0;
  const std::vector<Instruction>& in = code_.instructions;
  for (std::size_t at = 0; at < in.size(); ++at) {
    const Op op = in[at].op;
    const bool consumes =
        op == Op::kByte || op == Op::kSet || op == Op::kAny || op == Op::kRun;
    if (consumes && (Bit(row, at + 1) || (op == Op::kRun && Bit(row, at)))) {
      return marks;
    }
  }
  return marks | (marks == 0 ? kDead : 0);
}

std::size_t Sets::Hash(const Word* row) const {
  Word hash = 0;
  for (std::size_t i = 0; i < words_; ++i) {
    hash = (hash ^ row[i]) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 29;
  }
  return static_cast<std::size_t>(hash);
}

void Sets::Forget() {
  rows_.clear();
  table_.clear();
  numbers_.clear();
  count_ = 0;
  forgotten_ = true;
}

State Sets::Restore(const Word* row) {
  std::copy_n(row, words_, made_row_.begin());
  return Number();
}

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
  Sets sets_;
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
