#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace pattern {

/// A set of bytes, as a table: runs of bytes are read by looking each up, and
/// a table is quicker to look up than a bit.
class ByteSet {
 public:
  constexpr void Add(unsigned char byte) { has_[byte] = 1; }
  constexpr void AddRange(unsigned char low, unsigned char high) {
    for (unsigned i = low; i <= high; ++i) {
      has_[i] = 1;
    }
  }
  constexpr void Add(const ByteSet& other) {
    for (std::size_t i = 0; i < has_.size(); ++i) {
      has_[i] = static_cast<std::uint8_t>(has_[i] | other.has_[i]);
    }
  }
  constexpr void Invert() {
    for (std::uint8_t& has : has_) {
      has = static_cast<std::uint8_t>(has ^ 1);
    }
  }
  [[nodiscard]] constexpr bool Has(unsigned char byte) const {
    return has_[byte] != 0;
  }
  [[nodiscard]] constexpr bool Has(char byte) const {
    return Has(static_cast<unsigned char>(byte));
  }
  [[nodiscard]] constexpr bool Meets(const ByteSet& other) const {
    std::uint8_t common = 0;
    for (std::size_t i = 0; i < has_.size(); ++i) {
      common = static_cast<std::uint8_t>(common | (has_[i] & other.has_[i]));
    }
    return common != 0;
  }
  [[nodiscard]] constexpr int Count() const {
    int count = 0;
    for (const std::uint8_t has : has_) {
      count += has;
    }
    return count;
  }

 private:
  std::array<std::uint8_t, 256> has_ = {};
};

}  // namespace pattern
