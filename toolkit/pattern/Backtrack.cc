// The matcher for everyday texts: backtracking, on a small fixed stack and
// within an allowance of work.  When either is used up it gives up, and what
// it has found out so far holds: no match begins before the current start.
// Runs of one set are matched whole; what they give back is tried only where
// the byte there can go on.  Tested by Pattern_test.cc and
// PatternExhaustive_test.cc.

#include <algorithm>

#include "toolkit/pattern/Match.h"

namespace pattern {

// Reading bytes in a tight loop is cheaper than running an instruction.
constexpr int kBytesPerStep = 16;

Backtracker::Backtracker(const Code& code, std::string_view text, SMatch* match)
    : code_(code),
      // A null pointer stands for "nowhere" below, so no text may begin there.
      begin_(text.empty() ? "" : text.data()),
      end_(begin_ + text.size()),
      sets_(code.sets.data()),
      left_(Allowance(text.size())),
      top_(stack_) {
  if (match != nullptr) {
    match->spans.assign(static_cast<std::size_t>(code.groups) + 1, {});
    spans_ = match->spans.data();
  }
}

// Where the bytes end that `run` may match.
const char* Backtracker::EndOfRun(const Instruction& run,
                                  const char* from) const {
  const char* limit = end_;
  if (run.op == Op::kCount && limit - from > run.max) {
    limit = from + run.max;
  }
  if (run.set == kAnySet) {
    return limit;
  }
  return sets_[run.set].FindOther(from, limit);
}

// The longest way to end `run` between `low` and `high`; null when none has a
// chance.
const char* Backtracker::GiveBack(const Instruction& run, const char* high,
                                  const char* low) {
  if (run.follow_kind == Follow::kUnknown) {
    return high;
  }
  const ByteSet& follow = sets_[run.follow];
  const char* at = high;
  if (at == end_) {
    if (run.follow_kind == Follow::kSetOrEnd) {
      return at;
    }
    if (at == low) {
      return nullptr;
    }
    --at;
  }
  if (run.final) {
    return at == high && follow.Has(*at) ? at : nullptr;
  }
  while (at > low && !follow.Has(*at)) {
    --at;
  }
  left_ -= (high - at) / kBytesPerStep;
  return follow.Has(*at) ? at : nullptr;
}

// True when the instruction fails at once; a cheap test, not a complete one.
bool Backtracker::CantStart(const Instruction* at, const char* position) const {
  if (at->op == Op::kOpen) {
    ++at;
  }
  switch (at->op) {
    case Op::kByte:
      return position == end_ ||
             static_cast<unsigned char>(*position) != at->byte;
    case Op::kRun:
    case Op::kCount:
      if (at->min == 0) {
        return false;
      }
      [[fallthrough]];
    case Op::kSet:
      return position == end_ || !sets_[at->set].Has(*position);
    default:
      return false;
  }
}

// Goes back to the latest choice; false when none is left.
bool Backtracker::Resume(const Instruction** at, const char** position) {
  while (top_ > stack_) {
    Frame& frame = top_[-1];
    switch (frame.kind) {
      case Kind::kOpen:
        spans_[frame.at->target].begin = frame.value;
        --top_;
        break;
      case Kind::kClose:
        spans_[frame.at->target].end = frame.value;
        --top_;
        break;
      case Kind::kBranch:
        *at = frame.at;
        *position = frame.position;
        --top_;
        return true;
      case Kind::kRun: {
        const char* const lowest = begin_ + frame.value;
        const char* const end = GiveBack(*frame.at, frame.position, lowest);
        if (end == nullptr) {
          --top_;
          break;
        }
        *at = frame.at + frame.at->target;
        *position = end;
        if (end == lowest) {
          --top_;
        } else {
          frame.position = end - 1;
        }
        return true;
      }
    }
  }
  return false;
}

Outcome Backtracker::Try(std::size_t start, std::size_t* next) {
  const char* const first = begin_ + start;
  const Instruction* const program = code_.instructions.data();
  const Instruction* const leading =
      code_.hints.leading_run < 0 ? nullptr : program + code_.hints.leading_run;
  const Instruction* at = program + code_.hints.behind_prefix;
  const char* position = first + code_.hints.prefix.size();
  const char* resumed = position;
  *next = start + 1;
  for (;;) {
    if (top_ == stack_ + kFrames) {
      return Outcome::kGaveUp;
    }
    switch (at->op) {
      case Op::kByte:
        if (position == end_ ||
            static_cast<unsigned char>(*position) != at->byte) {
          break;
        }
        ++position;
        ++at;
        continue;
      case Op::kSet:
        if (position == end_ || !sets_[at->set].Has(*position)) {
          break;
        }
        ++position;
        ++at;
        continue;
      case Op::kAny:
        if (position == end_) {
          break;
        }
        ++position;
        ++at;
        continue;
      case Op::kRun:
      case Op::kCount: {
        const char* const high = EndOfRun(*at, position);
        if (at == leading && position == first) {
          // Later starts within this run could only end it where this one
          // fails.
          *next = Offset(high) + 1;
        }
        if (high - position < at->min) {
          break;
        }
        const char* const lowest = position + at->min;
        const char* const chosen = GiveBack(*at, high, lowest);
        if (chosen == nullptr) {
          position = high;
          break;
        }
        if (chosen > lowest && !at->final) {
          *top_++ = {at, chosen - 1, Offset(lowest), Kind::kRun};
        }
        position = chosen;
        at += at->target;
        continue;
      }
      case Op::kBegin:
        if (position != begin_) {
          break;
        }
        ++at;
        continue;
      case Op::kEnd:
        if (position != end_ && (position + 1 != end_ || *position != '\n')) {
          break;
        }
        ++at;
        continue;
      case Op::kOpen:
        if (spans_ != nullptr) {
          SMatch::Span& span = spans_[at->target];
          if (!at->final) {
            *top_++ = {at, nullptr, span.begin, Kind::kOpen};
          }
          span.begin = Offset(position);
        }
        ++at;
        continue;
      case Op::kClose:
        if (spans_ != nullptr) {
          SMatch::Span& span = spans_[at->target];
          if (!at->final) {
            *top_++ = {at, nullptr, span.end, Kind::kClose};
          }
          span.end = Offset(position);
        }
        ++at;
        continue;
      case Op::kSplit:
        if (CantStart(at + 1, position)) {
          at += at->target;
          continue;
        }
        if (!CantStart(at + at->target, position)) {
          *top_++ = {at + at->target, position, 0, Kind::kBranch};
        }
        ++at;
        continue;
      case Op::kProgress:  // replaced by Unfold
      case Op::kBack:
        if (CantStart(at + at->target, position)) {
          ++at;
          continue;
        }
        *top_++ = {at + 1, position, 0, Kind::kBranch};
        at += at->target;
        continue;
      case Op::kJump:
        at += at->target;
        continue;
      case Op::kMatch:
        top_ = stack_;
        if (spans_ != nullptr) {
          spans_[0] = {start, Offset(position)};
        }
        return Outcome::kMatched;
    }
    left_ -= 1 + (position - resumed) / kBytesPerStep;
    if (left_ < 0) {
      return Outcome::kGaveUp;
    }
    if (!Resume(&at, &position)) {
      return Outcome::kFailed;
    }
    resumed = position;
  }
}

}  // namespace pattern
