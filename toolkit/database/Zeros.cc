#include "toolkit/database/Zeros.h"

#include <sys/mman.h>

#include <cstdlib>

namespace {

// calloc clears what it takes from memory that was freed before.
constexpr std::size_t kWorthMapping = 64U << 10;

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
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return memory == MAP_FAILED
             ? SZeros()
             : SZeros(static_cast<char*>(memory), SFreeZeros{size});
}
