// What a configuration database refuses, and what it does with damage that comes
// while it is open.

#include "toolkit/database/Sdbfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "toolkit/database/ScratchHome.h"

namespace {

class SdbfileTest : public ScratchHome {
 protected:
  // Changes one byte of the file where `text` stands, without a new file.
  void Damage(const char* text) const {
    const std::string path = Path("Dispatch");
    const std::size_t at = ReadFile(path).find(text);
    ASSERT_NE(std::string::npos, at);
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(1, pwrite(fd, "!", 1, static_cast<off_t>(at)));
    close(fd);
  }
};

TEST_F(SdbfileTest,
       NamesThatAreNoBaseNamesAndSectionsThatAreNoPathsAreRefused) {
  for (const char* name : {"", ".", "..", "../Dispatch"}) {
    Sdbfile file(name, 0, "Vellumcraft");
    errno = 0;
    EXPECT_FALSE(file.Open("/Config", 1)) << name;
    EXPECT_EQ(EINVAL, errno) << name;
  }
  for (const char* section : {"", "Config"}) {
    Sdbfile file("Dispatch", 0, "Vellumcraft");
    errno = 0;
    EXPECT_FALSE(file.Open(section, 1)) << section;
    EXPECT_EQ(EINVAL, errno) << section;
  }
  EXPECT_TRUE(std::filesystem::is_empty(Config()));
}

TEST_F(SdbfileTest, AKeyNeedsANameAndASectionOpenForWriting) {
  Sdbfile file("Dispatch", 0, "Vellumcraft");
  EXPECT_FALSE(file.Set("Key", "value"));
  EXPECT_EQ(EBADF, errno);
  ASSERT_TRUE(file.Open("/Config", 1));
  EXPECT_FALSE(file.Set("", "value"));
  EXPECT_EQ(EINVAL, errno);
  ASSERT_TRUE(file.Set("Key", "value") && file.CloseDB());
  EXPECT_FALSE(file.Get("Key").Defined()) << "closed";
}

TEST_F(SdbfileTest, LongPathsAndManyKeysAreKept) {
  const SString path = "/" + SString(std::string(300, 'p'));
  Sdbfile file("Dispatch", 0, "Vellumcraft");
  ASSERT_TRUE(file.Open(path, 1));
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(file.Set("Key" + SString(i), SString(i)));
  }
  ASSERT_TRUE(file.CloseDB() && file.Open(path, 0));
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(file.Get("Key" + SString(i)) == SStringList(SString(i)));
  }
}

TEST_F(SdbfileTest, DamageWhileItIsOpenIsNoMissingSection) {
  Sdbfile file("Dispatch", 0, "Vellumcraft");
  ASSERT_TRUE(file.Open("/Config", 1) && file.Set("Key", "a-value"));
  ASSERT_TRUE(file.Open("/Other", 1) && file.Set("Key", "other"));
  ASSERT_TRUE(file.Open("/Config", 1));
  Damage("a-value");
  errno = 0;
  EXPECT_FALSE(file.Get("Key").Defined());
  EXPECT_EQ(EBADMSG, errno);
  errno = 0;
  EXPECT_FALSE(file.Set("Key", "new")) << "not taken for a section to make";
  EXPECT_EQ(EBADMSG, errno);
  errno = 0;
  EXPECT_FALSE(file.Open("/Config", 1));
  EXPECT_EQ(EBADMSG, errno);
  EXPECT_FALSE(file.CloseDB());
}

}  // namespace
