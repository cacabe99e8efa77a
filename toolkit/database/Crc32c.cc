#include "toolkit/database/Crc32c.h"

#include <array>

#include "toolkit/database/Bytes.h"

// Eight bytes a step by eight tables ("slicing by 8": Kounavis and Berry, "A
// Systematic Approach to Building High Performance, Software-based, CRC
// Generators", 2005), or by the processor's instruction where there is one.

namespace {

constexpr std::uint32_t kReversedPolynomial = 0x82f63b78;

using Tables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr Tables MakeTables() {
  Tables tables = {};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? (crc >> 1) ^ kReversedPolynomial : crc >> 1;
    }
    tables[0][byte] = crc;
  }
  for (std::size_t i = 1; i < tables.size(); ++i) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t shorter = tables[i - 1][byte];
      tables[i][byte] = (shorter >> 8) ^ tables[0][shorter & 0xff];
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) std::uint32_t ByInstruction(
    std::string_view bytes, std::uint32_t before) {
  std::uint64_t crc = ~before;
  for (; bytes.size() >= 8; bytes.remove_prefix(8)) {
    crc = __builtin_ia32_crc32di(crc, Get64(bytes.data()));
  }
  auto rest = static_cast<std::uint32_t>(crc);
  for (const char byte : bytes) {
    rest = __builtin_ia32_crc32qi(rest, static_cast<unsigned char>(byte));
  }
  return ~rest;
}

const bool has_instruction = __builtin_cpu_supports("sse4.2");
#endif

}  // namespace

std::uint32_t Crc32cByTable(std::string_view bytes, std::uint32_t before) {
  std::uint32_t crc = ~before;
  for (; bytes.size() >= 8; bytes.remove_prefix(8)) {
    const std::uint64_t eight = Get64(bytes.data()) ^ crc;
    crc = 0;
    for (std::size_t i = 0; i < 8; ++i) {
      crc ^= kTables[7 - i][(eight >> (8 * i)) & 0xff];
    }
  }
  for (const char byte : bytes) {
    crc = (crc >> 8) ^
          kTables[0][(crc ^ static_cast<unsigned char>(byte)) & 0xff];
  }
  return ~crc;
}

std::uint32_t Crc32c(std::string_view bytes, std::uint32_t before) {
#if defined(__x86_64__)
  if (has_instruction) {
    return ByInstruction(bytes, before);
  }
#endif
  return Crc32cByTable(bytes, before);
}
