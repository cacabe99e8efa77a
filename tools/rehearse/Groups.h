#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/FileText.h"

/// Where a change stands in the report of a rehearsal on this host.
enum class Group { kCreated, kChanged, kMoved, kRemoved, kAccounts, kMail };

/// "created", "accounts" and so on.
[[nodiscard]] const char* NameOf(Group group);

/// Knows the mail system's places from its settings, /etc/vellumcraft.conf or,
/// where there is one for an argument of the program, that.
class Grouping {
 public:
  explicit Grouping(const std::vector<std::string>& program);

  [[nodiscard]] Group Of(const Change& change) const;

  /// The directories of waiting requests and messages, each with a "/".
  [[nodiscard]] std::string ControlDirectory() const { return control_; }
  [[nodiscard]] std::string MessageDirectory() const { return messages_; }

 private:
  std::string accounts_;  // the file
  std::string control_;
  std::string messages_;
  std::vector<std::string> mail_;  // directories of mail, those two included
};

/// An account of the database: its keys with their values.
using Account = std::map<std::string, std::vector<std::string>>;

/// What became of one account.
struct AccountChange {
  Change::Kind kind = Change::Kind::kChanged;
  std::string uid;
  Account before;
  Account after;
};

/// Compares two accounts databases, as texts; sorted by UID.
[[nodiscard]] std::vector<AccountChange> CompareAccounts(
    const std::string& before, const std::string& after);

/// A message or request that waits for the server.
struct Queued {
  std::string control;             // the file
  std::vector<std::string> files;  // that file and those of the message
  std::string what;                // "message" or the request's type
  std::vector<std::string> to;
  std::string subject;
};

/// The messages and requests whose control files were created.
[[nodiscard]] std::vector<Queued> ListQueued(const std::vector<Change>& changes,
                                             const Grouping& grouping);
