// What a database does when the system refuses one kind of call.  A filter of
// system calls that holds for one thread makes them fail.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "toolkit/Environment.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/SAccountDB.h"
#include "toolkit/database/Sdbfile.h"
#include "toolkit/database/TextForm.h"

namespace {

namespace fs = std::filesystem;
using Access = SDatabaseFile::Access;

// What rename() calls.
#ifdef SYS_rename
constexpr int kRename = SYS_rename;
#else
constexpr int kRename = SYS_renameat;
#endif

thread_local bool disk_is_nearly_full = false;

// The most that a file may have, to the end of the enclosing block.
class SizeLimit {
 public:
  explicit SizeLimit(std::uintmax_t size) {
    const rlimit limit = {size, RLIM_INFINITY};
    EXPECT_EQ(0, prlimit(0, RLIMIT_FSIZE, &limit, &former_));
  }
  ~SizeLimit() { prlimit(0, RLIMIT_FSIZE, &former_, nullptr); }
  SizeLimit(const SizeLimit&) = delete;
  SizeLimit& operator=(const SizeLimit&) = delete;

 private:
  rlimit former_ = {};
};

// From now on the system call fails in this thread.
bool Refuse(int call, int cause) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K,
               SECCOMP_RET_ERRNO | static_cast<unsigned>(cause)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {4, filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

// Stands before the C library's.  A full disk keeps what it had left, as ext4's.
extern "C" int fallocate(int fd, int mode, off_t offset, off_t length) {
  if (!disk_is_nearly_full) {
    return static_cast<int>(syscall(SYS_fallocate, fd, mode, offset, length));
  }
  (void)syscall(SYS_fallocate, fd, mode, offset, length / 2);
  errno = ENOSPC;
  return -1;
}

namespace {

class DatabaseErrorsTest : public testing::Test {
 protected:
  DatabaseErrorsTest() : home_(testing::TempDir() + "/errorsXXXXXX") {
    EXPECT_NE(nullptr, mkdtemp(home_.data()));
    fs::create_directory(home_ + "/config");
    PutEnv("Vellumcraft", SString(std::string_view(home_)));
    path_ = home_ + "/config/Dispatch";
  }
  ~DatabaseErrorsTest() override { fs::remove_all(home_); }
  DatabaseErrorsTest(const DatabaseErrorsTest&) = delete;
  DatabaseErrorsTest& operator=(const DatabaseErrorsTest&) = delete;

  // Runs `before`, then `during` while the call fails.
  static void Refusing(int call, int cause, const std::function<void()>& before,
                       const std::function<void()>& during) {
    std::thread([&] {
      before();
      ASSERT_TRUE(Refuse(call, cause));
      errno = 0;
      during();
    }).join();
  }
  static bool StoreNew(SDatabaseFile* file, const char* path,
                       const SString& value = "value") {
    SSection section{SString(path)};
    section.Set("Key", value);
    std::uint32_t id = SDatabaseFile::kNone;
    return file->Store(section, &id);
  }
  void MakeWith(const SString& value) const {
    SDatabaseFile file;
    ASSERT_TRUE(file.Open(path_, Access::kCreate) &&
                StoreNew(&file, "/Config", value) && file.Close());
  }
  // The file holds `sections` sections, and there is nothing beside it.
  void ExpectSound(std::uint32_t sections) const {
    std::string problem;
    EXPECT_TRUE(CheckDatabase(path_, &problem)) << problem;
    SDatabaseFile file;
    EXPECT_TRUE(file.Open(path_, Access::kRead));
    EXPECT_EQ(sections, file.LiveSections());
    EXPECT_EQ(1, std::distance(fs::directory_iterator(home_ + "/config"), {}));
  }

  std::string home_;
  std::string path_;
};

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
    EXPECT_EQ(call != SYS_flock, fs::is_empty(home_ + "/config")) << call;
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

TEST_F(DatabaseErrorsTest, AFileSystemThatCannotReserveSpaceIsWrittenTo) {
  MakeWith("value");
  SDatabaseFile file;
  Refusing(
      SYS_fallocate, EOPNOTSUPP,
      [&] { ASSERT_TRUE(file.Open(path_, Access::kWrite)); },
      [&] {
        for (const char* path : {"/a", "/b", "/c"}) {
          EXPECT_TRUE(StoreNew(&file, path));
        }
        EXPECT_TRUE(file.Close());
      });
  ExpectSound(4);
}

TEST_F(DatabaseErrorsTest,
       ChangesSyncedOneByOneGoIntoZerosWhichClosingCutsOff) {
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kCreate));
  SDatabaseFile reader;
  ASSERT_TRUE(reader.Open(path_, Access::kRead));
  for (const char* path : {"/a", "/b", "/c"}) {
    ASSERT_TRUE(StoreNew(&file, path) && file.Sync());
  }
  const std::uintmax_t size = fs::file_size(path_);
  EXPECT_GT(size, 60000);
  const SString value('x', 500);
  for (const char* path : {"/d", "/e", "/f", "/g"}) {
    ASSERT_TRUE(StoreNew(&file, path, value) && file.Sync());
    EXPECT_EQ(size, fs::file_size(path_)) << "nothing for the file system";
    ASSERT_TRUE(reader.Follow());
    EXPECT_NE(SDatabaseFile::kNone, reader.Find(path));
  }
  ASSERT_TRUE(StoreNew(&file, "/h", SString('x', 100000)) && file.Sync());
  ASSERT_TRUE(StoreNew(&file, "/i") && file.Sync());
  EXPECT_TRUE(file.Compact());
  ASSERT_TRUE(StoreNew(&file, "/j") && file.Sync());
  ASSERT_TRUE(reader.Follow());
  EXPECT_EQ(10, reader.LiveSections());
  EXPECT_TRUE(file.Close());
  EXPECT_LT(fs::file_size(path_), 105000);
  ExpectSound(10);
}

TEST_F(DatabaseErrorsTest, ADiskWithoutRoomForZerosStillTakesTheChange) {
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kCreate));
  for (const char* path : {"/a", "/b"}) {
    ASSERT_TRUE(StoreNew(&file, path) && file.Sync());
  }
  {
    // As on a full disk, some of the zeros are written.
    const std::uintmax_t size = fs::file_size(path_);
    const SizeLimit full(size + 5000);
    EXPECT_TRUE(StoreNew(&file, "/c") && file.Sync());
    EXPECT_LT(fs::file_size(path_), size + 1000) << "no zeros stay";
    EXPECT_FALSE(StoreNew(&file, "/d", SString('x', 10000)));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_TRUE(StoreNew(&file, "/e"));
  }
  EXPECT_TRUE(file.Close());
  ExpectSound(4);
}

