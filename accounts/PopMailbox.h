#pragma once

#include <string>
#include <vector>

#include "accounts/MailboxReader.h"
#include "toolkit/Files.h"

/// A POP mailbox under construction: a directory with one file per message.
/// Acts with the identity in force, the mail owner's.
class SPopMailbox : public SMailboxReader::Sink {
 public:
  /// Nothing is made yet.  `directory` lies below gstr_MailboxDir.
  explicit SPopMailbox(const SString& directory);

  /// Makes the directory and the missing levels between it and the mailboxes;
  /// false, with `errno` set, when the directory exists or can't be made.
  [[nodiscard]] bool Make();
  [[nodiscard]] bool BeginMessage() override;
  [[nodiscard]] bool Write(std::string_view bytes) override;
  /// Waits until everything that was written is on disk, whatever the number
  /// of messages.
  [[nodiscard]] bool Sync();
  /// Removes what was made, mail of others excepted; keeps `errno`.
  void Undo();

  /// The message that failed to be made or written; "" when none did.
  [[nodiscard]] const SString& FailedMessage() const { return failed_message_; }

 private:
  [[nodiscard]] bool Flush();
  [[nodiscard]] bool EndMessage();
  bool FailMessage();

  SString directory_;
  SDescriptor directory_file_;
  std::vector<SString> made_directories_;
  SString message_;
  SDescriptor message_file_;
  SString failed_message_;
  std::string buffer_;
};
