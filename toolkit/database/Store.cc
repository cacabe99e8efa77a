// The file side: head, marks and chained records, as docs/database.md tells.
//
// Every change is one record appended with one write.  A record counts when its
// checksum, which covers the record before as well, is right; so a scan ends
// where a killed writer was, and before the first hole that a power failure
// left.  Up to the length in the newer mark the file is known to be on disk:
// there a wrong checksum is damage, behind it the unfinished end of a write.

#include "toolkit/database/Store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "toolkit/Signals.h"
#include "toolkit/database/Format.h"

namespace {

constexpr mode_t kMode = 0640;
// Smaller files are left alone.
constexpr std::uint64_t kWorthCompacting = 64 * 1024;

constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

bool Damaged() {
  errno = EBADMSG;
  return false;
}

// Reads exactly `size` bytes; false with EBADMSG when there are fewer.
bool ReadAt(int fd, std::uint64_t offset, std::size_t size, std::string* out) {
  out->resize(size);
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t n = pread(fd, out->data() + filled, size - filled,
                            static_cast<off_t>(offset + filled));
    if (n == 0) {
      return Damaged();
    }
    if (n > 0) {
      filled += static_cast<std::size_t>(n);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool WriteAt(int fd, std::uint64_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n =
        pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (n == 0) {
      errno = ENOSPC;
      return false;
    }
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
      offset += static_cast<std::uint64_t>(n);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

std::string Head() {
  std::string head(kMagic);
  AppendNumber(kFormatVersion, 4, &head);
  AppendNumber(Checksum(head), 4, &head);
  return head;
}

std::string MarkBytes(std::uint64_t turn, std::uint64_t length,
                      std::uint32_t chain) {
  std::string bytes;
  AppendNumber(turn, 8, &bytes);
  AppendNumber(length, 8, &bytes);
  AppendNumber(chain, 4, &bytes);
  AppendNumber(Checksum(bytes), 4, &bytes);
  return bytes;
}

std::string RecordBytes(const std::string& operations, std::uint32_t chain,
                        std::uint32_t* sum) {
  std::string record;
  AppendNumber(operations.size(), 4, &record);
  *sum = Checksum(operations, Checksum(record, chain));
  AppendNumber(*sum, 4, &record);
  return record + operations;
}

}  // namespace

void SStore::Change::MakeSection(std::string_view section) {
  AppendNumber(static_cast<unsigned>(Operation::kMakeSection), 1, &bytes_);
  AppendText(section, &bytes_);
}

void SStore::Change::Set(std::string_view section, std::string_view key,
                         const Values& values) {
  AppendNumber(static_cast<unsigned>(Operation::kSet), 1, &bytes_);
  AppendText(section, &bytes_);
  AppendText(key, &bytes_);
  AppendNumber(values.size(), 4, &bytes_);
  for (const std::string& value : values) {
    AppendText(value, &bytes_);
  }
}

void SStore::Change::DeleteSection(std::string_view section) {
  AppendNumber(static_cast<unsigned>(Operation::kDeleteSection), 1, &bytes_);
  AppendText(section, &bytes_);
}

SString UnfinishedPath(const SString& path) {
  return path + ".unfinished";
}

SDescriptor MakeDatabaseFile(const SString& path,
                             const SStore::Sections& sections) {
  std::vector<const SStore::Sections::value_type*> in_order;
  for (const auto& section : sections) {
    in_order.push_back(&section);
  }
  std::sort(in_order.begin(), in_order.end(), [](const auto* a, const auto* b) {
    return a->second.order < b->second.order;
  });

  std::string content = Head();
  content.resize(kRecordsOffset, '\0');
  std::uint32_t chain = Checksum(Head());
  for (const auto* section : in_order) {
    SStore::Change change;
    change.MakeSection(section->first);
    for (const auto& [key, values] : section->second.keys) {
      change.Set(section->first, key, values);
    }
    content += RecordBytes(change.Bytes(), chain, &chain);
  }
  for (std::size_t slot = 0; slot < 2; ++slot) {
    const std::string mark = MarkBytes(slot + 1, content.size(), chain);
    content.replace(kMarkOffsets[slot], kMarkSize, mark);
  }

  RemoveFile(path);
  SDescriptor file(open(path, O_RDWR | O_CREAT | O_EXCL | kOpenFlags, kMode));
  if (file.IsOpen() &&
      (fchmod(file.Get(), kMode) != 0 || !WriteAt(file.Get(), 0, content) ||
       fsync(file.Get()) != 0)) {
    const int cause = errno;
    RemoveFile(path);
    errno = cause;
    return SDescriptor();
  }
  return file;
}

SStore::~SStore() {
  Close();
}

void SStore::Reset() {
  sections_.clear();
  next_order_ = 0;
  garbage_ = 0;
  AfterReset();
}

bool SStore::NamesThisFile() const {
  struct stat named = {};
  struct stat open = {};
  return stat(path_, &named) == 0 && fstat(file_.Get(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

bool SStore::Lock() {
  return flock(file_.Get(), LOCK_EX | LOCK_NB) == 0;
}

bool SStore::OpenFile(bool for_writing) {
  while (true) {
    file_ = SDescriptor(
        open(path_, (for_writing ? O_RDWR : O_RDONLY) | kOpenFlags));
    struct stat status = {};
    if (file_.IsOpen()) {
      if (fstat(file_.Get(), &status) != 0) {
        return false;
      }
      if (!S_ISREG(status.st_mode)) {
        return Damaged();
      }
      if (!for_writing) {
        return true;
      }
      if (!Lock()) {
        return false;
      }
      if (NamesThisFile()) {
        return true;
      }
      // Another writer has compacted it between opening and locking.
      continue;
    }
    if (errno == ELOOP) {
      return Damaged();
    }
    if (errno != ENOENT || !for_writing) {
      return false;
    }
    // Made under another name, so that an unfinished one is never seen.
    const SString unfinished = UnfinishedPath(path_);
    const SDescriptor made = MakeDatabaseFile(unfinished, {});
    if (!made.IsOpen()) {
      return false;
    }
    const bool linked = link(unfinished, path_) == 0 || errno == EEXIST;
    const int cause = errno;
    RemoveFile(unfinished);
    if (!linked) {
      errno = cause;
      return false;
    }
  }
}

bool SStore::ReadMark(int slot, Mark* mark) const {
  std::string bytes;
  if (!ReadAt(file_.Get(), kMarkOffsets[slot], kMarkSize, &bytes)) {
    return false;
  }
  const std::string_view view = bytes;
  mark->turn = ReadNumber(view, 8);
  mark->length = ReadNumber(view.substr(8), 8);
  mark->chain = static_cast<std::uint32_t>(ReadNumber(view.substr(16), 4));
  return bytes == MarkBytes(mark->turn, mark->length, mark->chain);
}

bool SStore::ReadHead(Mark* newest) {
  std::string head;
  if (!ReadAt(file_.Get(), 0, kHeadSize, &head)) {
    return false;
  }
  if (head != Head()) {
    return Damaged();
  }
  for (int slot = 0; slot < 2; ++slot) {
    Mark mark;
    if (ReadMark(slot, &mark) && mark.turn > newest->turn) {
      *newest = mark;
    }
  }
  return newest->turn > 0 && newest->length >= kRecordsOffset ? true
                                                              : Damaged();
}

bool SStore::Load() {
  Mark mark;
  if (!ReadHead(&mark)) {
    return false;
  }
  Reset();
  last_turn_ = mark.turn;
  end_ = kRecordsOffset;
  chain_ = Checksum(Head());
  return ReadRecords(mark.length);
}

// Reads from `end_` on up to the last record that counts.
bool SStore::ReadRecords(std::uint64_t known_good) {
  std::string head;
  std::string operations;
  while (ReadAt(file_.Get(), end_, kRecordHead, &head)) {
    const auto length = static_cast<std::size_t>(ReadNumber(head, 4));
    if (length > kMaxRecord ||
        !ReadAt(file_.Get(), end_ + kRecordHead, length, &operations)) {
      break;
    }
    const std::uint32_t sum =
        Checksum(operations, Checksum(head.substr(0, 4), chain_));
    if (sum != ReadNumber(std::string_view(head).substr(4), 4) ||
        !Apply(operations)) {
      break;
    }
    chain_ = sum;
    end_ += kRecordHead + length;
  }
  return end_ >= known_good ? true : Damaged();
}

bool SStore::Apply(std::string_view operations) {
  while (!operations.empty()) {
    std::uint64_t kind = 0;
    std::string_view section;
    if (!TakeNumber(&operations, 1, &kind) ||
        !TakeText(&operations, &section)) {
      return false;
    }
    const std::string name(section);
    const Section* former = Find(section);
    BeforeChange(name, former);
    if (kind == static_cast<unsigned>(Operation::kDeleteSection)) {
      sections_.erase(name);
      AfterChange(name, nullptr);
      continue;
    }
    if (former == nullptr) {
      sections_[name].order = next_order_++;
    }
    Section& changed = sections_[name];
    if (kind == static_cast<unsigned>(Operation::kSet)) {
      std::string_view key;
      std::uint64_t count = 0;
      if (!TakeText(&operations, &key) || !TakeNumber(&operations, 4, &count)) {
        return false;
      }
      Values& values = changed.keys[std::string(key)];
      for (const std::string& value : values) {
        garbage_ += value.size();
      }
      values.clear();
      for (; count > 0; --count) {
        std::string_view value;
        if (!TakeText(&operations, &value)) {
          return false;
        }
        values.emplace_back(value);
      }
    } else if (kind != static_cast<unsigned>(Operation::kMakeSection)) {
      return false;
    }
    AfterChange(name, &changed);
  }
  return true;
}

bool SStore::Open(const SString& path, bool for_writing) {
  if (IsOpen()) {
    Close();
  }
  path_ = path;
  for_writing_ = for_writing;
  changed_ = false;
  if (OpenFile(for_writing) && Load() &&
      (!for_writing || ftruncate(file_.Get(), static_cast<off_t>(end_)) == 0)) {
    return true;
  }
  const int cause = errno;
  file_ = SDescriptor();
  Reset();
  errno = cause;
  return false;
}

bool SStore::Check(const SString& path, std::string* problem) {
  problem->clear();
  path_ = path;
  for_writing_ = false;
  std::string head;
  Mark mark;
  struct stat status = {};
  if (!OpenFile(false) || fstat(file_.Get(), &status) != 0) {
    return false;
  }
  if (!ReadAt(file_.Get(), 0, kHeadSize, &head) || head != Head()) {
    *problem = "no database: the head at offset 0 is wrong";
  }
  std::string gap;
  for (int slot = 0; slot < 2 && problem->empty(); ++slot) {
    const std::size_t begin =
        slot == 0 ? kHeadSize : kMarkOffsets[0] + kMarkSize;
    const std::size_t behind = kMarkOffsets[1] + kMarkSize;
    if (!ReadMark(slot, &mark)) {
      *problem = "damaged: the mark at offset " +
                 std::to_string(kMarkOffsets[slot]) + " is wrong";
    } else if (!ReadAt(file_.Get(), begin, kMarkOffsets[slot] - begin, &gap) ||
               gap.find_first_not_of('\0') != std::string::npos ||
               !ReadAt(file_.Get(), behind, kRecordsOffset - behind, &gap) ||
               gap.find_first_not_of('\0') != std::string::npos) {
      *problem = "damaged: bytes that are not used are not zero";
    }
  }
  if (problem->empty() && !Load()) {
    *problem = "damaged: the record at offset " + std::to_string(end_) +
               " is wrong, and the file was whole up to a later one";
  }
  if (problem->empty() && static_cast<std::uint64_t>(status.st_size) > end_) {
    *problem = "a change that was not finished begins at offset " +
               std::to_string(end_) + "; the next one removes it";
  }
  return problem->empty();
}

bool SStore::Refresh() {
  if (!IsOpen() || for_writing_) {
    return IsOpen();
  }
  if (!NamesThisFile()) {
    SDescriptor former = std::move(file_);
    if (!OpenFile(false) || !Load()) {
      file_ = std::move(former);
      return false;
    }
    return true;
  }
  struct stat status = {};
  if (fstat(file_.Get(), &status) != 0 ||
      static_cast<std::uint64_t>(status.st_size) <= end_) {
    return true;
  }
  return ReadRecords(end_);
}

const SStore::Section* SStore::Find(std::string_view section) const {
  const auto found = sections_.find(section);
  return found == sections_.end() ? nullptr : &found->second;
}

bool SStore::Store(const Change& change) {
  if (!IsOpen() || !for_writing_ || change.Bytes().size() > kMaxRecord) {
    errno = !IsOpen() || !for_writing_ ? EBADF : EFBIG;
    return false;
  }
  const SHoldSignals until_stored;
  std::uint32_t sum = 0;
  const std::string record = RecordBytes(change.Bytes(), chain_, &sum);
  if (!WriteAt(file_.Get(), end_, record)) {
    const int cause = errno;
    // A part that stays is no record; the next one is written over it.
    static_cast<void>(ftruncate(file_.Get(), static_cast<off_t>(end_)));
    errno = cause;
    return false;
  }
  changed_ = true;
  chain_ = sum;
  end_ += record.size();
  return Apply(change.Bytes());
}

bool SStore::WriteMark() {
  const std::string mark = MarkBytes(last_turn_ + 1, end_, chain_);
  if (!WriteAt(file_.Get(), kMarkOffsets[last_turn_ % 2], mark)) {
    return false;
  }
  ++last_turn_;
  return true;
}

bool SStore::Sync() {
  if (!changed_) {
    return true;
  }
  const SHoldSignals until_stored;
  if (fdatasync(file_.Get()) == 0 && WriteMark() &&
      fdatasync(file_.Get()) == 0) {
    changed_ = false;
    return true;
  }
  return false;
}

// Writes what counts into a new file that takes the place of this one.
bool SStore::Compact() {
  const SHoldSignals until_stored;
  const SString unfinished = UnfinishedPath(path_);
  SDescriptor made = MakeDatabaseFile(unfinished, sections_);
  struct stat former = {};
  if (made.IsOpen() && fstat(file_.Get(), &former) == 0 &&
      (fchown(made.Get(), former.st_uid, former.st_gid) == 0 ||
       geteuid() == former.st_uid) &&
      fchmod(made.Get(), former.st_mode & 07777) == 0 &&
      flock(made.Get(), LOCK_EX | LOCK_NB) == 0 && Rename(unfinished, path_) &&
      SyncDirectoryOf(path_)) {
    file_ = std::move(made);
    changed_ = false;
    return true;
  }
  RemoveFile(unfinished);
  return false;
}

bool SStore::Close() {
  if (!IsOpen()) {
    return true;
  }
  bool closed = true;
  if (for_writing_) {
    const bool worth_it = garbage_ > kWorthCompacting && garbage_ > end_ / 2;
    closed = (worth_it && Compact()) || Sync();
    closed = SyncDirectoryOf(path_) && closed;
  }
  const int cause = errno;
  file_ = SDescriptor();
  Reset();
  errno = cause;
  return closed;
}
