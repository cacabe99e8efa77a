#include "toolkit/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "toolkit/ScratchDirectory.h"
#include "toolkit/Signals.h"

namespace {

class FilesTest : public testing::Test {
 protected:
  SString Path(const char* name) const { return directory_ + name; }
  SString Make(const char* name, std::string_view content,
               mode_t mode = 0644) const {
    const SDescriptor file(
        open(Path(name), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    EXPECT_TRUE(WriteAll(file.Get(), content));
    EXPECT_EQ(0, fchmod(file.Get(), mode));
    return Path(name);
  }

  const ScratchDirectory scratch_;
  const SString directory_ = SString(scratch_.Directory()) + "/";
};

TEST_F(FilesTest, ARenameToAFreeNameReplacesNothing) {
  const SString from = Make("from", "new");
  ASSERT_EQ(0, symlink("nowhere", Path("link")));
  ASSERT_EQ(0, mkdir(Path("empty"), 0700));
  for (const SString& taken :
       {Make("to", "old"), Path("link"), Path("empty")}) {
    EXPECT_FALSE(RenameToFreeName(from, taken));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_TRUE(PathTaken(from));
  }
  EXPECT_TRUE(RenameToFreeName(from, Path("free")));
  EXPECT_FALSE(PathTaken(from));
  EXPECT_EQ("new", MapFileRead(Path("free")));
}

TEST_F(FilesTest, KindsOfPathsAreToldApart) {
  const SString file = Make("file", "x");
  const SString dangling = Path("dangling");
  const SString link = Path("link");
  ASSERT_EQ(0, symlink("nowhere", dangling));
  ASSERT_EQ(0, symlink("file", link));
  struct Case {
    SString path;
    bool exists;
    bool taken;
    bool directory;
    bool regular;
  };
  const Case kCases[] = {
      {file, true, true, false, true},
      {link, true, true, false, true},
      {dangling, false, true, false, false},
      {directory_, true, true, true, false},
      {Path("missing"), false, false, false, false},
      {file + "/below", false, false, false, false},
      {"/dev/null", true, true, false, false},
      {"", false, false, false, false},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(FileExists(c.path), c.exists) << c.path;
    EXPECT_EQ(PathTaken(c.path), c.taken) << c.path;
    EXPECT_EQ(IsDirectory(c.path), c.directory) << c.path;
    EXPECT_EQ(IsRegular(c.path), c.regular) << c.path;
  }
}

TEST_F(FilesTest, WriteableIsWhatTheModeSaysAlsoForRoot) {
  EXPECT_TRUE(IsWriteable(Make("a", "", 0200)));
  EXPECT_FALSE(IsWriteable(Make("b", "", 0466)));
  EXPECT_FALSE(IsWriteable(Path("missing")));
}

TEST_F(FilesTest, SizesAreInBytes) {
  EXPECT_EQ(FileSize(Make("a", "12345")), 5);
  EXPECT_EQ(FileSize(Make("b", "")), 0);
  EXPECT_EQ(FileSize(Path("missing")), -1);
}

TEST_F(FilesTest, MakeDirMakesOneLevelWithTheModeLessTheMask) {
  const mode_t former = umask(07);
  EXPECT_TRUE(MakeDir(Path("new"), 0777));
  EXPECT_FALSE(MakeDir(Path("new"), 0777));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(MakeDir(Path("missing/new"), 0777));
  umask(former);
  struct stat status = {};
  ASSERT_EQ(0, stat(Path("new"), &status));
  EXPECT_EQ(status.st_mode & 07777U, 0770U);
}

TEST_F(FilesTest, RealPathFollowsEveryLink) {
  const SString file = Make("file", "");
  ASSERT_EQ(0, symlink("file", Path("one")));
  ASSERT_EQ(0, symlink("one", Path("two")));
  EXPECT_EQ(RealPath(Path("two")), RealPath(file));
  EXPECT_EQ(RealPath(Path("missing")), "");
  ASSERT_EQ(0, symlink("loop", Path("loop")));
  EXPECT_EQ(RealPath(Path("loop")), "");
}

TEST_F(FilesTest, ReadDirSortsByBytes) {
  for (const char* name : {"b", "B", ".hidden", "a b"}) {
    Make(name, "");
  }
  EXPECT_EQ(ReadDir(directory_).Join("|"), ".hidden|B|a b|b");
  EXPECT_TRUE(ReadDir(Path("missing")).IsEmpty());
}

// Ends the process with status 0 when a directory that can be opened but not
// read has no names and tells why.
[[noreturn]] void ReadWhatOnlyOpens(const SString& directory) {
  // Who has fewer capabilities than a process may not see its memory; root may
  // open its directory of it all the same.
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  sets[0].permitted = sets[0].effective = 1U << CAP_DAC_READ_SEARCH;
  if (syscall(SYS_capset, &header, sets) != 0 ||
      !SDescriptor(open(directory, O_RDONLY | O_DIRECTORY)).IsOpen()) {
    _exit(1);
  }
  _exit(ReadDir(directory).IsEmpty() && errno == EACCES ? 0 : 2);
}

TEST_F(FilesTest, AFailureToReadADirectoryIsTold) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "takes the capabilities of root";
  }
  const SString directory =
      "/proc/" + SString(static_cast<int>(getpid())) + "/map_files";
  ASSERT_FALSE(ReadDir(directory).IsEmpty());
  EXPECT_EXIT(ReadWhatOnlyOpens(directory), testing::ExitedWithCode(0), "");
}

TEST_F(FilesTest, ReadingReproducesTheContent) {
  const std::string big(1000000, 'x');
  const std::string contents[] = {"", "a", "a\n", std::string("a\0b\n", 4),
                                  big + "\n" + big};
  for (const std::string& content : contents) {
    const SString file = Make("file", content);
    SStringList lines = "left over";
    EXPECT_TRUE(ReadLines(file, &lines));
    EXPECT_EQ(lines.Join().Std(), content);
    EXPECT_EQ(MapFileRead(file).Std(), content);
    RemoveFile(file);
  }
}

TEST_F(FilesTest, WhatCannotBeReadIsEmptyAndNeverMade) {
  for (const SString& path : {Path("missing"), directory_}) {
    SStringList lines = "left over";
    EXPECT_FALSE(ReadLines(path, &lines));
    EXPECT_TRUE(lines.IsEmpty());
    EXPECT_EQ(MapFileRead(path), "");
  }
  EXPECT_FALSE(PathTaken(Path("missing")));
}

TEST_F(FilesTest, RenameAndRemoveTellWhetherTheyWorked) {
  const SString file = Make("file", "x");
  EXPECT_TRUE(Rename(file, Path("other")));
  EXPECT_FALSE(Rename(file, Path("other")));
  EXPECT_TRUE(RemoveFile(Path("other")));
  EXPECT_FALSE(RemoveFile(Path("other")));
}

TEST_F(FilesTest, BaseNameTakesDirectoryAndSuffixAway) {
  SStringList paths = "config/Dispatch.install";
  paths.Push("POP");
  paths.Push("/a/.install");
  paths.Push("x.install.old");
  EXPECT_EQ(BaseName(paths, ".install").Join("|"),
            "Dispatch|POP||x.install.old");
  EXPECT_EQ(BaseName(paths, "").Join("|"),
            "Dispatch.install|POP|.install|x.install.old");
}

TEST_F(FilesTest, OwnerAndGroupAreThoseOfALinkItself) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "giving files away takes root";
  }
  const SString file = Make("file", "");
  const SString link = Path("link");
  ASSERT_EQ(0, symlink("file", link));
  ASSERT_EQ(0, lchown(link, 1, 2));
  EXPECT_EQ(FileOwner(file), "root");
  EXPECT_EQ(FileGroup(file), "root");
  EXPECT_EQ(FileOwner(link), "daemon");
  EXPECT_EQ(FileGroup(link), "bin");
  ASSERT_EQ(0, chown(file, 54321, 54321));
  EXPECT_EQ(FileOwner(file), "");
  EXPECT_EQ(FileGroup(file), "");
  EXPECT_EQ(FileOwner(Path("missing")), "");
  EXPECT_EQ(FileGroup(Path("missing")), "");
}

