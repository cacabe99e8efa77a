#include "accounts/UserFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "driver/Settings.h"
#include "toolkit/ScratchDirectory.h"

namespace {

class UserFilesTest : public testing::Test {
 protected:
  UserFilesTest() {
    gstr_HostName = "mail.example.com";
    user_.project = SString(home_.Path(".project"));
    user_.plan = SString(home_.Path(".plan"));
    user_.forward = SString(home_.Path(".forward"));
  }

  void Write(const char* name, const std::string& content) const {
    WriteFile(home_.Path(name), content);
  }
  [[nodiscard]] std::string ContentOf(const char* name) const {
    return ReadFile(home_.Path(name));
  }
  [[nodiscard]] std::string FingerLines() const {
    return ReadFingerLines(user_).Join("|").Std();
  }
  void Shell(const char* command) const {
    ASSERT_EQ(
        0, std::system(("cd '" + home_.Directory() + "'; " + command).c_str()));
  }

  const ScratchDirectory home_;
  SCandidate user_;
};

TEST_F(UserFilesTest, LinesStandUnderTheirHeadingsWithoutEmptyOnesAtTheEnd) {
  EXPECT_EQ("", FingerLines());
  Write(".plan", "sleep\n\nmore\r\n\n\r\n\n");
  EXPECT_EQ("Plan:|----|sleep||more|", FingerLines());
  Write(".project", "\nmail");
  EXPECT_EQ("Project:|-------||mail||Plan:|----|sleep||more|", FingerLines());
  Write(".project", "\n\r\n");
  EXPECT_EQ("Plan:|----|sleep||more|", FingerLines());
}

TEST_F(UserFilesTest, OnlyRegularFilesAreReadAndNotEndlessly) {
  for (const char* command :
       {"mkfifo .plan", "mkdir .plan", "ln -s /dev/zero .plan",
        "ln -s nowhere .plan", "ln -s .plan .plan"}) {
    Shell("rm -rf .plan");
    Shell(command);
    EXPECT_EQ("", FingerLines()) << command;
  }
  Shell("rm -rf .plan; truncate -s 1T .plan");
  EXPECT_EQ(std::string("Plan:|----|").size() + (1 << 20) + 1,
            FingerLines().size());
}

TEST_F(UserFilesTest, OnlyAFileForwards) {
  EXPECT_FALSE(HasForward(user_));
  Shell("mkfifo .forward");
  EXPECT_FALSE(HasForward(user_));
  Shell("rm .forward; touch .forward");
  EXPECT_TRUE(HasForward(user_));
}

TEST_F(UserFilesTest, TheNoticeIsSixtyColumnsWideAndLeftOnce) {
  LeaveForwardNotice(user_);
  const std::string notice = ContentOf(".forward.NOTICE");
  EXPECT_EQ("##### Important Notice #####\nDate: ", notice.substr(0, 35));
  EXPECT_EQ(
      "\nA new mail system, named Vellumcraft, has been installed on\n"
      "mail.example.com. One effect of this transition is that\n"
      ".forward files are no longer used for mail forwarding --\n"
      "please contact your postmaster or system administrator for\n"
      "more information.\n\n",
      notice.substr(notice.find('\n', 35)));
  Write(".forward.NOTICE", "old");
  LeaveForwardNotice(user_);
  EXPECT_EQ("old", ContentOf(".forward.NOTICE"));
}

TEST_F(UserFilesTest, TheNoticeFollowsNoLink) {
  Shell("ln -s elsewhere .forward.NOTICE");
  LeaveForwardNotice(user_);
  EXPECT_FALSE(std::filesystem::exists(home_.Path("elsewhere")));
}

}  // namespace
