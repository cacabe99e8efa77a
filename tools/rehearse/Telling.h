#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/Groups.h"

/// One change, as the report tells it.
struct Entry {
  const Change* change = nullptr;
  Group group = Group::kChanged;
  std::string copy_of;  // a former content that the new file has, too
  std::string diff;
  std::string note;  // why there is no diff
};

/// Everything that the report tells of files.
struct Told {
  std::vector<Entry> entries;
  std::vector<AccountChange> accounts;
  std::vector<Queued> queued;
};

/// Whether there is a regular file.
[[nodiscard]] bool IsRegular(const std::optional<FileState>& state);

/// Puts the changes that a program made in groups and compares contents;
/// `files` outlives what is told of it.  Contents of mail are left alone,
/// secrets are masked.
[[nodiscard]] Told Tell(const std::vector<std::string>& program,
                        const std::vector<Change>& files,
                        const Changes& changes);
