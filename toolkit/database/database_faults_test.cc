// What is left of a database after its writer was killed, the disk was full or
// somebody had no permission.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <vector>

#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/ScratchHome.h"
#include "toolkit/database/Sdbfile.h"
#include "toolkit/database/TextForm.h"

namespace {

namespace fs = std::filesystem;

std::string Numbered(std::string text, int number) {
  text += std::to_string(number);
  return text;
}

// A child that doesn't outlive the test, however that ends.
pid_t Fork() {
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(1);
    }
  }
  return child;
}

class DatabaseFaultsTest : public ScratchHome {
 protected:
  // It is no disk that fails here.
  DatabaseFaultsTest() : ScratchHome(MemoryDirectory()) {
    chmod(Home().c_str(), 0755);
    done_ =
        static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  }

  void MakeEmpty() {
    fs::remove_all(Config());
    fs::create_directory(Config());
  }
  // The database as text; "missing" or "refused" when it can't be read.
  static std::string Text(const std::string& path) {
    SDatabaseFile file;
    std::string text;
    if (!file.Open(path, SDatabaseFile::Access::kRead)) {
      return errno == ENOENT ? "missing" : "refused";
    }
    return DatabaseAsText(&file, &text) ? text : "refused";
  }
  // Runs the code in a child; its exit status, true being 0.
  static int InChild(const std::function<bool()>& run) {
    const pid_t child = Fork();
    if (child == 0) {
      _exit(run() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Runs the code in a child that is killed at its n-th stop before or after a
  // system call; false when it ended before.
  static bool KillAtStop(int n, const std::function<void()>& run) {
    const pid_t child = Fork();
    if (child == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      run();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    for (int stop = 0; WIFSTOPPED(status); ++stop) {
      if (stop == n) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return true;
      }
      ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
      waitpid(child, &status, 0);
    }
    return false;
  }

  volatile int* done_ = nullptr;
};

using Step = std::function<bool(SAccountDBMod&)>;

Step Create(const char* uid) {
  return [uid](SAccountDBMod& database) {
    SAccountMod account;
    return database.ModifyAccount(uid, &account) && account.Set("Name", uid) &&
           account.Set("SMTP-Address", SString(uid) + "@x.org") &&
           account.Lock();
  };
}

Step Change(const char* uid, const SString& value) {
  return [uid, value](SAccountDBMod& database) {
    SAccountMod account;
    return database.ModifyAccount(uid, &account) && account.Set("Name", value);
  };
}

Step Delete(const char* uid) {
  return [uid](SAccountDBMod& database) { return database.DeleteAccount(uid); };
}

Step Sync() {
  return [](SAccountDBMod& database) { return database.SyncDB(); };
}

Step Close() {
  return [](SAccountDBMod& database) { return database.CloseDB(); };
}

TEST_F(DatabaseFaultsTest, AWriterKilledAtAnySystemCallLeavesAWholeState) {
  // Big values, so that closing writes a new file.
  const std::vector<Step> steps = {
      Create("Ann"),
      Create("Bob"),
      Change("Ann", SString('a', 100000)),
      Change("Ann", SString('b', 100000)),
      Close(),
      Change("Ann", "c"),
      Delete("Bob"),
      Close(),
      Create("Bob"),
      Sync(),
      Change("Bob", "d"),
      Sync(),
      // This one writes zeros behind itself.
      Change("Bob", "e"),
      Sync(),
      Change("Bob", "f"),
      Sync(),
      Change("Bob", "g"),
  };
  std::vector<std::string> states = {"missing"};
  const auto run = [&](const std::function<void(int)>& after) {
    SAccountDBMod database;
    for (std::size_t i = 0; i < steps.size(); ++i) {
      if (!steps[i](database)) {
        _exit(1);
      }
      after(static_cast<int>(i) + 1);
    }
  };
  run([&](int) { states.push_back(Text(Path("Accounts"))); });

  for (int n = 0;; ++n) {
    MakeEmpty();
    *done_ = 0;
    if (!KillAtStop(n, [&] { run([&](int step) { *done_ = step; }); })) {
      EXPECT_GT(n, 150) << "so many stops there should be";
      break;
    }
    const auto done = static_cast<std::size_t>(*done_);
    const std::string text = Text(Path("Accounts"));
    // The database is made empty before the first account is stored.
    ASSERT_TRUE(text == states[done] ||
                (done + 1 < states.size() && text == states[done + 1]) ||
                (done == 0 && text.empty()))
        << "stop " << n << " after step " << done << ": "
        << text.substr(0, 200);
    std::string problem;
    ASSERT_TRUE(text == "missing" || CheckDatabase(Path("Accounts"), &problem))
        << problem;
    {
      SAccountDBMod next;
      ASSERT_TRUE(Create("Next")(next)) << "stop " << n << " errno " << errno;
      ASSERT_TRUE(Change("Next", SString('x', 300000))(next));
      ASSERT_TRUE(Change("Next", "x")(next));
      ASSERT_TRUE(next.CloseDB());
    }
    ASSERT_EQ(1, std::distance(fs::directory_iterator(Config()), {}))
        << "nothing stays beside it";
    SAccountDB reader;
    ASSERT_EQ("Next", reader.GetAccountUID(S821Address("next@x.org")).Std());
  }
}

TEST_F(DatabaseFaultsTest, AnOpenLogDamagedAnywhereIsAnOldStateOrRefused) {
  std::vector<std::string> states;
  std::string bytes;
  {
    Sdbfile file("Dispatch", 0, "Vellumcraft");
    ASSERT_TRUE(file.Open("/Config", 1));
    states.push_back(Text(Path("Dispatch")));
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(file.Set("Key", SString(i)));
      states.push_back(Text(Path("Dispatch")));
    }
    bytes = ReadFile(Path("Dispatch"));
    bytes.resize(2048);
  }
  const auto judge = [&](const std::string& content, std::size_t where) {
    WriteFile(Path("Copy"), content);
    const std::string text = Text(Path("Copy"));
    ASSERT_TRUE(text == "refused" ||
                std::count(states.begin(), states.end(), text) == 1)
        << where << ": " << text;
  };
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::string damaged = bytes;
    damaged[i] = static_cast<char>(damaged[i] ^ (1 << (i % 8)));
    judge(damaged, i);
    judge(bytes.substr(0, i), i);
  }
}

TEST_F(DatabaseFaultsTest, AFullDiskFailsTheStoreAndChangesNothing) {
  const std::string directory = Config();
  const auto mount_small_disk = [&] {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("small", directory.c_str(), "tmpfs", 0, "size=256k") == 0;
  };
  if (InChild(mount_small_disk) != 0) {
    GTEST_SKIP() << "needs the right to mount a small file system";
  }
  EXPECT_EQ(0, InChild([&] {
              if (!mount_small_disk()) {
                return false;
              }
              Sdbfile file("Dispatch", 0, "Vellumcraft");
              if (!file.Open("/Config", 1)) {
                return false;
              }
              int stored = 0;
              while (stored < 1000 && file.Set(SString(Numbered("Key", stored)),
                                               SString('x', 1000))) {
                ++stored;
              }
              // What is stored takes 1 KB each; room for the useless part must be found
              // by writing a new file, as long as that fits beside the old one.
              const bool full = errno == ENOSPC && stored > 5 && stored < 1000;
              const bool unchanged =
                  file.Get(SString(Numbered("Key", stored - 1))).Count() == 1 &&
                  !file.Get(SString(Numbered("Key", stored))).Defined();
              const bool closed = file.CloseDB();
              std::string problem;
              return full && unchanged && closed &&
                     CheckDatabase(directory + "/Dispatch", &problem);
            }));
}

TEST_F(DatabaseFaultsTest, WithoutPermissionErrnoSaysSo) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to become somebody else";
  }
  {
    Sdbfile file("Dispatch", 0, "Vellumcraft");
    ASSERT_TRUE(file.Open("/Config", 1) && file.Set("Key", "value"));
  }
  const auto as_nobody = [&](const std::function<bool()>& run) {
    return InChild([&] {
      return setgroups(0, nullptr) == 0 && setegid(65534) == 0 &&
             seteuid(65534) == 0 && run();
    });
  };
  const auto opens_with = [&](int mode) {
    errno = 0;
    Sdbfile file("Dispatch", 0, "Vellumcraft");
    return file.Open("/Config", mode) ? 0 : errno;
  };
  EXPECT_EQ(0, as_nobody([&] { return opens_with(0) == EACCES; }));
  chmod(Path("Dispatch").c_str(), 0444);
  EXPECT_EQ(0, as_nobody([&] { return opens_with(0) == 0; }));
  EXPECT_EQ(0, as_nobody([&] { return opens_with(1) == EACCES; }));
  fs::remove(Path("Dispatch"));
  EXPECT_EQ(0, as_nobody([&] { return opens_with(1) == EACCES; }));
  EXPECT_EQ(0, as_nobody([&] {
              SAccountDBMod database;
              SAccountMod account;
              return !database.ModifyAccount("Ann", &account) &&
                     errno == EACCES;
            }));
}

