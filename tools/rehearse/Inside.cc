// Init of a rehearsal's process name space.
//
// It dies with the process that made it, and with it everything in its name
// spaces: processes, mounts, the files written, sockets.  Nothing is left to be
// cleaned up, whatever ended the rehearsal.

#include "tools/rehearse/Inside.h"

#include <fcntl.h>
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
#include "tools/rehearse/Confinement.h"
#include "tools/rehearse/Descendants.h"
#include "tools/rehearse/Dialogue.h"
#include "tools/rehearse/Enquiry.h"
#include "tools/rehearse/HostGuard.h"
#include "tools/rehearse/HostReport.h"
#include "tools/rehearse/Program.h"
#include "tools/rehearse/Report.h"

namespace {

// How soon a program that waits for an answer is noticed.
constexpr int kAskedMilliseconds = 20;

bool RaiseLoopback() {
  const SDescriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  if (ioctl(socket_fd.Get(), SIOCGIFFLAGS, &request) != 0) {
    return false;
  }
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  return ioctl(socket_fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

class Init {
 public:
  explicit Init(const Start& start)
      : start_(start),
        options_(*start.options),
        changes_(root_),
        watch_(start.options->this_host ? static_cast<Watch&>(guard_)
                                        : static_cast<Watch&>(signals_)) {}

  void Run() {
    if (Problem problem = SetUp(); !problem.empty()) {
      (void)Send(start_.channel, Message::Kind::kFailed, problem);
      return;
    }
    Mark();
    (void)Send(start_.channel, Message::Kind::kReady, "");
    const StartedProgram started =
        StartProgram(options_, dialogue_, start_.terminal, watch_);
    if (started.failure) {
      (void)Send(start_.channel, started.failure->kind, started.failure->text);
      return;
    }
    program_ = started.id;
    while (!program_ended_) {
      Wait();
    }
    if (dialogue_.Fd() >= 0) {
      dialogue_.Show();
    }
    TakeTerminal(home_group_);
    if (options_.this_host) {
      left_running_ = ListDescendants();
      EndDescendants();  // their files are final now
    }
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
  void Wait();
  void Reap();
  void Obey();
  void TakeTerminal(pid_t group) const;
  void Mark();
  Findings Find();
  HostFindings FindOnThisHost();
  void Report();

  const Start& start_;
  const Options& options_;
  Root root_;
  Changes changes_;
  SignalWatch signals_;
  HostGuard guard_;
  Watch& watch_;                        // one of these two
  const pid_t home_group_ = getpgrp();  // the other half's
  std::vector<Process> left_running_;
  Enquiry enquiry_;
  Dialogue dialogue_;
  SDescriptor children_;  // tells of processes that ended or stopped
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
  children_ = SDescriptor(signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK));
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
  const World world = options_.this_host ? World::kThisHost : World::kOwn;
  if (Problem problem = BuildRoot(options_.root, world, root_);
      !problem.empty()) {
    return problem + " (a container may withhold that); nothing was run";
  }
  if (options_.this_host) {
    // What the program starts and leaves comes to this process.
    if (setpgid(0, 0) != 0 || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
      return ProblemOf("can't look after processes");
    }
  } else if (!RaiseLoopback()) {
    return ProblemOf("can't raise the loopback interface");
  } else if (!enquiry_.Open()) {
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
    ResetSignals();
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

void Init::TakeTerminal(pid_t group) const {
  if (start_.terminal >= 0) {
    (void)tcsetpgrp(start_.terminal, group);
  }
}

void Init::Wait() {
  std::array<pollfd, 5> sources = {{{children_.Get(), POLLIN, 0},
                                    {start_.channel, POLLIN, 0},
                                    {watch_.Fd(), POLLIN, 0},
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
    watch_.AnswerNext();
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
      TakeTerminal(home_group_);
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
  const bool json = !options_.json.empty();
  std::vector<Change> files;
  std::string report;
  if (options_.this_host) {
    const HostFindings findings = FindOnThisHost();
    report = json ? HostReportAsJson(findings, changes_)
                  : HostReportAsText(findings, changes_);
    files = findings.files;
  } else {
    const Findings findings = Find();
    report = json ? ReportAsJson(findings) : ReportAsText(findings);
    files = findings.files;
  }
  std::string paths;
  for (const Change& change : files) {
    if (change.after) {
      paths += change.path + '\0';
    }
  }
  (void)(Send(start_.channel,
              json ? Message::Kind::kJson : Message::Kind::kText, report) &&
         (options_.keep.empty() ||
          Send(start_.channel, Message::Kind::kKeep, paths)) &&
         Send(start_.channel, Message::Kind::kEnded,
              std::to_string(program_status_)));
}

HostFindings Init::FindOnThisHost() {
  HostFindings findings;
  findings.program = options_.program;
  findings.status = program_status_;
  findings.files = changes_.Compare();
  findings.signals = guard_.Signals();
  findings.starts = guard_.Starts();
  findings.refusals = guard_.Refusals();
  findings.left_running = left_running_;
  findings.read_only = root_.read_only;
  return findings;
}

}  // namespace

void RunInside(const Start& start) {
  Init(start).Run();
}
