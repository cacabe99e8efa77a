#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace pattern {

/// A set of bytes.
class ByteSet {
 public:
  constexpr void Add(unsigned char byte) {
    words_[byte >> 6] |= std::uint64_t{1} << (byte & 63);
  }
  constexpr void AddRange(unsigned char low, unsigned char high) {
    for (unsigned i = low; i <= high; ++i) {
      Add(static_cast<unsigned char>(i));
    }
  }
  constexpr void Add(const ByteSet& other) {
    for (std::size_t i = 0; i < words_.size(); ++i) {
      words_[i] |= other.words_[i];
    }
  }
  constexpr void Invert() {
    for (std::uint64_t& word : words_) {
      word = ~word;
    }
  }
  [[nodiscard]] constexpr bool Has(unsigned char byte) const {
    return ((words_[byte >> 6] >> (byte & 63)) & 1) != 0;
  }
  [[nodiscard]] constexpr bool Has(char byte) const {
    return Has(static_cast<unsigned char>(byte));
  }
  /// The first place from `at` on whose byte is in the set, or `end`.
  [[nodiscard]] const char* Find(const char* at, const char* end) const {
    while (at < end && !Has(*at)) {
      ++at;
    }
    return at;
  }
  /// The first place from `at` on whose byte is not in the set, or `end`.
  [[nodiscard]] const char* FindOther(const char* at, const char* end) const {
    while (at < end && Has(*at)) {
      ++at;
    }
    return at;
  }
  [[nodiscard]] constexpr bool Meets(const ByteSet& other) const {
    std::uint64_t common = 0;
    for (std::size_t i = 0; i < words_.size(); ++i) {
      common |= words_[i] & other.words_[i];
    }
    return common != 0;
  }
  [[nodiscard]] constexpr int Count() const {
    int count = 0;
    for (const std::uint64_t word : words_) {
      count += std::popcount(word);
    }
    return count;
  }

 private:
  std::array<std::uint64_t, 4> words_ = {};
};

}  // namespace pattern
