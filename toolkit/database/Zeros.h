#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// Gives back what `MakeZeros` gave.
struct SFreeZeros {
  std::size_t mapped = 0;
  void operator()(char* bytes) const;
};
using SZeros = std::unique_ptr<char, SFreeZeros>;

/// Memory of `size` zeros, which is only there where it is touched: making much
/// of it costs no more than making little.  Null when there is none.
[[nodiscard]] SZeros MakeZeros(std::size_t size);

/// Lets memory of `MakeZeros` that is going to be filled lie in large pages,
/// where the processor finds addresses in less time.
void FillSoon(const SZeros& memory);

/// Does the same for parts of the memory once they have been filled here and
/// there.
class SPageMerger {
 public:
  /// Begins with memory that wasn't touched yet, or with none.
  void Reset(const SZeros& memory);
  /// Some thousand bytes more are in use at `offset`.
  void Filled(std::size_t offset);

 private:
  char* memory_ = nullptr;
  std::vector<std::uint16_t> fillings_;
};
