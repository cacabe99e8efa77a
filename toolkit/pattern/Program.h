// The flat program that a pattern is compiled to, shared by the files of this
// folder and their tests only.  The page docs/patterns.md explains the whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/pattern/ByteSet.h"

namespace pattern {

/// A pattern that needs more instructions than this counts as unparsable, so
/// that counted repetitions in each other can't eat the memory.
constexpr std::size_t kMaxInstructions = 65536;

/// The number of the set of all bytes, which every program has.
constexpr std::uint32_t kAnySet = 0;

enum class Op : std::uint8_t {
  kByte,      // one byte, `byte`
  kSet,       // one byte out of `set`
  kAny,       // any one byte
  kRun,       // as many bytes out of `set` as match, `min` (0 or 1) at least
  kCount,     // `min` to `max` bytes out of `set`, and then to `target`; what
              // lies between says the same byte by byte, one may go on there
  kBegin,     // "^"
  kEnd,       // "$"
  kOpen,      // group `target` begins here
  kClose,     // group `target` ends here
  kSplit,     // the next instruction, else the one at `target`
  kBack,      // the one at `target`, else the next
  kProgress,  // as kBack, but only the next when nothing was consumed since
              // the one at `target`; replaced by Unfold
  kJump,      // the one at `target`
  kMatch,
};

/// What must stand behind a run for the rest of the pattern to have a chance.
enum class Follow : std::uint8_t {
  kUnknown,   // anything
  kSet,       // a byte out of `follow`
  kSetOrEnd,  // a byte out of `follow`, or the end of the text
};

/// One instruction.  Targets are distances from the instruction itself, so
/// that pieces of code can be moved and repeated as they are.
struct Instruction {
  Op op = Op::kMatch;
  std::uint8_t byte = 0;
  std::uint8_t min = 0;
  std::uint8_t max = 0;
  Follow follow_kind = Follow::kUnknown;
  // kRun, kCount: `follow` excludes the run's bytes: it is never worth giving back.
  // kOpen, kClose: every match passes here, once: nothing need be restored.
  bool final = false;
  std::int32_t target = 0;
  std::uint32_t set = 0;
  std::uint32_t follow = 0;
};

/// What is known about every match before the program is run.
struct Hints {
  bool anchored = false;   // begins with "^"
  bool has_first = false;  // its first byte is in `first`
  bool has_last = false;   // ends with "$", the byte before is in `last`
  ByteSet first;
  ByteSet last;
  // A text that must occur; where `literal_rare` is the position of its
  // least common byte and `literal_first` says that matches begin with it.
  std::string literal;
  std::size_t literal_rare = 0;
  bool literal_first = false;
  // A text that matches begin with, as the search makes sure, and the
  // instruction behind it.
  std::string prefix;
  std::size_t behind_prefix = 0;
  // A set of which some byte must occur, or null.
  bool has_required = false;
  ByteSet required;
  // The run that the program begins with, or -1.
  std::int32_t leading_run = -1;
};

struct Code {
  bool valid = false;
  int groups = 0;
  bool has_progress = false;
  std::vector<Instruction> instructions;
  std::vector<ByteSet> sets;
  Hints hints;
};

/// Compiles `expression`; `code->valid` is false when it can't be parsed.
void Compile(std::string_view expression, Code* code);

/// Replaces each loop whose body may match the empty string by copies of the
/// body that know whether this iteration has consumed anything yet.  False
/// when the copies would be too many.
[[nodiscard]] bool Unfold(Code* code);

/// Collects the hints of code that is not yet unfolded.
void FindHints(Code* code);

/// Completes the instructions of finished code with what may follow a run and
/// with the groups that every match passes.
void CompleteInstructions(Code* code);

}  // namespace pattern
