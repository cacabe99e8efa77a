#include "host/RewriteHostFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "driver/Interrupts.h"
#include "toolkit/ScratchDirectory.h"

namespace {

namespace fs = std::filesystem;

class RewriteHostFileTest : public testing::Test {
 protected:
  RewriteHostFileTest() {
    umask(007);
    Write("conf", "one\ntwo\n");
  }

  [[nodiscard]] SString Path(const std::string& name) const {
    return SString((directory_ / name).c_str());
  }
  void Write(const std::string& name, const std::string& content) const {
    WriteFile(directory_ / name, content);
  }
  [[nodiscard]] std::string Read(const std::string& name) const {
    return ReadFile(directory_ / name);
  }
  [[nodiscard]] struct stat Status(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(0, lstat(Path(name), &status));
    return status;
  }
  [[nodiscard]] bool Exists(const std::string& name) const {
    struct stat status = {};
    return lstat(Path(name), &status) == 0;
  }
  // Replaces the content of "conf".
  [[nodiscard]] bool Rewrite(const std::string& content,
                             const std::string& name = "conf") const {
    return RewriteHostFile(Path(name), [&](const SStringList& /*lines*/) {
      return SString(std::string_view(content));
    });
  }

  const ScratchDirectory scratch_;
  const fs::path directory_ = scratch_.Directory();
};

TEST_F(RewriteHostFileTest, GivesEveryLineAndStoresWhatIsMadeOfThem) {
  const std::string odd = std::string("a\r\n\n\tb\0c\n", 9) + "no end";
  Write("conf", odd);
  EXPECT_TRUE(RewriteHostFile(Path("conf"), [](SStringList lines) {
    EXPECT_EQ(lines.Count(), 4);
    lines.Push("!");
    return lines.Join();
  }));
  EXPECT_EQ(Read("conf"), odd + "!");
  EXPECT_EQ(Read("conf.bak"), odd);
}

TEST_F(RewriteHostFileTest, StoresLongerShorterAndEmptyContents) {
  const std::string long_line(1 << 20, 'x');
  for (const std::string& content : {long_line + "\nend", std::string("short"),
                                     std::string(), std::string("again\n")}) {
    EXPECT_TRUE(Rewrite(content));
    EXPECT_EQ(Read("conf"), content);
  }
  EXPECT_EQ(Read("conf.bak1"), long_line + "\nend");
  EXPECT_EQ(Read("conf.bak3"), "");
}

TEST_F(RewriteHostFileTest, KeepsInodeModeOwnerAndLinks) {
  chmod(Path("conf"), 0640);
  if (getuid() == 0) {
    ASSERT_EQ(0, chown(Path("conf"), 1234, 4321));
  }
  fs::create_hard_link(directory_ / "conf", directory_ / "other");
  const struct stat before = Status("conf");

  EXPECT_TRUE(Rewrite("new"));

  const struct stat after = Status("conf");
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_mode, after.st_mode);
  EXPECT_EQ(before.st_uid, after.st_uid);
  EXPECT_EQ(before.st_gid, after.st_gid);
  EXPECT_EQ(after.st_nlink, 2U);
  EXPECT_EQ(Read("other"), "new");
}

TEST_F(RewriteHostFileTest, GivesTheBackupTheMaskedMode) {
  EXPECT_TRUE(Rewrite("new"));
  EXPECT_EQ(Status("conf.bak").st_mode & 07777, 0660U);
  umask(022);
  EXPECT_TRUE(Rewrite("newer"));
  EXPECT_EQ(Status("conf.bak1").st_mode & 07777, 0644U);
}

TEST_F(RewriteHostFileTest, TakesTheFirstFreeBackupName) {
  Write("conf.bak", "0");
  for (int n = 1; n <= 12; ++n) {
    Write("conf.bak" + std::to_string(n), std::to_string(n));
  }
  fs::remove(directory_ / "conf.bak7");
  fs::create_symlink("/nonexistent/file", directory_ / "conf.bak7");
  fs::remove(directory_ / "conf.bak9");
  fs::create_directory(directory_ / "conf.bak9");

  EXPECT_TRUE(Rewrite("new"));

  EXPECT_EQ(Read("conf.bak13"), "one\ntwo\n");
  EXPECT_EQ(Read("conf.bak"), "0");
  EXPECT_EQ(Read("conf.bak12"), "12");
  EXPECT_EQ(fs::read_symlink(directory_ / "conf.bak7"), "/nonexistent/file");
}

TEST_F(RewriteHostFileTest, MakesAReadOnlyFileWriteableForTheEditOnly) {
  chmod(Path("conf"), 0444);
  EXPECT_TRUE(Rewrite("new"));
  EXPECT_EQ(Read("conf"), "new");
  EXPECT_EQ(Status("conf").st_mode & 07777, 0444U);
  chmod(Path("conf"), 01444);
  EXPECT_TRUE(Rewrite("newer"));
  EXPECT_EQ(Status("conf").st_mode & 07777, 01444U);
}

