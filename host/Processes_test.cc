#include "host/Processes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "driver/Settings.h"
#include "toolkit/Privileges.h"

namespace {

SString Id(pid_t process) {
  return SString(static_cast<int>(process));
}

// A process of that name that does nothing but wait for its end.
class NamedProcess {
 public:
  explicit NamedProcess(const char* name) {
    int ready[2];
    EXPECT_EQ(0, pipe(ready));
    id_ = fork();
    if (id_ == 0) {
      signal(SIGTERM, SIG_DFL);
      prctl(PR_SET_NAME, name);
      close(ready[0]);
      close(ready[1]);
      while (true) {
        pause();
      }
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(0, read(ready[0], &byte, 1));
    close(ready[0]);
  }
  ~NamedProcess() {
    if (id_ > 0) {
      kill(id_, SIGKILL);
      waitpid(id_, nullptr, 0);
    }
  }
  NamedProcess(const NamedProcess&) = delete;
  NamedProcess& operator=(const NamedProcess&) = delete;

  [[nodiscard]] pid_t Id() const { return id_; }
  // The signal that ended it; 0 when it lives on.
  int EndedBy() {
    for (int i = 0; i < 20; ++i) {
      int status = 0;
      if (waitpid(id_, &status, WNOHANG) == id_) {
        id_ = -1;
        return WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
  }

 private:
  pid_t id_;
};

TEST(ReadCommand, GivesTheLinesWithTheirEnds) {
  const SStringList lines = ReadCommand("printf 'one\\n\\ntwo'");
  ASSERT_EQ(lines.Count(), 3);
  EXPECT_EQ(lines[0], "one\n");
  EXPECT_EQ(lines[1], "\n");
  EXPECT_EQ(lines[2], "two");
}

TEST(ReadCommand, CutsLinesOfMoreThan511BytesIntoPieces) {
  const struct {
    int length;
    std::vector<int> pieces;
  } kCases[] = {{510, {511}},
                {511, {511, 1}},
                {512, {511, 2}},
                {1021, {511, 511}},
                {1022, {511, 511, 1}}};
  for (const auto& known : kCases) {
    const SStringList lines = ReadCommand("head -c " + SString(known.length) +
                                          " /dev/zero | tr '\\0' x; echo");
    std::vector<int> pieces;
    for (const SString& line : lines) {
      pieces.push_back(line.Length());
    }
    EXPECT_EQ(pieces, known.pieces) << known.length;
  }
}

TEST(ReadCommand, KeepsNulBytes) {
  EXPECT_EQ(ReadCommand("printf 'a\\0b\\nc'").Join().Std(),
            std::string("a\0b\nc", 5));
}

TEST(ReadCommand, ReadsALongOutputWhole) {
  const SStringList lines = ReadCommand("seq 1 200000");
  EXPECT_EQ(lines.Count(), 200000);
  EXPECT_EQ(lines[199999], "200000\n");
}

TEST(ReadCommand, HasNothingToRead) {
  EXPECT_EQ(ReadCommand("cat; echo end").Join().Std(), "end\n");
}

TEST(ReadCommand, IgnoresTheExitStatus) {
  EXPECT_EQ(ReadCommand("echo x; exit 3").Join().Std(), "x\n");
  EXPECT_EQ(ReadCommand("echo x; kill -9 $$").Join().Std(), "x\n");
  EXPECT_TRUE(ReadCommand("/nonexistent/program 2>/dev/null").IsEmpty());
}

TEST(ReadCommand, NeedsNoEndOfTheCommandThatItCanWaitFor) {
  // Then nothing is left of a child that ended.
  struct sigaction former = {};
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(0, sigaction(SIGCHLD, &ignore, &former));
  const SStringList lines = ReadCommand("echo found");
  EXPECT_FALSE(ReadProcessInfo().IsEmpty());
  ASSERT_EQ(0, sigaction(SIGCHLD, &former, nullptr));
  EXPECT_EQ("found\n", lines.Join("|"));
}

TEST(ReadCommand, StartsWithDefaultSignals) {
  signal(SIGHUP, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  sigset_t term;
  sigset_t former;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, &former);
  const SStringList masks = ReadCommand(
      "exec sed -n 's/^Sig\\(Blk\\|Ign\\|Cgt\\):\t//p' /proc/self/status");
  sigprocmask(SIG_SETMASK, &former, nullptr);
  signal(SIGHUP, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  ASSERT_EQ(masks.Count(), 3);
  for (const SString& mask : masks) {
    // From 32 on they are the C library's own.
    EXPECT_EQ(std::stoull(mask.Std(), nullptr, 16) & 0x7fffffff, 0U);
  }
}

TEST(ReadCommand, RunsAsTheRealUserForTheWholeOfItsLife) {
  if (getuid() != 0) {
    GTEST_SKIP() << "only root has a second identity";
  }
  const SActAs as_user(12345, 54321);
  ASSERT_TRUE(as_user.Succeeded());
  EXPECT_EQ(
      ReadCommand("sed -n 's/^[UG]id:\\t//p' /proc/self/status").Join().Std(),
      "0\t0\t0\t0\n0\t0\t0\t0\n");
}

TEST(ReadCommand, LeavesNoDescriptorAndNoChildBehind) {
  const auto count = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  const auto before = count();
  const SStringList lines = ReadCommand("ls /proc/self/fd | wc -l");
  // Its input, output, errors, and the directory.
  EXPECT_LE(std::stoi(lines[0].Std()), before + 1);
  EXPECT_EQ(count(), before);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST(ReadMailq, AsksTheSystemsSendmail) {
  const std::string path = testing::TempDir() + "/mailq_sendmail";
  gstr_Sendmail = SString("/bin/echo ") + path.c_str();
  EXPECT_EQ(ReadMailq().Join().Std(), path + " -bp\n");
}

TEST(BoundSockets, FindListenersOnBothProtocols) {
  for (const int family : {AF_INET, AF_INET6}) {
    const int listener = socket(family, SOCK_STREAM, 0);
    if (listener < 0) {
      continue;  // a host without IPv6
    }
    ASSERT_EQ(0, listen(listener, 1));
    sockaddr_in6 address = {};
    socklen_t size = sizeof address;
    ASSERT_EQ(
        0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
    const SString port(static_cast<int>(ntohs(address.sin6_port)));
    EXPECT_TRUE(BoundSockets().Contains(port)) << port.Std();
    close(listener);
    EXPECT_FALSE(BoundSockets().Contains(port)) << port.Std();
  }
}

TEST(ReadProcessInfo, PairsIdsAndNames) {
  const NamedProcess process("vctest-abc");
  EXPECT_TRUE(ReadProcessInfo().Contains(Id(process.Id()) + " vctest-abc"));
}

TEST(ReadProcessInfo, DoesNotDependOnTheCallersTerminal) {
  const NamedProcess process("vctest-abcdefg");
  setenv("COLUMNS", "20", 1);
  setenv("PS_FORMAT", "tty", 1);
  const SStringList processes = ReadProcessInfo();
  unsetenv("COLUMNS");
  unsetenv("PS_FORMAT");
  EXPECT_TRUE(processes.Contains(Id(process.Id()) + " vctest-abcdefg"));
}

TEST(KillProgram, RefusesNamesWithoutAWordCharacter) {
  for (const char* name : {"", "--", ".*", " "}) {
    EXPECT_EQ(KillProgram(name, 0), 0) << name;
  }
}

TEST(KillProgram, ComparesWithTheNameCutTo8OrTo15Bytes) {
  const struct {
    const char* process;
    const char* name;
    bool found;
  } kCases[] = {
      {"vct1", "vct1", true},
      {"vct1", "vct", false},
      {"vct1", "ct1", false},
      {"vctestab", "vctestab-daemon", true},
      {"vctestab-daem", "vctestab-daemon", false},
      {"vctestab-daemon", "vctestab-daemon", true},
      {"vctestab-daemon", "vctestab-daemon-and-more", true},
      {"vctestab-other", "vctestab-daemon", false},
      {"vct.2", "vct.2", true},
      {"vctx2", "vct.2", true},  // patterns keep their meaning
      {"vct3", "vct(3", false},
  };
  for (const auto& known : kCases) {
    NamedProcess process(known.process);
    EXPECT_EQ(KillProgram(known.name, SIGTERM), known.found ? 1 : 0)
        << known.name;
    EXPECT_EQ(process.EndedBy(), known.found ? SIGTERM : 0) << known.name;
  }
}

TEST(KillProgram, SignalsEveryProcessOfTheName) {
  NamedProcess one("vctest-two");
  NamedProcess two("vctest-two");
  EXPECT_EQ(KillProgram("vctest-two", SIGHUP), 1);
  EXPECT_EQ(one.EndedBy(), SIGHUP);
  EXPECT_EQ(two.EndedBy(), SIGHUP);
}

TEST(KillProgram, NeverSignalsThisProcess) {
  EXPECT_TRUE(ReadProcessInfo().Contains(Id(getpid()) + " Processes_test"));
  EXPECT_EQ(KillProgram("Processes_test", SIGTERM), 0);
}

TEST(SignalProcesses, LeavesTheSystemsProcessesAlone) {
  SStringList processes;
  for (int id = -3; id <= 10; ++id) {
    processes.Push(SString(id) + " sendmail");
  }
  for (const char* line : {"", "sendmail", "99999999999999999999 sendmail"}) {
    processes.Push(line);
  }
  EXPECT_EQ(SignalProcesses(processes, 0), 0);

  const NamedProcess process("vctest");
  processes.Push(Id(process.Id()) + " vctest");
  EXPECT_EQ(SignalProcesses(processes, 0), 1);
}

TEST(SignalProcesses, SignalsAsRoot) {
  if (getuid() != 0) {
    GTEST_SKIP() << "only root has a second identity";
  }
  NamedProcess process("vctest");
  const SActAs as_user(12345, 54321);
  ASSERT_TRUE(as_user.Succeeded());
  EXPECT_EQ(SignalProcesses(Id(process.Id()) + " vctest", SIGTERM), 1);
  EXPECT_EQ(process.EndedBy(), SIGTERM);
  EXPECT_EQ(geteuid(), 12345U);
}

}  // namespace
