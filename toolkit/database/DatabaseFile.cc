#include "toolkit/database/DatabaseFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Hash.h"

using namespace database_format;

namespace {

constexpr std::size_t kReadAhead = 65536;
// A writer that changes a mark while it is read is long done after these.
constexpr int kTriesToReadHead = 100;

std::int64_t CoarseSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

bool SectorIsSound(const char* sector) {
  return Get32(sector + kSectorChecksum) == Crc32c({sector, kSectorChecksum});
}

// The addresses of a section as they lie in its record.
std::string_view AddressesOf(std::string_view body) {
  SSectionCursor cursor(body);
  if (!cursor.FindKey(kAddressKey)) {
    return {};
  }
  const std::string_view from = cursor.Rest();
  cursor.SkipValues();
  return from.substr(0, from.size() - cursor.Rest().size());
}

}  // namespace

bool SDatabaseFile::Damaged() {
  errno = EBADMSG;
  return false;
}

bool SDatabaseFile::Open(const std::string& path, Access access) {
  Forget();
  path_ = path;
  const bool opened =
      access == Access::kRead ? OpenReader() : OpenWriter(access);
  if (!opened) {
    const int cause = errno;
    Forget();
    errno = cause;
  }
  return opened;
}

bool SDatabaseFile::OpenReader() {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  // Its times needn't tell of every look-up; only the owner and root may leave
  // that out.
  fd_ = SDescriptor(open(path_.c_str(), kFlags | O_NOATIME));
  if (!fd_.IsOpen() && errno == EPERM) {
    fd_ = SDescriptor(open(path_.c_str(), kFlags));
  }
  return fd_.IsOpen() && TakeIn();
}

