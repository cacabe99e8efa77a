#pragma once

#include <memory>

#include "toolkit/SStringList.h"

/// One module's configuration database: sections named by paths that begin
/// with "/", keys in a section, a list of strings per key.  The file is
/// described in docs/database.md.
class Sdbfile {
 public:
  /// The database `name` (a base name, as in "Dispatch") in the directory
  /// `GetEnv(product)` + "/config/".  `mode` is not used.  Opens nothing yet.
  Sdbfile(const SString& name, int mode, const char* product);
  ~Sdbfile();
  Sdbfile(const Sdbfile&) = delete;
  Sdbfile& operator=(const Sdbfile&) = delete;

  /// Opens a section for reading (`mode` 0) or for reading and writing (1); may
  /// be called again for another section.  For reading, database and section
  /// must exist; for writing, both are created when missing (file mode 0640).
  /// False with `errno` set when that fails: EACCES, EROFS, ENOSPC, ENOENT (no
  /// database, or no such section), EWOULDBLOCK (another writer), EBADMSG (the
  /// file is no database or is damaged).
  [[nodiscard]] bool Open(const SString& section, int mode);
  /// The values of the key; `Defined()` is false when there is no such key and
  /// true for a key with an empty list.
  [[nodiscard]] SStringList Get(const SString& key) const;
  /// Stores the values: one atomic change.  False with `errno` set when it
  /// can't be stored; nothing has changed then.
  bool Set(const SString& key, const SStringList& values);
  /// Closes; everything stored is on disk for certain.  False when that
  /// failed.  Closing a database that isn't open does nothing.
  bool CloseDB();

 private:
  class State;
  std::unique_ptr<State> state_;
};
