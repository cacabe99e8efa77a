#include "accounts/UserFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "console/Format.h"
#include "driver/Settings.h"
#include "toolkit/Files.h"
#include "toolkit/Times.h"

namespace {

constexpr std::size_t kMostRead = 1U << 20;
constexpr int kNoticeWidth = 60;
constexpr mode_t kNoticeMode = 0644;

// Up to a megabyte of a regular file.  It may have become a FIFO since the
// first look: nothing here may wait for one.
std::string ReadBeginning(const SString& path) {
  std::string content;
  if (!IsRegular(path)) {
    return content;
  }
  const SDescriptor file(
      open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0 ||
      !S_ISREG(status.st_mode)) {
    return content;
  }
  content.resize(kMostRead);
  std::size_t filled = 0;
  while (filled < kMostRead) {
    const ssize_t n =
        read(file.Get(), content.data() + filled, kMostRead - filled);
    if (n > 0) {
      filled += static_cast<std::size_t>(n);
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  content.resize(filled);
  return content;
}

SStringList LinesOf(std::string_view content) {
  SStringList lines;
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    std::string_view line = content.substr(0, end);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    lines.Push(SString(line));
    content.remove_prefix(end == std::string_view::npos ? content.size()
                                                        : end + 1);
  }
  while (!lines.IsEmpty() && lines.Get(lines.Count() - 1).IsEmpty()) {
    lines.Pop();
  }
  return lines;
}

void AppendFile(const SString& path, const char* heading, const char* rule,
                SStringList* finger_lines) {
  const SStringList lines = LinesOf(ReadBeginning(path));
  if (!lines.IsEmpty()) {
    finger_lines->Push(heading);
    finger_lines->Push(rule);
    finger_lines->Push(lines);
    finger_lines->Push("");
  }
}

SString Notice() {
  return "##### Important Notice #####\nDate: " + RFC822Date() + "\n" +
         Format(
             "A new mail system, named Vellumcraft, has been installed on " +
                 gstr_HostName +
                 ". One effect of this transition is that .forward files are no longer used for mail forwarding -- please contact your postmaster or system administrator for more information.",
             kNoticeWidth, 0, "\n") +
         "\n";
}

}  // namespace

SStringList ReadFingerLines(const SCandidate& user) {
  SStringList lines;
  AppendFile(user.project, "Project:", "-------", &lines);
  AppendFile(user.plan, "Plan:", "----", &lines);
  return lines;
}

bool HasForward(const SCandidate& user) {
  return IsRegular(user.forward);
}

void LeaveForwardNotice(const SCandidate& user) {
  // What is there stays, and what can't be made is no loss.
  static_cast<void>(
      CreateWholeFile(user.forward + ".NOTICE", kNoticeMode, Notice().View()));
}
