#include "toolkit/database/CheckDatabase.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "toolkit/Files.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/CheckIndex.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/Hash.h"
#include "toolkit/database/TextForm.h"

using namespace database_format;

namespace {

std::string At(std::uint64_t offset) {
  return " at byte " + std::to_string(offset);
}

// Goes through the file from its first byte on, without the reader's code and
// without the index, so that one can't hide the faults of the other.
class Inspector {
 public:
  explicit Inspector(int fd) : fd_(fd) {}

  // "" when all is well.
  std::string Inspect() {
    std::string problem = InspectHead();
    for (offset_ = kHeadSize; problem.empty() && offset_ < synced_end_;) {
      problem = InspectRecord();
    }
    return problem;
  }

 private:
  bool Read(std::uint64_t offset, std::uint64_t size) {
    bytes_.resize(size);
    return pread(fd_, bytes_.data(), size, static_cast<off_t>(offset)) ==
           static_cast<ssize_t>(size);
  }

  std::string InspectHead() {
    if (!Read(0, kHeadSize)) {
      return "cut short in its head";
    }
    if (!std::equal(std::begin(kMagic), std::end(kMagic), bytes_.data())) {
      return "no database: wrong first bytes";
    }
    for (std::size_t at = 0; at < kHeadSize; at += kSectorSize) {
      const char* sector = bytes_.data() + at;
      if (Get32(sector + kSectorChecksum) !=
          Crc32c({sector, kSectorChecksum})) {
        return "wrong checksum of the head" + At(at);
      }
      if (at > 0) {
        synced_end_ = std::max(synced_end_, Get64(sector + kMarkSyncedEnd));
      }
    }
    if (Get32(bytes_.data() + kHeadVersion) != kVersion) {
      return "version " + std::to_string(Get32(bytes_.data() + kHeadVersion));
    }
    chain_ = Get32(bytes_.data() + kSectorChecksum);
    index_.Begin(Get64(bytes_.data() + kHeadSalt));
    struct stat status = {};
    if (fstat(fd_, &status) != 0 ||
        static_cast<std::uint64_t>(status.st_size) < synced_end_) {
      return "cut short" + At(static_cast<std::uint64_t>(status.st_size)) +
             " of " + std::to_string(synced_end_);
    }
    return "";
  }

  std::string InspectRecord() {
    if (!Read(offset_, kSmallestRecord)) {
      return "cut short" + At(offset_);
    }
    const std::uint64_t size = Get32(bytes_.data() + kRecordSize);
    const auto type =
        static_cast<RecordType>(Get32(bytes_.data() + kRecordType));
    if (size < kSmallestRecord || size % kRecordAlignment != 0 ||
        offset_ + size > synced_end_) {
      return "impossible size of a record" + At(offset_);
    }
    if (!Read(offset_, size)) {
      return "cut short" + At(offset_);
    }
    const std::size_t covered =
        type == RecordType::kIndex ? std::min<std::size_t>(kIndexHeadSize, size)
                                   : size;
    if (Get32(bytes_.data()) !=
        Crc32c({bytes_.data() + kRecordSize, covered - kRecordSize})) {
      return "wrong checksum of a record" + At(offset_);
    }
    if (Get32(bytes_.data() + kRecordPrevious) != chain_) {
      return "record that doesn't follow the one before" + At(offset_);
    }
    chain_ = Get32(bytes_.data());
    std::string problem = InspectContent(type);
    offset_ += size;
    return problem;
  }

  std::string InspectContent(RecordType type) {
    const std::uint32_t id = Get32(bytes_.data() + kRecordId);
    const std::string_view body = std::string_view(bytes_).substr(kRecordBody);
    SSection section;
    std::string problem;
    switch (type) {
      case RecordType::kSection:
        if (id > index_.Sections() || !section.Decode(body)) {
          return "record that holds no section" + At(offset_);
        }
        index_.TakeSection(id, {offset_, bytes_.size()}, body);
        return "";
      case RecordType::kRemoved:
        if (id >= index_.Sections()) {
          return "removal of nothing" + At(offset_);
        }
        index_.TakeRemoval(id);
        return "";
      case RecordType::kIndex:
        problem = index_.Compare(bytes_);
        return problem.empty() ? "" : problem + At(offset_);
      case RecordType::kReplaced:
        return "";
      default:
        return "record of an unknown kind" + At(offset_);
    }
  }

  int fd_;
  std::string bytes_;
  std::uint64_t synced_end_ = kHeadSize;
  std::uint64_t offset_ = 0;
  std::uint32_t chain_ = 0;
  SIndexCheck index_;
};

// The first address of an account that a look-up doesn't find; "" if all are.
std::string AddressNotFound(SDatabaseFile* file, std::uint32_t id,
                            const SSection& section) {
  if (section.Path().View().rfind('/') != 0) {
    return "";
  }
  for (const SString& address : section.Get(kAddressKey)) {
    bool found = false;
    file->ForEachWithAddress(
        SLowerCaseText(address.View()).View(),
        [&](std::uint32_t other, std::string_view) { found |= other == id; });
    if (!found) {
      return address.Std();
    }
  }
  return "";
}

// What a reader finds: every section under its path and its addresses, though
// the records behind the index are found by what is taken in of them.
std::string CompareLookUps(SDatabaseFile* file) {
  for (std::uint32_t id = 0; id < file->Sections(); ++id) {
    std::string_view body;
    if (!file->IsLive(id)) {
      continue;
    }
    const std::string name = "section " + std::to_string(id);
    SSection section;
    if (!file->ReadBody(id, &body) || !section.Decode(body)) {
      return name + " can't be read";
    }
    if (file->Find(section.Path().View()) != id) {
      return name + " isn't found by its path";
    }
    const std::string address = AddressNotFound(file, id, section);
    if (!address.empty()) {
      return name + " isn't found by its address " + EscapeText(address, false);
    }
  }
  return "";
}

}  // namespace

bool CheckDatabase(const std::string& path, std::string* problem) {
  problem->clear();
  const SDescriptor fd(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!fd.IsOpen() || fstat(fd.Get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    *problem = "no regular file";
    return false;
  }
  *problem = Inspector(fd.Get()).Inspect();
  if (!problem->empty()) {
    return false;
  }
  SDatabaseFile file;
  if (!file.Open(path, SDatabaseFile::Access::kRead)) {
    return false;
  }
  *problem = CompareLookUps(&file);
  return problem->empty();
}