TEST_F(RewriteHostFileTest, RefusesWhatIsNoRegularFile) {
  ASSERT_EQ(0, mkfifo(Path("fifo"), 0600));
  fs::create_directory(directory_ / "directory");
  fs::create_symlink("nowhere", directory_ / "dangling");
  for (const char* name : {"fifo", "directory", "dangling", "missing"}) {
    EXPECT_FALSE(Rewrite("new", name)) << name;
    EXPECT_FALSE(Exists(std::string(name) + ".bak")) << name;
  }
}

TEST_F(RewriteHostFileTest, RewritesTheFileBehindALink) {
  fs::create_symlink("conf", directory_ / "link");
  EXPECT_TRUE(Rewrite("new", "link"));
  EXPECT_TRUE(fs::is_symlink(directory_ / "link"));
  EXPECT_EQ(Read("conf"), "new");
  EXPECT_EQ(Read("link.bak"), "one\ntwo\n");
}

TEST_F(RewriteHostFileTest, FailsWhileAnotherEditorHasTheFile) {
  const int fd = open(Path("conf"), O_RDWR);
  ASSERT_EQ(0, flock(fd, LOCK_EX));
  EXPECT_FALSE(Rewrite("new"));
  ASSERT_EQ(0, flock(fd, LOCK_UN));

  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(fd, F_SETLK, &lock));
  EXPECT_FALSE(Rewrite("new"));
  lock.l_type = F_UNLCK;
  ASSERT_EQ(0, fcntl(fd, F_SETLK, &lock));

  EXPECT_EQ(Read("conf"), "one\ntwo\n");
  EXPECT_FALSE(Exists("conf.bak"));
  EXPECT_TRUE(Rewrite("new"));
  close(fd);
}

TEST_F(RewriteHostFileTest, KeepsOtherEditorsOutMeanwhile) {
  EXPECT_TRUE(RewriteHostFile(Path("conf"), [&](const SStringList& lines) {
    EXPECT_FALSE(Rewrite("by another"));
    const int fd = open(Path("conf"), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(-1, fcntl(fd, F_OFD_SETLK, &lock));
    close(fd);
    return lines.Join();
  }));
  EXPECT_TRUE(Rewrite("by another"));
}

TEST_F(RewriteHostFileTest, FailsWhenTheFileChangesWhileItIsEdited) {
  const auto edit = [&](const SStringList& /*lines*/) {
    Write("conf", "one\ntwO\n");  // the same size
    return SString("new");
  };
  EXPECT_FALSE(RewriteHostFile(Path("conf"), edit));
  EXPECT_EQ(Read("conf"), "one\ntwO\n");
  EXPECT_FALSE(Exists("conf.bak"));
}

TEST_F(RewriteHostFileTest, FailsWhenTheFileIsReplacedWhileItIsEdited) {
  const auto edit = [&](const SStringList& /*lines*/) {
    Write("conf.new", "one\ntwo\n");
    fs::rename(directory_ / "conf.new", directory_ / "conf");
    return SString("new");
  };
  EXPECT_FALSE(RewriteHostFile(Path("conf"), edit));
  EXPECT_EQ(Read("conf"), "one\ntwo\n");
  EXPECT_FALSE(Exists("conf.bak"));
}

TEST_F(RewriteHostFileTest, PutsTheOldContentBackWhenItCannotBeWritten) {
  // The new content is larger than a file may be, the backup is not.
  rlimit former = {};
  getrlimit(RLIMIT_FSIZE, &former);
  rlimit limit = former;
  limit.rlim_cur = 20000;
  const std::string old_content(15000, 'o');
  Write("conf", old_content);

  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_FALSE(Rewrite(std::string(25000, 'n')));
  setrlimit(RLIMIT_FSIZE, &former);

  EXPECT_EQ(Read("conf"), old_content);
  EXPECT_EQ(Read("conf.bak"), old_content);
}

TEST_F(RewriteHostFileTest, LeavesNothingWhenTheBackupCannotBeWritten) {
  rlimit former = {};
  getrlimit(RLIMIT_FSIZE, &former);
  rlimit limit = former;
  limit.rlim_cur = 3;
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_FALSE(Rewrite(""));
  setrlimit(RLIMIT_FSIZE, &former);

  EXPECT_EQ(Read("conf"), "one\ntwo\n");
  EXPECT_FALSE(Exists("conf.bak"));
}

TEST_F(RewriteHostFileTest, DefersInterruptsOnlyForTheEdit) {
  EXPECT_TRUE(Rewrite("new"));
  EXPECT_EQ(gf_OkToBeKilled, 1);
  EXPECT_FALSE(Rewrite("new", "missing"));
  EXPECT_EQ(gf_OkToBeKilled, 1);
}

}  // namespace
