// The file as a file: its bytes, its names, its makers, and what reading costs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Format.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/ScratchHome.h"
#include "toolkit/database/Sdbfile.h"
#include "toolkit/database/TextForm.h"

namespace {

namespace fs = std::filesystem;
using namespace database_format;

// The database of docs/database.md: every line of its first bytes that isn't
// zeros.
constexpr struct {
  std::size_t offset;
  const char* bytes;
} kExample[] = {
    {0x000, "5643 4442 0d0a 1a0a 0100 0000 0000 0000"},
    {0x010, "13b1 faaa c725 6875 0000 0000 0000 0000"},
    {0x1f0, "0000 0000 0000 0000 0000 0000 62e7 45e0"},
    {0x200, "0200 0000 0000 0000 0006 0000 0000 0000"},
    {0x3f0, "0000 0000 0000 0000 0000 0000 eb0e 0d8f"},
    {0x400, "0300 0000 0000 0000 4006 0000 0000 0000"},
    {0x5f0, "0000 0000 0000 0000 0000 0000 ce93 8d74"},
    {0x600, "48e9 1e49 4000 0000 62e7 45e0 0100 0000"},
    {0x610, "0000 0000 072f 436f 6e66 6967 020b 456d"},
    {0x620, "6169 6c43 6f6e 6669 6701 0379 6573 0957"},
    {0x630, "5757 4163 6365 7373 0000 0000 0000 0000"},
};
constexpr std::size_t kExampleSize = 0x640;
constexpr const char* kExampleText = "/Config\nEmailConfig\n\tyes\nWWWAccess\n";

std::string ExampleBytes() {
  std::string bytes(kExampleSize, '\0');
  for (const auto& line : kExample) {
    std::istringstream words(line.bytes);
    std::size_t at = line.offset;
    for (std::string word; words >> word; at += 2) {
      bytes[at] = static_cast<char>(std::stoi(word.substr(0, 2), nullptr, 16));
      bytes[at + 1] = static_cast<char>(std::stoi(word.substr(2), nullptr, 16));
    }
  }
  return bytes;
}

std::string Numbered(std::string text, int number) {
  text += std::to_string(number);
  return text;
}

// What this process has read from files so far.
std::uint64_t BytesRead() {
  std::ifstream io("/proc/self/io");
  std::string name;
  std::uint64_t bytes = 0;
  io >> name >> bytes;
  return name == "rchar:" ? bytes : 0;
}

class DatabaseFilesTest : public ScratchHome {
 protected:
  DatabaseFilesTest() : ScratchHome(MemoryDirectory()) {}

