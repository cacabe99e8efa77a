// The part of SDatabaseFile that stores: lock, append, sync, close.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>

#include "toolkit/Signals.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/DatabaseFile.h"

using namespace database_format;

namespace {

constexpr int kTriesToLock = 100;
constexpr timespec kBetweenTries = {0, 10'000'000};
// Files up to this size are read whole when they are opened and need no index.
constexpr std::uint64_t kNeedsNoIndex = 256U << 10;
constexpr std::uint64_t kLeastReserve = 64U << 10;
constexpr std::uint64_t kMuchUseless = 1U << 20;
constexpr std::uint64_t kMostReserve = 16U << 20;
// A writer that waited for the disk as often will do so again.
constexpr int kFewSyncs = 2;
// After a write of which some bytes may be in the file.
constexpr std::uint64_t kUnknownSize = UINT64_MAX;

std::int64_t Milliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

SDatabaseFile::~SDatabaseFile() {
  if (writes_ && temporary_.empty()) {
    Close();
  }
  Forget();
}

bool SDatabaseFile::OpenWriter(Access access) {
  const std::string path = path_;
  for (int i = 0; i < kTriesToLock; ++i) {
    fd_ = SDescriptor(open(
        path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (fd_.IsOpen()) {
      if (LockFile()) {
        writes_ = TakeIn();
        synced_end_ = mark_.synced_end;
        replaced_ = false;
        // The first change waits for the disk, later ones in the same second
        // don't.
        synced_at_ = 0;
        if (writes_) {
          // Only takes up space: what can't go now goes another time.
          (void)RemoveLeftOver(path);
        }
        return writes_;
      }
    } else if (errno == ENOENT && access == Access::kCreate && Begin(path) &&
               Install(nullptr)) {
      return true;
    }
    // EEXIST: somebody else created it in between.
    if (errno != EWOULDBLOCK && errno != EEXIST) {
      return false;
    }
    RemoveUnfinished();
    nanosleep(&kBetweenTries, nullptr);
  }
  errno = EWOULDBLOCK;
  return false;
}

// Locks the open file, which must still have the name; EWOULDBLOCK when it has
// another, or when a living process is at work there.
bool SDatabaseFile::LockUnderName(int fd, const std::string& name) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    return false;
  }
  if (!NamesOpenFile(SString(std::string_view(name)), fd)) {
    errno = EWOULDBLOCK;
    return false;
  }
  return true;
}

// Locks the file that was opened.
bool SDatabaseFile::LockFile() {
  struct stat opened = {};
  if (fstat(fd_.Get(), &opened) != 0) {
    return false;
  }
  if (!S_ISREG(opened.st_mode)) {
    errno = EBADMSG;
    return false;
  }
  if (!LockUnderName(fd_.Get(), path_) || fstat(fd_.Get(), &opened) != 0) {
    return false;
  }
  file_size_ = static_cast<std::uint64_t>(opened.st_size);
  tail_cleared_ = false;
  sync_error_ = 0;
  return true;
}

bool SDatabaseFile::Store(const SSection& section, std::uint32_t* id) {
  const std::uint32_t number = *id == kNone ? index_.Sections() : *id;
  record_.clear();
  AppendSectionRecord(number, section, last_checksum_, &record_);
  const std::uint64_t removals = removals_;
  if (!AppendRecord()) {
    return false;
  }
  // The sections of a new file have other numbers.
  *id = removals == removals_ ? number : Find(section.Path().View());
  return *id != kNone;
}

bool SDatabaseFile::Remove(std::uint32_t id) {
  record_.clear();
  AppendBareRecord(RecordType::kRemoved, id, last_checksum_, &record_);
  return AppendRecord();
}

// Appends what is in `record_`.
bool SDatabaseFile::AppendRecord() {
  if (!writes_ || damaged_ || index_.IsDamaged()) {
    errno = writes_ ? EBADMSG : EBADF;
    return false;
  }
  if (record_.size() > kLargestRecord) {
    errno = EFBIG;
    return false;
  }
  if (!temporary_.empty()) {
    pending_ += record_;
    return TakeRecord(record_, record_.size()) &&
           (pending_.size() < kMostReserve / 16 || FlushNew());
  }
  {
    const SHoldSignals hold;
    if (!MakeRoomForChange(end_ + record_.size()) || !WriteAt(record_, end_)) {
      return false;
    }
  }
  TakeRecord(record_, record_.size());
  if (!compaction_failed_ && WorthCompacting(3, kMuchUseless)) {
    // Only saves space; what can't be done now is tried again at the end.
    compaction_failed_ = !Compact();
  }
  if (Milliseconds() - synced_at_ >= 1000) {
    // A failure is told when the database is closed.
    (void)SyncData();
  }
  return true;
}

// Sees to it that a change which ends there is one write, and fails here when
// there is no space.
bool SDatabaseFile::MakeRoomForChange(std::uint64_t end) {
  if (end_ != synced_end_) {
    return ReserveSpace(end, std::clamp(end_ / 4, kLeastReserve, kMostReserve));
  }
  if (!ClearTail()) {
    return false;
  }
  if (end <= file_size_ || syncs_ < kFewSyncs) {
    // For a change that may be the only one before the next sync, taking space
    // and giving it back would be two more changes of the file system.
    return true;
  }
  // Zeros that there is no space for are cut off, and the change is tried alone.
  return WriteZeros() || ClearTail();
}

// Takes space from the file system up to `end`, and `ahead` more if there is as
// much.
bool SDatabaseFile::ReserveSpace(std::uint64_t end, std::uint64_t ahead) {
  if (!ClearTail()) {
    return false;
  }
  if (end <= file_size_) {
    return true;
  }
  const SFailAtSizeLimit no_signal;
  for (const std::uint64_t wanted : {end + ahead, end}) {
    if (TEMP_FAILURE_RETRY(
            fallocate(fd_.Get(), 0, static_cast<off_t>(file_size_),
                      static_cast<off_t>(wanted - file_size_))) == 0) {
      file_size_ = wanted;
      reserved_end_ = wanted;
      return true;
    }
    if (errno == EOPNOTSUPP || errno == ENOSYS) {
      // A file system that can't reserve tells when it is written to.
      return true;
    }
    // Some keep what they found before there was no more.
    const int cause = errno;
    if (ftruncate(fd_.Get(), static_cast<off_t>(file_size_)) != 0) {
      tail_cleared_ = false;
      file_size_ = kUnknownSize;
      return false;
    }
    errno = cause;
  }
  return false;
}

// Cuts off what lies behind the last whole record: what a killed writer left
// there must never come to stand behind a new one.
bool SDatabaseFile::ClearTail() {
  if (tail_cleared_) {
    return true;
  }
  if (file_size_ > end_ &&
      ftruncate(fd_.Get(), static_cast<off_t>(end_)) != 0) {
    return false;
  }
  file_size_ = end_;
  tail_cleared_ = true;
  return true;
}

// Writes zeros for changes to come that are synced one by one: a sync then has
// their bytes to write, and nothing of the file system's own as with a file that
// grows or with space that was only reserved.
bool SDatabaseFile::WriteZeros() {
  if (!WriteAt(std::string(kLeastReserve, '\0'), file_size_)) {
    return false;
  }
  reserved_end_ = file_size_;
  return true;
}

bool SDatabaseFile::WriteAt(std::string_view bytes, std::uint64_t offset) {
  // Below the end of space that was reserved there is no limit to meet.
  std::optional<SFailAtSizeLimit> no_signal;
  if (offset + bytes.size() > reserved_end_) {
    no_signal.emplace();
  }
  while (!bytes.empty()) {
    const ssize_t written = pwrite(fd_.Get(), bytes.data(), bytes.size(),
                                   static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      errno = written == 0 ? ENOSPC : errno;
      // Some bytes of a record may be there; nobody takes them for one, but the
      // next append begins by clearing them away.
      tail_cleared_ = false;
      file_size_ = kUnknownSize;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += static_cast<std::uint64_t>(written);
    file_size_ = std::max(file_size_, offset);
  }
  return true;
}

bool SDatabaseFile::SyncData() {
  const SHoldSignals hold;
  synced_at_ = Milliseconds();
  // After a failure the system may have dropped what it couldn't write, and
  // call the next attempt a success.
  if (sync_error_ == 0 && fdatasync(fd_.Get()) != 0) {
    sync_error_ = errno;
  }
  if (sync_error_ != 0) {
    errno = sync_error_;
    return false;
  }
  synced_end_ = end_;
  ++syncs_;
  return WriteMark();
}

// Writes the mark that isn't the newest.  A power failure may lose it: then
// more is read when the file is opened, and that's all.
bool SDatabaseFile::WriteMark() {
  ++mark_.number;
  mark_.synced_end = synced_end_;
  return WriteAt(MarkSector(), kSectorSize * (1 + mark_.number % 2));
}

std::string SDatabaseFile::MarkSector() const {
  std::string sector(kSectorSize, '\0');
  Put64(sector.data() + kMarkNumber, mark_.number);
  Put64(sector.data() + kMarkSyncedEnd, mark_.synced_end);
  Put64(sector.data() + kMarkIndex, mark_.index);
  Put32(sector.data() + kSectorChecksum,
        Crc32c({sector.data(), kSectorChecksum}));
  return sector;
}

bool SDatabaseFile::Sync() {
  if (!writes_) {
    return true;
  }
  const bool on_disk = (synced_end_ == end_ && sync_error_ == 0) || SyncData();
  if (damaged_ || index_.IsDamaged()) {
    // What was stored before the damage was met stays stored all the same.
    errno = EBADMSG;
    return false;
  }
  return on_disk;
}

// The index goes into the file when what it lacks would take long to read.  Its
// head is written last, so that nobody takes half an index for a record.
bool SDatabaseFile::SaveIndex() {
  if (end_ < kNeedsNoIndex ||
      end_ - index_end_ <= std::max(kLeastReserve, index_size_ / 16)) {
    return true;
  }
  const std::string record = index_.Record(last_checksum_);
  const SHoldSignals hold;
  if (index_.IsDamaged() || !ReserveSpace(end_ + record.size(), 0) ||
      !WriteAt(std::string_view(record).substr(kIndexHeadSize),
               end_ + kIndexHeadSize) ||
      !WriteAt(std::string_view(record).substr(0, kIndexHeadSize), end_)) {
    return false;
  }
  mark_.index = end_;
  last_checksum_ = Get32(record.data());
  end_ += record.size();
  index_end_ = end_;
  index_size_ = record.size();
  return true;
}

// True when the file has grown to `times` what is useful in it, by more than
// `least` bytes.
bool SDatabaseFile::WorthCompacting(std::uint64_t times,
                                    std::uint64_t least) const {
  const std::uint64_t useful = kHeadSize + index_.LiveBytes() + index_size_;
  return end_ > useful * times && end_ - useful > least;
}

bool SDatabaseFile::Close() {
  if (!writes_ || !fd_.IsOpen()) {
    Forget();
    return true;
  }
  if (!damaged_ && !index_.IsDamaged()) {
    if (WorthCompacting(2, kLeastReserve)) {
      (void)Compact();
    } else {
      // Without it the next one to open reads more.
      (void)SaveIndex();
    }
    if (file_size_ > end_ && (tail_cleared_ || file_size_ == kUnknownSize)) {
      const SHoldSignals hold;
      (void)!ftruncate(fd_.Get(), static_cast<off_t>(end_));
    }
  }
  const bool done = Sync();
  const int cause = errno;
  Forget();
  errno = cause;
  return done;
}
