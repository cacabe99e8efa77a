#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/SStringList.h"
#include "toolkit/database/Format.h"

/// A section of a database: its path and its keys, sorted by bytes, each with
/// its list of values.
struct SSection {
  struct Key {
    SString name;
    SStringList values;
  };

  SString path;
  std::vector<Key> keys;

  /// The values of the key; undefined when there is no such key, defined when
  /// there is, though the list may be empty.
  [[nodiscard]] SStringList Get(std::string_view name) const;
  /// Replaces the values of the key.
  void Set(const SString& name, const SStringList& values);
};

/// Walks through the body of a section record without copying it.
class SSectionCursor {
 public:
  /// `body` is what follows `kRecordBody` in the record.
  explicit SSectionCursor(std::string_view body);

  /// False when the body isn't what a section's body looks like, as far as it
  /// was walked through.
  [[nodiscard]] bool IsSound() const { return sound_; }
  [[nodiscard]] std::string_view Path() const { return path_; }
  /// Goes on to the next key, past values that weren't looked at; false after
  /// the last.
  bool NextKey(std::string_view* name);
  /// The next value of the key; false after its last.
  bool NextValue(std::string_view* value);
  /// True when only padding is left.
  [[nodiscard]] bool AtEnd() const;

 private:
  bool sound_ = false;
  std::string_view rest_;
  std::string_view path_;
  std::uint32_t keys_left_ = 0;
  std::uint32_t values_left_ = 0;
};

/// The section of a record's body; false when it isn't one.
[[nodiscard]] bool DecodeSection(std::string_view body, SSection* section);

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