  static std::string Text(const std::string& path) {
    SDatabaseFile file;
    std::string text;
    return file.Open(path, SDatabaseFile::Access::kRead) &&
                   DatabaseAsText(&file, &text)
               ? text
               : "refused";
  }
  static bool Set(const char* name, const SString& value) {
    Sdbfile file(name, 0, "Vellumcraft");
    return file.Open("/Config", 1) && file.Set("Key", value) && file.CloseDB();
  }
  static bool MakeAccount(SAccountDBMod& database, const std::string& uid) {
    SAccountMod account;
    return database.ModifyAccount(SString(uid), &account) &&
           account.Set("Name", SString(uid)) &&
           account.Set("SMTP-Address", SString(uid) + "@example.com") &&
           account.Lock();
  }
  static bool MakeAccounts(int first, int last) {
    SAccountDBMod database;
    for (int i = first; i < last; ++i) {
      if (!MakeAccount(database, Numbered("User-", i))) {
        return false;
      }
    }
    return database.CloseDB();
  }
  // What it takes to open the accounts and to look one up by UID, by address,
  // and one that isn't there.
  static std::uint64_t CostOfLookUps(int number) {
    const SString uid(Numbered("User-", number));
    const std::uint64_t before = BytesRead();
    const SAccountDB database;
    EXPECT_TRUE(database.GetAccountInfo(uid));
    EXPECT_EQ(uid.Std(),
              database.GetAccountUID(S821Address(uid + "@example.com")).Std());
    EXPECT_FALSE(database.GetAccountInfo("Nobody-of-that-name"));
    return BytesRead() - before;
  }
};

TEST_F(DatabaseFilesTest, TheBytesAreThoseOfThePageOnEveryArchitecture) {
  const std::string example = ExampleBytes();
  WriteFile(Path("Example"), example);
  EXPECT_EQ(kExampleText, Text(Path("Example")));
  std::string problem;
  EXPECT_TRUE(CheckDatabase(Path("Example"), &problem)) << problem;

  // Made anew it differs only by the salt and the checksums over it.
  {
    SSection section("/Config");
    section.Set("WWWAccess", SStringList());
    section.Set("EmailConfig", "yes");
    SDatabaseFile file;
    std::uint32_t id = SDatabaseFile::kNone;
    ASSERT_TRUE(file.Begin(Path("Made")) && file.Store(section, &id) &&
                file.Install(nullptr) && file.Close());
  }
  std::string made = ReadFile(Path("Made"));
  ASSERT_EQ(kExampleSize, made.size());
  EXPECT_NE(Get64(example.data() + kHeadSalt), Get64(made.data() + kHeadSalt));
  Put64(made.data() + kHeadSalt, Get64(example.data() + kHeadSalt));
  const std::uint32_t head = Crc32c({made.data(), kSectorChecksum});
  Put32(made.data() + kSectorChecksum, head);
  char* record = made.data() + kHeadSize;
  Put32(record + kRecordPrevious, head);
  Put32(record, Crc32c({record + kRecordSize,
                        Get32(record + kRecordSize) - kRecordSize}));
  EXPECT_TRUE(made == example);
}

TEST_F(DatabaseFilesTest, AChangeOfTheExampleAppendsOneRecordAndOneMark) {
  const std::string example = ExampleBytes();
  WriteFile(Path("Example"), example);
  {
    Sdbfile file("Example", 0, "Vellumcraft");
    ASSERT_TRUE(file.Open("/Config", 1) && file.Set("EmailConfig", "no") &&
                file.CloseDB());
  }
  const std::string changed = ReadFile(Path("Example"));
  ASSERT_EQ(kExampleSize + 0x38, changed.size());
  EXPECT_TRUE(changed.substr(0, kSectorSize) == example.substr(0, kSectorSize));
  EXPECT_TRUE(changed.substr(2 * kSectorSize, kExampleSize - 2 * kSectorSize) ==
              example.substr(2 * kSectorSize))
      << "the older mark, at 512, is the one that is written";
  EXPECT_EQ(4U, Get64(changed.data() + kSectorSize + kMarkNumber));
  EXPECT_EQ(changed.size(),
            Get64(changed.data() + kSectorSize + kMarkSyncedEnd));
}

TEST_F(DatabaseFilesTest, ACopyAndARenamedFileAreTheDatabase) {
  ASSERT_TRUE(MakeAccounts(0, 3000));
  const std::string text = Text(Path("Accounts"));
  fs::copy_file(Path("Accounts"), Path("Copy"));
  EXPECT_TRUE(ReadFile(Path("Accounts")) == ReadFile(Path("Copy")));
  EXPECT_TRUE(Text(Path("Copy")) == text);
  fs::rename(Path("Accounts"), Path("Away"));
  fs::rename(Path("Copy"), Path("Accounts"));
  EXPECT_TRUE(Text(Path("Away")) == text);
  EXPECT_GT(CostOfLookUps(7), 0U);
  ASSERT_TRUE(MakeAccounts(3000, 3001)) << "a copy can be changed";
  EXPECT_TRUE(Text(Path("Away")) == text) << "without changing the original";
}

TEST_F(DatabaseFilesTest, AnOpenReaderNoticesThatAnotherFileHasTheName) {
  ASSERT_TRUE(Set("Dispatch", "old") && Set("Dispatch.install", "new"));
  Sdbfile reader("Dispatch", 0, "Vellumcraft");
  ASSERT_TRUE(reader.Open("/Config", 0));
  EXPECT_EQ("old", reader.Get("Key")[0].Std());
  fs::rename(Path("Dispatch"), Path("Dispatch.backup"));
  EXPECT_EQ("old", reader.Get("Key")[0].Std()) << "till there is another";
  fs::rename(Path("Dispatch.install"), Path("Dispatch"));
  sleep(2);
  EXPECT_EQ("new", reader.Get("Key")[0].Std());
}

TEST_F(DatabaseFilesTest, AWriterOfARenamedFileLeavesTheNewOneAlone) {
  ASSERT_TRUE(Set("Dispatch", "old") && Set("Dispatch.install", "new"));
  Sdbfile writer("Dispatch", 0, "Vellumcraft");
  ASSERT_TRUE(writer.Open("/Config", 1));
  fs::rename(Path("Dispatch"), Path("Dispatch.backup"));
  fs::rename(Path("Dispatch.install"), Path("Dispatch"));
  for (int i = 0; i < 3; ++i) {
    // Enough to be worth a new file.
    ASSERT_TRUE(writer.Set("Key", SString('x', 1000000)));
  }
  ASSERT_TRUE(writer.Set("Key", "late"));
  ASSERT_TRUE(writer.CloseDB());
  EXPECT_EQ("/Config\nKey\n\tnew\n", Text(Path("Dispatch")));
  EXPECT_EQ("/Config\nKey\n\tlate\n", Text(Path("Dispatch.backup")));
  EXPECT_FALSE(fs::exists(Path("Dispatch.unfinished")));
}

TEST_F(DatabaseFilesTest, ANewFileThatAnotherProcessFillsIsLeftToIt) {
  const std::string unfinished = Path("Dispatch.unfinished");
  const int fd = open(unfinished.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(0, flock(fd, LOCK_EX | LOCK_NB));
  SDatabaseFile file;
  EXPECT_FALSE(file.Open(Path("Dispatch"), SDatabaseFile::Access::kCreate));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_TRUE(fs::exists(unfinished));
  close(fd);
  EXPECT_TRUE(file.Open(Path("Dispatch"), SDatabaseFile::Access::kCreate));
  EXPECT_FALSE(fs::exists(unfinished)) << "a dead one's is removed";
}

// After a power failure while a writer closed: the marks are those of before,
// and of the index more or less is on disk.
TEST_F(DatabaseFilesTest, AnIndexOfWhichOnlyTheHeadIsOnDiskIsTheEndOfTheLog) {
  SAccountDBMod writer;
  for (int i = 0; i < 3000; ++i) {
    ASSERT_TRUE(MakeAccount(writer, Numbered("User-", i)));
  }
  ASSERT_TRUE(writer.SyncDB());
  const std::string before = ReadFile(Path("Accounts"));
  ASSERT_TRUE(writer.CloseDB());
  std::string whole = ReadFile(Path("Accounts"));
  const auto index = std::max(Get64(&whole[kSectorSize + kMarkIndex]),
                              Get64(&whole[2 * kSectorSize + kMarkIndex]));
  ASSERT_GT(index, kHeadSize);
  ASSERT_GT(whole.size(), index + kBlockSize);
  whole.replace(0, kHeadSize, before, 0, kHeadSize);
  std::string torn = whole;
  std::fill(torn.begin() + static_cast<std::ptrdiff_t>(index + kIndexHeadSize),
            torn.end(), '\0');

  for (const std::string& left : {whole, torn}) {
    WriteFile(Path("Accounts"), left);
    const SAccountDB reader;
    EXPECT_TRUE(reader.GetAccountInfo("User-2999"));
    ASSERT_TRUE(MakeAccounts(3000, 3001));
    EXPECT_TRUE(reader.GetAccountInfo("User-3000"));
    std::string problem;
    EXPECT_TRUE(CheckDatabase(Path("Accounts"), &problem)) << problem;
    EXPECT_EQ(3001, SAccountDB().AccountUIDCount());
  }
}

TEST_F(DatabaseFilesTest, ProcessesThatRaceToMakeTheFileLoseNothing) {
  constexpr int kProcesses = 6;
  for (int round = 0; round < 30; ++round) {
    fs::remove(Path("Accounts"));
    int starter[2] = {};
    ASSERT_EQ(0, pipe(starter));
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
      children.push_back(fork());
      if (children.back() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(starter[1]);
        char byte = 0;
        (void)!read(starter[0], &byte, 1);
        SAccountDBMod database;
        const bool made = MakeAccount(database, Numbered("U", i));
        _exit(made && database.CloseDB() ? 0 : 1);
      }
    }
    close(starter[0]);
    close(starter[1]);
    for (const pid_t child : children) {
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
    }
    ASSERT_EQ(kProcesses, SAccountDB().AccountUIDCount())
        << Text(Path("Accounts"));
    ASSERT_EQ(1, std::distance(fs::directory_iterator(Config()), {}));
  }
}

TEST_F(DatabaseFilesTest, ThreadsWithDatabasesOfTheirOwnDoNotMeet) {
  std::atomic<bool> done = false;
  std::atomic<int> seen = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      const SAccountDB database;
      for (int n = 0; !done; n = (n + 1) % 500) {
        SAccount account;
        const SString uid(Numbered("U", n));
        if (database.GetAccountInfo(uid, &account)) {
          EXPECT_EQ(uid.Std(), account.Get("Name")[0].Std());
          ++seen;
        }
      }
    });
  }
  {
    SAccountDBMod database;
    for (int i = 0; i < 2000; ++i) {
      EXPECT_TRUE(database.DeleteAccount(SString(Numbered("U", i % 500))));
      EXPECT_TRUE(MakeAccount(database, Numbered("U", i % 500)));
    }
    while (seen < 1000) {
      std::this_thread::yield();
    }
    EXPECT_TRUE(database.CloseDB());
  }
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
}