// Reads the state of the file that has been opened.
bool SDatabaseFile::TakeIn() {
  struct stat status = {};
  if (fstat(fd_.Get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    return Damaged();
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  looked_at_path_ = CoarseSeconds();
  char head[kHeadSize];
  bool sound = false;
  for (int i = 0; i < kTriesToReadHead && !sound; ++i) {
    const ssize_t got = pread(fd_.Get(), head, sizeof head, 0);
    if (got < 0) {
      return false;
    }
    if (got != static_cast<ssize_t>(sizeof head) ||
        !std::equal(std::begin(kMagic), std::end(kMagic), head)) {
      return Damaged();
    }
    sound = ReadHead(head);
  }
  return sound ? AttachIndex() && TakeRecords(mark_.synced_end) : Damaged();
}

bool SDatabaseFile::ReadHead(const char* head) {
  const char* first = head + kSectorSize;
  const char* second = first + kSectorSize;
  // A mark may be cut short by whatever ended its writer; the other then says
  // less, so that more is read, and the next writer puts it right.
  const bool is_first_sound = SectorIsSound(first);
  const bool is_second_sound = SectorIsSound(second);
  if (!SectorIsSound(head) || Get32(head + kHeadVersion) != kVersion ||
      (!is_first_sound && !is_second_sound)) {
    return false;
  }
  const bool is_first_newer =
      Get64(first + kMarkNumber) > Get64(second + kMarkNumber);
  const char* mark =
      is_first_sound && (is_first_newer || !is_second_sound) ? first : second;
  salt_ = Get64(head + kHeadSalt);
  mark_.number = Get64(mark + kMarkNumber);
  mark_.synced_end = Get64(mark + kMarkSyncedEnd);
  mark_.index = Get64(mark + kMarkIndex);
  end_ = kHeadSize;
  last_checksum_ = Get32(head + kSectorChecksum);
  return true;
}

bool SDatabaseFile::AttachIndex() {
  index_.Clear();
  index_end_ = kHeadSize;
  index_size_ = 0;
  if (mark_.index == 0) {
    return true;
  }
  char head[kIndexHeadSize];
  if (pread(fd_.Get(), head, sizeof head, static_cast<off_t>(mark_.index)) !=
          static_cast<ssize_t>(sizeof head) ||
      Get32(head + kRecordChecksum) !=
          Crc32c({head + kRecordSize, sizeof head - kRecordSize}) ||
      !index_.Attach(fd_.Get(), mark_.index, {head, sizeof head})) {
    return Damaged();
  }
  last_checksum_ = Get32(head + kRecordChecksum);
  index_size_ = Get32(head + kRecordSize);
  end_ = mark_.index + index_size_;
  index_end_ = end_;
  return end_ <= mark_.synced_end || Damaged();
}

// Takes in every record from the end of those known on.  The first that isn't
// whole is the end: one that is being written, or that a kill or a power
// failure has cut; before `must_reach` it is damage.
bool SDatabaseFile::TakeRecords(std::uint64_t must_reach) {
  std::size_t wanted = end_ >= must_reach ? kSmallestRecord : kReadAhead;
  std::string buffer;
  std::size_t at = 0;
  for (;;) {
    const std::string_view rest = std::string_view(buffer).substr(at);
    const std::uint64_t size =
        rest.size() < kSmallestRecord ? 0 : Get32(rest.data() + kRecordSize);
    const bool is_index =
        size != 0 && Get32(rest.data() + kRecordType) ==
                         static_cast<std::uint32_t>(RecordType::kIndex);
    const std::uint64_t needed = size == 0  ? kSmallestRecord
                                 : is_index ? kIndexHeadSize
                                            : size;
    if (rest.size() >= kSmallestRecord &&
        (size < needed || size % kRecordAlignment != 0 ||
         (!is_index && size > kLargestRecord) ||
         Get32(rest.data() + kRecordPrevious) != last_checksum_)) {
      break;
    }
    if (rest.size() < needed) {
      if (rest.size() >= kSmallestRecord || !buffer.empty()) {
        wanted = std::max<std::size_t>(kReadAhead, needed);
      }
      buffer.resize(wanted);
      const ssize_t got =
          pread(fd_.Get(), buffer.data(), wanted, static_cast<off_t>(end_));
      buffer.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
      at = 0;
      if (got < 0) {
        return false;
      }
      if (buffer.size() < needed) {
        break;
      }
      continue;
    }
    if (Get32(rest.data()) !=
            Crc32c(rest.substr(kRecordSize, needed - kRecordSize)) ||
        !TakeRecord(rest.substr(0, needed), size)) {
      break;
    }
    at = std::min<std::uint64_t>(at + size, buffer.size());
  }
  return end_ >= must_reach || Damaged();
}

// Takes in one verified record; false when it can't be what it seems.
bool SDatabaseFile::TakeRecord(std::string_view record, std::uint64_t size) {
  const auto type = static_cast<RecordType>(Get32(record.data() + kRecordType));
  const std::uint32_t id = Get32(record.data() + kRecordId);
  switch (type) {
    case RecordType::kSection:
      if (!TakeSection(id, record)) {
        return false;
      }
      break;
    case RecordType::kRemoved:
      if (id >= index_.Sections()) {
        return false;
      }
      SetPlace(id, {});
      ++removals_;
      break;
    case RecordType::kIndex: {
      struct stat status = {};
      if (fstat(fd_.Get(), &status) != 0 ||
          end_ + size > static_cast<std::uint64_t>(status.st_size)) {
        return false;
      }
      // A power failure may have lost some of it; before what a writer stores
      // next it would be damage.
      if (end_ + size > mark_.synced_end &&
          !SDatabaseIndex::IsWhole(fd_.Get(), end_, record, size)) {
        return false;
      }
      break;
    }
    case RecordType::kReplaced:
      replaced_ = true;
      break;
    default:
      return false;
  }
  last_checksum_ = Get32(record.data());
  end_ += size;
  ++generation_;
  return true;
}

bool SDatabaseFile::TakeSection(std::uint32_t id, std::string_view record) {
  const std::string_view body = record.substr(kRecordBody);
  const SSectionCursor cursor(body);
  if (id > index_.Sections() || !cursor.IsSound()) {
    return false;
  }
  const bool is_new = id == index_.Sections();
  const bool is_account = cursor.Path().rfind('/') == 0;
  // Most changes of an account leave its addresses as they are.
  std::string_view former;
  const bool same_addresses = is_account && id < verified_.size() &&
                              verified_[id] && ReadBody(id, &former) &&
                              AddressesOf(former) == AddressesOf(body);
  SetPlace(id, {end_, record.size()});
  if (is_new) {
    index_.Insert(HashOfPath(cursor.Path()), id);
  }
  if (is_account && !same_addresses) {
    EnterAddresses(id, body);
  }
  return true;
}

void SDatabaseFile::EnterAddresses(std::uint32_t id, std::string_view body) {
  SSectionCursor cursor(body);
  std::string_view address;
  if (cursor.FindKey(kAddressKey)) {
    while (cursor.NextValue(&address)) {
      index_.Insert(HashOfAddress(SLowerCaseText(address).View()), id);
    }
  }
}

bool SDatabaseFile::Follow() {
  if (writes_) {
    return true;
  }
  if (!fd_.IsOpen()) {
    return !path_.empty() && Open(path_, Access::kRead);
  }
  if (MayHaveGrown() && !TakeRecords(0)) {
    return false;
  }
  if (!WasReplaced()) {
    return true;
  }
  const std::uint64_t generation = generation_ + 1;
  const std::uint64_t removals = removals_ + 1;
  const std::string path = path_;
  const bool opened = Open(path, Access::kRead);
  generation_ += generation;
  removals_ += removals;
  return opened;
}

// False when there surely is nothing behind the last record known.
bool SDatabaseFile::MayHaveGrown() const {
  char head[kSmallestRecord];
  const ssize_t got =
      pread(fd_.Get(), head, sizeof head, static_cast<off_t>(end_));
  return got < 0 || (got == static_cast<ssize_t>(sizeof head) &&
                     Get32(head + kRecordSize) != 0);
}

// True when another file is in place of this one.  A missing file is about to
// be put back; till then this one goes on.
bool SDatabaseFile::WasReplaced() {
  if (!replaced_ && CoarseSeconds() <= looked_at_path_) {
    return false;
  }
  replaced_ = false;
  looked_at_path_ = CoarseSeconds();
  struct stat status = {};
  return stat(path_.c_str(), &status) == 0 &&
         (status.st_dev != device_ || status.st_ino != inode_);
}

void SDatabaseFile::SetPlace(std::uint32_t id, const SRecordPlace& place) {
  index_.SetPlace(id, place);
  if (id < verified_.size()) {
    verified_[id] = false;
  }
}

// Closes without storing anything.
void SDatabaseFile::Forget() {
  RemoveUnfinished();
  fd_ = SDescriptor();
  stored_.Forget();
  verified_.clear();
  index_.Clear();
  writes_ = false;
  damaged_ = false;
  replaced_ = false;
  tail_cleared_ = false;
  reserved_end_ = 0;
  compaction_failed_ = false;
  sync_error_ = 0;
  syncs_ = 0;
  hashed_path_.clear();
  ++generation_;
  ++removals_;
}
