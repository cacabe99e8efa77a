#pragma once

#include <string_view>
#include <vector>

#include "accounts/MailboxReader.h"
#include "toolkit/Files.h"

/// A POP mailbox under construction: a directory with one file per message.
/// Acts with the identity in force, the mail owner's.
///
/// The directory is filled beside its place and moved there when everything is
/// on disk, so that a process that is killed leaves no mailbox that only looks
/// whole.  Two names beside it tell the next process how far it came:
///
///   in.unfinished.LOGIN   the directory while it is filled
///   in.finished.LOGIN     a link whose text is the version of the spool file
///                         that was copied as a whole, while that still exists
class SPopMailbox : public SMailboxReader::Sink {
 public:
  /// Nothing is made yet.  `directory` lies below gstr_MailboxDir; `login`, the
  /// owner of the spool file, tells left-overs of several logins apart.
  SPopMailbox(const SString& directory, const SString& login);

  /// Makes a directory to be filled and the missing levels between the place
  /// and the mailboxes, and removes what an earlier process left unfinished.
  /// False, with `errno` set, when the place is taken or nothing can be made.
  [[nodiscard]] bool Make();
  [[nodiscard]] bool BeginMessage() override;
  [[nodiscard]] bool Write(std::string_view bytes) override;
  /// Waits until everything that was written is on disk, whatever the number
  /// of messages.
  [[nodiscard]] bool Sync();
  /// Moves what was synced to its place.  Until `Forget` it is known that this
  /// version of the spool file is there as a whole.
  [[nodiscard]] bool Publish(const SString& version);
  /// Removes what was made, mail of others excepted; keeps `errno`.
  void Undo();

  /// The message that failed to be made or written; "" when none did.
  [[nodiscard]] const SString& FailedMessage() const { return failed_message_; }

  /// True when an earlier process was killed before it called `Forget`.
  [[nodiscard]] bool HasLeftOver() const;
  /// The version of the spool file that it had copied as a whole; "" for none.
  [[nodiscard]] SString LeftVersion() const;
  /// Moves what it had not moved yet to its place.
  [[nodiscard]] bool PublishLeftOver();
  /// Removes whatever is left beside the place.
  void Forget();

 private:
  [[nodiscard]] bool OpenDirectory(const SString& directory);
  [[nodiscard]] bool MoveToPlace();
  [[nodiscard]] bool EndMessage();
  bool FailMessage();

  SString directory_;
  SString unfinished_;
  SString finished_mark_;
  SDescriptor directory_file_;
  std::vector<SString> made_levels_;
  bool is_made_ = false;
  SString message_;
  SDescriptor message_file_;
  SString failed_message_;
};
