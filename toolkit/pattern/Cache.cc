// Compiled patterns by their text.  Call sites write their patterns as
// literals, so the same few dozen come back again and again.

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "toolkit/pattern/Pattern.h"
#include "toolkit/pattern/Program.h"

namespace {

// A text is found in one of kWays places behind the one its hash names.
constexpr std::size_t kPlaces = 64;
constexpr std::size_t kWays = 4;
// Longer ones come from users, once, and may be large.
constexpr std::size_t kLongest = 256;
constexpr std::size_t kMostInstructions = 1024;

struct Entry {
  std::string text;
  std::shared_ptr<const SPattern> pattern;
};

struct Cache {
  std::array<Entry, kPlaces> entries;
  std::size_t turn = 0;
};

std::size_t HashOf(std::string_view text) {
  std::uint64_t hash = text.size();
  while (text.size() >= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), sizeof word);
    hash = (hash ^ word) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 32;
    text.remove_prefix(sizeof word);
  }
  for (const char c : text) {
    hash = hash * 31 + static_cast<unsigned char>(c);
  }
  return static_cast<std::size_t>((hash * 0x9e3779b97f4a7c15) >> 32);
}

}  // namespace

std::shared_ptr<const SPattern> SPattern::Get(std::string_view expression) {
  // Never destroyed: destructors of static objects may still use patterns.
  static Cache& cache = *new Cache;
  if (expression.size() > kLongest) {
    return std::shared_ptr<const SPattern>(new SPattern(expression));
  }
  const std::size_t hash = HashOf(expression);
  for (std::size_t i = 0; i < kWays; ++i) {
    const Entry& entry = cache.entries[(hash + i) % kPlaces];
    if (entry.pattern != nullptr && entry.text == expression) {
      return entry.pattern;
    }
  }
  std::shared_ptr<const SPattern> made(new SPattern(expression));
  if (made->code_->instructions.size() <= kMostInstructions) {
    Entry& entry = cache.entries[(hash + cache.turn++ % kWays) % kPlaces];
    entry.text = expression;
    entry.pattern = made;
  }
  return made;
}