TEST_F(DatabaseErrorsTest, AFullDiskIsNotFilledByWhatCouldNotBeReserved) {
  MakeWith(SString('x', 400000));
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kWrite));
  // From the second change after a sync on, space is taken ahead.
  ASSERT_TRUE(StoreNew(&file, "/a") && StoreNew(&file, "/b"));
  const std::uintmax_t size = fs::file_size(path_);
  disk_is_nearly_full = true;
  EXPECT_FALSE(StoreNew(&file, "/c"));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(size, fs::file_size(path_));
  disk_is_nearly_full = false;
  EXPECT_TRUE(StoreNew(&file, "/d"));
  EXPECT_TRUE(file.Close());
  EXPECT_LT(fs::file_size(path_), size + 1000);
  ExpectSound(4);
}

TEST_F(DatabaseErrorsTest, ClosingCutsOffWhatAFailedWriteLeft) {
  MakeWith("value");
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kWrite));
  ASSERT_TRUE(StoreNew(&file, "/a") && file.Sync());
  const std::uintmax_t size = fs::file_size(path_);
  {
    const SizeLimit full(size + 5000);
    EXPECT_FALSE(StoreNew(&file, "/b", SString('x', 9000)));
    EXPECT_EQ(size + 5000, fs::file_size(path_)) << "part of it is there";
    EXPECT_TRUE(file.Close());
  }
  EXPECT_EQ(size, fs::file_size(path_));
  ExpectSound(2);
}

TEST_F(DatabaseErrorsTest, AnIndexForWhichThereIsNoRoomLeavesNothing) {
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kCreate));
  for (int i = 0; i < 6000; ++i) {
    ASSERT_TRUE(StoreNew(&file, ("/section" + std::to_string(i)).c_str(),
                         SString('x', 50)));
  }
  ASSERT_TRUE(file.Sync());
  SDatabaseFile reader;
  ASSERT_TRUE(reader.Open(path_, Access::kRead));
  const std::uintmax_t size = fs::file_size(path_);
  {
    const SizeLimit full(size + 40000);
    EXPECT_TRUE(file.Close());
  }
  EXPECT_LE(fs::file_size(path_), size);
  ExpectSound(6000);
}

TEST_F(DatabaseErrorsTest, WhatFitsTheReservedSpaceIsStoredWhenThereIsNoMore) {
  MakeWith(SString('x', 400000));
  SDatabaseFile file;
  Refusing(
      SYS_fallocate, ENOSPC,
      [&] {
        ASSERT_TRUE(file.Open(path_, Access::kWrite));
        ASSERT_TRUE(StoreNew(&file, "/New"));
        ASSERT_TRUE(StoreNew(&file, "/Newer"));
      },
      [&] {
        // More than is reserved.
        EXPECT_FALSE(StoreNew(&file, "/Big", SString('x', 1000000)));
        EXPECT_EQ(ENOSPC, errno);
        EXPECT_TRUE(file.Close());
      });
  ExpectSound(3);
}

TEST_F(DatabaseErrorsTest, AnIndexThatCannotBeSavedIsNoFailure) {
  MakeWith(SString('x', 400000));
  SDatabaseFile file;
  Refusing(
      SYS_pwrite64, ENOSPC,
      [&] {
        ASSERT_TRUE(file.Open(path_, Access::kWrite));
        ASSERT_TRUE(StoreNew(&file, "/New", SString('x', 100000)));
        ASSERT_TRUE(file.Sync());
      },
      [&] { EXPECT_TRUE(file.Close()); });
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
  ASSERT_EQ(0, chmod(home_.c_str(), 0755));
  std::thread([&] {
    // The system call itself changes this thread only.
    ASSERT_EQ(0, syscall(SYS_setresuid, -1, 65534, -1));
    SDatabaseFile file;
    EXPECT_TRUE(file.Open(path_, Access::kRead));
    EXPECT_NE(SDatabaseFile::kNone, file.Find("/Config"));
  }).join();
}

}  // namespace
