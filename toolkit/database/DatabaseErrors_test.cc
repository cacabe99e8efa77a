// What a database does when the system refuses one kind of call.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <thread>

#include "toolkit/database/FailingDatabase.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/Sdbfile.h"
#include "toolkit/database/TextForm.h"

namespace {

namespace fs = std::filesystem;

// What rename() calls.
#ifdef SYS_rename
constexpr int kRename = SYS_rename;
#else
constexpr int kRename = SYS_renameat;
#endif

class DatabaseErrorsTest : public FailingDatabase {};

TEST_F(DatabaseErrorsTest, AFileThatCannotBeMadeLeavesNothing) {
  const struct {
    int call;
    int cause;
  } kCalls[] = {{SYS_getrandom, ENOSYS}, {SYS_fchmod, EPERM},
                {SYS_flock, ENOLCK},     {SYS_pwrite64, ENOSPC},
                {SYS_fdatasync, EIO},    {SYS_renameat2, EROFS}};
  for (const auto& [call, cause] : kCalls) {
    Refusing(
        call, cause, [] {},
        [&] {
          SDatabaseFile file;
          EXPECT_FALSE(file.Open(path_, Access::kCreate)) << call;
          EXPECT_EQ(cause, errno) << call;
        });
    EXPECT_FALSE(fs::exists(path_)) << call;
    // What can't be locked can't be removed safely; the next writer does it.
    EXPECT_EQ(call != SYS_flock, fs::is_empty(Config())) << call;
  }
  MakeWith("value");
  ExpectSound(1);
}

TEST_F(DatabaseErrorsTest, ANewNameThatIsNotOnDiskIsToldOnClosing) {
  SDatabaseFile file;
  Refusing(
      SYS_fsync, EIO, [] {},
      [&] {
        EXPECT_TRUE(file.Open(path_, Access::kCreate));
        EXPECT_TRUE(StoreNew(&file, "/Config"));
        EXPECT_FALSE(file.Close());
        EXPECT_EQ(EIO, errno);
      });
}

TEST_F(DatabaseErrorsTest, AFailedSyncIsRemembered) {
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kCreate));
  Refusing(
      SYS_fdatasync, EIO, [] {},
      [&] {
        EXPECT_TRUE(StoreNew(&file, "/Config"));
        EXPECT_FALSE(file.Sync());
        EXPECT_EQ(EIO, errno);
      });
  // The disk works again; what it lost stays lost.
  errno = 0;
  EXPECT_FALSE(file.Sync());
  EXPECT_EQ(EIO, errno);
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(EIO, errno);
}

TEST_F(DatabaseErrorsTest, AFailedWriteChangesNothingAndTheNextClearsItAway) {
  MakeWith("value");
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kWrite));
  Refusing(
      SYS_pwrite64, ENOSPC, [] {},
      [&] {
        EXPECT_FALSE(StoreNew(&file, "/New"));
        EXPECT_EQ(ENOSPC, errno);
        EXPECT_EQ(SDatabaseFile::kNone, file.Find("/New"));
      });
  Refusing(
      SYS_ftruncate, EIO, [] {},
      [&] {
        EXPECT_FALSE(StoreNew(&file, "/New"));
        EXPECT_EQ(EIO, errno);
      });
  EXPECT_TRUE(StoreNew(&file, "/New"));
  EXPECT_TRUE(file.Close());
  ExpectSound(2);
}

TEST_F(DatabaseErrorsTest, ACompactionThatFailsLeavesTheFormerFile) {
  const struct {
    int call;
    int cause;
  } kCalls[] = {{SYS_fdatasync, EIO},
                {kRename, EROFS},
                {SYS_fchmod, EPERM},
                {SYS_getrandom, ENOSYS},
                {SYS_pwrite64, ENOSPC}};
  MakeWith("value");
  for (const auto& [call, cause] : kCalls) {
    SDatabaseFile file;
    Refusing(
        call, cause, [&] { ASSERT_TRUE(file.Open(path_, Access::kWrite)); },
        [&] {
          EXPECT_FALSE(file.Compact()) << call;
          EXPECT_EQ(cause, errno) << call;
        });
    EXPECT_TRUE(StoreNew(&file, "/Config")) << call;
    EXPECT_TRUE(file.Remove(file.LiveSections() - 1)) << call;
    EXPECT_TRUE(file.Close()) << call;
    ExpectSound(1);
    fs::remove(path_);
    MakeWith("value");
  }
}

TEST_F(DatabaseErrorsTest, ANewFileThatCannotBeGivenAwayIsNotPutInPlace) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to give files away";
  }
  MakeWith("value");
  ASSERT_EQ(0, chown(path_.c_str(), 1, 1));
  SDatabaseFile file;
  Refusing(
      SYS_fchown, EPERM, [&] { ASSERT_TRUE(file.Open(path_, Access::kWrite)); },
      [&] {
        EXPECT_FALSE(file.Compact());
        EXPECT_EQ(EPERM, errno);
      });
  EXPECT_TRUE(file.Compact()) << "till it can be";
  EXPECT_TRUE(file.Close());
  ExpectSound(1);
}

