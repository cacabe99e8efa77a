#include "accounts/PopMailbox.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Spool.h"

namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kMessageMode = 0664;

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

SPopMailbox::SPopMailbox(const SString& directory, const SString& login)
    : directory_(directory),
      unfinished_(directory + ".unfinished." + login),
      finished_mark_(directory + ".finished." + login) {}

// Filling

bool SPopMailbox::OpenDirectory(const SString& directory) {
  directory_file_ = SDescriptor(
      open(directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return directory_file_.IsOpen();
}

bool SPopMailbox::Make() {
  if (PathTaken(directory_)) {
    errno = EEXIST;
    return false;
  }
  for (std::size_t slash = directory_.View().find(
           '/', static_cast<std::size_t>(gstr_MailboxDir.Length()));
       slash != std::string_view::npos;
       slash = directory_.View().find('/', slash + 1)) {
    const SString level(directory_.View().substr(0, slash));
    if (MakeDir(level, kDirectoryMode)) {
      made_levels_.push_back(level);
    } else if (errno != EEXIST) {
      return false;
    }
  }
  Forget();
  is_made_ = MakeDir(unfinished_, kDirectoryMode);
  return is_made_ && OpenDirectory(unfinished_);
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
  return WriteAll(message_file_.Get(), bytes) || FailMessage();
}

bool SPopMailbox::EndMessage() {
  return !message_file_.IsOpen() || message_file_.Close() || FailMessage();
}

bool SPopMailbox::Sync() {
  // One call for any number of messages, and for the account itself where it
  // lies on the same file system.
  return syncfs(directory_file_.Get()) == 0;
}

// Moving to the place

bool SPopMailbox::MoveToPlace() {
  if (Rename(unfinished_, directory_)) {
    return SyncDirectoryOf(directory_);
  }
  if (errno != ENOTEMPTY && errno != EEXIST) {
    return false;
  }
  // The server has delivered the first new mail meanwhile.
  for (const SString& name : ReadDir(unfinished_)) {
    if (!Rename(unfinished_ + "/" + name, directory_ + "/" + name)) {
      return false;
    }
  }
  return OpenDirectory(directory_) && fsync(directory_file_.Get()) == 0 &&
         rmdir(unfinished_) == 0;
}

bool SPopMailbox::Publish(const SString& version) {
  // Unlike a file, a link is there with its text or not at all.
  return symlink(version, finished_mark_) == 0 && MoveToPlace();
}

void SPopMailbox::Undo() {
  const int former_errno = errno;
  message_file_ = SDescriptor();
  if (is_made_) {
    for (const SString& place : {unfinished_, directory_}) {
      for (const SString& name : ReadDir(place)) {
        if (IsOurs(name)) {
          RemoveFile(place + "/" + name);
        }
      }
      rmdir(place);
    }
    RemoveFile(finished_mark_);
  }
  // A level in which somebody else put something stays.
  while (!made_levels_.empty()) {
    rmdir(made_levels_.back());
    made_levels_.pop_back();
  }
  errno = former_errno;
}

// What a killed process left

bool SPopMailbox::HasLeftOver() const {
  return PathTaken(unfinished_) || PathTaken(finished_mark_);
}

SString SPopMailbox::LeftVersion() const {
  char text[PATH_MAX];
  const ssize_t length = readlink(finished_mark_, text, sizeof text);
  return length < 0
             ? SString()
             : SString(std::string_view(text, static_cast<size_t>(length)));
}

bool SPopMailbox::PublishLeftOver() {
  return !PathTaken(unfinished_) || MoveToPlace();
}

void SPopMailbox::Forget() {
  RemoveFile(finished_mark_);
  for (const SString& name : ReadDir(unfinished_)) {
    RemoveFile(unfinished_ + "/" + name);
  }
  rmdir(unfinished_);
}
