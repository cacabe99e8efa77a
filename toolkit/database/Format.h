#pragma once

#include <cstdint>

// Layout of a database file.  docs/database.md tells it in words and tables;
// the names here are the names there.

namespace database_format {

constexpr char kMagic[8] = {'V', 'C', 'D', 'B', '\r', '\n', '\x1a', '\n'};
constexpr std::uint32_t kVersion = 1;

// The head: three sectors, the last two written in turn.
constexpr std::size_t kSectorSize = 512;
constexpr std::size_t kHeadSize = 3 * kSectorSize;
constexpr std::size_t kSectorChecksum = kSectorSize - 4;

// First sector.
constexpr std::size_t kHeadVersion = 8;
constexpr std::size_t kHeadSalt = 16;

// Marks.
constexpr std::size_t kMarkNumber = 0;
constexpr std::size_t kMarkSyncedEnd = 8;
constexpr std::size_t kMarkIndex = 16;

// Records.
constexpr std::size_t kRecordChecksum = 0;
constexpr std::size_t kRecordSize = 4;
constexpr std::size_t kRecordPrevious = 8;
constexpr std::size_t kRecordType = 12;
constexpr std::size_t kRecordId = 16;
constexpr std::size_t kRecordBody = 20;
constexpr std::size_t kRecordAlignment = 8;
constexpr std::size_t kSmallestRecord = 24;
constexpr std::uint64_t kLargestRecord = 64U << 20;

enum class RecordType : std::uint8_t {
  kSection = 1,
  kRemoved = 2,
  kIndex = 3,
  kReplaced = 4,
};

// Index records: head, then blocks of words.
constexpr std::size_t kIndexBlocks = 24;
constexpr std::size_t kIndexSections = 32;
constexpr std::size_t kIndexLive = 40;
constexpr std::size_t kIndexSlots = 48;
constexpr std::size_t kIndexUsed = 56;
constexpr std::size_t kIndexLiveBytes = 64;
constexpr std::size_t kIndexHeadSize = 72;
constexpr std::size_t kBlockSize = 4096;
constexpr std::size_t kWordsInBlock = kBlockSize / 8 - 1;

/// The key whose values are found by `FindAddress`.
constexpr char kAddressKey[] = "SMTP-Address";

}  // namespace database_format
