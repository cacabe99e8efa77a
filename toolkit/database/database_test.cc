#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "toolkit/Environment.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Format.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/ScratchHome.h"
#include "toolkit/database/Sdbfile.h"

namespace {

namespace fs = std::filesystem;

SStringList List(std::initializer_list<const char*> values) {
  SStringList list;
  for (const char* value : values) {
    list.Push(value);
  }
  return list;
}

std::string Numbered(std::string text, unsigned long number) {
  text += std::to_string(number);
  return text;
}

class DatabaseTest : public ScratchHome {
 protected:
  DatabaseTest() : ScratchHome(MemoryDirectory()) { umask(007); }

  static bool Set(const char* name, const char* key, const SStringList& values,
                  const char* section = "/Config") {
    Sdbfile file(name, 0, "Vellumcraft");
    return file.Open(section, 1) && file.Set(key, values) && file.CloseDB();
  }
  static SStringList Get(const char* name, const char* key,
                         const char* section = "/Config") {
    Sdbfile file(name, 0, "Vellumcraft");
    return file.Open(section, 0) ? file.Get(key) : SStringList();
  }
  static bool MakeAccount(SAccountDBMod& database, const std::string& uid,
                          const SStringList& addresses) {
    SAccountMod account;
    return database.ModifyAccount(SString(std::string_view(uid)), &account) &&
           account.Set("Name", SString(std::string_view(uid))) &&
           account.Set("SMTP-Address", addresses) && account.Lock();
  }
};

TEST(Crc32cTest, KnownValuesByInstructionAndByTable) {
  EXPECT_EQ(0xe3069283U, Crc32c("123456789"));
  EXPECT_EQ(0xe3069283U, Crc32cByTable("123456789"));
  EXPECT_EQ(0x8a9136aaU, Crc32c(std::string(32, '\0')));
  EXPECT_EQ(Crc32c("123456789"), Crc32c("6789", Crc32c("12345")));
}

TEST_F(DatabaseTest, WhatWasSetIsRead) {
  const SStringList values = List({"", "a\r\n", " trailing ", "\xff\xfe"});
  EXPECT_TRUE(Set("Dispatch", "Key", values));
  EXPECT_TRUE(Get("Dispatch", "Key") == values);
  EXPECT_FALSE(Get("Dispatch", "Other").Defined());
  struct stat status = {};
  ASSERT_EQ(0, stat(Path("Dispatch").c_str(), &status));
  EXPECT_EQ(0640U, status.st_mode & 07777);
  EXPECT_EQ(1, std::distance(fs::directory_iterator(Config()), {}));
}

TEST_F(DatabaseTest, EmptyListIsDefined) {
  EXPECT_TRUE(Set("Dispatch", "Key", SStringList()));
  EXPECT_TRUE(Get("Dispatch", "Key").Defined());
  EXPECT_TRUE(Get("Dispatch", "Key").IsEmpty());
}

TEST_F(DatabaseTest, ReadingCreatesNothingAndMissingSectionsFail) {
  Sdbfile file("Dispatch", 0, "Vellumcraft");
  EXPECT_FALSE(file.Open("/Config", 0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(fs::exists(Path("Dispatch")));
  EXPECT_TRUE(Set("Dispatch", "Key", "value"));
  EXPECT_FALSE(file.Open("/Other", 0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(file.Open("/Config", 0));
  EXPECT_FALSE(file.Set("Key", "other"));
}

TEST_F(DatabaseTest, ConfigDirectoryIsNeverMade) {
  fs::remove(Config());
  EXPECT_FALSE(Set("Dispatch", "Key", "value"));
  EXPECT_EQ(ENOENT, errno);
  SAccountDBMod database;
  SAccountMod account;
  EXPECT_FALSE(database.ModifyAccount("Ann", &account));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(fs::exists(Config()));
}

TEST_F(DatabaseTest, ReaderFollowsAWriterAndWritersExcludeEachOther) {
  ASSERT_TRUE(Set("Dispatch", "Key", "0"));
  Sdbfile writer("Dispatch", 0, "Vellumcraft");
  Sdbfile reader("Dispatch", 0, "Vellumcraft");
  ASSERT_TRUE(reader.Open("/Config", 0));
  ASSERT_TRUE(writer.Open("/Config", 1));
  // Together several times the useless space that is worth a new file.
  const SString filling('x', 1000);
  struct stat before = {};
  struct stat after = {};
  ASSERT_EQ(0, stat(Path("Dispatch").c_str(), &before));
  for (int i = 1; i < 5000; ++i) {
    ASSERT_TRUE(writer.Set("Key", SString(i) + filling));
    ASSERT_EQ(i, atoi(reader.Get("Key").Get(0))) << "through compactions";
  }
  ASSERT_EQ(0, stat(Path("Dispatch").c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_LT(after.st_size, 2 << 20) << "space is reclaimed";
  Sdbfile second("Dispatch", 0, "Vellumcraft");
  EXPECT_FALSE(second.Open("/Config", 1));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_TRUE(writer.CloseDB());
  EXPECT_TRUE(second.Open("/Config", 1));
}

TEST_F(DatabaseTest, ACutAtEveryLengthIsRefused) {
  ASSERT_TRUE(Set("Dispatch", "Key", "value"));
  ASSERT_TRUE(Set("Dispatch", "Other", "value"));
  const std::string whole = ReadFile(Path("Dispatch"));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::string cut = whole.substr(0, length);
    WriteFile(Path("Dispatch"), cut);
    ASSERT_FALSE(Get("Dispatch", "Key").Defined()) << length;
    ASSERT_FALSE(Set("Dispatch", "Key", "new")) << length;
    ASSERT_EQ(EBADMSG, errno);
    ASSERT_TRUE(ReadFile(Path("Dispatch")) == cut) << "never overwritten";
  }
}

TEST_F(DatabaseTest, AFlippedBitInEveryByteIsRefusedOrHarmless) {
  ASSERT_TRUE(Set("Dispatch", "Key", "value"));
  ASSERT_TRUE(Set("Dispatch", "Other", "value"));
  const std::string whole = ReadFile(Path("Dispatch"));
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string flipped = whole;
    flipped[i] = static_cast<char>(flipped[i] ^ (1 << (i % 8)));
    WriteFile(Path("Dispatch"), flipped);
    if (i >= database_format::kSectorSize && i < database_format::kHeadSize) {
      // The other mark is enough, and the next change puts this one right.
      ASSERT_EQ("value", Get("Dispatch", "Other")[0].Std()) << i;
      ASSERT_TRUE(Set("Dispatch", "Other", "new")) << i;
      std::string problem;
      ASSERT_TRUE(CheckDatabase(Path("Dispatch"), &problem)) << problem;
      continue;
    }
    ASSERT_FALSE(Get("Dispatch", "Key").Defined()) << i;
    ASSERT_FALSE(Set("Dispatch", "Key", "new")) << i;
    ASSERT_EQ(EBADMSG, errno);
    ASSERT_TRUE(ReadFile(Path("Dispatch")) == flipped) << i;
  }
}

TEST_F(DatabaseTest, ALinkOrADirectoryIsNoDatabase) {
  ASSERT_TRUE(Set("Real", "Key", "value"));
  fs::create_symlink("Real", Path("Linked"));
  EXPECT_FALSE(Set("Linked", "Key", "other"));
  EXPECT_EQ(ELOOP, errno);
  fs::create_directory(Path("Folder"));
  EXPECT_FALSE(Set("Folder", "Key", "other"));
  EXPECT_EQ(0, mkfifo(Path("Fifo").c_str(), 0600));
  EXPECT_FALSE(Set("Fifo", "Key", "other"));
  EXPECT_FALSE(Get("Fifo", "Key").Defined());
}

TEST_F(DatabaseTest, AnAccountAppearsAsAWholeWithLock) {
  SAccountDB reader;
  SAccountDBMod database;
  SAccountMod account;
  ASSERT_TRUE(database.ModifyAccount("Ann", &account));
  EXPECT_TRUE(account.Set("Name", "Ann Smith"));
  EXPECT_TRUE(
      account.Set("SMTP-Address", List({"Ann@Example.com", "a@x.org"})));
  EXPECT_FALSE(database.GetAccountInfo("Ann"));
  EXPECT_FALSE(reader.GetAccountInfo("Ann"));
  EXPECT_TRUE(account.Lock());
  SAccount read;
  EXPECT_TRUE(reader.GetAccountInfo("Ann", &read));
  EXPECT_TRUE(read.Get("Name") == SStringList("Ann Smith"));
  EXPECT_FALSE(reader.GetAccountInfo("ann")) << "UIDs are compared exactly";
  EXPECT_TRUE(reader.IsUIDTaken("aNN"));
  EXPECT_EQ("Ann", reader.GetAccountUID(S821Address("aNN@example.COM")).Std());
  EXPECT_EQ(
      "", reader.GetAccountUID(S821Address("<@r.org:ann@example.com>")).Std());
  EXPECT_TRUE(reader.GetLocalMailDomains() == List({"example.com", "x.org"}));

  EXPECT_TRUE(account.Set("SMTP-Address", "new@x.org"));
  EXPECT_EQ("", reader.GetAccountUID(S821Address("ann@example.com")).Std());
  EXPECT_EQ("Ann", reader.GetAccountUID(S821Address("new@x.org")).Std());
  EXPECT_TRUE(database.DeleteAccount("Ann"));
  EXPECT_EQ("", reader.GetAccountUID(S821Address("new@x.org")).Std());
  EXPECT_FALSE(reader.GetAccountInfo("Ann"));
  EXPECT_EQ(0, reader.AccountUIDCount());
}

TEST_F(DatabaseTest, AnAccountIsMadeAgainAfterItsRemoval) {
  SAccountDBMod database;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(MakeAccount(database, "Ann", SString(i) + "@x.org"));
    ASSERT_TRUE(database.DeleteAccount("Ann"));
  }
  EXPECT_EQ(0, database.AccountUIDCount());
}

TEST_F(DatabaseTest, AnAccountThatStaysOpenKeepsToItselfWhenSpaceIsReclaimed) {
  SAccountDBMod database;
  ASSERT_TRUE(MakeAccount(database, "Gone", "gone@x.org"));
  ASSERT_TRUE(MakeAccount(database, "Ann", "ann@x.org"));
  ASSERT_TRUE(MakeAccount(database, "Bob", "bob@x.org"));
  ASSERT_TRUE(database.DeleteAccount("Gone"));
  SAccountMod ann;
  ASSERT_TRUE(database.ModifyAccount("Ann", &ann));
  struct stat before = {};
  ASSERT_EQ(0, stat(Path("Accounts").c_str(), &before));
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(ann.Set("Name", SString('n', 50000)));
    ASSERT_TRUE(ann.Set("Name", SString(i)));
    SAccount bob;
    ASSERT_TRUE(database.GetAccountInfo("Bob", &bob)) << i;
    ASSERT_TRUE(bob.Get("Name") == SStringList("Bob"));
  }
  struct stat after = {};
  ASSERT_EQ(0, stat(Path("Accounts").c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino) << "space was reclaimed";
  EXPECT_TRUE(ann.Get("Name") == SStringList("99"));
}

TEST_F(DatabaseTest, ReservedAccountsWinAnAddressThenTheFirstCreated) {
  SAccountDBMod database;
  ASSERT_TRUE(MakeAccount(database, "First", "x@y.org"));
  ASSERT_TRUE(MakeAccount(database, "Second", "x@y.org"));
  EXPECT_EQ("First", database.GetAccountUID(S821Address("x@y.org")).Std());
  ASSERT_TRUE(MakeAccount(database, "Postmaster", "x@y.org"));
  EXPECT_EQ("Postmaster", database.GetAccountUID(S821Address("x@y.org")).Std());
  ASSERT_TRUE(database.DeleteAccount("Postmaster"));
  ASSERT_TRUE(database.DeleteAccount("First"));
  EXPECT_EQ("Second", database.GetAccountUID(S821Address("x@y.org")).Std());
}

TEST_F(DatabaseTest, GeneratedUIDs) {
  SAccountDBMod database;
  EXPECT_EQ("Ann-Smith", GenerateAccountUID(database, " Ann  Smith. ").Std());
  EXPECT_EQ("User", GenerateAccountUID(database, " .. ").Std());
  EXPECT_EQ("postmaster-2", GenerateAccountUID(database, "postmaster").Std());
  EXPECT_EQ(
      std::string(39, 'x'),
      GenerateAccountUID(database, SString(std::string(39, 'x') + "\xc3\xa4"))
          .Std());
  for (int i = 1; i <= 3; ++i) {
    const SString uid = GenerateAccountUID(database, "Bob");
    EXPECT_EQ(i == 1 ? "Bob" : Numbered("Bob-", static_cast<unsigned>(i)),
              uid.Std());
    ASSERT_TRUE(MakeAccount(database, uid.Std(), SStringList()));
  }
  ASSERT_TRUE(database.DeleteAccount("Bob-2"));
  EXPECT_EQ("BOB-2", GenerateAccountUID(database, "BOB").Std());
}

TEST_F(DatabaseTest, MailboxPathsAndBuckets) {
  EXPECT_EQ("Ann", GetMailboxSubpath("Ann").Std());
  for (const char* refused : {"", ".", "..", "a/b", "a\tb", "a\x7f"}) {
    EXPECT_EQ("", GetMailboxSubpath(refused).Std());
  }
  PutEnv("MailboxBucketCount", "10");
  // FNV-1a of "a" is 0xe40c292c.
  EXPECT_EQ(std::to_string(0xe40c292cU % 10) + "/A",
            GetMailboxSubpath("A").Std());
  unsetenv("MailboxBucketCount");
}

TEST_F(DatabaseTest, ManyAccountsAreFoundAfterReopeningAndAppending) {
  constexpr int kAccounts = 20000;
  const auto uid = [](int i) {
    return Numbered("User-", static_cast<unsigned>(i));
  };
  const auto address = [](int i) {
    return SString(Numbered("user", static_cast<unsigned>(i)) + "@example.com");
  };
  for (int part = 0; part < 2; ++part) {
    SAccountDBMod database;
    for (int i = part * kAccounts / 2; i < (part + 1) * kAccounts / 2; ++i) {
      ASSERT_TRUE(MakeAccount(database, uid(i), address(i)));
    }
    ASSERT_TRUE(database.CloseDB());
  }
  {
    SAccountDBMod database;
    ASSERT_TRUE(database.DeleteAccount(SString(uid(7).c_str())));
  }
  SAccountDB database;
  EXPECT_EQ(kAccounts - 1, database.AccountUIDCount());
  for (int i = 0; i < kAccounts; ++i) {
    ASSERT_EQ(i == 7 ? "" : uid(i),
              database.GetAccountUID(S821Address(address(i))).Std());
  }
  EXPECT_EQ(kAccounts - 1, database.AccountUIDList().Count());
  EXPECT_EQ("User-8", database.AccountUIDList().Get(7).Std());
}

TEST_F(DatabaseTest, WhatWasLookedUpBeforeIsAnsweredAnewAfterAChange) {
  SAccountDBMod writer;
  for (unsigned i = 0; i < 200; ++i) {
    const std::string uid = Numbered("U", i);
    ASSERT_TRUE(
        MakeAccount(writer, uid, SString((uid + "@example.com").c_str())));
  }
  SAccountDB reader;
  const auto owner = [](const SAccountDB& database, const char* address) {
    return database.GetAccountUID(S821Address(SString(address))).Std();
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ("U5", owner(reader, "u5@Example.com"));
    EXPECT_EQ("U5", owner(writer, "u5@Example.com"));
  }

  SAccountMod account;
  ASSERT_TRUE(writer.ModifyAccount("U5", &account));
  ASSERT_TRUE(account.Set("SMTP-Address", "five@example.com"));
  for (const SAccountDB* database :
       {&reader, static_cast<SAccountDB*>(&writer)}) {
    EXPECT_EQ("", owner(*database, "u5@example.com"));
    EXPECT_EQ("U5", owner(*database, "five@example.com"));
  }

  ASSERT_TRUE(writer.DeleteAccount("U6"));
  EXPECT_EQ("", owner(reader, "u6@example.com"));
  EXPECT_EQ("", owner(writer, "u6@example.com"));
}

TEST_F(DatabaseTest, BehavesAsAMapUnderRandomChangesAndReopening) {
  std::mt19937 random(4711);
  std::map<std::string, std::string> model;
  auto file = std::make_unique<Sdbfile>("Dispatch", 0, "Vellumcraft");
  for (int i = 0; i < 5000; ++i) {
    const std::string section = Numbered("/S", random() % 5);
    const std::string key = Numbered("k", random() % 20);
    ASSERT_TRUE(file->Open(SString(section), 1));
    if (random() % 3 != 0) {
      const std::string value(random() % 200, static_cast<char>(random()));
      ASSERT_TRUE(file->Set(SString(key), SString(value)));
      model[section + key] = value;
    }
    const auto known = model.find(section + key);
    const SStringList got = file->Get(SString(key));
    ASSERT_EQ(known != model.end(), got.Defined());
    if (known != model.end()) {
      ASSERT_EQ(known->second, got.Get(0).Std());
    }
    if (random() % 50 == 0) {
      ASSERT_TRUE(file->CloseDB());
    }
  }
}

}  // namespace