TEST_F(DatabaseFilesTest, OpeningAndLookingUpCostTheSameInSmallAndBigFiles) {
  // VC_LONG_TESTS=1 tries a million.
  const int most = std::getenv("VC_LONG_TESTS") == nullptr ? 100000 : 1000000;
  ASSERT_TRUE(MakeAccounts(0, most / 20));
  const std::uint64_t small_file = fs::file_size(Path("Accounts"));
  const std::uint64_t small = CostOfLookUps(most / 40);
  ASSERT_TRUE(MakeAccounts(most / 20, most));
  const std::uint64_t big_file = fs::file_size(Path("Accounts"));
  ASSERT_GT(big_file, small_file * 15);
  for (const int number : {0, 1, most / 2, most - 2, most - 1}) {
    const std::uint64_t big = CostOfLookUps(number);
    // The head, the index's, what that may lack, and a few blocks.
    EXPECT_LT(big, 16 * kBlockSize) << big_file;
    EXPECT_LT(big, small + 4 * kBlockSize);
    RecordProperty("bytes_read_for_account_" + std::to_string(number),
                   static_cast<int>(big));
  }
  RecordProperty("bytes_read_in_small_file", static_cast<int>(small));
  RecordProperty("bytes_in_big_file", std::to_string(big_file));
}

