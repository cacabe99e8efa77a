#include "host/EditInetdConf.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "driver/Settings.h"
#include "toolkit/ScratchDirectory.h"

namespace {

class EditInetdConfTest : public testing::Test {
 protected:
  EditInetdConfTest() { gstr_InetdConf = SString(path_); }

  // The file after "smtp" and "pop-3" were disabled in `content`.
  [[nodiscard]] std::string Updated(const std::string& content) const {
    WriteFile(path_, content);
    SStringList services = "smtp";
    services.Push("pop-3");
    EXPECT_TRUE(UpdateInetdConf(services));
    return ReadFile(path_);
  }

 private:
  const ScratchDirectory directory_;
  const std::string path_ = directory_.Path("inetd.conf");
};

TEST_F(EditInetdConfTest, LinesOfTheServicesAreCommentedOut) {
  const struct {
    std::string before;
    std::string after;
  } kCases[] = {
      {"smtp stream tcp nowait root x\n", "#smtp stream tcp nowait root x\n"},
      {"smtp\tstream\n", "#smtp\tstream\n"},
      {"smtp\n", "#smtp\n"},
      {"smtp stream\r\n", "#smtp stream\r\n"},
      {"  \t smtp  stream\n", "#smtp  stream\n"},
      {"pop-3 stream", "#pop-3 stream"},
      {"a 1\nsmtp 2\n\nb 3\nsmtp 4\npop-3 5",
       "a 1\n#smtp 2\n\nb 3\n#smtp 4\n#pop-3 5"},
      {"smtp x smtp y\n", "#smtp x smtp y\n"},
      {"smtp " + std::string(1 << 20, 'x') + "\n",
       "#smtp " + std::string(1 << 20, 'x') + "\n"},
  };
  for (const auto& known : kCases) {
    EXPECT_EQ(Updated(known.before), known.after);
  }
}

TEST_F(EditInetdConfTest, OtherLinesStayAsTheyAre) {
  for (const std::string& content :
       {std::string(), std::string("smtps stream\n"), std::string("xsmtp s\n"),
        std::string("# smtp stream\n"), std::string("#smtp stream\n"),
        std::string("127.0.0.1:smtp stream\n"), std::string("pop3 stream\n"),
        std::string("\n \n\t\n"), std::string("SMTP stream\n"),
        std::string("smtp"), std::string("finger stream \\\n x smtp\r\n"),
        std::string(1 << 20, ' ')}) {
    EXPECT_EQ(Updated(content), content);
  }
}

TEST_F(EditInetdConfTest, AMissingFileIsNotCreated) {
  EXPECT_FALSE(UpdateInetdConf("smtp"));
  EXPECT_FALSE(
      std::filesystem::exists(static_cast<const char*>(gstr_InetdConf)));
}

}  // namespace
