// The part of SDatabaseFile that makes new files: beside the place, on disk,
// then in place by one rename.

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "toolkit/Signals.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/DatabaseFile.h"

using namespace database_format;

namespace {

constexpr mode_t kFileMode = 0640;
constexpr char kTemporarySuffix[] = ".unfinished";

// Gives the new file the owner and group of the one that it replaces, whoever
// the writer is.
bool TakeOwnerOf(int former, int fresh) {
  struct stat wanted = {};
  struct stat given = {};
  return fstat(former, &wanted) == 0 && fstat(fresh, &given) == 0 &&
         ((wanted.st_uid == given.st_uid && wanted.st_gid == given.st_gid) ||
          fchown(fresh, wanted.st_uid, wanted.st_gid) == 0);
}

}  // namespace

// Removes what a killed process left under the temporary name; EWOULDBLOCK when
// a living one is at work there.
bool SDatabaseFile::RemoveLeftOver(const std::string& path) {
  const std::string temporary = path + kTemporarySuffix;
  struct stat left = {};
  struct stat in_place = {};
  if (lstat(temporary.c_str(), &left) != 0) {
    return errno == ENOENT;
  }
  SDescriptor fd;
  // The second name of a file in place is left from putting it there.
  if (S_ISREG(left.st_mode) &&
      (lstat(path.c_str(), &in_place) != 0 || !IsSameFile(left, in_place))) {
    fd = SDescriptor(open(temporary.c_str(),
                          O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.IsOpen() && !LockUnderName(fd.Get(), temporary)) {
      return false;
    }
  }
  // The lock is held until the name is gone, so that it can't be another's.
  return unlink(temporary.c_str()) == 0 || errno == ENOENT;
}

bool SDatabaseFile::Begin(const std::string& path) {
  Forget();
  path_ = path;
  const std::string temporary = path + kTemporarySuffix;
  const SHoldSignals hold;
  if (!RemoveLeftOver(path)) {
    return false;
  }
  fd_ = SDescriptor(open(temporary.c_str(),
                         O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                         kFileMode));
  if (!fd_.IsOpen()) {
    errno = errno == EEXIST ? EWOULDBLOCK : errno;
    return false;
  }
  temporary_ = temporary;
  writes_ = true;
  if (!LockUnderName(fd_.Get(), temporary)) {
    return false;
  }
  // The mode is what it is, whatever the mask of the process.
  if (fchmod(fd_.Get(), kFileMode) != 0) {
    return false;
  }
  struct stat status = {};
  if (fstat(fd_.Get(), &status) != 0 || !WriteHead()) {
    return false;
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  return true;
}

bool SDatabaseFile::WriteHead() {
  std::string head(kSectorSize, '\0');
  if (getrandom(&salt_, sizeof salt_, 0) != sizeof salt_) {
    return false;
  }
  std::copy(std::begin(kMagic), std::end(kMagic), head.begin());
  Put32(head.data() + kHeadVersion, kVersion);
  Put64(head.data() + kHeadSalt, salt_);
  last_checksum_ = Crc32c({head.data(), kSectorChecksum});
  Put32(head.data() + kSectorChecksum, last_checksum_);
  file_size_ = 0;
  tail_cleared_ = true;
  end_ = kHeadSize;
  synced_end_ = end_;
  index_end_ = end_;
  index_size_ = 0;
  mark_ = {1, end_, 0};
  const std::string second = MarkSector();
  mark_.number = 2;
  return WriteAt(head + MarkSector() + second, 0);
}

bool SDatabaseFile::FlushNew() {
  const std::uint64_t at = end_ - pending_.size();
  const bool written = WriteAt(pending_, at);
  pending_.clear();
  return written;
}

// Removes the new file that won't be put in place.
void SDatabaseFile::RemoveUnfinished() {
  const int cause = errno;
  if (!temporary_.empty() && LockUnderName(fd_.Get(), temporary_)) {
    unlink(temporary_.c_str());
  }
  temporary_.clear();
  pending_.clear();
  errno = cause;
}

bool SDatabaseFile::Install(SDatabaseFile* former) {
  const SHoldSignals hold;
  if (!FlushNew() || !SaveIndex() ||
      (former != nullptr && !TakeOwnerOf(former->fd_.Get(), fd_.Get()))) {
    return false;
  }
  // All of it must be on disk before it takes the place of what is.
  if ((synced_end_ != end_ && !SyncData()) || fdatasync(fd_.Get()) != 0) {
    return false;
  }
  // A file that was renamed while it was written isn't brought back.
  if (!LockUnderName(fd_.Get(), temporary_) ||
      (former != nullptr && !LockUnderName(former->fd_.Get(), path_))) {
    return false;
  }
  const bool renamed =
      former != nullptr
          ? rename(temporary_.c_str(), path_.c_str()) == 0
          : RenameToFreeName(SString(std::string_view(temporary_)),
                             SString(std::string_view(path_)));
  if (!renamed) {
    return false;
  }
  temporary_.clear();
  if (former != nullptr) {
    // Tells readers of the former file to look at the path.
    former->record_.clear();
    AppendBareRecord(RecordType::kReplaced, 0, former->last_checksum_,
                     &former->record_);
    if (former->ClearTail()) {
      (void)former->WriteAt(former->record_, former->end_);
    }
    former->Forget();
  }
  if (!SyncDirectoryOf(SString(std::string_view(path_)))) {
    sync_error_ = errno;
  }
  return true;
}

bool SDatabaseFile::Compact() {
  SDatabaseFile fresh;
  if (!fresh.Begin(path_)) {
    return false;
  }
  SSection section;
  for (std::uint32_t id = 0; id < Sections(); ++id) {
    if (!IsLive(id)) {
      continue;
    }
    std::uint32_t number = kNone;
    if (!Read(id, &section) || !fresh.Store(section, &number)) {
      return false;
    }
  }
  if (index_.IsDamaged()) {
    errno = EBADMSG;
    return false;
  }
  struct stat status = {};
  if (fstat(fd_.Get(), &status) != 0 ||
      fchmod(fresh.fd_.Get(), status.st_mode & 07777) != 0 ||
      !fresh.Install(this)) {
    return false;
  }
  Adopt(&fresh);
  return true;
}

// Goes on with the file of `other`, which is left closed.
void SDatabaseFile::Adopt(SDatabaseFile* other) {
  Forget();
  fd_ = std::move(other->fd_);
  device_ = other->device_;
  inode_ = other->inode_;
  writes_ = true;
  salt_ = other->salt_;
  mark_ = other->mark_;
  end_ = other->end_;
  last_checksum_ = other->last_checksum_;
  index_end_ = other->index_end_;
  index_size_ = other->index_size_;
  index_ = std::move(other->index_);
  file_size_ = other->file_size_;
  tail_cleared_ = true;
  synced_end_ = other->synced_end_;
  synced_at_ = other->synced_at_;
  sync_error_ = other->sync_error_;
  other->Forget();
}
