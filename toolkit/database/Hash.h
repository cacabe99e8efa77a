#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The text with its ASCII letters in lower case; allocates only for long ones.
class SLowerCaseText {
 public:
  explicit SLowerCaseText(std::string_view text);
  SLowerCaseText(const SLowerCaseText&) = delete;
  SLowerCaseText& operator=(const SLowerCaseText&) = delete;

  [[nodiscard]] std::string_view View() const { return view_; }

 private:
  char short_[256];
  std::string long_;
  std::string_view view_;
};

/// The upper half of MurmurHash64A (Austin Appleby, 2008, public domain), words
/// taken little-endian.
[[nodiscard]] std::uint32_t HashOfText(std::string_view text,
                                       std::uint64_t seed);
