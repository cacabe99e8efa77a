#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/Files.h"
#include "toolkit/database/Index.h"
#include "toolkit/database/Section.h"
#include "toolkit/database/StoredBytes.h"

/// One database file: sections found by path and by address, each change one
/// record appended in one write.  docs/database.md tells layout and reasons.
///
/// Any number of processes read, one writes.  Functions that return false
/// leave the cause in `errno`; EBADMSG means that the file is no database, cut
/// short or damaged, EWOULDBLOCK that another process writes.
class SDatabaseFile {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  enum class Access {
    kRead,
    kWrite,   ///< must exist
    kCreate,  ///< made with mode 0640 when missing
  };

  SDatabaseFile() = default;
  SDatabaseFile(const SDatabaseFile&) = delete;
  SDatabaseFile& operator=(const SDatabaseFile&) = delete;
  ~SDatabaseFile();

  [[nodiscard]] bool Open(const std::string& path, Access access);
  [[nodiscard]] bool IsOpen() const { return fd_.IsOpen(); }
  [[nodiscard]] bool IsWriter() const { return writes_; }
  /// Everything stored is on disk for certain; the index is saved when much has
  /// changed, useless space given back.  False also when this writer has found
  /// the file damaged (EBADMSG).
  bool Close();

  /// Takes in what a writer in another process has stored since, in a new file
  /// when there is one.  A writer has nothing to take in.  False when the file
  /// can't be read any more.
  [[nodiscard]] bool Follow();

  /// Number of the section, `kNone` when there is none with exactly that path.
  /// `errno` is 0 then, EBADMSG when that can't be told because of damage.
  /// Fills `section` if one is given and there is one.
  [[nodiscard]] std::uint32_t Find(std::string_view path,
                                   SSection* section = nullptr);
  /// Fetches ahead what a look-up of the address, given in lower case, will
  /// touch first.
  void ExpectLookUp(std::string_view address) const {
    index_.Expect(HashOfAddress(address));
  }
  /// True when there is a section with the path, ASCII case disregarded.
  [[nodiscard]] bool HasPathInAnyCase(std::string_view path);
  /// Calls `visit(id, path)` for every section directly below "/" that has
  /// `address`, given in lower case, among its addresses.
  template <typename Visit>
  void ForEachWithAddress(std::string_view address, Visit visit) {
    index_.ForEach(HashOfAddress(address), [&](std::uint32_t id) {
      std::string_view body;
      if (ReadBody(id, &body) && BodyHasAddress(body, address)) {
        visit(id, SSectionCursor(body).Path());
      }
      return true;
    });
  }

  /// Numbers of sections are below this; in the order of creation, those of
  /// removed ones without a record.
  [[nodiscard]] std::uint32_t Sections() const { return index_.Sections(); }
  [[nodiscard]] std::uint32_t LiveSections() const { return index_.Live(); }
  [[nodiscard]] bool IsLive(std::uint32_t id) {
    return index_.Place(id).IsSet();
  }
  /// Changes whenever anything taken in or stored may have changed an answer.
  [[nodiscard]] std::uint64_t Generation() const { return generation_; }
  /// Changes whenever a section may have gone.
  [[nodiscard]] std::uint64_t RemovalGeneration() const { return removals_; }

  /// The section; false when there is none of that number or its record is
  /// damaged (EBADMSG).
  [[nodiscard]] bool Read(std::uint32_t id, SSection* section);
  /// The body of its record, valid until the next call of anything.
  [[nodiscard]] bool ReadBody(std::uint32_t id, std::string_view* body);

  /// Stores the section `id`, or a new one when that is `kNone`; `id` is then
  /// its number.  All of it becomes visible at once.
  [[nodiscard]] bool Store(const SSection& section, std::uint32_t* id);
  [[nodiscard]] bool Remove(std::uint32_t id);
  /// Everything stored is on disk for certain.
  [[nodiscard]] bool Sync();
  /// Writes a file without useless space in place of this one.
  [[nodiscard]] bool Compact();

  /// Begins a new file beside `path`, to be filled by `Store` and put in place
  /// by `Install`; gone when that doesn't happen.
  [[nodiscard]] bool Begin(const std::string& path);
  /// Puts the new file in place: of `former` when given, a writer of the same
  /// path which is closed by it, else only where there is no file (EEXIST).
  [[nodiscard]] bool Install(SDatabaseFile* former);

 private:
  struct Mark {
    std::uint64_t number = 0;
    std::uint64_t synced_end = 0;
    std::uint64_t index = 0;
  };

  // DatabaseFile.cc
  bool OpenReader();
  bool TakeIn();
  bool ReadHead(const char* head);
  bool AttachIndex();
  [[nodiscard]] bool MayHaveGrown() const;
  bool TakeRecords(std::uint64_t must_reach);
  bool TakeRecord(std::string_view record, std::uint64_t size);
  bool TakeSection(std::uint32_t id, std::string_view record);
  void EnterAddresses(std::uint32_t id, std::string_view body);
  void SetPlace(std::uint32_t id, const SRecordPlace& place);
  bool WasReplaced();
  void Forget();
  static bool Damaged();

  // DatabaseLookUp.cc
  [[nodiscard]] std::uint32_t HashOfPath(std::string_view path);
  [[nodiscard]] std::uint32_t HashOfAddress(std::string_view address) const;
  [[nodiscard]] static bool BodyHasAddress(std::string_view body,
                                           std::string_view address);

  // DatabaseWriter.cc
  bool OpenWriter(Access access);
  static bool LockUnderName(int fd, const std::string& name);
  bool LockFile();
  bool AppendRecord();
  bool MakeRoomForChange(std::uint64_t end);
  bool ReserveSpace(std::uint64_t end, std::uint64_t ahead);
  bool ClearTail();
  bool WriteZeros();
  bool WriteAt(std::string_view bytes, std::uint64_t offset);
  bool SyncData();
  bool WriteMark();
  [[nodiscard]] std::string MarkSector() const;
  bool SaveIndex();
  bool WorthCompacting(std::uint64_t times, std::uint64_t least) const;

  // Compaction.cc
  bool WriteHead();
  bool FlushNew();
  void RemoveUnfinished();
  static bool RemoveLeftOver(const std::string& path);
  void Adopt(SDatabaseFile* other);

  std::string path_;
  SDescriptor fd_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool writes_ = false;
  bool damaged_ = false;

  std::uint64_t salt_ = 0;
  Mark mark_;
  std::uint64_t end_ = 0;
  std::uint32_t last_checksum_ = 0;
  std::uint64_t index_end_ = 0;
  std::uint64_t index_size_ = 0;
  SDatabaseIndex index_;
  std::uint64_t generation_ = 0;
  std::uint64_t removals_ = 0;
  bool replaced_ = false;
  std::int64_t looked_at_path_ = 0;

  // Reading.
  SStoredBytes stored_;
  std::vector<bool> verified_;  // sections whose records are kept and sound
  std::string hashed_path_;
  std::uint32_t hash_ = 0;

  // Writing.
  std::string record_;
  std::uint64_t file_size_ = 0;
  std::uint64_t reserved_end_ = 0;  // of what was taken by this writer
  bool tail_cleared_ = false;
  bool compaction_failed_ = false;
  std::uint64_t synced_end_ = 0;
  std::int64_t synced_at_ = 0;
  int sync_error_ = 0;
  int syncs_ = 0;  // since it was opened or compacted

  // A new file that isn't in place yet.
  std::string temporary_;
  std::string pending_;
};
