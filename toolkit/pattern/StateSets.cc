#include "toolkit/pattern/StateSets.h"

#include <algorithm>

namespace pattern {

StateSets::StateSets(const Code& code)
    : code_(code),
      words_((code.instructions.size() + kWordBits - 1) / kWordBits),
      later_(words_),
      made_row_(words_) {
  SortInstructions();
}

// Without consuming a byte no way leads back to where it came from, so there
// is an order; found by a depth-first walk.
void StateSets::SortInstructions() {
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
bool StateSets::Lives(const Instruction& i, std::size_t at, const Word* later,
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
    case Op::kProgress:  // replaced by Unfold
    case Op::kBack:
      return here(1) || here(i.target);
    case Op::kJump:
      return here(i.target);
    case Op::kMatch:
      break;
  }
  return true;
}

State StateSets::Make(State later, int byte, Place place) {
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
State StateSets::Number() {
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

State StateSets::MarksOf(const Word* row) const {
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

std::size_t StateSets::Hash(const Word* row) const {
  Word hash = 0;
  for (std::size_t i = 0; i < words_; ++i) {
    hash = (hash ^ row[i]) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 29;
  }
  return static_cast<std::size_t>(hash);
}

void StateSets::Forget() {
  rows_.clear();
  table_.clear();
  numbers_.clear();
  count_ = 0;
  forgotten_ = true;
}

State StateSets::Restore(const Word* row) {
  std::copy_n(row, words_, made_row_.begin());
  return Number();
}

}  // namespace pattern
