#include "toolkit/database/Hash.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"

namespace {

// The same for eight bytes in a word.  Added to the lower seven bits of a byte,
// the constants set its highest from 'A' on and from behind 'Z' on.
std::uint64_t LowerCaseOf8(std::uint64_t bytes) {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  const std::uint64_t lower_bits = bytes & (0x7f * kEach);
  const std::uint64_t from_a = lower_bits + ((0x80 - 'A') * kEach);
  const std::uint64_t behind_z = lower_bits + ((0x80 - 'Z' - 1) * kEach);
  const std::uint64_t letters = ~bytes & from_a & ~behind_z & (0x80 * kEach);
  return bytes | letters >> 2;
}

}  // namespace

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
  char* end = out;
  for (const std::string_view piece : pieces) {
    end = std::copy(piece.begin(), piece.end(), end);
  }
  if (size < 8) {
    std::transform(out, end, out, LowerCaseOf);
    return;
  }
  for (; end - out > 8; out += 8) {
    Put64(out, LowerCaseOf8(Get64(out)));
  }
  // The last eight, some of which may be in lower case already.
  Put64(end - 8, LowerCaseOf8(Get64(end - 8)));
}

bool IsSameInLowerCase(std::string_view text, std::string_view lower) {
  const std::size_t size = text.size();
  if (size != lower.size()) {
    return false;
  }
  if (size < 8) {
    return std::equal(
        text.begin(), text.end(), lower.begin(),
        [](char c, char wanted) { return LowerCaseOf(c) == wanted; });
  }
  const auto is_same_at = [&](std::size_t at) {
    return LowerCaseOf8(Get64(text.data() + at)) == Get64(lower.data() + at);
  };
  for (std::size_t at = 0; at < size - 8; at += 8) {
    if (!is_same_at(at)) {
      return false;
    }
  }
  return is_same_at(size - 8);
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
