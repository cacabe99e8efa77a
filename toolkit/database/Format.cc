#include "toolkit/database/Format.h"

#include <array>

namespace {

constexpr std::uint32_t kReversedPolynomial = 0x82f63b78;
constexpr int kTextLength = 4;

constexpr std::array<std::uint32_t, 256> MakeTable() {
  std::array<std::uint32_t, 256> table = {};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value >> 1) ^ ((value & 1) != 0 ? kReversedPolynomial : 0);
    }
    table[i] = value;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kTable = MakeTable();

}  // namespace

std::uint32_t Checksum(std::string_view bytes, std::uint32_t sum) {
  sum = ~sum;
  for (const char c : bytes) {
    sum = (sum >> 8) ^ kTable[(sum ^ static_cast<unsigned char>(c)) & 0xff];
  }
  return ~sum;
}

void AppendNumber(std::uint64_t number, int bytes, std::string* out) {
  for (int i = 0; i < bytes; ++i) {
    out->push_back(static_cast<char>(number >> (8 * i) & 0xff));
  }
}

std::uint64_t ReadNumber(std::string_view bytes, int size) {
  std::uint64_t number = 0;
  for (int i = size - 1; i >= 0; --i) {
    number = number << 8 |
             static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]);
  }
  return number;
}

void AppendText(std::string_view text, std::string* out) {
  AppendNumber(text.size(), kTextLength, out);
  out->append(text);
}

bool TakeNumber(std::string_view* bytes, int size, std::uint64_t* number) {
  if (bytes->size() < static_cast<std::size_t>(size)) {
    return false;
  }
  *number = ReadNumber(*bytes, size);
  bytes->remove_prefix(static_cast<std::size_t>(size));
  return true;
}

bool TakeText(std::string_view* bytes, std::string_view* text) {
  std::uint64_t length = 0;
  if (!TakeNumber(bytes, kTextLength, &length) || length > bytes->size()) {
    return false;
  }
  *text = bytes->substr(0, length);
  bytes->remove_prefix(length);
  return true;
}
