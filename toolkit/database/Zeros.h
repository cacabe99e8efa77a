#pragma once

#include <cstddef>
#include <memory>

/// Gives back what `MakeZeros` gave.
struct SFreeZeros {
  std::size_t mapped = 0;
  void operator()(char* bytes) const;
};
using SZeros = std::unique_ptr<char, SFreeZeros>;

/// Memory of `size` zeros, which is only there where it is touched: making much
/// of it costs no more than making little.  Null when there is none.
[[nodiscard]] SZeros MakeZeros(std::size_t size);
