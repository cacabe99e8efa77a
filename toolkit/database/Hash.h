#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

/// The text with its ASCII letters in lower case; allocates only for long ones.
class SLowerCaseText {
 public:
  explicit SLowerCaseText(std::string_view text) : SLowerCaseText({text}) {}
  /// The pieces one behind the other.
  explicit SLowerCaseText(std::initializer_list<std::string_view> pieces);
  SLowerCaseText(const SLowerCaseText&) = delete;
  SLowerCaseText& operator=(const SLowerCaseText&) = delete;

  [[nodiscard]] std::string_view View() const { return view_; }

 private:
  char short_[256];
  std::string long_;
  std::string_view view_;
};

[[nodiscard]] inline char LowerCaseOf(char c) {
  return static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
}

/// True when the text, its ASCII letters in lower case, is `lower`.
[[nodiscard]] bool IsSameInLowerCase(std::string_view text,
                                     std::string_view lower);

/// True when the texts are the same, the case of ASCII letters disregarded.
[[nodiscard]] inline bool IsSameInAnyCase(std::string_view one,
                                          std::string_view other) {
  return one.size() == other.size() &&
         IsSameInLowerCase(one, SLowerCaseText(other).View());
}

/// The upper half of MurmurHash64A (Austin Appleby, 2008, public domain), words
/// taken little-endian.
[[nodiscard]] std::uint32_t HashOfText(std::string_view text,
                                       std::uint64_t seed);
