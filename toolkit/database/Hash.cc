#include "toolkit/database/Hash.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"

SLowerCaseText::SLowerCaseText(std::initializer_list<std::string_view> pieces) {
  std::size_t size = 0;
  for (const std::string_view piece : pieces) {
    size += piece.size();
  }
  char* out = short_;
  if (size > sizeof short_) {
    long_.resize(size);
    out = long_.data();
  }
  view_ = {out, size};
  for (const std::string_view piece : pieces) {
    out = std::transform(piece.begin(), piece.end(), out, LowerCaseOf);
  }
}

bool IsSameInLowerCase(std::string_view text, std::string_view lower) {
  return text.size() == lower.size() &&
         std::equal(
             text.begin(), text.end(), lower.begin(),
             [](char c, char wanted) { return LowerCaseOf(c) == wanted; });
}

std::uint32_t HashOfText(std::string_view text, std::uint64_t seed) {
  constexpr std::uint64_t kFactor = 0xc6a4a7935bd1e995;
  constexpr int kShift = 47;
  std::uint64_t hash = seed ^ (text.size() * kFactor);
  for (; text.size() >= 8; text.remove_prefix(8)) {
    std::uint64_t word = Get64(text.data()) * kFactor;
    word = (word ^ (word >> kShift)) * kFactor;
    hash = (hash ^ word) * kFactor;
  }
  if (!text.empty()) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      word |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i]))
              << (8 * i);
    }
    hash = (hash ^ word) * kFactor;
  }
  hash = (hash ^ (hash >> kShift)) * kFactor;
  hash ^= hash >> kShift;
  return static_cast<std::uint32_t>(hash >> 32);
}
