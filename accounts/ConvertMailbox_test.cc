#include "accounts/ConvertMailbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "accounts/PopMailbox.h"
#include "accounts/SpoolFile.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/ScratchDirectory.h"

namespace {

namespace fs = std::filesystem;

class ConvertMailboxTest : public testing::Test {
 protected:
  ConvertMailboxTest() {
    fs::create_directory(home_.Path("mailboxes"));
    PutEnv("Vellumcraft", SString(home_.Directory()));
    gstr_MailboxDir = SString(home_.Path("mailboxes/"));
    gstr_HostName = "mail.example.com";
  }

  [[nodiscard]] std::string Spool() const { return home_.Path("ann"); }
  [[nodiscard]] std::string In() const {
    return home_.Path("mailboxes/Ann/in");
  }

  void WriteSpool(const std::string& content) const {
    WriteFile(Spool(), content);
  }

  // What is printed; `result_` is what was returned.
  std::string Convert() {
    testing::internal::CaptureStdout();
    result_ = ConvertMailbox(Spool().c_str(), "Ann");
    return testing::internal::GetCapturedStdout();
  }

  // The messages in the order of their names.
  [[nodiscard]] std::vector<std::string> Messages() const {
    std::map<std::string, std::string> messages;
    for (const auto& entry : fs::directory_iterator(In())) {
      messages[entry.path().filename()] = ReadFile(entry.path());
    }
    std::vector<std::string> contents;
    for (const auto& [name, content] : messages) {
      contents.push_back(content);
    }
    return contents;
  }

