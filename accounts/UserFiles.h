#pragma once

#include "accounts/UserImport.h"

/// Reads and leaves files in a user's home directory.  Call them acting as that
/// user: whatever a link there leads to, no more is reached than the user can.

/// The finger information: the lines of ".project" and ".plan", each group under
/// a heading and closed by an empty line; line ends and empty lines at the end
/// of each file are left out.
[[nodiscard]] SStringList ReadFingerLines(const SCandidate& user);

/// True when the user has a ".forward" file.
[[nodiscard]] bool HasForward(const SCandidate& user);

/// Puts a notice beside the ".forward" file unless there is one.
void LeaveForwardNotice(const SCandidate& user);
