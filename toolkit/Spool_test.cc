#include "toolkit/Spool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "toolkit/Environment.h"
#include "toolkit/Files.h"
#include "toolkit/ScratchDirectory.h"

namespace {

class SpoolTest : public testing::Test {
 protected:
  SpoolTest() : former_mask_(umask(07)) {
    PutEnv("Vellumcraft", home_);
    std::filesystem::create_directory((home_ + "/control").Std());
    std::filesystem::create_directory((home_ + "/messages").Std());
  }
  ~SpoolTest() override { umask(former_mask_); }

  static mode_t ModeOf(const SString& path) {
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_mode & 07777U : 0;
  }
  SStringList Files() const {
    SStringList files = ReadDir(home_ + "/control");
    files.Push(ReadDir(home_ + "/messages"));
    return files;
  }
  // A control file with a field.
  static SControl Control(const SString& name) {
    SControl control(name);
    control.Set("Function:", "Account-Handler");
    return control;
  }

  const ScratchDirectory scratch_;
  const SString home_{scratch_.Directory()};
  mode_t former_mask_;
};

TEST_F(SpoolTest, AControlFileHasALineForEachValue) {
  SControl control("ComputeSizes.7");
  SStringList accounts = "Ann x  ";
  accounts.Push("two\nlines");
  accounts.Push("");
  control.Set("Function:", "Account-Manager");
  control.Set("Account-To:", accounts);
  control.Set("Empty:", SStringList());
  control.Set("Function:", "Mailbox-Deliver");
  ASSERT_TRUE(control.Write());
  const SString path = home_ + "/control/ComputeSizes.7-Control";
  EXPECT_EQ(control.Path(), path);
  EXPECT_EQ(MapFileRead(path),
            "Function: Mailbox-Deliver\n"
            "Account-To: Ann x  \n"
            "Account-To: two lines\n"
            "Account-To: \n"
            "Empty:\n");
  EXPECT_EQ(ModeOf(path), 0660U);
  EXPECT_EQ(Files().Join("|"), "ComputeSizes.7-Control");
}

TEST_F(SpoolTest, ANameWithASlashIsAPath) {
  const SString path = home_ + "/elsewhere";
  ASSERT_TRUE(Control(path).Write());
  EXPECT_TRUE(FileExists(path));
}

TEST_F(SpoolTest, ASecondRequestReplacesTheFirst) {
  ASSERT_TRUE(Control("x").Write());
  SControl second = Control("x");
  second.Set("Priority:", "1");
  ASSERT_TRUE(second.Write());
  EXPECT_EQ(MapFileRead(home_ + "/control/x-Control"),
            "Function: Account-Handler\nPriority: 1\n");
}

TEST_F(SpoolTest, DirectoriesAreNeverMade) {
  std::filesystem::remove_all((home_ + "/control").Std());
  EXPECT_FALSE(Control("x").Write());
  EXPECT_FALSE(PathTaken(home_ + "/control"));
}

TEST_F(SpoolTest, AMessageIsThreeFiles) {
  SStringList header = "Date: now";
  header.Push("Subject: x");
  SStringList body = "one";
  body.Push("");
  body.Push("two");
  ASSERT_TRUE(QueueMessage("m", Control("m"), header, body));
  const SString base = home_ + "/messages/m";
  EXPECT_EQ(MapFileRead(base + "-Header"), "Date: now\r\nSubject: x\r\n");
  EXPECT_EQ(MapFileRead(base + "-Body"), "one\r\n\r\ntwo");
  EXPECT_EQ(ModeOf(base + "-Header"), 0660U);
  EXPECT_EQ(ModeOf(base + "-Body"), 0660U);
  EXPECT_EQ(Files().Join("|"), "m-Control|m-Body|m-Header");
}

TEST_F(SpoolTest, AMessageThatCannotBeWrittenLeavesNothing) {
  std::filesystem::remove_all((home_ + "/messages").Std());
  EXPECT_FALSE(QueueMessage("m", Control("m"), "h", "b"));
  EXPECT_EQ(Files().Join("|"), "");
}

TEST_F(SpoolTest, ALinkInTheSpoolIsNotFollowed) {
  ASSERT_EQ(0, symlink("../target", home_ + "/messages/m-Body"));
  EXPECT_FALSE(QueueMessage("m", Control("m"), "h", "b"));
  EXPECT_FALSE(PathTaken(home_ + "/target"));
  EXPECT_EQ(Files().Join("|"), "");
}

TEST(NewMessageIDTest, LettersCountUpFromAAA) {
  const SString pid = ProcessIdString();
  const auto letters = [&pid] {
    const SString id = NewMessageID("mail.example.com");
    const SStringList parts =
        id.M("^\\d{14}\\.([A-Z]+)" + pid + "@mail\\.example\\.com$");
    return parts[0];
  };
  EXPECT_EQ(letters(), "AAA");
  for (int call = 2; call < 27; ++call) {
    static_cast<void>(letters());
  }
  EXPECT_EQ(letters(), "ABA");
  for (int call = 28; call < 17576; ++call) {
    static_cast<void>(NewMessageID("h"));
  }
  EXPECT_EQ(letters(), "ZZZ");
  EXPECT_EQ(letters(), "BAAA");
}

TEST_F(SpoolTest, NothingButARegularFileIsWrittenTo) {
  const SString header = home_ + "/messages/m-Header";
  ASSERT_EQ(0, mkfifo(header, 0600));
  // With a reader the queue would open; its bytes would be lost.
  const SDescriptor reader(open(header, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_FALSE(QueueMessage("m", Control("m"), "h", "b"));
  char byte = 0;
  EXPECT_EQ(read(reader.Get(), &byte, 1), 0);
  EXPECT_EQ(Files().Join("|"), "");
}

TEST_F(SpoolTest, APlantedNameBesideTheControlFileIsNotFollowed) {
  const SString planted = home_ + "/control/x-Control.tmp." + ProcessIdString();
  ASSERT_EQ(0, symlink("../target", planted));
  EXPECT_TRUE(Control("x").Write());
  EXPECT_FALSE(PathTaken(home_ + "/target"));
  EXPECT_EQ(Files().Join("|"), "x-Control");
}

}  // namespace
