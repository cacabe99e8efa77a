// rehearse: runs a program on a copy-on-write view of this host and lists what
// it did.
//
// This half stays on the host: it makes the name spaces, keeps the terminal's
// job control in order, writes the report, and ends with the program's status.
// Its first child is init in the name spaces and ends with it, however it ends.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <sstream>

#include "tools/rehearse/Channel.h"
#include "tools/rehearse/Descendants.h"
#include "tools/rehearse/Enquiry.h"
#include "tools/rehearse/Inside.h"
#include "tools/rehearse/Keep.h"

namespace {

// As env(1) and timeout(1) have it.
constexpr int kNotRehearsed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

constexpr std::array<int, 4> kPassedOn = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

int Fail(const Problem& problem) {
  (void)WriteAll(2, "rehearse: " + problem + "\n");
  return kNotRehearsed;
}

// A program that nobody waits for may not live on: the kernel kills init with
// its parent, even when that is killed by SIGKILL.  On this host, where the end
// of init doesn't end the others, it lives on to end them.
pid_t StartInside(const Start& start, int own_channel) {
  const bool this_host = start.options->this_host;
  const int own = this_host ? 0 : CLONE_NEWPID | CLONE_NEWNET;
  const pid_t child = static_cast<pid_t>(syscall(
      SYS_clone, CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | own | SIGCHLD,
      nullptr, nullptr, nullptr, 0));
  if (child != 0) {
    return child;
  }
  close(own_channel);
  if (!this_host) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
  }
  // The parent may have died before that: then its end of the channel is shut.
  pollfd parent = {start.channel, POLLIN, 0};
  if (poll(&parent, 1, 0) == 0) {
    RunInside(start);
  }
  _exit(0);
}