TEST_F(DatabaseFilesTest, RecoveryReadsWhatTheIndexLacksAndNoMore) {
  // Big accounts, so that data and index can be told apart.
  const auto make = [](int first, int last) {
    SAccountDBMod database;
    for (int i = first; i < last; ++i) {
      SAccountMod account;
      const SString uid(Numbered("User-", i));
      if (!database.ModifyAccount(uid, &account) ||
          !account.Set("Finger-Info", SString('x', 2000)) ||
          !account.Set("SMTP-Address", uid + "@example.com") ||
          !account.Lock()) {
        return false;
      }
    }
    if (last > 10000 && last < 10500) {
      raise(SIGKILL);
    }
    return database.CloseDB();
  };
  ASSERT_TRUE(make(0, 10000));
  const std::uint64_t size = fs::file_size(Path("Accounts"));
  ASSERT_GT(size, 20000000U);
  const std::uint64_t index = size - 10000U * 2064;
  EXPECT_LT(CostOfLookUps(7), 16 * kBlockSize);
  const pid_t child = fork();
  if (child == 0) {
    _exit(make(10000, 10300) ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  const std::uint64_t killed = CostOfLookUps(10299);
  EXPECT_GT(killed, 300U * 2000) << "the new ones were found";
  EXPECT_LT(killed, 310U * 2064 + index);
  // The next writer saves an index; then all is as cheap as before.
  ASSERT_TRUE(make(10300, 10500));
  EXPECT_LT(CostOfLookUps(10299), 16 * kBlockSize);
}

}  // namespace
