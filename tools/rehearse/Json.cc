#include "tools/rehearse/Json.h"

#include <array>
#include <cstdio>

namespace {

std::string Escape(unsigned code) {
  std::array<char, 8> text = {};
  std::snprintf(text.data(), text.size(), "\\u%04x", code);
  return text.data();
}

// The length of the UTF-8 character that begins at i, 0 where there is none.
// RFC 3629 section 4.
std::size_t Utf8Length(const std::string& bytes, std::size_t i) {
  const auto byte = [&bytes](std::size_t at) {
    return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
  };
  const unsigned first = byte(i);
  const std::size_t length = first < 0x80                     ? 1
                             : first >= 0xc2 && first < 0xe0  ? 2
                             : first >= 0xe0 && first < 0xf0  ? 3
                             : first >= 0xf0 && first <= 0xf4 ? 4
                                                              : 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80) {
      return 0;
    }
  }
  const unsigned second = byte(i + 1);
  const bool refused =
      (first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0) ||
      (first == 0xf0 && second < 0x90) || (first == 0xf4 && second >= 0x90);
  return refused ? 0 : length;
}

}  // namespace

std::string JsonString(const std::string& bytes) {
  std::string text = "\"";
  for (std::size_t i = 0; i < bytes.size();) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    const std::size_t length = Utf8Length(bytes, i);
    if (length == 0) {
      text += Escape(0xdc00U + byte);
    } else if (byte < 0x20 || byte == 0x7f) {
      text += Escape(byte);
    } else {
      text += byte == '"' || byte == '\\' ? "\\" : "";
      text += bytes.substr(i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return text + "\"";
}
