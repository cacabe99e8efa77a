#pragma once

#include <sys/types.h>

#include <vector>

// The one place where the process changes its identity.  The real user id
// stays root for the whole run; only effective ids (and, for a user, the
// supplementary groups) change.  Every change goes through root, sets groups
// before the user, and is checked.

/// Drops to the mail owner for the rest of the run: no supplementary groups,
/// effective group `gid`, effective user `uid`.  False, with nothing usable
/// left in force, when a call fails.
[[nodiscard]] bool BecomeMailOwner(uid_t uid, gid_t gid);

/// Acts with another effective identity to the end of the enclosing block.
/// The former identity comes back on every way out; if it can't be put back,
/// the process ends with status 255 rather than go on as somebody else.
class [[nodiscard]] SActAs {
 public:
  struct Root {};
  /// Root's user id; the effective group stays as it is, so what is made
  /// belongs to root and the mail group.  Ends the process when that fails.
  explicit SActAs(Root);
  /// A user with the user's own group and no other.  When the user can't be
  /// become, `Succeeded` is false and the identity is as before; nothing may
  /// then be done for that user.
  SActAs(uid_t uid, gid_t gid);
  ~SActAs();
  SActAs(const SActAs&) = delete;
  SActAs& operator=(const SActAs&) = delete;

  [[nodiscard]] bool Succeeded() const { return succeeded_; }

 private:
  void GoBack();

  uid_t former_uid_;
  gid_t former_gid_;
  std::vector<gid_t> former_groups_;
  bool groups_changed_ = false;
  bool succeeded_ = false;
};

/// In a child that is about to run the server: root's effective user id for
/// good.  False when that fails.
[[nodiscard]] bool BecomeRootForGood();
