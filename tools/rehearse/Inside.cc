// Init of a rehearsal's process name space.
//
// It dies with the process that made it, and with it everything in its name
// spaces: processes, mounts, the files written, sockets.  Nothing is left to be
// cleaned up, whatever ended the rehearsal.

#include "tools/rehearse/Inside.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cstdlib>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/Channel.h"
#include "tools/rehearse/Dialogue.h"
#include "tools/rehearse/Enquiry.h"
#include "tools/rehearse/Report.h"

namespace {

// Rights of root that reach beyond the name spaces.
constexpr std::array<int, 15> kHostCapabilities = {
    CAP_SYS_MODULE, CAP_SYS_RAWIO,     CAP_SYS_BOOT,          CAP_SYS_TIME,
    CAP_MKNOD,      CAP_SYSLOG,        CAP_WAKE_ALARM,        CAP_BLOCK_SUSPEND,
    CAP_PERFMON,    CAP_BPF,           CAP_MAC_ADMIN,         CAP_MAC_OVERRIDE,
    CAP_SYS_PACCT,  CAP_AUDIT_CONTROL, CAP_CHECKPOINT_RESTORE};
// Rights that would let a program leave them on purpose.
constexpr std::array<int, 2> kNameSpaceCapabilities = {CAP_SYS_ADMIN,
                                                       CAP_SYS_PTRACE};

// How soon a program that waits for an answer is noticed.
constexpr int kAskedMilliseconds = 20;

bool DropCapabilities(bool privileged) {
  bool dropped = true;
  for (const int capability : kHostCapabilities) {
    dropped &= prctl(PR_CAPBSET_DROP, capability) == 0 || errno == EINVAL;
  }
  for (const int capability : kNameSpaceCapabilities) {
    dropped &= privileged || prctl(PR_CAPBSET_DROP, capability) == 0;
  }
  return dropped;
}

bool RaiseLoopback() {
  const Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  if (ioctl(socket_fd.Get(), SIOCGIFFLAGS, &request) != 0) {
    return false;
  }
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  return ioctl(socket_fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

std::vector<char*> ArgumentsOf(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

class Init {
 public:
  explicit Init(const Start& start)
      : start_(start), options_(*start.options), changes_(root_) {}

  void Run() {
    if (Problem problem = SetUp(); !problem.empty()) {
      (void)Send(start_.channel, Message::Kind::kFailed, problem);
      return;
    }
    Mark();
    (void)Send(start_.channel, Message::Kind::kReady, "");
    if (const int error = StartProgram(); error != 0) {
      (void)Send(start_.channel, Message::Kind::kNotFound,
                 std::to_string(error));
      return;
    }
    while (!program_ended_) {
      Wait();
    }
    if (dialogue_.Fd() >= 0) {
      dialogue_.Show();
    }
    TakeTerminal(getpgrp());
    Report();
    // The other half may still save files.
    Message message;
    while (Receive(start_.channel, message) &&
           message.kind != Message::Kind::kFinish) {
    }
  }

 private:
  Problem SetUp();
  Problem Prepare();
  int StartProgram();
  [[noreturn]] void BecomeProgram(int to_init);
  void Wait();
  void Reap();
  void Obey();
  void TakeTerminal(pid_t group) const;
  void Mark();
  Findings Find();
  void Report();

  const Start& start_;
  const Options& options_;
  Root root_;
  Changes changes_;
  SignalWatch signals_;
  Enquiry enquiry_;
  Dialogue dialogue_;
  Descriptor children_;  // tells of processes that ended or stopped
  std::map<pid_t, Process> processes_;  // at the baseline
  std::vector<Listener> listeners_;     // at the baseline
  pid_t program_ = 0;
  bool program_ended_ = false;
  int program_status_ = 0;
};

Problem Init::SetUp() {
  // Ordinary signals would end init when they come from its terminal.
  for (const int signal :
       {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTTOU, SIGTTIN, SIGTSTP, SIGPIPE}) {
    ::signal(signal, SIG_IGN);
  }
  sigset_t chld;
  sigemptyset(&chld);
  sigaddset(&chld, SIGCHLD);
  sigprocmask(SIG_BLOCK, &chld, nullptr);
  children_ = Descriptor(signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK));
  // Nobody in the rehearsal may look into this process.
  if (!children_.IsOpen() || prctl(PR_SET_DUMPABLE, 0) != 0) {
    return ProblemOf("can't watch processes");
  }
  if (!options_.answers.empty()) {
    Problem problem = dialogue_.ReadAnswers(options_.answers);
    if (!problem.empty()) {
      return problem;
    }
  }
  if (Problem problem = BuildRoot(options_.root, root_); !problem.empty()) {
    return problem + " (a container may withhold that); nothing was run";
  }
  if (!RaiseLoopback()) {
    return ProblemOf("can't raise the loopback interface");
  }
  if (!enquiry_.Open()) {
    return ProblemOf("can't listen for enquiries");
  }
  if (chdir(start_.directory.c_str()) != 0) {
    (void)chdir("/");  // the rehearsed tree lacks it
  }
  if (!options_.answers.empty()) {
    Problem problem = dialogue_.OpenTerminal();
    if (!problem.empty()) {
      return problem;
    }
  }
  return Prepare();
}

Problem Init::Prepare() {
  if (options_.prepare.empty()) {
    return "";
  }
  const pid_t child = fork();
  if (child == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTTOU, SIGTTIN,
                             SIGTSTP, SIGPIPE}) {
      ::signal(signal, SIG_DFL);
    }
    setpgid(0, 0);
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(2, 1);
    execl("/bin/sh", "sh", "-c", options_.prepare.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    return ProblemOf("can't run the preparation");
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return "the preparation failed, status " +
           std::to_string(WIFEXITED(status) ? WEXITSTATUS(status)
                                            : 128 + WTERMSIG(status));
  }
  return "";
}

// Returns 0 once the program runs, else the errno of the failure.
int Init::StartProgram() {
  std::array<int, 2> ends = {};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return errno;
  }
  const Descriptor to_child(ends[0]);
  Descriptor to_init(ends[1]);
  program_ = fork();
  if (program_ == 0) {
    BecomeProgram(to_init.Get());
  }
  if (program_ < 0) {
    return errno;
  }
  if (dialogue_.Fd() < 0) {
    setpgid(program_, program_);
    TakeTerminal(program_);
  }
  to_init.Close();
  // The child names the descriptor of its announcements and waits until it has
  // been taken; then it tells an errno or, by running the program, nothing.
  int answer = -1;
  if (read(to_child.Get(), &answer, sizeof answer) != sizeof answer) {
    return ECHILD;
  }
  if (answer >= 0 && !signals_.Take(program_, answer)) {
    return errno;
  }
  (void)!write(to_child.Get(), &answer, sizeof answer);
  return read(to_child.Get(), &answer, sizeof answer) == sizeof answer ? answer
                                                                       : 0;
}

void Init::BecomeProgram(int to_init) {
  if (dialogue_.Fd() < 0) {
    setpgid(0, 0);
  }
  int answer = SignalWatch::Announce();
  const int announcements = answer;
  if (write(to_init, &answer, sizeof answer) != sizeof answer ||
      read(to_init, &answer, sizeof answer) != sizeof answer) {
    _exit(127);
  }
  close(announcements);
  for (const int signal :
       {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTTOU, SIGTTIN, SIGTSTP, SIGPIPE}) {
    ::signal(signal, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const bool has_console = dialogue_.Fd() < 0 || dialogue_.UseTerminal();
  if (has_console && DropCapabilities(options_.privileged)) {
    execvp(options_.program[0].c_str(), ArgumentsOf(options_.program).data());
  }
  const int error = errno;
  (void)!write(to_init, &error, sizeof error);
  _exit(127);
}

void Init::TakeTerminal(pid_t group) const {
  if (start_.terminal >= 0) {
    (void)tcsetpgrp(start_.terminal, group);
  }
}

void Init::Wait() {
  std::array<pollfd, 5> sources = {{{children_.Get(), POLLIN, 0},
                                    {start_.channel, POLLIN, 0},
                                    {signals_.Fd(), POLLIN, 0},
                                    {enquiry_.Fd(), POLLIN, 0},
                                    {dialogue_.Fd(), POLLIN, 0}}};
  const int patience = dialogue_.Fd() < 0 ? -1 : kAskedMilliseconds;
  const int ready = poll(sources.data(), sources.size(), patience);
  if (ready == 0) {
    dialogue_.AnswerIfAsked();
  }
  if (ready <= 0) {
    return;
  }
  if ((sources[4].revents & POLLIN) != 0) {
    dialogue_.Show();
  }
  if (sources[2].revents != 0) {
    signals_.Note();
  }
  if (sources[0].revents != 0) {
    Reap();
  }
  if (sources[1].revents != 0) {
    Obey();
  }
  if (sources[3].revents != 0) {
    enquiry_.Answer([this](const std::string& request) {
      if (request == "mark") {
        Mark();
        return std::string();
      }
      if (request == "changes") {
        return ReportAsText(Find());
      }
      if (request == "changes-json") {
        return ReportAsJson(Find());
      }
      if (request.starts_with("before ")) {
        return changes_.Before(request.substr(7)).value_or("");
      }
      return std::string();
    });
  }
}

void Init::Reap() {
  signalfd_siginfo ignored = {};
  while (read(children_.Get(), &ignored, sizeof ignored) > 0) {
  }
  int status = 0;
  for (pid_t id = 0; (id = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0;) {
    if (id != program_) {
      continue;
    }
    if (WIFSTOPPED(status)) {
      TakeTerminal(getpgrp());
      (void)Send(start_.channel, Message::Kind::kStopped,
                 std::to_string(WSTOPSIG(status)));
    } else {
      program_ended_ = true;
      program_status_ = status;
    }
  }
}

void Init::Obey() {
  Message message;
  if (!Receive(start_.channel, message)) {
    program_ended_ = true;
    return;
  }
  if (message.kind == Message::Kind::kSignal) {
    const int signal = std::atoi(message.text.c_str());
    // Those of a keyboard reach the whole foreground job.
    const bool of_keyboard = signal == SIGINT || signal == SIGQUIT;
    kill(of_keyboard ? -program_ : program_, signal);
  } else if (message.kind == Message::Kind::kContinue) {
    if (message.text == "foreground") {
      TakeTerminal(program_);
    }
    kill(-program_, SIGCONT);
  }
}

void Init::Mark() {
  changes_.Mark();
  signals_.Forget();
  processes_ = ListProcesses();
  listeners_ = ListListeners();
}

Findings Init::Find() {
  Findings findings;
  findings.files = changes_.Compare();
  findings.signalled = signals_.Noted();
  findings.read_only = root_.read_only;
  const auto now = ListProcesses();
  for (const auto& [id, process] : now) {
    const auto former = processes_.find(id);
    if (id != program_ &&
        (former == processes_.end() || former->second.start != process.start)) {
      findings.started.push_back(process);
    }
  }
  for (const auto& [id, process] : processes_) {
    const auto present = now.find(id);
    if (present == now.end() || present->second.start != process.start) {
      findings.ended.push_back(process);
    }
  }
  findings.listening = ListListeners();
  for (const Listener& listener : listeners_) {
    if (std::find(findings.listening.begin(), findings.listening.end(),
                  listener) == findings.listening.end()) {
      findings.no_longer_listening.push_back(listener);
    }
  }
  return findings;
}

void Init::Report() {
  const Findings findings = Find();
  std::string paths;
  for (const Change& change : findings.files) {
    if (change.after) {
      paths += change.path + '\0';
    }
  }
  const bool json = !options_.json.empty();
  (void)(Send(start_.channel,
              json ? Message::Kind::kJson : Message::Kind::kText,
              json ? ReportAsJson(findings) : ReportAsText(findings)) &&
         (options_.keep.empty() ||
          Send(start_.channel, Message::Kind::kKeep, paths)) &&
         Send(start_.channel, Message::Kind::kEnded,
              std::to_string(program_status_)));
}

}  // namespace

void RunInside(const Start& start) {
  Init(start).Run();
}
