#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Layout of a database file; docs/database.md has the tables.  All numbers are
// little-endian.

constexpr std::string_view kMagic = "VCDB\r\n\x1a\n";
constexpr std::uint32_t kFormatVersion = 1;

// The file's head: magic, version, checksum of both.  Two marks follow, each in
// a disk sector of its own, written in turn: how much of the file is known to
// be on disk.
constexpr std::size_t kHeadSize = 16;
constexpr std::size_t kMarkOffsets[] = {512, 1024};
constexpr std::size_t kMarkSize =
    24;  // turn (8), length (8), chain (4), sum (4)
constexpr std::size_t kRecordsOffset = 1536;

// A record: length of its operations (4), checksum (4), operations.  The
// checksum covers the record before, the length and the operations.
constexpr std::size_t kRecordHead = 8;
constexpr std::size_t kMaxRecord = std::size_t{1} << 30;

enum class Operation : unsigned char {
  kMakeSection = 1,
  kSet = 2,
  kDeleteSection = 3,
};

/// CRC-32C (Castagnoli; RFC 3720 appendix B.4), continued from `sum`.
[[nodiscard]] std::uint32_t Checksum(std::string_view bytes,
                                     std::uint32_t sum = 0);

void AppendNumber(std::uint64_t number, int bytes, std::string* out);
[[nodiscard]] std::uint64_t ReadNumber(std::string_view bytes, int size);
/// A length (4) and the bytes.
void AppendText(std::string_view text, std::string* out);
/// Takes a text off the front; false when there is none.
[[nodiscard]] bool TakeText(std::string_view* bytes, std::string_view* text);
[[nodiscard]] bool TakeNumber(std::string_view* bytes, int size,
                              std::uint64_t* number);
