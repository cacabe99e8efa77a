// What a database does when there is no room left, and with the room that it takes
// ahead.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include "toolkit/database/FailingDatabase.h"

namespace {

namespace fs = std::filesystem;

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

class FullDiskTest : public FailingDatabase {};

TEST_F(FullDiskTest, AFileSystemThatCannotReserveSpaceIsWrittenTo) {
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

TEST_F(FullDiskTest, ChangesSyncedOneByOneGoIntoZerosWhichClosingCutsOff) {
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

TEST_F(FullDiskTest, ADiskWithoutRoomForZerosStillTakesTheChange) {
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

TEST_F(FullDiskTest, AFullDiskIsNotFilledByWhatCouldNotBeReserved) {
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

TEST_F(FullDiskTest, SpaceThatCouldNotBeGivenBackIsCutOffByTheNextChange) {
  MakeWith(SString('x', 400000));
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, Access::kWrite));
  ASSERT_TRUE(StoreNew(&file, "/a") && StoreNew(&file, "/b"));
  const std::uintmax_t size = fs::file_size(path_);
  Refusing(
      SYS_ftruncate, EIO, [] {},
      [&] {
        disk_is_nearly_full = true;
        EXPECT_FALSE(StoreNew(&file, "/c"));
        EXPECT_EQ(EIO, errno);
      });
  EXPECT_GT(fs::file_size(path_), size + 10000);
  EXPECT_TRUE(StoreNew(&file, "/d"));
  EXPECT_TRUE(file.Close());
  EXPECT_LT(fs::file_size(path_), size + 1000);
  ExpectSound(4);
}

TEST_F(FullDiskTest, ClosingCutsOffWhatAFailedWriteLeft) {
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

TEST_F(FullDiskTest, AnIndexForWhichThereIsNoRoomLeavesNothing) {
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

TEST_F(FullDiskTest, WhatFitsTheReservedSpaceIsStoredWhenThereIsNoMore) {
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

TEST_F(FullDiskTest, AnIndexThatCannotBeSavedIsNoFailure) {
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

}  // namespace