TEST_F(FilesTest, WriteAllReportsAFullDevice) {
  const SDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_FALSE(WriteAll(full.Get(), "x"));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_TRUE(WriteAll(full.Get(), ""));
}

TEST_F(FilesTest, WriteAllReportsALimitWithoutASignal) {
  struct sigaction action = {};
  rlimit former = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &former));
  rlimit limit = former;
  limit.rlim_cur = 3;
  const SDescriptor file(
      open(Path("limited"), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  const bool written = WriteAll(file.Get(), "four");
  const int cause = errno;
  bool written_within = false;
  {
    const SFailAtSizeLimit no_signal;
    written_within = WriteAll(file.Get(), "four");
    written_within = WriteAll(file.Get(), "four") || written_within;
  }
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &former));

  EXPECT_FALSE(written);
  EXPECT_EQ(cause, EFBIG);
  EXPECT_FALSE(written_within);
  ASSERT_EQ(0, sigaction(SIGXFSZ, nullptr, &action));
  EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TEST_F(FilesTest, AWholeFileIsMadeOnlyWhereNothingIs) {
  const SString path = Path("whole");
  EXPECT_TRUE(CreateWholeFile(path, 0640, "content"));
  EXPECT_EQ("content", MapFileRead(path));
  struct stat status = {};
  ASSERT_EQ(0, stat(path, &status));
  EXPECT_EQ(0640U, status.st_mode & 07777);
  EXPECT_FALSE(CreateWholeFile(path, 0640, "other"));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ("content", MapFileRead(path));
  std::filesystem::create_symlink("nowhere", Path("dangling").Std());
  EXPECT_FALSE(CreateWholeFile(Path("dangling"), 0640, "x"));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_FALSE(CreateWholeFile(Path("no/such"), 0640, "x"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(FileExists(Path("nowhere")));
}

TEST_F(FilesTest, DirectoriesAreSyncedByTheNamesInThem) {
  EXPECT_TRUE(SyncDirectoryOf(Path("file")));
  EXPECT_TRUE(SyncDirectoryOf("/file"));
  EXPECT_FALSE(SyncDirectoryOf(Path("missing/file")));
}

TEST_F(FilesTest, DescriptorsAreClosedOnceAndKeepErrno) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  {
    SDescriptor first(fd);
    SDescriptor second(std::move(first));
    SDescriptor third;
    third = std::move(second);
    EXPECT_EQ(third.Get(), fd);
    errno = EXDEV;
  }
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  SDescriptor closed(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(closed.Close());
  EXPECT_FALSE(closed.IsOpen());
}

}  // namespace
