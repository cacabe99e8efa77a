#pragma once

#include <map>
#include <set>
#include <string>

#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/SAccountDB.h"

/// What an account was when it was read, and where it lies.
class SAccount::Fields {
 public:
  SSection section;
  std::uint32_t id = SDatabaseFile::kNone;
  std::uint64_t generation = 0;
};

/// True for a UID that can be a file's name.
[[nodiscard]] bool IsPlainFileName(std::string_view uid);

/// The account database's file, opened when it is there.
class SAccountDB::State {
 public:
  State();

  /// Takes in what others have stored.  False when there is nothing to read:
  /// the file is missing (`open_error` is 0) or can't be read.
  bool Follow();
  /// Becomes the writer and makes the file when it is missing.  False with
  /// `errno` set when that can't be.
  bool OpenForWriting();
  /// Reads the account again when anything was stored since; one that has gone
  /// meanwhile is a failure (ENOENT).
  bool Refresh(const SString& uid, SAccount::Fields* fields);
  /// Calls `visit` with the record's body of every section, in the order of
  /// creation.
  template <typename Visit>
  void ForEachBody(Visit visit) {
    for (std::uint32_t id = 0; id < file.Sections(); ++id) {
      std::string_view body;
      if (file.IsLive(id) && file.ReadBody(id, &body)) {
        visit(body);
      }
    }
  }

  std::string path;
  SDatabaseFile file;
  SSection changed;  // what is about to be stored, its memory used again
  int open_error = 0;
  SStringList domains;
  std::uint64_t domains_generation = 0;

  // The next suffix to try for a name, in lower case, as long as no account
  // has gone.
  std::map<std::string, int, std::less<>> next_suffix;
  std::uint64_t suffix_removals = 0;
};
