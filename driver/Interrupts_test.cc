#include "driver/Interrupts.h"

#include <time.h>

#include <cerrno>
#include <cstring>

#include "tests/TestChild.h"

namespace {

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

const char* const kNote = "\nPlease wait until I'm finished with this.\n\n";

void Say(const char* text) {
  EXPECT_EQ(static_cast<ssize_t>(strlen(text)),
            write(STDOUT_FILENO, text, strlen(text)));
}

TEST(InterruptsTest, TheFourSignalsAndNoOtherAreCaught) {
  TestChild child([] {
    SetupSignalHandler();
    for (int number = 1; number < 32; ++number) {
      struct sigaction action = {};
      sigaction(number, nullptr, &action);
      const bool ours = action.sa_handler == HandleSignals;
      bool wanted = false;
      for (const int signal : kSignals) {
        wanted = wanted || signal == number;
      }
      bool whole = (action.sa_flags & SA_RESTART) != 0;
      for (int other = 1; ours && other < 32; ++other) {
        whole = whole && (sigismember(&action.sa_mask, other) == 1 ||
                          other == SIGKILL || other == SIGSTOP);
      }
      if (ours != wanted || (ours && !whole)) {
        _exit(number);
      }
    }
  });
  EXPECT_EQ(0, child.Wait());
}

TEST(InterruptsTest, ASignalEndsTheRunWithStatus3AndNoMessage) {
  for (const int signal : kSignals) {
    TestChild child([] {
      SetupSignalHandler();
      Say("before");
      pause();
    });
    EXPECT_EQ("before", child.ReadUntil("before"));
    child.Signal(signal);
    EXPECT_EQ("", child.ReadToEnd());
    EXPECT_EQ(3, child.Wait()) << signal;
  }
}

TEST(InterruptsTest, ADeferredSignalPrintsANoteAndIsRemembered) {
  for (const int signal : kSignals) {
    TestChild child([signal] {
      SetupSignalHandler();
      {
        const SDeferInterrupts defer;
        Say(gf_Killed ? "killed;" : "alive;");
        raise(signal);
        Say(gf_Killed ? "killed;" : "alive;");
      }
      Say("after;");
      raise(signal);
      Say("never");
    });
    EXPECT_EQ("alive;" + std::string(kNote) + "killed;after;",
              child.ReadToEnd());
    EXPECT_EQ(3, child.Wait()) << signal;
  }
}

TEST(InterruptsTest, TheOuterOfTwoBlocksDecides) {
  TestChild child([] {
    SetupSignalHandler();
    const SDeferInterrupts outer;
    { const SDeferInterrupts inner; }
    raise(SIGTERM);
    Say("still here");
  });
  EXPECT_EQ(kNote + std::string("still here"), child.ReadToEnd());
  EXPECT_EQ(0, child.Wait());
}

TEST(InterruptsTest, TheHandlerKeepsTheErrorOfTheCallThatItInterrupts) {
  TestChild child([] {
    SetupSignalHandler();
    const SDeferInterrupts defer;
    close(STDOUT_FILENO);
    errno = ENOENT;
    raise(SIGTERM);
    _exit(errno == ENOENT ? 0 : 1);
  });
  EXPECT_EQ(0, child.Wait());
}

TEST(InterruptsTest, ANoteThatNobodyReadsDoesNotCutTheStep) {
  TestChild child([] {
    SetupSignalHandler();
    char go = 0;
    EXPECT_EQ(1, read(STDIN_FILENO, &go, 1));
    const SDeferInterrupts defer;
    raise(SIGHUP);
    _exit(gf_Killed ? 7 : 8);
  });
  child.CloseOutput();
  child.Type("g");
  EXPECT_EQ(7, child.Wait());
}

TEST(InterruptsTest, AConsoleThatIsGoneEndsTheRunAtOnceOrAfterTheStep) {
  TestChild at_once([] {
    EndWithoutConsole();
    Say("never");
  });
  EXPECT_EQ("", at_once.ReadToEnd());
  EXPECT_EQ(3, at_once.Wait());

  TestChild deferred([] {
    {
      const SDeferInterrupts defer;
      {
        const SDeferInterrupts inner;
        EndWithoutConsole();
      }
      Say(gf_Killed ? "step ends early" : "step goes on");
    }
    Say("never");
  });
  EXPECT_EQ("step ends early", deferred.ReadToEnd());
  EXPECT_EQ(3, deferred.Wait());
}

TEST(InterruptsTest, SignalsAtAnyMomentOfManyStepsNeverCrash) {
  TestChild child([] {
    SetupSignalHandler();
    for (int i = 0; i < 200; ++i) {
      const SDeferInterrupts defer;
      raise(kSignals[i % 4]);
    }
    Say("end");
  });
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    expected += kNote;
  }
  EXPECT_EQ(expected + "end", child.ReadToEnd());
  EXPECT_EQ(0, child.Wait());
}

TEST(WriteWithoutSignalTest, AReaderThatIsGoneIsAnErrorAndNoSignal) {
  TestChild child([] {
    int fds[2];
    EXPECT_EQ(0, pipe(fds));
    close(fds[0]);
    const bool failed = WriteWithoutSignal(fds[1], "x") == -1 && errno == EPIPE;
    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    Say(failed ? "failed;" : "written;");
    Say(action.sa_handler == SIG_DFL ? "default" : "changed");
  });
  EXPECT_EQ("failed;default", child.ReadToEnd());
  EXPECT_EQ(0, child.Wait());
}

double Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) +
         static_cast<double>(now.tv_nsec) / 1e9;
}

TEST(WaitSecondsTest, TheWaitGoesOnAfterSignals) {
  const double start = Now();
  TestChild child([] {
    SetupSignalHandler();
    const SDeferInterrupts defer;
    Say("waiting");
    WaitSeconds(1);
  });
  EXPECT_EQ("waiting", child.ReadUntil("waiting"));
  for (int i = 0; i < 5; ++i) {
    child.Signal(SIGINT);
    child.ReadUntil(kNote);
  }
  EXPECT_EQ(0, child.Wait());
  EXPECT_GE(Now() - start, 1.0);
  EXPECT_LT(Now() - start, 3.0);
}

}  // namespace
