#pragma once

#include <cstdint>
#include <string_view>

/// CRC-32C (Castagnoli; RFC 3720 appendix B.4) of `bytes`, going on from the
/// CRC of what precedes them.  `Crc32c("123456789")` is 0xe3069283.
[[nodiscard]] std::uint32_t Crc32c(std::string_view bytes,
                                   std::uint32_t before = 0);

/// The same without the processor's instruction for it.
[[nodiscard]] std::uint32_t Crc32cByTable(std::string_view bytes,
                                          std::uint32_t before = 0);
