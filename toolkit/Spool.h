#pragma once

#include "toolkit/SStringList.h"

/// A control file of the server's spool: fields in the order in which they were
/// set, each a list of values.  Its directories follow from the environment
/// variables "Vellumcraft" and "ModuleName".  Format: docs/spool.md.
class SControl {
 public:
  /// A name without "/" is placed in the control directory with "-Control"
  /// appended; a name with "/" is a path as it stands.
  explicit SControl(const SString& name);
  /// Sets a field, its name with its colon, to the values.
  void Set(const SString& field, const SStringList& values);
  /// Where `Write` puts the file.
  [[nodiscard]] SString Path() const;
  /// Writes the control file, mode 0660, complete or not at all.  False with
  /// `errno` set; directories are never made.
  bool Write() const;

 private:
  SString path_;
  SStringList fields_;
  std::vector<SStringList> values_;
};

/// Queues a message: the control file, then `name` + "-Header" and "-Body" in
/// the messages directory (mode 0664 less the process mask).  Header lines end
/// in "\r\n" each, body lines are joined by "\r\n".  False, with nothing left of
/// the three files, when one can't be written.
bool QueueMessage(const SString& name, const SControl& control,
                  const SStringList& header, const SStringList& body);

/// A new message identifier of this process: `date` of now, ".", three or four
/// letters counted up from AAA, the process id, "@", `host_name`.
[[nodiscard]] SString NewMessageID(const SString& host_name);
