#include "accounts/PopMailbox.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Spool.h"

namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kMessageMode = 0664;
constexpr std::size_t kPiece = std::size_t{256} * 1024;

// Message identifiers of this process end in letters, its id and the host.
bool IsOurs(const SString& name) {
  const SString ending = ProcessIdString() + "@" + gstr_HostName;
  const std::string_view view = name.View();
  if (!view.ends_with(ending.View()) || view == ending.View()) {
    return false;
  }
  const char before = view[view.size() - ending.View().size() - 1];
  return before >= 'A' && before <= 'Z';
}

}  // namespace

SPopMailbox::SPopMailbox(const SString& directory) : directory_(directory) {
  buffer_.reserve(2 * kPiece);
}

bool SPopMailbox::Make() {
  for (std::size_t slash = directory_.View().find(
           '/', static_cast<std::size_t>(gstr_MailboxDir.Length()));
       slash != std::string_view::npos;
       slash = directory_.View().find('/', slash + 1)) {
    const SString level(directory_.View().substr(0, slash));
    if (MakeDir(level, kDirectoryMode)) {
      made_directories_.push_back(level);
    } else if (errno != EEXIST) {
      return false;
    }
  }
  if (!MakeDir(directory_, kDirectoryMode)) {
    return false;
  }
  made_directories_.push_back(directory_);
  directory_file_ =
      SDescriptor(open(directory_, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory_file_.IsOpen();
}

bool SPopMailbox::FailMessage() {
  failed_message_ = directory_ + "/" + message_;
  return false;
}

bool SPopMailbox::BeginMessage() {
  if (!EndMessage()) {
    return false;
  }
  message_ = NewMessageID(gstr_HostName);
  message_file_ = SDescriptor(openat(
      directory_file_.Get(), message_,
      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMessageMode));
  return message_file_.IsOpen() || FailMessage();
}

bool SPopMailbox::Write(std::string_view bytes) {
  buffer_.append(bytes);
  return buffer_.size() < kPiece || Flush();
}

bool SPopMailbox::Flush() {
  const bool flushed = WriteAll(message_file_.Get(), buffer_);
  buffer_.clear();
  return flushed || FailMessage();
}

bool SPopMailbox::EndMessage() {
  if (!message_file_.IsOpen()) {
    return true;
  }
  return Flush() && (message_file_.Close() || FailMessage());
}

bool SPopMailbox::Sync() {
  if (message_file_.IsOpen() && !Flush()) {
    return false;
  }
  // One call for any number of messages, and for the account itself where it
  // lies on the same file system.
  if (syncfs(directory_file_.Get()) != 0 || fsync(directory_file_.Get()) != 0) {
    return false;
  }
  for (const SString& made : made_directories_) {
    if (!SyncDirectoryOf(made)) {
      return false;
    }
  }
  return true;
}

void SPopMailbox::Undo() {
  const int former_errno = errno;
  message_file_ = SDescriptor();
  for (const SString& name : ReadDir(directory_)) {
    if (directory_file_.IsOpen() && IsOurs(name)) {
      unlinkat(directory_file_.Get(), name, 0);
    }
  }
  // A level in which somebody else put something stays.
  while (!made_directories_.empty()) {
    rmdir(made_directories_.back());
    made_directories_.pop_back();
  }
  errno = former_errno;
}
