#include "toolkit/database/Hash.h"

#include "toolkit/database/Bytes.h"

SLowerCaseText::SLowerCaseText(std::string_view text) {
  char* out = short_;
  if (text.size() > sizeof short_) {
    long_.resize(text.size());
    out = long_.data();
  }
  view_ = {out, text.size()};
  for (const char c : text) {
    *out++ = static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
  }
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
