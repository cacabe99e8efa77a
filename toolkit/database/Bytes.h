#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

// Numbers in files: little-endian on every architecture.

inline std::uint32_t Get32(const char* at) {
  std::uint32_t number = 0;
  std::memcpy(&number, at, sizeof number);
  return std::endian::native == std::endian::little ? number
                                                    : __builtin_bswap32(number);
}

inline std::uint64_t Get64(const char* at) {
  std::uint64_t number = 0;
  std::memcpy(&number, at, sizeof number);
  return std::endian::native == std::endian::little ? number
                                                    : __builtin_bswap64(number);
}

inline void Put32(char* at, std::uint32_t number) {
  if (std::endian::native != std::endian::little) {
    number = __builtin_bswap32(number);
  }
  std::memcpy(at, &number, sizeof number);
}

inline void Put64(char* at, std::uint64_t number) {
  if (std::endian::native != std::endian::little) {
    number = __builtin_bswap64(number);
  }
  std::memcpy(at, &number, sizeof number);
}

/// The bytes that a number takes in groups of seven bits, the lowest first, the
/// high bit set in all bytes but the last (LEB128).
inline std::size_t SizeOfNumber(std::uint64_t number) {
  std::size_t size = 1;
  for (; number >= 0x80; number >>= 7) {
    ++size;
  }
  return size;
}

/// Writes such a number; returns the place behind it.
inline char* PutNumber(char* at, std::uint64_t number) {
  for (; number >= 0x80; number >>= 7) {
    *at++ = static_cast<char>(number | 0x80);
  }
  *at++ = static_cast<char>(number);
  return at;
}

/// Takes such a number of at most 32 bits from the front of `bytes`; false when
/// there is none.
inline bool TakeNumber(std::string_view* bytes, std::uint32_t* number) {
  if (!bytes->empty() && static_cast<unsigned char>(bytes->front()) < 0x80) {
    *number = static_cast<unsigned char>(bytes->front());
    bytes->remove_prefix(1);
    return true;
  }
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < 35 && !bytes->empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(bytes->front());
    bytes->remove_prefix(1);
    value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if (byte < 0x80) {
      *number = static_cast<std::uint32_t>(value);
      return value <= UINT32_MAX;
    }
  }
  return false;
}

/// Takes a length and so many bytes from the front of `bytes`.
inline bool TakeText(std::string_view* bytes, std::string_view* text) {
  std::uint32_t length = 0;
  if (!TakeNumber(bytes, &length) || length > bytes->size()) {
    return false;
  }
  *text = {bytes->data(), length};
  bytes->remove_prefix(length);
  return true;
}
