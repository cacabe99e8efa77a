#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/database/Format.h"
#include "toolkit/database/Zeros.h"

/// An array of 64-bit words in memory whose first part may still be on disk: a
/// block of it is read and verified when one of its words is first asked for.
class SWordArray {
 public:
  SWordArray() = default;
  SWordArray(SWordArray&&) = default;
  SWordArray& operator=(SWordArray&&) = default;

  /// Becomes an array of `size` zeros.
  void Reset(std::uint64_t size);
  /// Becomes the `size` words in blocks from `offset` of the file on, with room
  /// for as many again.  The checksum of block i begins with `seed` + i.
  void Attach(int fd, std::uint64_t offset, std::uint64_t size,
              std::uint32_t seed);

  [[nodiscard]] std::uint64_t Size() const { return size_; }
  [[nodiscard]] std::uint64_t Get(std::uint64_t i) {
    Load(i);
    return words_[i];
  }
  void Prefetch(std::uint64_t i) const { __builtin_prefetch(words_ + i); }
  void Set(std::uint64_t i, std::uint64_t word) {
    Load(i);
    words_[i] = word;
  }
  void Push(std::uint64_t word);
  /// Most of it is going to be written.
  void FillSoon() const { ::FillSoon(memory_); }
  /// True when a block on disk was not what it should be; its words are zeros.
  [[nodiscard]] bool IsDamaged() const { return damaged_; }
  /// Appends all words in blocks.
  void AppendBlocks(std::uint32_t seed, std::string* out);

 private:
  void Load(std::uint64_t i) {
    if (i < on_disk_ && !loaded_[i / database_format::kWordsInBlock])
        [[unlikely]] {
      LoadBlock(i / database_format::kWordsInBlock);
    }
  }
  void LoadBlock(std::uint64_t block);
  void Allocate();
  void Reserve(std::uint64_t capacity);

  SZeros memory_;
  SPageMerger pages_;
  std::uint64_t* words_ = nullptr;
  std::uint64_t size_ = 0;
  std::uint64_t capacity_ = 0;
  std::uint64_t on_disk_ = 0;
  std::vector<bool> loaded_;
  int fd_ = -1;
  std::uint64_t offset_ = 0;
  std::uint32_t seed_ = 0;
  bool damaged_ = false;
};

/// Where a section's record lies in the file: one word of the index.
struct SRecordPlace {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;

  [[nodiscard]] bool IsSet() const { return size != 0; }
  [[nodiscard]] std::uint64_t Word() const {
    return (size / 8) << 40 | offset / 8;
  }
  [[nodiscard]] static SRecordPlace Of(std::uint64_t word) {
    return {(word & ((std::uint64_t{1} << 40) - 1)) * 8, (word >> 40) * 8};
  }
};

/// Finds sections: from section number to record, and from hash to section
/// numbers.
///
/// The hash table is open, with linear probing; a slot holds the hash and the
/// section number + 1.  The place of a hash is its share of the table, so that
/// equal hashes lie together and the table grows in the order of the old one.
/// What is found by hash is verified in the record: a removed section and the
/// former address of one leave their slots behind until the next compaction.
class SDatabaseIndex {
 public:
  SDatabaseIndex() { Clear(); }

  void Clear();
  /// Takes over the index record at `offset`, whose verified head is given;
  /// false when the head isn't one.
  bool Attach(int fd, std::uint64_t offset, std::string_view head);

  /// True when all blocks of the index record at `offset`, of `size` bytes and
  /// with that head, are what was written.
  [[nodiscard]] static bool IsWhole(int fd, std::uint64_t offset,
                                    std::string_view head, std::uint64_t size);

  /// Sections ever made, removed ones included.
  [[nodiscard]] std::uint32_t Sections() const {
    return static_cast<std::uint32_t>(places_.Size());
  }
  [[nodiscard]] std::uint32_t Live() const { return live_; }
  [[nodiscard]] std::uint64_t LiveBytes() const { return live_bytes_; }
  [[nodiscard]] SRecordPlace Place(std::uint32_t id) {
    return SRecordPlace::Of(places_.Get(id));
  }
  /// Sets the place of a section, which may be the next new one.
  void SetPlace(std::uint32_t id, const SRecordPlace& place);
  void Insert(std::uint32_t hash, std::uint32_t id);

  /// Begins to fetch the slot of the hash into the processor's cache.
  void Expect(std::uint32_t hash) const {
    slots_.Prefetch(SlotOf(hash, slots_.Size()));
  }
  /// Calls `visit` with the number of every section entered under the hash, in
  /// no order, until it returns false.
  template <typename Visit>
  void ForEach(std::uint32_t hash, Visit visit) {
    for (std::uint64_t i = SlotOf(hash, slots_.Size());;
         i = i + 1 == slots_.Size() ? 0 : i + 1) {
      const std::uint64_t slot = slots_.Get(i);
      if (slot == 0) {
        return;
      }
      if (slot >> 32 == hash) {
        const auto id = static_cast<std::uint32_t>(slot) - 1;
        if (id < Sections() && !visit(id)) {
          return;
        }
      }
    }
  }

  [[nodiscard]] bool IsDamaged() const {
    return slots_.IsDamaged() || places_.IsDamaged();
  }

  /// The record of the index.
  [[nodiscard]] std::string Record(std::uint32_t previous);

 private:
  [[nodiscard]] static std::uint64_t SlotOf(std::uint32_t hash,
                                            std::uint64_t slots) {
    return (hash * slots) >> 32;
  }
  void Resize(std::uint64_t slots);

  SWordArray slots_;
  SWordArray places_;
  std::uint64_t used_ = 0;
  std::uint32_t live_ = 0;
  std::uint64_t live_bytes_ = 0;
};
