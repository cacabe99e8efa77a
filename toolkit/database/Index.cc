#include "toolkit/database/Index.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Section.h"

using namespace database_format;

namespace {

constexpr std::uint64_t kFewestSlots = 64;

// Reads a block of those that begin at `offset`; false when it isn't sound.
bool ReadBlock(int fd, std::uint64_t offset, std::uint64_t block,
               std::uint32_t seed, char* bytes) {
  const ssize_t got = pread(fd, bytes, kBlockSize,
                            static_cast<off_t>(offset + block * kBlockSize));
  return got == static_cast<ssize_t>(kBlockSize) &&
         Get64(bytes + kBlockSize - 8) ==
             Crc32c({bytes, kBlockSize - 8},
                    seed + static_cast<std::uint32_t>(block));
}

std::uint64_t BlocksFor(std::uint64_t words) {
  return (words + kWordsInBlock - 1) / kWordsInBlock;
}

}  // namespace

void SWordArray::Allocate() {
  memory_ = MakeZeros(capacity_ * sizeof(std::uint64_t));
  if (memory_ == nullptr) {
    std::abort();
  }
  words_ = reinterpret_cast<std::uint64_t*>(memory_.get());
}

void SWordArray::Reset(std::uint64_t size) {
  capacity_ = std::max<std::uint64_t>(size, 16);
  Allocate();
  size_ = size;
  on_disk_ = 0;
  loaded_.clear();
  damaged_ = false;
}

void SWordArray::Attach(int fd, std::uint64_t offset, std::uint64_t size,
                        std::uint32_t seed) {
  Reset(size * 2);
  size_ = size;
  on_disk_ = size;
  loaded_.assign(BlocksFor(size), false);
  fd_ = fd;
  offset_ = offset;
  seed_ = seed;
  pages_.Reset(memory_);
}

void SWordArray::LoadBlock(std::uint64_t block) {
  char bytes[kBlockSize];
  loaded_[block] = true;
  if (!ReadBlock(fd_, offset_, block, seed_, bytes)) {
    damaged_ = true;
    return;
  }
  const std::uint64_t first = block * kWordsInBlock;
  const std::uint64_t last = std::min(first + kWordsInBlock, on_disk_);
  for (std::uint64_t i = first; i < last; ++i) {
    words_[i] = Get64(bytes + (i - first) * 8);
  }
  pages_.Filled(first * 8);
}

void SWordArray::Reserve(std::uint64_t capacity) {
  for (std::uint64_t block = 0; block < loaded_.size(); ++block) {
    Load(block * kWordsInBlock);
  }
  on_disk_ = 0;
  const SZeros former = std::move(memory_);
  const std::uint64_t* former_words = words_;
  capacity_ = capacity;
  Allocate();
  FillSoon();
  std::copy_n(former_words, size_, words_);
}

void SWordArray::Push(std::uint64_t word) {
  if (size_ == capacity_) {
    Reserve(capacity_ * 2);
  }
  words_[size_++] = word;
}

void SWordArray::AppendBlocks(std::uint32_t seed, std::string* out) {
  for (std::uint64_t block = 0; block < BlocksFor(size_); ++block) {
    const std::size_t start = out->size();
    out->resize(start + kBlockSize);
    char* bytes = out->data() + start;
    const std::uint64_t first = block * kWordsInBlock;
    const std::uint64_t last = std::min(first + kWordsInBlock, size_);
    for (std::uint64_t i = first; i < last; ++i) {
      Put64(bytes + (i - first) * 8, Get(i));
    }
    Put64(bytes + kBlockSize - 8,
          Crc32c({bytes, kBlockSize - 8},
                 seed + static_cast<std::uint32_t>(block)));
  }
}

void SDatabaseIndex::Clear() {
  slots_.Reset(kFewestSlots);
  places_.Reset(0);
  used_ = 0;
  live_ = 0;
  live_bytes_ = 0;
}

bool SDatabaseIndex::IsWhole(int fd, std::uint64_t offset,
                             std::string_view head, std::uint64_t size) {
  const std::uint32_t seed = Get32(head.data() + kRecordChecksum);
  char bytes[kBlockSize];
  for (std::uint64_t block = 0; kIndexHeadSize + block * kBlockSize < size;
       ++block) {
    if (!ReadBlock(fd, offset + kIndexHeadSize, block, seed, bytes)) {
      return false;
    }
  }
  return true;
}