TEST_F(DatabaseErrorsTest, AReadErrorIsNeitherDamageNorAMissingSection) {
  MakeWith(SString('x', 20000));
  {
    // Whole blocks are read in another way than the last, unfinished one.
    SDatabaseFile file;
    ASSERT_TRUE(file.Open(path_, Access::kWrite));
    ASSERT_TRUE(StoreNew(&file, "/Last", SString('x', 50000)) && file.Close());
  }
  Sdbfile settings("Dispatch", 0, "Vellumcraft");
  SDatabaseFile reader;
  SDatabaseFile writer;
  Refusing(
      SYS_pread64, EIO,
      [&] {
        ASSERT_TRUE(settings.Open("/Config", 0));
        ASSERT_TRUE(reader.Open(path_, Access::kRead));
        ASSERT_TRUE(writer.Open(path_, Access::kWrite));
      },
      [&] {
        std::string problem;
        std::string text;
        SSection section;
        SDatabaseFile late;
        EXPECT_FALSE(late.Open(path_, Access::kRead));
        EXPECT_EQ(EIO, errno);
        EXPECT_FALSE(reader.Follow());
        EXPECT_EQ(EIO, errno);
        for (SDatabaseFile* file : {&reader, &writer}) {
          for (const std::uint32_t id : {0U, 1U}) {
            errno = 0;
            EXPECT_FALSE(file->Read(id, &section));
            EXPECT_EQ(EIO, errno);
          }
        }
        EXPECT_EQ(SDatabaseFile::kNone, writer.Find("/Config"));
        EXPECT_EQ(EIO, errno);
        EXPECT_FALSE(DatabaseAsText(&writer, &text));
        EXPECT_EQ(EIO, errno);
        EXPECT_FALSE(settings.Open("/Config", 0));
        EXPECT_EQ(EIO, errno);
        EXPECT_FALSE(CheckDatabase(path_, &problem));
      });
  SSection section;
  EXPECT_TRUE(writer.Read(0, &section)) << "it was sound all the time";
  EXPECT_TRUE(writer.Close());
  ExpectSound(2);
}

TEST_F(DatabaseErrorsTest, AFileWhoseStatusCannotBeToldIsNotOpened) {
  MakeWith("value");
  // One of them is what fstat() calls.
  Refusing(
      SYS_fstat, EIO, [] { ASSERT_TRUE(Refuse(SYS_newfstatat, EIO)); },
      [&] {
        SDatabaseFile file;
        EXPECT_FALSE(file.Open(path_, Access::kRead));
        EXPECT_EQ(EIO, errno);
        EXPECT_FALSE(file.Open(path_, Access::kWrite));
        EXPECT_EQ(EIO, errno);
        std::string problem;
        EXPECT_FALSE(CheckDatabase(path_, &problem));
        EXPECT_EQ("", problem);
      });
  ExpectSound(1);
}

TEST_F(DatabaseErrorsTest, AccountsSayWhyTheyCannotBeRead) {
  {
    SAccountDBMod database;
    SAccountMod account;
    ASSERT_TRUE(database.ModifyAccount("Ann", &account) && account.Lock());
  }
  std::unique_ptr<SAccountDB> reader;
  Refusing(
      SYS_pread64, EIO, [&] { reader = std::make_unique<SAccountDB>(); },
      [&] {
        EXPECT_FALSE(reader->IsOpen());
        EXPECT_EQ(EIO, reader->OpenError());
        EXPECT_FALSE(reader->GetAccountInfo("Ann"));
        EXPECT_EQ(0, reader->AccountUIDCount());
        EXPECT_EQ(EIO, SAccountDB().OpenError());
      });
  EXPECT_TRUE(reader->GetAccountInfo("Ann"));
  EXPECT_EQ(0, reader->OpenError());
}

TEST_F(DatabaseErrorsTest, AnAccountThatCannotBeReadIsNotMadeAnew) {
  SAccountDBMod database;
  SAccountMod account;
  ASSERT_TRUE(database.ModifyAccount("Ann", &account) && account.Lock());
  Refusing(
      SYS_pread64, EIO, [] {},
      [&] {
        EXPECT_FALSE(database.ModifyAccount("Ann", &account));
        EXPECT_EQ(EIO, errno);
      });
  EXPECT_EQ(1, database.AccountUIDCount());
}

TEST_F(DatabaseErrorsTest, AccountsThatCannotBeStoredAreNotThere) {
  SAccountDBMod database;
  SAccountMod account;
  ASSERT_TRUE(database.ModifyAccount("Ann", &account));
  Refusing(
      SYS_pwrite64, ENOSPC, [] {},
      [&] {
        EXPECT_FALSE(account.Lock());
        EXPECT_EQ(ENOSPC, errno);
      });
  EXPECT_FALSE(database.GetAccountInfo("Ann"));
  EXPECT_TRUE(database.CloseDB());
  Refusing(
      SYS_pwrite64, ENOSPC, [] {},
      [&] {
        EXPECT_FALSE(CreateSpecialAccounts("mail.x.org", "10.0.0.1"));
        EXPECT_EQ(ENOSPC, errno);
      });
  EXPECT_EQ(0, SAccountDB().AccountUIDCount());
  EXPECT_TRUE(CreateSpecialAccounts("mail.x.org", "10.0.0.1"));
}

TEST_F(DatabaseErrorsTest, AReaderNeedNotOwnTheFile) {
  MakeWith("value");
  ASSERT_EQ(0, chmod(path_.c_str(), 0444));
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to become somebody else";
  }
  ASSERT_EQ(0, chmod(Home().c_str(), 0755));
  std::thread([&] {
    // The system call itself changes this thread only.
    ASSERT_EQ(0, syscall(SYS_setresuid, -1, 65534, -1));
    SDatabaseFile file;
    EXPECT_TRUE(file.Open(path_, Access::kRead));
    EXPECT_NE(SDatabaseFile::kNone, file.Find("/Config"));
  }).join();
}

}  // namespace
