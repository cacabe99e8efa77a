#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/database/Zeros.h"

/// The bytes of a database file's records.  What is stored never changes, so
/// whole blocks of it are read once and kept.
class SStoredBytes {
 public:
  /// The file as it is at the moment.
  struct File {
    int fd;
    std::uint64_t end;  ///< of the records known
    bool is_written;    ///< by this process, which then reads more at once
  };

  /// Keeps nothing any more.
  void Forget();
  /// Reads `size` bytes, at least one, from `offset` on; `bytes` stays valid
  /// until the next call, and until `Forget` when it is kept.  False with
  /// `errno` set, EBADMSG when the file ends before.
  [[nodiscard]] bool Read(const File& file, std::uint64_t offset,
                          std::uint64_t size, std::string_view* bytes);
  /// True when what `Read` gave is kept.
  [[nodiscard]] bool IsKept(std::string_view bytes) const {
    return bytes.data() != scratch_.data();
  }
  /// Kept bytes.
  [[nodiscard]] const char* Kept(std::uint64_t offset) const {
    return kept_.get() + offset;
  }

 private:
  void MakeRoom(std::uint64_t end);
  bool LoadBlocks(const File& file, std::uint64_t offset, std::uint64_t size);
  [[nodiscard]] bool MayReadAhead(const File& file, std::uint64_t offset) const;
  void Keep(std::uint64_t offset, std::uint64_t size);

  SZeros kept_;
  SPageMerger pages_;
  std::vector<bool> blocks_;  // that are in memory
  std::string scratch_;
};
