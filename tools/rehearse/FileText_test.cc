#include "tools/rehearse/FileText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "toolkit/database/DatabaseFile.h"

namespace {

std::string Masked(const std::string& path, const std::string& text) {
  Secrets secrets;
  return secrets.Mask(path, {text, false});
}

// The bytes of a database with one account.
std::string DatabaseBytes() {
  const std::string path = ::testing::TempDir() + "/FileText.db";
  std::remove(path.c_str());
  SDatabaseFile database;
  SSection section("/Postmaster");
  section.Set("Name", SStringList("Post Master"));
  section.Set("Password", SStringList("secret1"));
  std::uint32_t id = SDatabaseFile::kNone;
  EXPECT_TRUE(database.Open(path, SDatabaseFile::Access::kCreate));
  EXPECT_TRUE(database.Store(section, &id));
  EXPECT_TRUE(database.Close());
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

TEST(FileText, TextsAreThemselves) {
  const auto text = TextOf("one\ntwo");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->text, "one\ntwo");
  EXPECT_FALSE(text->is_database);
}

TEST(FileText, BinaryAndVeryLongFilesHaveNone) {
  EXPECT_FALSE(TextOf(std::string("a\0b", 3)));
  EXPECT_FALSE(TextOf(std::string((1 << 20) + 1, 'a')));
}

TEST(FileText, DatabasesAreDumpedWithTheirPasswordsMasked) {
  const auto text = TextOf(DatabaseBytes());
  ASSERT_TRUE(text);
  EXPECT_TRUE(text->is_database);
  Secrets secrets;
  EXPECT_EQ(secrets.Mask("/opt/vellumcraft/config/Accounts", *text),
            "/Postmaster\nName\n\tPost Master\nPassword\n\t(masked 1)\n");
}

TEST(FileText, DamagedDatabasesHaveNone) {
  std::string bytes = DatabaseBytes();
  bytes.resize(20);
  EXPECT_FALSE(TextOf(bytes));
}

TEST(Secrets, HashesOfPasswordFilesAreMaskedAndLocksAreNot) {
  EXPECT_EQ(Masked("/etc/shadow", "ann:$6$x$y:1:::::\nbob:*:1\nlp:!:1\nt::1\n"),
            "ann:(masked 1):1:::::\nbob:*:1\nlp:!:1\nt::1\n");
  EXPECT_EQ(Masked("/etc/passwd", "ann:x:1:1\nbob:abJnggxhB/yWI:2:2"),
            "ann:x:1:1\nbob:(masked 1):2:2");
  EXPECT_EQ(Masked("/etc/other", "ann:$6$x$y:1\n"), "ann:$6$x$y:1\n");
}

TEST(Secrets, EqualValuesGetEqualMasks) {
  Secrets secrets;
  EXPECT_EQ(secrets.Mask("/etc/shadow", {"a:h1:\nb:h2:\nc:h1:\n", false}),
            "a:(masked 1):\nb:(masked 2):\nc:(masked 1):\n");
  EXPECT_EQ(secrets.Mask("/etc/shadow-", {"a:h2:\n", false}),
            "a:(masked 2):\n");
}

TEST(Secrets, AssignedPasswordsAreMasked) {
  EXPECT_EQ(Masked("/etc/any.conf",
                   "Password = geheim\nbindpassword: x y\n"
                   "password\nno secret: here\n"),
            "Password = (masked 1)\nbindpassword: (masked 2)\n"
            "password\nno secret: here\n");
}

}  // namespace
