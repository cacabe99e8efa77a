#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/database/Index.h"

/// Gathers what an index must hold from the records before it, without the
/// reader's code, and compares index records with it.
class SIndexCheck {
 public:
  /// The salt of the file's hashes.
  void Begin(std::uint64_t salt) { salt_ = salt; }
  /// A sound record of a section, or of its removal.
  void TakeSection(std::uint32_t id, const SRecordPlace& place,
                   std::string_view body);
  void TakeRemoval(std::uint32_t id) { places_[id] = {}; }
  [[nodiscard]] std::uint32_t Sections() const {
    return static_cast<std::uint32_t>(places_.size());
  }

  /// What is wrong with the index record, whose head's checksum is right; "" if
  /// nothing.
  [[nodiscard]] std::string Compare(std::string_view record);

 private:
  [[nodiscard]] std::string CompareHead(std::string_view record);
  [[nodiscard]] std::string CompareSlots(std::string_view blocks,
                                         std::uint64_t slots);

  std::uint64_t salt_ = 0;
  std::vector<SRecordPlace> places_;
  // Slots for every path and address that ever was: they stay till compaction.
  std::vector<std::uint64_t> entries_;
};
