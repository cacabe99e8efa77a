#include "host/AddServices.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "driver/Settings.h"
#include "toolkit/ScratchDirectory.h"

namespace {

constexpr const char* kBlock =
    "##\n"
    "## Services added during installation of Vellumcraft.\n"
    "## Sorry that they aren't in order....\n"
    "##\n"
    "smtp       25/tcp\n"
    "finger     79/tcp\n";

class AddServicesTest : public testing::Test {
 protected:
  AddServicesTest() { gstr_ServicesFile = SString(path_); }

  // The file after two entries were added to `content`.
  [[nodiscard]] std::string Updated(const std::string& content) const {
    WriteFile(path_, content);
    SStringList entries = "smtp       25/tcp";
    entries.Push("finger     79/tcp");
    EXPECT_TRUE(UpdateServicesFile(entries));
    return ReadFile(path_);
  }

 private:
  const ScratchDirectory directory_;
  const std::string path_ = directory_.Path("services");
};

TEST_F(AddServicesTest, TheBlockFollowsTheLeadingComments) {
  const std::string block = kBlock;
  const struct {
    std::string head;
    std::string rest;
  } kCases[] = {
      {"", ""},
      {"# one\n#\n##two\n", "tcpmux\t1/tcp\n# three\nssh 22/tcp\n"},
      {"", "\n# not leading\n"},
      {"", " # indented\nssh 22/tcp\n"},
      {"# all\n# comments\n", ""},
      {"# no line end", ""},
      {"#\r\n", "ssh\t22/tcp\r\nlast 1/tcp"},
      {"", "\n\n\n"},
      {"#" + std::string(1 << 20, 'x') + "\n", std::string(1 << 20, 'y')},
      {"", std::string("nul\0byte\n", 9)},
  };
  for (const auto& known : kCases) {
    EXPECT_EQ(Updated(known.head + known.rest),
              known.head + block + known.rest);
  }
}

TEST_F(AddServicesTest, AMissingFileIsNotCreated) {
  EXPECT_FALSE(UpdateServicesFile("smtp       25/tcp"));
  EXPECT_FALSE(
      std::filesystem::exists(static_cast<const char*>(gstr_ServicesFile)));
}

}  // namespace
