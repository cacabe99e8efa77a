#pragma once

#include <functional>

#include "toolkit/SStringList.h"

/// Makes the new content of a host file out of its lines, line ends kept.
using SHostFileEdit = std::function<SString(SStringList lines)>;

/// Name number `n`, from 0, for the backup of a host file: the path + ".bak",
/// ".bak1", ".bak2" ...
[[nodiscard]] SString BackupName(const SString& path, int n);

/// Rewrites a regular host file in place, as root: owner, mode, links and inode
/// stay.  Before the file is touched its content is on disk, and verified,
/// under the first free backup name (mode 0664 less the process mask).
///
/// Other editors that lock the file (flock, fcntl) are kept out; one that has
/// it locked makes this fail.  Signals are deferred.  Files that the owner may
/// not write are made writable for the length of the edit.
///
/// False when the file can't be opened, locked, saved or made writable: it is
/// then as it was, without a backup.  False also when it can't be written: the
/// old content is put back and the backup kept.  Whatever kills the process,
/// the file is old or new or the backup is whole.
[[nodiscard]] bool RewriteHostFile(const SString& path,
                                   const SHostFileEdit& edit);
