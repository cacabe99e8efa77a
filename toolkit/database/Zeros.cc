#include "toolkit/database/Zeros.h"

#include <linux/mman.h>  // MADV_COLLAPSE, which the C library lacks
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>

namespace {

// calloc clears what it takes from memory that was freed before.
constexpr std::size_t kWorthMapping = 64U << 10;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kLargePage = 2U << 20;
// Pages in use that make a large one worth its copying.
constexpr std::uint16_t kWorthMerging = 128;

std::size_t BehindBoundary(const void* at) {
  return reinterpret_cast<std::uintptr_t>(at) % kLargePage;
}

void* Map(std::size_t size) {
  return mmap(nullptr, size, PROT_READ | PROT_WRITE,
              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
}

// Maps `size` bytes that begin where a large page may.
void* MapAligned(std::size_t size) {
  void* memory = Map(size);
  if (memory == MAP_FAILED || BehindBoundary(memory) == 0) {
    return memory;
  }
  munmap(memory, size);
  char* more = static_cast<char*>(Map(size + kLargePage));
  if (more == MAP_FAILED) {
    return MAP_FAILED;
  }
  const std::size_t before = kLargePage - BehindBoundary(more);
  munmap(more, before);
  if (before < kLargePage) {
    munmap(more + before + size, kLargePage - before);
  }
  return more + before;
}

}  // namespace

void SFreeZeros::operator()(char* bytes) const {
  if (mapped != 0) {
    munmap(bytes, mapped);
  } else {
    std::free(bytes);
  }
}

SZeros MakeZeros(std::size_t size) {
  if (size < kWorthMapping) {
    return SZeros(static_cast<char*>(std::calloc(1, size)), SFreeZeros{0});
  }
  // Whole large pages are what the system aligns by itself.
  const std::size_t unit = size < kLargePage ? kPage : kLargePage;
  const std::size_t rounded = (size + unit - 1) / unit * unit;
  void* memory = size < kLargePage ? Map(rounded) : MapAligned(rounded);
  return memory == MAP_FAILED
             ? SZeros()
             : SZeros(static_cast<char*>(memory), SFreeZeros{rounded});
}

void FillSoon(const SZeros& memory) {
  if (memory.get_deleter().mapped >= kLargePage) {
    // Where there are no large pages, small ones do.
    (void)madvise(memory.get(), memory.get_deleter().mapped, MADV_HUGEPAGE);
  }
}

void SPageMerger::Reset(const SZeros& memory) {
  memory_ = memory.get();
  fillings_.assign(
      memory == nullptr ? 0 : memory.get_deleter().mapped / kLargePage, 0);
}

void SPageMerger::Filled(std::size_t offset) {
  const std::size_t part = offset / kLargePage;
  if (part < fillings_.size() && ++fillings_[part] == kWorthMerging) {
#ifdef MADV_COLLAPSE
    const int cause = errno;
    (void)madvise(memory_ + part * kLargePage, kLargePage, MADV_COLLAPSE);
    errno = cause;
#endif
  }
}