int ExitStatusOf(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class Outside {
 public:
  Outside(const Options& options, const Start& start, int channel, pid_t init,
          int json)
      : options_(options),
        channel_(channel),
        terminal_(start.terminal),
        init_(init),
        json_(json) {}

  int Run();

 private:
  bool Obey(const Message& message);
  void PassOn(int signals);
  void Keep(const std::string& paths);
  void Stop(int signal);
  [[nodiscard]] bool InForeground() const {
    return terminal_ >= 0 && tcgetpgrp(terminal_) == getpgrp();
  }

  const Options& options_;
  const int channel_;
  const int terminal_;
  const pid_t init_;
  const int json_;
  bool ready_ = false;
  int status_ = kNotRehearsed;
};

int Outside::Run() {
  sigset_t passed_on;
  sigemptyset(&passed_on);
  for (const int signal : kPassedOn) {
    sigaddset(&passed_on, signal);
  }
  sigprocmask(SIG_BLOCK, &passed_on, nullptr);
  const SDescriptor signals(signalfd(-1, &passed_on, SFD_CLOEXEC));
  for (bool going_on = true; going_on;) {
    std::array<pollfd, 2> sources = {
        {{channel_, POLLIN, 0}, {signals.Get(), POLLIN, 0}}};
    if (poll(sources.data(), sources.size(), -1) < 0) {
      continue;
    }
    if (sources[1].revents != 0) {
      PassOn(signals.Get());
    }
    if (sources[0].revents != 0) {
      Message message;
      if (!Receive(channel_, message)) {
        return status_ == kNotRehearsed
                   ? Fail("the rehearsal was ended from outside")
                   : status_;
      }
      going_on = Obey(message);
    }
  }
  return status_;
}

// The program decides what a signal does; before it runs, nothing is lost.
void Outside::PassOn(int signals) {
  signalfd_siginfo signal = {};
  if (read(signals, &signal, sizeof signal) != sizeof signal) {
    return;
  }
  if (ready_) {
    (void)Send(channel_, Message::Kind::kSignal,
               std::to_string(signal.ssi_signo));
  } else {
    status_ = 128 + static_cast<int>(signal.ssi_signo);
    kill(init_, SIGKILL);
  }
}

// Init's root directory is the rehearsal's, and can be reached from here.
void Outside::Keep(const std::string& paths) {
  std::vector<std::string> list;
  std::istringstream words(paths);
  for (std::string path; std::getline(words, path, '\0');) {
    list.push_back(path);
  }
  const std::string root = "/proc/" + std::to_string(init_) + "/root";
  const SDescriptor from(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  Problem problem = from.IsOpen() ? KeepFiles(list, from.Get(), options_.keep)
                                  : ProblemOf(root);
  if (!problem.empty()) {
    (void)Fail(problem);
  }
}

// Returns whether more is to come.
bool Outside::Obey(const Message& message) {
  switch (message.kind) {
    case Message::Kind::kFailed:
      status_ = Fail(message.text);
      return false;
    case Message::Kind::kNotFound: {
      errno = std::atoi(message.text.c_str());
      status_ = errno == ENOENT ? kNotFound : kNotExecutable;
      (void)Fail(ProblemOf("can't run " + options_.program[0]));
      return false;
    }
    case Message::Kind::kStopped:
      Stop(std::atoi(message.text.c_str()));
      return true;
    case Message::Kind::kText:
      (void)WriteAll(2, "\n" + message.text);
      return true;
    case Message::Kind::kJson:
      if (!WriteAll(json_, message.text)) {
        (void)Fail(ProblemOf("can't write " + options_.json));
      }
      return true;
    case Message::Kind::kReady:
      ready_ = true;
      return true;
    case Message::Kind::kKeep:
      Keep(message.text);
      return true;
    case Message::Kind::kEnded:
      status_ = ExitStatusOf(std::atoi(message.text.c_str()));
      (void)Send(channel_, Message::Kind::kFinish, "");
      return false;
    default:
      return true;
  }
}

// Stops like the program did, so that the shell that started us notices.
void Outside::Stop(int signal) {
  const bool wants_terminal = signal == SIGTTIN || signal == SIGTTOU;
  if (!(wants_terminal && InForeground())) {
    kill(0, SIGSTOP);
  }
  (void)Send(channel_, Message::Kind::kContinue,
             InForeground() ? "foreground" : "background");
}

// The terminal that the program is to have, if this is the foreground job.
int TerminalOf() {
  if (isatty(0) && tcgetpgrp(0) == getpgrp()) {
    return 0;
  }
  return -1;
}

int Rehearse(const Options& options) {
  if (geteuid() != 0) {
    return Fail(
        "must be run by root, to make name spaces and overlays; "
        "nothing was run");
  }
  std::array<char, PATH_MAX> path = {};
  Start start;
  start.options = &options;
  start.directory =
      getcwd(path.data(), path.size()) == nullptr ? "/" : path.data();
  Options resolved = options;
  if (realpath(options.root.c_str(), path.data()) == nullptr) {
    return Fail(ProblemOf(options.root));
  }
  resolved.root = path.data();
  start.options = &resolved;
  SDescriptor json;
  if (!options.json.empty()) {
    json = SDescriptor(open(options.json.c_str(),
                            O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!json.IsOpen()) {
      return Fail(ProblemOf(options.json));
    }
  }
  std::array<int, 2> ends = {};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return Fail(ProblemOf("can't make a socket"));
  }
  const SDescriptor own(ends[0]);
  SDescriptor other(ends[1]);
  start.channel = other.Get();
  start.terminal = TerminalOf();
  if (options.this_host) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
  }
  const pid_t child = StartInside(start, own.Get());
  if (child < 0) {
    return Fail(
        ProblemOf("needs the right to make name spaces (a container "
                  "may lack it); nothing was run"));
  }
  other = SDescriptor();
  const int status =
      Outside(resolved, start, own.Get(), child, json.Get()).Run();
  // Init is gone when everything in its name spaces is.
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (options.this_host) {
    EndDescendants();  // there are some only if init was killed
  }
  return status;
}

int AskInside(const std::string& question) {
  std::string answer;
  if (Problem problem = Ask(question, answer); !problem.empty()) {
    return Fail(problem);
  }
  return WriteAll(1, answer) ? 0 : kNotRehearsed;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (Problem problem = ReadOptions(argc, argv, options); !problem.empty()) {
    return Fail(problem);
  }
  switch (options.action) {
    case Options::Action::kShowHelp:
      return WriteAll(1, pz_Usage) ? 0 : kNotRehearsed;
    case Options::Action::kShowChanges:
      return AskInside(options.json.empty() ? "changes" : "changes-json");
    case Options::Action::kMark:
      return AskInside("mark");
    case Options::Action::kShowBefore:
      return AskInside("before " + options.before);
    case Options::Action::kRun:
      return Rehearse(options);
  }
}
