#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/Files.h"

/// One database file: sections of keys of lists of strings, in memory as the
/// file has them.  A reader follows a writer in another process; writers exclude
/// each other.  Format: docs/database.md.
class SStore {
 public:
  using Values = std::vector<std::string>;
  struct Section {
    std::map<std::string, Values, std::less<>> keys;
    std::uint64_t order = 0;  // sections count up as they are made
  };
  using Sections = std::map<std::string, Section, std::less<>>;

  /// Operations that become visible in one atomic change.
  class Change {
   public:
    void MakeSection(std::string_view section);
    void Set(std::string_view section, std::string_view key,
             const Values& values);
    void DeleteSection(std::string_view section);
    [[nodiscard]] const std::string& Bytes() const { return bytes_; }

   private:
    std::string bytes_;
  };

  SStore() = default;
  virtual ~SStore();
  SStore(const SStore&) = delete;
  SStore& operator=(const SStore&) = delete;

  /// Opens the file.  For writing it is created when missing (mode 0640) and
  /// locked against other writers.  False with `errno` set: EBADMSG when the
  /// file is no database or is damaged, EWOULDBLOCK when another writer has it,
  /// else what the system said.
  [[nodiscard]] bool Open(const SString& path, bool for_writing);
  [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }
  [[nodiscard]] bool IsForWriting() const { return for_writing_; }
  /// Verifies every checksum and the structure.  False when something is wrong:
  /// `problem` says what and where, or is "" when `errno` does.
  [[nodiscard]] bool Check(const SString& path, std::string* problem);
  /// Takes up what a writer has stored since; false when the file is damaged
  /// or gone (the state is then as it was).
  bool Refresh();

  [[nodiscard]] const Sections& All() const { return sections_; }
  /// Null when there is no such section.
  [[nodiscard]] const Section* Find(std::string_view section) const;

  /// Stores the change: all of it or, with false and `errno`, nothing.
  [[nodiscard]] bool Store(const Change& change);
  /// Waits until everything stored is on disk.
  [[nodiscard]] bool Sync();
  /// `Sync`, after giving space that is no longer used back; then closes.
  bool Close();

 protected:
  /// Called round every change of a section, with null for one that does not
  /// exist.
  virtual void BeforeChange(const std::string&, const Section*) {}
  virtual void AfterChange(const std::string&, const Section*) {}
  /// Called when the whole state was dropped.
  virtual void AfterReset() {}

 private:
  struct Mark {
    std::uint64_t turn = 0;
    std::uint64_t length = 0;
    std::uint32_t chain = 0;
  };

  bool OpenFile(bool for_writing);
  bool Lock();
  bool ReadHead(Mark* mark);
  bool ReadMark(int slot, Mark* mark) const;
  bool WriteMark();
  bool Load();
  bool ReadRecords(std::uint64_t known_good);
  bool Apply(std::string_view operations);
  bool Compact();
  void Reset();
  [[nodiscard]] bool NamesThisFile() const;

  SString path_;
  SDescriptor file_;
  bool for_writing_ = false;
  bool changed_ = false;
  std::uint64_t end_ = 0;    // of the last whole record
  std::uint32_t chain_ = 0;  // its checksum
  std::uint64_t last_turn_ = 0;
  std::uint64_t garbage_ = 0;  // bytes of values that were replaced
  std::uint64_t next_order_ = 0;
  Sections sections_;
};

/// A path below which a new file may be made before it takes `path`'s place.
[[nodiscard]] SString UnfinishedPath(const SString& path);
/// Makes a database of one record per section in a new file of mode 0640 that
/// is on disk; the descriptor is not open on failure.
[[nodiscard]] SDescriptor MakeDatabaseFile(const SString& path,
                                           const SStore::Sections& sections);
