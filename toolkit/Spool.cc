#include "toolkit/Spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "toolkit/Environment.h"
#include "toolkit/Files.h"
#include "toolkit/Signals.h"
#include "toolkit/Times.h"

namespace {

constexpr mode_t kControlMode = 0660;
constexpr mode_t kMessageMode = 0664;
constexpr int kLetters = 26;

SString ControlDirectory() {
  return GetEnv("Vellumcraft") + "/control/";
}

SString MessagesDirectory() {
  return GetEnv("Vellumcraft") + "/messages/";
}

// A line feed would begin another field.
SString OneLine(const SString& value) {
  std::string line = value.Std();
  for (char& c : line) {
    if (c == '\n') {
      c = ' ';
    }
  }
  return SString(std::move(line));
}

bool WriteAndSync(SDescriptor file, const SString& content) {
  return WriteAll(file.Get(), content.View()) && fsync(file.Get()) == 0 &&
         file.Close();
}

// A file of exactly that mode under a name that nothing has yet.
SDescriptor CreateControlFile(const SString& path) {
  SDescriptor file(
      open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.IsOpen() && fchmod(file.Get(), kControlMode) != 0) {
    RemoveFile(path);
    return SDescriptor();
  }
  return file;
}

// A new or emptied regular file; whatever else has the name is left alone.
SDescriptor OpenMessageFile(const SString& path) {
  SDescriptor file(open(
      path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
      kMessageMode));
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
    return SDescriptor();
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return SDescriptor();
  }
  return file;
}

}  // namespace

SControl::SControl(const SString& name)
    : path_(name.Index('/', 0) >= 0 ? name
                                    : ControlDirectory() + name + "-Control") {}

void SControl::Set(const SString& field, const SStringList& values) {
  for (int i = 0; i < fields_.Count(); ++i) {
    if (fields_.Get(i) == field) {
      values_[static_cast<std::size_t>(i)] = values;
      return;
    }
  }
  fields_.Push(field);
  values_.push_back(values);
}

SString SControl::Path() const {
  return path_;
}

bool SControl::Write() const {
  SString content;
  for (int i = 0; i < fields_.Count(); ++i) {
    const SStringList& values = values_[static_cast<std::size_t>(i)];
    for (const SString& value : values) {
      content += fields_.Get(i) + " " + OneLine(value) + "\n";
    }
    if (values.IsEmpty()) {
      content += fields_.Get(i) + "\n";
    }
  }
  const SHoldSignals until_written;
  // The server takes up what ends in "-Control": the name comes last.
  const SString unfinished = path_ + ".tmp." + ProcessIdString();
  RemoveFile(unfinished);
  SDescriptor file = CreateControlFile(unfinished);
  if (!file.IsOpen()) {
    return false;
  }
  if (!WriteAndSync(std::move(file), content) || !Rename(unfinished, path_)) {
    const int cause = errno;
    RemoveFile(unfinished);
    errno = cause;
    return false;
  }
  return SyncDirectoryOf(path_);
}

bool QueueMessage(const SString& name, const SControl& control,
                  const SStringList& header, const SStringList& body) {
  const SString header_path = MessagesDirectory() + name + "-Header";
  const SString body_path = MessagesDirectory() + name + "-Body";
  const SHoldSignals until_queued;
  bool queued = control.Write();
  if (queued) {
    SDescriptor header_file = OpenMessageFile(header_path);
    SDescriptor body_file = OpenMessageFile(body_path);
    queued =
        header_file.IsOpen() && body_file.IsOpen() &&
        WriteAndSync(std::move(header_file), header.Join("\r\n") + "\r\n") &&
        WriteAndSync(std::move(body_file), body.Join("\r\n")) &&
        SyncDirectoryOf(body_path);
  }
  if (!queued) {
    const int cause = errno;
    RemoveFile(control.Path());
    RemoveFile(header_path);
    RemoveFile(body_path);
    errno = cause;
  }
  return queued;
}

SString NewMessageID(const SString& host_name) {
  static int counter = 1;
  const int n = counter - 1;
  ++counter;
  SString letters;
  for (int place = kLetters * kLetters * kLetters; place > 0;
       place /= kLetters) {
    const char letter = static_cast<char>('A' + n / place % kLetters);
    if (place < kLetters * kLetters * kLetters || letter != 'A') {
      letters += letter;
    }
  }
  return MessageIdDate() + "." + letters + ProcessIdString() + "@" + host_name;
}