// True when the account is there as a whole.
bool IsWhole(const SAccount& account) {
  const SStringList name = account.Get("Name");
  return name.Count() == 1 && account.Get("Local-Delivery") == name &&
         account.Get("POP-Address") == name;
}

[[noreturn]] void WriteForEver(int seed) {
  std::mt19937 random(static_cast<unsigned>(seed));
  for (;;) {
    SAccountDBMod database;
    // What was looked up before may be made by the other writer meanwhile.
    if (!database.BecomeWriter()) {
      _exit(errno);
    }
    for (int i = 0; i < 200; ++i) {
      const std::string uid = Numbered("U", static_cast<int>(random() % 50));
      const SString value(static_cast<int>(random() % 1000));
      SAccountMod account;
      database.DeleteAccount(SString(uid));
      if (!database.ModifyAccount(SString(uid), &account) ||
          !account.Set("Name", value) ||
          !account.Set("Local-Delivery", value) ||
          !account.Set("POP-Address", value) || !account.Lock()) {
        if (errno != EWOULDBLOCK) {
          _exit(errno);
        }
        break;
      }
    }
  }
}

[[noreturn]] void ReadForEver(volatile int* reads) {
  SAccountDB database;
  for (int i = 0;; ++i) {
    SAccount account;
    const SString uid(Numbered("U", i % 50));
    if (database.GetAccountInfo(uid, &account)) {
      if (!IsWhole(account)) {
        _exit(1);
      }
      *reads = *reads + 1;
    } else if (database.OpenError() != 0) {
      _exit(2);
    }
  }
}

