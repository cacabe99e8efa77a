// The sets of instructions from which a match can be completed, one for each
// position of a text; see TwoPass.cc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "toolkit/pattern/Program.h"

namespace pattern {

/// Bytes of text that are read back at a time.
constexpr std::size_t kBlock = 1024;
constexpr std::size_t kMaxStates = 2 * kBlock;

using Word = std::uint64_t;
constexpr std::size_t kWordBits = 64;

/// What is particular to a position.
struct Place {
  bool at_begin = false;
  bool at_end = false;
};

/// A state is named by the index of its row in the table, with marks that the
/// first pass looks for.
using State = std::uint32_t;
constexpr State kUnknown = 0xffffffff;
constexpr State kStarts = 0x80000000;  // a match can begin here
constexpr State kDead = 0x40000000;    // and no byte before could change it
constexpr State kRow = 0x3fffffff;

/// The sets of one pass backwards over a text: made when first met, numbered, and
/// their transitions remembered, up to kMaxStates of them.
class StateSets {
 public:
  explicit StateSets(const Code& code);

  /// The set at a position before which nothing of the text is read.
  State Last(Place place) { return Make(kUnknown, -1, place); }
  /// The set one byte before `later`.
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
  /// Reads the text backwards from `at` to `low` as long as all is known and
  /// the states are not marked; gives the position reached.
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
  /// The set before `later` where "^" or "$" may match.
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
  /// Makes room for the states of one block.
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

}  // namespace pattern
