#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "toolkit/SStringList.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/Format.h"

/// A section of a database: its path and its keys, sorted by bytes, each with
/// its list of values.  The keys are held as they lie in a record, so that
/// reading and storing copy them in one piece.
class SSection {
 public:
  SSection() = default;
  explicit SSection(const SString& path) : path_(path) {}

  [[nodiscard]] const SString& Path() const { return path_; }
  /// The values of the key; undefined when there is no such key, defined when
  /// there is, though the list may be empty.
  [[nodiscard]] SStringList Get(std::string_view name) const;
  /// Replaces the values of the key.  Takes time for the keys before it, unless
  /// it comes behind all others.
  void Set(const SString& name, const SStringList& values);
  /// The same for a key that comes behind all others.
  void Append(const SString& name, const SStringList& values);

  /// Takes over the body of a record; false when it isn't a section's.
  [[nodiscard]] bool Decode(std::string_view body);
  /// Appends the body of a record, without padding.
  void AppendBody(std::string* out) const;

 private:
  [[nodiscard]] bool IsBehindAll(std::string_view name) const;

  SString path_;
  std::uint32_t key_count_ = 0;
  std::string keys_;
  std::size_t last_key_ = 0;  // where it begins
};

/// Less than, equal to or greater than 0 as `name` sorts before, is or sorts
/// behind `other`, by bytes.  Most keys differ in their first byte.
[[nodiscard]] inline int CompareKeys(std::string_view name,
                                     std::string_view other) {
  if (!name.empty() && !other.empty() && name.front() != other.front()) {
    return static_cast<unsigned char>(name.front()) -
           static_cast<unsigned char>(other.front());
  }
  return name.compare(other);
}

/// Walks through the body of a section record without copying it.
class SSectionCursor {
 public:
  /// `body` is what follows `kRecordBody` in the record.
  explicit SSectionCursor(std::string_view body) : rest_(body) {
    sound_ = TakeText(&rest_, &path_) && TakeNumber(&rest_, &keys_left_);
  }
  /// `keys` are so many keys without a path before them.
  SSectionCursor(std::string_view keys, std::uint32_t key_count)
      : sound_(true), rest_(keys), keys_left_(key_count) {}

  /// False when the body isn't what a section's body looks like, as far as it
  /// was walked through.
  [[nodiscard]] bool IsSound() const { return sound_; }
  [[nodiscard]] std::string_view Path() const { return path_; }
  /// What was not walked through yet.
  [[nodiscard]] std::string_view Rest() const { return rest_; }
  [[nodiscard]] std::uint32_t KeysLeft() const { return keys_left_; }
  /// Goes on to the next key, past values that weren't looked at; false after
  /// the last.
  bool NextKey(std::string_view* name) {
    SkipValues();
    if (!sound_ || keys_left_ == 0) {
      return false;
    }
    --keys_left_;
    sound_ = TakeText(&rest_, name) && TakeNumber(&rest_, &values_left_);
    return sound_;
  }
  /// Goes on to the key, of a cursor that stands before it; false when there is
  /// no such key.
  bool FindKey(std::string_view wanted) {
    // A copy of its own stays in registers while bytes are read.
    SSectionCursor at = *this;
    std::string_view name;
    int order = -1;
    while (order < 0 && at.NextKey(&name)) {
      order = CompareKeys(name, wanted);
    }
    *this = at;
    return order == 0;
  }
  /// The next value of the key; false after its last.
  bool NextValue(std::string_view* value) {
    if (!sound_ || values_left_ == 0) {
      return false;
    }
    --values_left_;
    sound_ = TakeText(&rest_, value);
    return sound_;
  }
  /// Goes past the values of the key that weren't looked at.
  void SkipValues() {
    std::string_view passed;
    while (NextValue(&passed)) {
    }
  }
  /// True when only padding is left.
  [[nodiscard]] bool AtEnd() const;

 private:
  bool sound_ = false;
  std::string_view rest_;
  std::string_view path_;
  std::uint32_t keys_left_ = 0;
  std::uint32_t values_left_ = 0;
};

/// Appends the record of a section to `out`, chained to the record before.
void AppendSectionRecord(std::uint32_t id, const SSection& section,
                         std::uint32_t previous, std::string* out);

/// Appends a record without a body to `out`.
void AppendBareRecord(database_format::RecordType type, std::uint32_t id,
                      std::uint32_t previous, std::string* out);

/// Fills in size and checksum of the record that begins at `start` of `out` and
/// ends at its end, after padding it.  The checksum covers `checked` bytes, 0
/// meaning all of them; `more` bytes follow that aren't in `out`.
void FinishRecord(std::size_t start, std::string* out, std::size_t checked = 0,
                  std::uint64_t more = 0);