TEST_F(DatabaseFaultsTest, ReadersSeeWholeAccountsWhileWritersAreKilled) {
  std::vector<pid_t> readers;
  for (int i = 0; i < 4; ++i) {
    readers.push_back(Fork());
    if (readers.back() == 0) {
      ReadForEver(done_ + 16 * i);
    }
  }
  // VC_LONG_TESTS=1 goes on for minutes.
  const int rounds = std::getenv("VC_LONG_TESTS") == nullptr ? 25 : 600;
  std::mt19937 random(1);
  for (int round = 0; round < rounds; ++round) {
    const pid_t first = Fork();
    if (first == 0) {
      WriteForEver(round);
    }
    const pid_t second = Fork();
    if (second == 0) {
      WriteForEver(1000 + round);
    }
    usleep(20000 + static_cast<useconds_t>(random() % 30000));
    for (const pid_t writer : {first, second}) {
      int status = 0;
      kill(writer, SIGKILL);
      waitpid(writer, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status))
          << "a writer gave up: " << strerror(WEXITSTATUS(status));
    }
  }
  for (std::size_t i = 0; i < readers.size(); ++i) {
    int status = 0;
    kill(readers[i], SIGKILL);
    waitpid(readers[i], &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status))
        << "a reader saw something wrong: " << WEXITSTATUS(status);
    EXPECT_GT(done_[16 * i], 100);
  }
  std::string problem;
  EXPECT_TRUE(CheckDatabase(Path("Accounts"), &problem)) << problem;
}

}  // namespace
