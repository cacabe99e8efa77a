#include "toolkit/database/StoredBytes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "toolkit/database/Format.h"

using database_format::kBlockSize;

namespace {

constexpr std::uint64_t kWriterReads = 8 * kBlockSize;
constexpr std::uint64_t kMostKept = std::uint64_t{1} << 30;

bool ReadWhole(int fd, char* bytes, std::size_t size, std::uint64_t offset) {
  const ssize_t got = pread(fd, bytes, size, static_cast<off_t>(offset));
  if (got >= 0 && got != static_cast<ssize_t>(size)) {
    errno = EBADMSG;
  }
  return got == static_cast<ssize_t>(size);
}

}  // namespace

void SStoredBytes::Forget() {
  kept_.reset();
  blocks_.clear();
}

bool SStoredBytes::Read(const File& file, std::uint64_t offset,
                        std::uint64_t size, std::string_view* bytes) {
  const std::uint64_t last = (offset + size - 1) / kBlockSize;
  if (kept_ == nullptr) {
    MakeRoom(file.end);
  }
  if ((last + 1) * kBlockSize <= file.end && last < blocks_.size()) {
    if (!LoadBlocks(file, offset, size)) {
      return false;
    }
    *bytes = {kept_.get() + offset, size};
    return true;
  }
  scratch_.resize(size);
  if (!ReadWhole(file.fd, scratch_.data(), size, offset)) {
    return false;
  }
  *bytes = scratch_;
  return true;
}

// For a file that grows to a multiple of what it is.
void SStoredBytes::MakeRoom(std::uint64_t end) {
  const std::uint64_t room =
      std::min(kMostKept, std::max<std::uint64_t>(end * 4, 1U << 20));
  const std::size_t rounded = room / kBlockSize * kBlockSize;
  kept_ = MakeZeros(rounded);
  pages_.Reset(kept_);
  if (kept_ != nullptr) {
    blocks_.assign(rounded / kBlockSize, false);
  }
}

bool SStoredBytes::LoadBlocks(const File& file, std::uint64_t offset,
                              std::uint64_t size) {
  const std::uint64_t last = (offset + size - 1) / kBlockSize;
  for (std::uint64_t block = offset / kBlockSize; block <= last; ++block) {
    if (blocks_[block]) {
      continue;
    }
    const std::uint64_t at = block * kBlockSize;
    // Who changes some sections mostly changes their neighbours, too.
    const std::uint64_t ahead = at / kWriterReads * kWriterReads;
    if (MayReadAhead(file, ahead) &&
        ReadWhole(file.fd, kept_.get() + ahead, kWriterReads, ahead)) {
      Keep(ahead, kWriterReads);
    } else if (ReadWhole(file.fd, kept_.get() + at, kBlockSize, at)) {
      Keep(at, kBlockSize);
    } else {
      return false;
    }
  }
  return true;
}

// Nothing that is kept is ever read again: it may have been verified.
bool SStoredBytes::MayReadAhead(const File& file, std::uint64_t offset) const {
  const auto first =
      blocks_.begin() + static_cast<std::ptrdiff_t>(offset / kBlockSize);
  return file.is_written && offset + kWriterReads <= file.end &&
         offset + kWriterReads <= blocks_.size() * kBlockSize &&
         std::find(first, first + kWriterReads / kBlockSize, true) ==
             first + kWriterReads / kBlockSize;
}

void SStoredBytes::Keep(std::uint64_t offset, std::uint64_t size) {
  for (std::uint64_t at = offset; at < offset + size; at += kBlockSize) {
    if (!blocks_[at / kBlockSize]) {
      blocks_[at / kBlockSize] = true;
      pages_.Filled(at);
    }
  }
}
