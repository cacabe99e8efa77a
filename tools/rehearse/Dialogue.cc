#include "tools/rehearse/Dialogue.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>

#include "tools/rehearse/Processes.h"

namespace {

constexpr int kQuietMilliseconds = 10;

bool HasOutput(int fd) {
  pollfd output = {fd, POLLIN, 0};
  return poll(&output, 1, kQuietMilliseconds) > 0 &&
         (output.revents & POLLIN) != 0;
}

// A terminal shows each line end as two bytes.
std::string WithoutReturns(std::string text) {
  for (auto at = text.find("\r\n"); at != std::string::npos;
       at = text.find("\r\n", at)) {
    text.erase(at, 1);
  }
  return text;
}

}  // namespace

Problem Dialogue::ReadAnswers(const std::string& file) {
  const SDescriptor answers(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  if (!answers.IsOpen() || !ReadToEnd(answers.Get(), &content)) {
    return ProblemOf(file);
  }
  std::istringstream lines(content);
  for (std::string line; std::getline(lines, line);) {
    const auto tab = line.find('\t');
    if (line.empty() || line.starts_with('#')) {
      continue;
    }
    if (tab == std::string::npos) {
      return std::string(file)
          .append(": no tab between question and answer: ")
          .append(line);
    }
    answers_.emplace_back(line.substr(0, tab), line.substr(tab + 1));
  }
  return "";
}

Problem Dialogue::OpenTerminal() {
  terminal_ = SDescriptor(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::array<char, 64> name = {};
  if (!terminal_.IsOpen() || grantpt(terminal_.Get()) != 0 ||
      unlockpt(terminal_.Get()) != 0 ||
      ptsname_r(terminal_.Get(), name.data(), name.size()) != 0) {
    return ProblemOf("can't make a terminal");
  }
  terminal_name_ = name.data();
  return "";
}

bool Dialogue::UseTerminal() const {
  setsid();
  const int fd = open(terminal_name_.c_str(), O_RDWR);
  const bool in_use = fd >= 0 && ioctl(fd, TIOCSCTTY, 0) == 0 &&
                      dup2(fd, 0) == 0 && dup2(fd, 1) == 1 && dup2(fd, 2) == 2;
  if (fd > 2) {
    close(fd);
  }
  return in_use;
}

void Dialogue::Show() {
  std::array<char, 4096> buffer;
  std::string shown;
  while (HasOutput(terminal_.Get())) {
    const ssize_t n = read(terminal_.Get(), buffer.data(), buffer.size());
    if (n <= 0) {
      break;
    }
    shown.append(buffer.data(), static_cast<std::size_t>(n));
  }
  shown = WithoutReturns(shown);
  question_ += shown;
  (void)WriteAll(1, shown);  // the program goes on without spectators
}

// One of the terminal's foreground processes reads it.
bool Dialogue::IsAsked() {
  static const std::string reading = std::to_string(SYS_read) + " 0x0 ";
  const pid_t foreground = tcgetpgrp(terminal_.Get());
  for (const auto& [id, process] : ListProcesses()) {
    if (getpgid(id) != foreground ||
        !ReadFile(ProcessFile(id, "syscall")).starts_with(reading)) {
      continue;
    }
    // It took the former answer if it went to sleep since then.
    std::string sleeps = std::to_string(id);
    sleeps += ' ';
    sleeps += ProcessStatus(id, "voluntary_ctxt_switches");
    if (sleeps != sleeps_) {
      sleeps_ = sleeps;
      return true;
    }
  }
  return false;
}

std::string Dialogue::AnswerTo(const std::string& question) const {
  std::string answer;
  std::size_t last = 0;
  for (const auto& [part, text] : answers_) {
    const auto at = question.rfind(part);
    if (at != std::string::npos && at >= last) {
      last = at;
      answer = text;
    }
  }
  return answer;
}

void Dialogue::AnswerIfAsked() {
  if (!IsAsked()) {
    return;
  }
  Show();  // what it wrote last arrives a moment after it waits
  const std::string answer = AnswerTo(question_) + "\n";
  question_.clear();
  (void)WriteAll(terminal_.Get(), answer);
}
