// Reads the elements of an expression one after the other.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "toolkit/pattern/Program.h"

namespace pattern {

constexpr int kUnbounded = -1;

/// How often something may stand; once when no quantifier follows it.
struct Quantifier {
  int min = 1;
  int max = 1;  // kUnbounded: no limit
};

/// A place in an expression, from left to right.
class Scanner {
 public:
  /// Sets of bytes that the expression names are appended to `sets`, which must
  /// hold the set of all bytes as its number `kAnySet`.
  Scanner(std::string_view text, std::vector<ByteSet>* sets)
      : text_(text), sets_(*sets) {}

  /// False once something was read that is no expression.
  [[nodiscard]] bool IsGood() const { return good_; }
  void Fail() { good_ = false; }

  [[nodiscard]] bool More() const { return at_ < text_.size(); }
  /// The byte here; there must be one.
  [[nodiscard]] char Next() const { return text_[at_]; }
  void Skip() { ++at_; }

  /// Reads what matches one byte: itself, an escape, ".", a bracket.  The result
  /// is of the kind kByte, kSet or kAny.
  Instruction Single();
  [[nodiscard]] bool AtQuantifier() const;
  /// Reads a quantifier if one stands here; fails when a second one follows it,
  /// and for counts that are too large or in the wrong order.
  Quantifier TakeQuantifier();

 private:
  std::uint32_t SetOfClass(std::size_t letter);
  Instruction ParseEscape();
  Instruction ParseBracket();
  void ParseBracketItem(ByteSet* set);
  bool ParseBracketByte(ByteSet* set, unsigned char* byte);
  [[nodiscard]] bool AtNamedClass() const;
  bool ReadQuantifier(Quantifier* quantifier, std::size_t* end) const;
  bool ParseCount(std::size_t* at, int* count) const;

  std::string_view text_;
  std::size_t at_ = 0;
  bool good_ = true;
  std::vector<ByteSet>& sets_;
  std::array<std::uint32_t, 6> class_sets_ = {};  // kAnySet: not used yet
};

}  // namespace pattern
