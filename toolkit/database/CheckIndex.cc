#include "toolkit/database/CheckIndex.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Hash.h"
#include "toolkit/database/Section.h"

using namespace database_format;

namespace {

std::uint64_t Entry(std::string_view text, std::uint64_t seed,
                    std::uint32_t id) {
  const std::uint32_t hash = HashOfText(SLowerCaseText(text).View(), seed);
  return std::uint64_t{hash} << 32 | (id + 1);
}

std::uint64_t BlocksFor(std::uint64_t words) {
  return (words + kWordsInBlock - 1) / kWordsInBlock;
}

std::uint64_t WordAt(std::string_view blocks, std::uint64_t i) {
  return Get64(blocks.data() + i / kWordsInBlock * kBlockSize +
               i % kWordsInBlock * 8);
}

std::string Named(const char* what, std::uint64_t entry) {
  return what +
         std::to_string(static_cast<std::uint32_t>(entry) - std::uint32_t{1}) +
         " in an index";
}

}  // namespace

void SIndexCheck::TakeSection(std::uint32_t id, const SRecordPlace& place,
                              std::string_view body) {
  SSectionCursor cursor(body);
  const std::string_view path = cursor.Path();
  if (id == places_.size()) {
    places_.emplace_back();
    entries_.push_back(Entry(path, salt_, id));
  }
  places_[id] = place;
  if (path.rfind('/') != 0) {
    return;
  }
  std::string_view address;
  if (cursor.FindKey(kAddressKey)) {
    while (cursor.NextValue(&address)) {
      entries_.push_back(Entry(address, ~salt_, id));
    }
  }
}

std::string SIndexCheck::Compare(std::string_view record) {
  if (record.size() < kIndexHeadSize ||
      (record.size() - kIndexHeadSize) % kBlockSize != 0) {
    return "impossible size of an index";
  }
  const std::string_view blocks = record.substr(kIndexHeadSize);
  std::uint32_t seed = Get32(record.data());
  for (std::size_t at = 0; at < blocks.size(); at += kBlockSize) {
    const char* block = blocks.data() + at;
    if (Get64(block + kBlockSize - 8) !=
        Crc32c({block, kBlockSize - 8}, seed++)) {
      return "wrong checksum of block " + std::to_string(at / kBlockSize) +
             " of an index";
    }
  }
  std::sort(entries_.begin(), entries_.end());
  entries_.erase(std::unique(entries_.begin(), entries_.end()), entries_.end());
  std::string problem = CompareHead(record);
  for (std::uint32_t id = 0; problem.empty() && id < Sections(); ++id) {
    if (WordAt(blocks, id) != places_[id].Word()) {
      problem = "wrong place of section " + std::to_string(id) + " in an index";
    }
  }
  return problem.empty()
             ? CompareSlots(blocks.substr(BlocksFor(Sections()) * kBlockSize),
                            Get64(record.data() + kIndexSlots))
             : problem;
}

std::string SIndexCheck::CompareHead(std::string_view record) {
  std::uint64_t live = 0;
  std::uint64_t live_bytes = 0;
  for (const SRecordPlace& place : places_) {
    live += place.IsSet() ? 1 : 0;
    live_bytes += place.size;
  }
  const char* head = record.data();
  const std::uint64_t slots = Get64(head + kIndexSlots);
  const std::uint64_t blocks = (record.size() - kIndexHeadSize) / kBlockSize;
  const bool agrees = slots <= UINT32_MAX && slots > entries_.size() &&
                      blocks == BlocksFor(Sections()) + BlocksFor(slots) &&
                      Get64(head + kIndexBlocks) == blocks &&
                      Get64(head + kIndexSections) == Sections() &&
                      Get64(head + kIndexLive) == live &&
                      Get64(head + kIndexUsed) == entries_.size() &&
                      Get64(head + kIndexLiveBytes) == live_bytes;
  return agrees ? "" : "wrong numbers in the head of an index";
}

// The slots hold the entries and nothing else, each where a look-up that goes
// on to the first free slot comes past.
std::string SIndexCheck::CompareSlots(std::string_view blocks,
                                      std::uint64_t slots) {
  std::vector<std::uint64_t> found;
  found.reserve(entries_.size());
  std::uint64_t free = 0;
  while (free < slots && WordAt(blocks, free) != 0) {
    ++free;
  }
  if (free == slots) {
    return "no free slot in an index";
  }
  for (std::uint64_t steps = 1, filled = 0; steps < slots; ++steps) {
    const std::uint64_t at = (free + steps) % slots;
    const std::uint64_t slot = WordAt(blocks, at);
    filled = slot == 0 ? 0 : filled + 1;
    if (slot == 0) {
      continue;
    }
    const std::uint64_t wanted = ((slot >> 32) * slots) >> 32;
    if ((at + slots - wanted) % slots >= filled) {
      return Named("unreachable slot of section ", slot);
    }
    found.push_back(slot);
  }
  std::sort(found.begin(), found.end());
  const auto [entry, slot] = std::mismatch(entries_.begin(), entries_.end(),
                                           found.begin(), found.end());
  if (entry != entries_.end() && (slot == found.end() || *entry < *slot)) {
    return Named("missing slot of section ", *entry);
  }
  return slot == found.end() ? ""
                             : Named("wrong slot that names section ", *slot);
}