  // The names in the account's mailbox directory.
  [[nodiscard]] std::vector<std::string> Beside() const {
    std::vector<std::string> names;
    for (const auto& entry :
         fs::directory_iterator(home_.Path("mailboxes/Ann"))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Nothing but the spool is left, and it is as it was.
  void ExpectUntouched(const std::string& content) const {
    EXPECT_EQ(content, ReadFile(Spool()));
    EXPECT_FALSE(fs::exists(home_.Path("mailboxes/Ann")));
    EXPECT_FALSE(fs::exists(Spool() + ".lock"));
  }

  const ScratchDirectory home_{MemoryDirectory()};
  bool result_ = false;
};

TEST_F(ConvertMailboxTest, TwoMessagesBecomeTwoFiles) {
  WriteSpool("From a\nS: 1\n\nhi\nFrom b\nS: 2\r\n\r\nho");
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  EXPECT_EQ(
      (std::vector<std::string>{"S: 1\r\n\r\nhi\r\n", "S: 2\r\n\r\nho\r\n"}),
      Messages());
  EXPECT_FALSE(fs::exists(Spool()));
  EXPECT_FALSE(fs::exists(Spool() + ".lock"));
}

TEST_F(ConvertMailboxTest, NothingIsMadeOfNothing) {
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  for (const char* blank : {"", "\n", " \n\t\r\n"}) {
    WriteSpool(blank);
    EXPECT_EQ("", Convert());
    EXPECT_TRUE(result_);
    ExpectUntouched(blank);
  }
}

TEST_F(ConvertMailboxTest, ADanglingLinkIsNoSpool) {
  fs::create_symlink("nowhere", Spool());
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  EXPECT_TRUE(fs::is_symlink(Spool()));
}

TEST_F(ConvertMailboxTest, AnotherFormatIsRefused) {
  WriteSpool("\nnot mail\n");
  EXPECT_EQ("Error: Mailbox format unrecognized (0)\n", Convert());
  EXPECT_FALSE(result_);
  ExpectUntouched("\nnot mail\n");
}

TEST_F(ConvertMailboxTest, AnExistingMailboxIsRefused) {
  WriteSpool("From a\nhi\n");
  fs::create_directories(In());
  EXPECT_EQ("Error: POP mailbox already exists\n", Convert());
  EXPECT_FALSE(result_);
  EXPECT_TRUE(fs::is_empty(In()));
  EXPECT_TRUE(fs::exists(Spool()));
}

TEST_F(ConvertMailboxTest, LinksAndOtherKindsOfFilesAreRefused) {
  const struct {
    std::string command;
    std::string cause;
  } kCases[] = {
      {"echo From a > target; ln -s target ann", "40"},
      {"mkdir ann", "21"},
      {"echo From a > ann; ln ann other", "1"},
      {"mkfifo ann", "22"},
  };
  for (const auto& one : kCases) {
    ASSERT_EQ(0, std::system(("cd '" + home_.Directory() +
                              "'; rm -rf ann target other; " + one.command)
                                 .c_str()));
    EXPECT_EQ("Error: Couldn't open " + Spool() + " (" + one.cause + ")\n",
              Convert());
    EXPECT_FALSE(result_);
    EXPECT_TRUE(fs::is_empty(home_.Path("mailboxes")));
    EXPECT_FALSE(fs::exists(Spool() + ".lock"));
  }
}

TEST_F(ConvertMailboxTest, TheFileIsLockedAgainstOthersWhileItIsRead) {
  std::string content;
  for (int i = 0; i < 2000; ++i) {
    content += "From a\nS: " + std::to_string(i) + "\n\n";
  }
  WriteSpool(content);
  // A delivery agent looks at the locks for as long as the file is there.
  const pid_t agent = fork();
  if (agent == 0) {
    const int fd = open(Spool().c_str(), O_RDWR);
    bool ever_locked = false;
    while (fs::exists(Spool())) {
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      fcntl(fd, F_GETLK, &lock);
      const bool has_lock = lock.l_type != F_UNLCK;
      if (ever_locked && !has_lock && fs::exists(Spool())) {
        _exit(1);  // given up too early
      }
      ever_locked = ever_locked || has_lock;
    }
    _exit(ever_locked ? 0 : 2);
  }
  usleep(100'000);
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  int status = 0;
  EXPECT_EQ(agent, waitpid(agent, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(2000U, Messages().size());
}

TEST_F(ConvertMailboxTest, AFileLockedByOthersIsGivenUpAfterTenSeconds) {
  WriteSpool("From a\nhi\n");
  std::ofstream(Spool() + ".lock") << "1\n";
  const time_t begin = time(nullptr);
  EXPECT_EQ("Error: Couldn't open " + Spool() + " (11)\n", Convert());
  EXPECT_LE(time(nullptr) - begin, 12);
  EXPECT_TRUE(fs::exists(Spool() + ".lock"));
  EXPECT_TRUE(fs::remove(Spool() + ".lock"));
  ExpectUntouched("From a\nhi\n");
}

TEST_F(ConvertMailboxTest, ASpoolThatGoesWhileItIsLockedLeavesNothingToDo) {
  WriteSpool("From a\nhi\n");
  std::ofstream(Spool() + ".lock") << "1\n";
  const pid_t agent = fork();
  if (agent == 0) {
    usleep(150'000);
    unlink(Spool().c_str());
    unlink((Spool() + ".lock").c_str());
    _exit(0);
  }
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  EXPECT_EQ(agent, waitpid(agent, nullptr, 0));
  EXPECT_TRUE(fs::is_empty(home_.Path("mailboxes")));
  EXPECT_FALSE(fs::exists(Spool() + ".lock"));
}

TEST_F(ConvertMailboxTest, WhatCameUpToTheRemovalCanBePutBack) {
  const std::string late = "From b\nlate\n";
  for (const std::string& next : {std::string(), std::string("From c\n\n")}) {
    WriteSpool("From a\nhi\n");
    ASSERT_EQ(0, chmod(Spool().c_str(), 0640));
    SSpoolFile spool(Spool().c_str());
    ASSERT_EQ(0, spool.Open());
    char buffer[100];
    ASSERT_EQ(10, spool.Read(buffer, sizeof buffer));
    // An agent without locks has the file open.
    std::ofstream agent(Spool(), std::ios::binary | std::ios::app);
    ASSERT_TRUE(spool.Remove());
    agent << late << std::flush;
    ASSERT_EQ(static_cast<ssize_t>(late.size()),
              spool.Read(buffer, sizeof buffer));
    if (!next.empty()) {
      WriteSpool(next);
    }
    EXPECT_TRUE(spool.PutBack());
    EXPECT_EQ(next + late, ReadFile(Spool()));
    struct stat status = {};
    ASSERT_EQ(0, stat(Spool().c_str(), &status));
    if (next.empty()) {
      EXPECT_EQ(0640U, status.st_mode & 0777);
    }
    fs::remove(Spool());
  }
  // What somebody else has put there meanwhile is left alone.
  WriteSpool("From a\nhi\n");
  SSpoolFile spool(Spool().c_str());
  ASSERT_EQ(0, spool.Open());
  ASSERT_TRUE(spool.Remove());
  fs::create_symlink("/dev/null", Spool());
  EXPECT_FALSE(spool.PutBack());
  EXPECT_EQ(ELOOP, errno);
  fs::remove(Spool());
  WriteSpool("From c\n\n");
  fs::create_hard_link(Spool(), Spool() + ".other");
  EXPECT_FALSE(spool.PutBack());
  EXPECT_EQ(EPERM, errno);
}

TEST_F(ConvertMailboxTest, OnlyALockOfARunThatIsOverIsTakenOver) {
  // No process has the greatest number; the tests' own one lives.
  const std::string gone = std::to_string(INT_MAX);
  const std::string own = std::to_string(getpid());
  const std::string tail = "\nVellumcraft installation on mail.example.com\n";
  const struct {
    std::string text;
    bool is_left;
  } kCases[] = {
      {gone + tail, true},        {own + tail, false},
      {gone + "\n", false},       {"", false},
      {"0" + tail, false},        {"-1" + tail, false},
      {gone + tail + "x", false}, {gone + tail.substr(0, 9), false},
      {"one" + tail, false},      {tail, false},
  };
  for (const auto& one : kCases) {
    std::ofstream(Spool() + ".lock") << one.text;
    EXPECT_EQ(one.is_left, SSpoolFile(Spool().c_str()).HasLeftLock())
        << one.text;
  }
  WriteSpool("From a\nhi\n");
  std::ofstream(Spool() + ".lock") << gone + tail;
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  EXPECT_FALSE(fs::exists(Spool()));
  EXPECT_FALSE(fs::exists(Spool() + ".lock"));
}

TEST_F(ConvertMailboxTest, ALockThatCannotBeMovedAsideStays) {
  const SSpoolFile spool(Spool().c_str());
  const std::string lock = Spool() + ".lock";
  std::ofstream(lock) << INT_MAX
                      << "\nVellumcraft installation on mail.example.com\n";
  fs::create_directory(lock + "." + std::to_string(getpid()));
  spool.RemoveLeftLock();
  EXPECT_TRUE(spool.HasLeftLock());
  fs::remove(lock + "." + std::to_string(getpid()));
  spool.RemoveLeftLock();
  EXPECT_FALSE(fs::exists(lock));
}

TEST_F(ConvertMailboxTest, AForeignUsersLockIsNeverTakenOver) {
  const std::string lock = Spool() + ".lock";
  std::ofstream(lock) << INT_MAX
                      << "\nVellumcraft installation on mail.example.com\n";
  ASSERT_EQ(0, chown(lock.c_str(), 1001, 100));
  EXPECT_FALSE(SSpoolFile(Spool().c_str()).HasLeftLock());
  fs::remove(lock);
  fs::create_symlink(Spool(), lock);
  WriteSpool(std::to_string(INT_MAX) +
             "\nVellumcraft installation on mail.example.com\n");
  EXPECT_FALSE(SSpoolFile(Spool().c_str()).HasLeftLock());
}

TEST_F(ConvertMailboxTest, WhatAKilledRunLeftUnfinishedIsDoneOver) {
  WriteSpool("From a\nhi\n");
  EXPECT_TRUE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_FALSE(fs::exists(In())) << "nothing had been begun";
  fs::create_directories(In() + ".unfinished.ann");
  std::ofstream(In() + ".unfinished.ann/half") << "h";
  EXPECT_TRUE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_EQ((std::vector<std::string>{"hi\r\n"}), Messages());
  EXPECT_FALSE(fs::exists(Spool()));
  EXPECT_EQ((std::vector<std::string>{"in"}), Beside());
}

TEST_F(ConvertMailboxTest, WhatAKilledRunHadCopiedIsNotCopiedAgain) {
  WriteSpool("From a\nhi\nFrom b\nho\n");
  fs::create_directories(In());
  std::ofstream(In() + "/1") << "hi\r\n";
  // Some of it had not been moved yet.
  fs::create_directories(In() + ".unfinished.ann");
  std::ofstream(In() + ".unfinished.ann/2") << "ho\r\n";
  {
    SSpoolFile spool(Spool().c_str());
    ASSERT_EQ(0, spool.Open());
    fs::create_symlink(spool.Version().Std(), In() + ".finished.ann");
  }
  EXPECT_TRUE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_EQ((std::vector<std::string>{"hi\r\n", "ho\r\n"}), Messages());
  EXPECT_FALSE(fs::exists(Spool()));
  EXPECT_EQ((std::vector<std::string>{"in"}), Beside());
}

TEST_F(ConvertMailboxTest, MailThatCameSinceAKilledRunKeepsTheSpool) {
  WriteSpool("From a\nhi\n");
  fs::create_directories(In());
  fs::create_symlink("1.2.3.4", In() + ".finished.ann");
  testing::internal::CaptureStdout();
  EXPECT_FALSE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_EQ("Error: POP mailbox already exists\n",
            testing::internal::GetCapturedStdout());
  EXPECT_TRUE(fs::exists(Spool()));
  EXPECT_EQ((std::vector<std::string>{"in"}), Beside());
  EXPECT_TRUE(ResumeConversion(Spool().c_str(), "Ann")) << "told once";
}

TEST_F(ConvertMailboxTest, WhatCannotBeMovedKeepsTheSpool) {
  WriteSpool("From a\nhi\n");
  fs::create_directories(In() + "/taken");
  fs::create_directories(In() + ".unfinished.ann");
  std::ofstream(In() + ".unfinished.ann/taken") << "hi\r\n";
  {
    SSpoolFile spool(Spool().c_str());
    ASSERT_EQ(0, spool.Open());
    fs::create_symlink(spool.Version().Std(), In() + ".finished.ann");
  }
  const std::string told = "Error: Couldn't create " + In() + " (21)\n";
  testing::internal::CaptureStdout();
  EXPECT_FALSE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_EQ(told, testing::internal::GetCapturedStdout());
  EXPECT_TRUE(fs::exists(Spool()));
  EXPECT_TRUE(fs::exists(In() + ".unfinished.ann/taken"));
  // Without the spool what was moved aside is all that there is.
  fs::remove(Spool());
  testing::internal::CaptureStdout();
  EXPECT_FALSE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_EQ(told, testing::internal::GetCapturedStdout());
  EXPECT_TRUE(fs::exists(In() + ".unfinished.ann/taken"));
}

TEST_F(ConvertMailboxTest, WhatIsNoDirectoryIsNoMailbox) {
  WriteSpool("From a\nhi\n");
  fs::create_directories(home_.Path("mailboxes/Ann"));
  fs::create_symlink("nowhere", In());
  EXPECT_EQ("Error: Couldn't create " + In() + " (17)\n", Convert());
  EXPECT_FALSE(result_);
  EXPECT_TRUE(fs::exists(Spool()));
  EXPECT_EQ((std::vector<std::string>{"in"}), Beside());
}

TEST_F(ConvertMailboxTest, AnotherLoginsLeftOversAreNotTouched) {
  WriteSpool("From a\nhi\n");
  fs::create_directories(In() + ".unfinished.bob");
  EXPECT_TRUE(ResumeConversion(Spool().c_str(), "Ann"));
  EXPECT_TRUE(fs::exists(Spool()));
  EXPECT_EQ((std::vector<std::string>{"in.unfinished.bob"}), Beside());
}

TEST_F(ConvertMailboxTest, MailDeliveredMeanwhileIsJoined) {
  SPopMailbox mailbox(In().c_str(), "ann");
  ASSERT_TRUE(mailbox.Make());
  ASSERT_TRUE(mailbox.BeginMessage());
  ASSERT_TRUE(mailbox.Write("old"));
  ASSERT_TRUE(mailbox.Sync());
  EXPECT_FALSE(fs::exists(In()));
  fs::create_directories(In());
  std::ofstream(In() + "/zzz") << "new";
  ASSERT_TRUE(mailbox.Publish("1"));
  ASSERT_TRUE(mailbox.Write("er"));
  ASSERT_TRUE(mailbox.Sync());
  EXPECT_EQ((std::vector<std::string>{"older", "new"}), Messages());
  EXPECT_EQ((std::vector<std::string>{"in", "in.finished.ann"}), Beside());
  mailbox.Undo();
  EXPECT_EQ((std::vector<std::string>{"new"}), Messages());
  EXPECT_EQ((std::vector<std::string>{"in"}), Beside());
}

TEST_F(ConvertMailboxTest, MissingLevelsAreMadeAndTheMailboxDirectoryIsNot) {
  WriteSpool("From a\nhi\n");
  fs::remove_all(home_.Path("mailboxes"));
  EXPECT_EQ("Error: Couldn't create " + In() + " (2)\n", Convert());
  EXPECT_FALSE(result_);
  ExpectUntouched("From a\nhi\n");
  EXPECT_FALSE(fs::exists(home_.Path("mailboxes")));
}

TEST_F(ConvertMailboxTest, EveryOneOfManyMessagesIsThereOnce) {
  constexpr int kMessages = 20'000;
  std::string content;
  for (int i = 0; i < kMessages; ++i) {
    content += "From a\nS: " + std::to_string(i) + "\n\nFromage\n\n";
  }
  WriteSpool(content);
  EXPECT_EQ("", Convert());
  EXPECT_TRUE(result_);
  const auto messages = Messages();
  ASSERT_EQ(static_cast<std::size_t>(kMessages), messages.size());
  std::vector<bool> seen(kMessages);
  for (const std::string& message : messages) {
    const int number = std::atoi(message.c_str() + 3);
    EXPECT_EQ("S: " + std::to_string(number) + "\r\n\r\nFromage\r\n\r\n",
              message);
    EXPECT_FALSE(seen[static_cast<std::size_t>(number)]);
    seen[static_cast<std::size_t>(number)] = true;
  }
}

}  // namespace