bool SDatabaseIndex::Attach(int fd, std::uint64_t offset,
                            std::string_view head) {
  const std::uint64_t blocks = Get64(head.data() + kIndexBlocks);
  const std::uint64_t sections = Get64(head.data() + kIndexSections);
  const std::uint64_t slots = Get64(head.data() + kIndexSlots);
  const std::uint32_t seed = Get32(head.data() + kRecordChecksum);
  if (slots == 0 || slots > UINT32_MAX || sections > UINT32_MAX ||
      blocks != BlocksFor(sections) + BlocksFor(slots) ||
      Get32(head.data() + kRecordSize) !=
          kIndexHeadSize + blocks * kBlockSize) {
    return false;
  }
  const std::uint64_t places_at = offset + kIndexHeadSize;
  places_.Attach(fd, places_at, sections, seed);
  slots_.Attach(fd, places_at + BlocksFor(sections) * kBlockSize, slots,
                seed + static_cast<std::uint32_t>(BlocksFor(sections)));
  used_ = Get64(head.data() + kIndexUsed);
  live_ = static_cast<std::uint32_t>(Get64(head.data() + kIndexLive));
  live_bytes_ = Get64(head.data() + kIndexLiveBytes);
  return used_ < slots;
}

void SDatabaseIndex::SetPlace(std::uint32_t id, const SRecordPlace& place) {
  if (id == Sections()) {
    places_.Push(0);
  }
  const SRecordPlace former = Place(id);
  live_ = live_ + (place.IsSet() ? 1 : 0) - (former.IsSet() ? 1 : 0);
  live_bytes_ += place.size - former.size;
  places_.Set(id, place.Word());
}

void SDatabaseIndex::Insert(std::uint32_t hash, std::uint32_t id) {
  if ((used_ + 1) * 4 > slots_.Size() * 3) {
    Resize(slots_.Size() * 2);
  }
  const std::uint64_t wanted = std::uint64_t{hash} << 32 | (id + 1);
  std::uint64_t i = SlotOf(hash, slots_.Size());
  for (std::uint64_t slot = slots_.Get(i); slot != 0; slot = slots_.Get(i)) {
    if (slot == wanted) {
      return;
    }
    i = i + 1 == slots_.Size() ? 0 : i + 1;
  }
  slots_.Set(i, wanted);
  ++used_;
}

void SDatabaseIndex::Resize(std::uint64_t slots) {
  SWordArray former = std::move(slots_);
  slots_ = SWordArray();
  slots_.Reset(slots);
  slots_.FillSoon();
  used_ = 0;
  for (std::uint64_t i = 0; i < former.Size(); ++i) {
    const std::uint64_t slot = former.Get(i);
    if (slot != 0) {
      Insert(static_cast<std::uint32_t>(slot >> 32),
             static_cast<std::uint32_t>(slot) - 1);
    }
  }
}

std::string SDatabaseIndex::Record(std::uint32_t previous) {
  // Half full, so that a miss looks at two or three slots.
  Resize(std::max(kFewestSlots, used_ * 2));
  const std::uint64_t blocks = BlocksFor(Sections()) + BlocksFor(slots_.Size());
  std::string record(kIndexHeadSize, '\0');
  Put32(record.data() + kRecordPrevious, previous);
  Put32(record.data() + kRecordType,
        static_cast<std::uint32_t>(RecordType::kIndex));
  Put64(record.data() + kIndexBlocks, blocks);
  Put64(record.data() + kIndexSections, Sections());
  Put64(record.data() + kIndexLive, live_);
  Put64(record.data() + kIndexSlots, slots_.Size());
  Put64(record.data() + kIndexUsed, used_);
  Put64(record.data() + kIndexLiveBytes, live_bytes_);
  FinishRecord(0, &record, 0, blocks * kBlockSize);
  const std::uint32_t seed = Get32(record.data());
  record.reserve(record.size() + blocks * kBlockSize);
  places_.AppendBlocks(seed, &record);
  slots_.AppendBlocks(seed + static_cast<std::uint32_t>(BlocksFor(Sections())),
                      &record);
  return record;
}
