// The start of a rehearsed program: the child confines itself, step by step,
// and is held at two points until init has done its part.

#include "tools/rehearse/Program.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>

#include "tools/rehearse/Confinement.h"

namespace {

void Tell(int to_init, Message::Kind kind, const std::string& text) {
  (void)Send(to_init, kind, text);
}

[[noreturn]] void Give(int to_init, const Problem& problem) {
  Tell(to_init, Message::Kind::kFailed, problem + "; nothing was run");
  _exit(127);
}

Rights RightsOf(const Options& options) {
  return options.this_host    ? Rights::kOnThisHost
         : options.privileged ? Rights::kPrivileged
                              : Rights::kUsual;
}

// Where a rehearsal shows the host's own processes.
Problem Confine() {
  Problem problem = HideOtherProcesses();
  return problem.empty() ? CloseWaysOut() : problem;
}

// Names the descriptor of the announcements and waits until it was taken.
void AnnounceCalls(const Options& options, const Watch& watch, int to_init) {
  const int announcements = options.unwatched ? -1 : watch.Announce();
  if (announcements < 0 && options.this_host) {
    Give(to_init,
         ProblemOf("the kernel refuses to announce system calls (seccomp(2), "
                   "user notification), as it does in some containers and "
                   "inside of another rehearsal"));
  }
  Message taken;
  Tell(to_init, Message::Kind::kReady, std::to_string(announcements));
  if (!Receive(to_init, taken)) {
    _exit(127);
  }
  close(announcements);
}

[[noreturn]] void Become(const Options& options, const Dialogue& dialogue,
                         const Watch& watch, int to_init) {
  if (dialogue.Fd() < 0) {
    setpgid(0, 0);
  } else if (!dialogue.UseTerminal()) {
    Give(to_init, ProblemOf("can't use a terminal"));
  }
  if (options.this_host) {
    if (Problem problem = Confine(); !problem.empty()) {
      Give(to_init, problem);
    }
  }
  AnnounceCalls(options, watch, to_init);
  ResetSignals();
  if (!DropRights(RightsOf(options))) {
    Give(to_init, ProblemOf("can't take root's other rights away"));
  }
  execvp(options.program[0].c_str(), ArgumentsOf(options.program).data());
  Tell(to_init, Message::Kind::kNotFound, std::to_string(errno));
  _exit(127);
}

// Waits for the child's word while its calls are answered; none when it has
// become the program.
std::optional<Message> WaitForWord(int child, Watch& watch) {
  for (;;) {
    std::array<pollfd, 2> sources = {
        {{child, POLLIN, 0}, {watch.Fd(), POLLIN, 0}}};
    if (poll(sources.data(), sources.size(), -1) < 0) {
      continue;
    }
    if (sources[1].revents != 0) {
      watch.AnswerNext();
    }
    if (sources[0].revents != 0) {
      Message message;
      return Receive(child, message) ? std::optional<Message>(message)
                                     : std::nullopt;
    }
  }
}

}  // namespace

StartedProgram StartProgram(const Options& options, const Dialogue& dialogue,
                            int terminal, Watch& watch) {
  StartedProgram started;
  const auto fail = [&started](const char* what) {
    started.failure =
        Message{Message::Kind::kFailed, ProblemOf(what) + "; nothing was run"};
    return started;
  };
  std::array<int, 2> ends = {};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return fail("can't make a socket");
  }
  const SDescriptor to_child(ends[0]);
  SDescriptor to_init(ends[1]);
  started.id = fork();
  if (started.id == 0) {
    Become(options, dialogue, watch, to_init.Get());
  }
  if (started.id < 0) {
    return fail("can't make a process");
  }
  if (dialogue.Fd() < 0) {
    setpgid(started.id, started.id);
    if (terminal >= 0) {
      (void)tcsetpgrp(terminal, started.id);
    }
  }
  to_init = SDescriptor();
  std::optional<Message> word = WaitForWord(to_child.Get(), watch);
  if (word && word->kind == Message::Kind::kReady) {
    const int announcements = std::atoi(word->text.c_str());
    if (announcements >= 0 && !watch.Take(started.id, announcements)) {
      return fail("can't watch system calls");
    }
    Tell(to_child.Get(), Message::Kind::kReady, "");
    word = WaitForWord(to_child.Get(), watch);
  }
  started.failure = std::move(word);
  return started;
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

void ResetSignals() {
  for (const int signal :
       {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTTOU, SIGTTIN, SIGTSTP, SIGPIPE}) {
    ::signal(signal, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}
