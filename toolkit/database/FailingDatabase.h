#pragma once

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/ScratchHome.h"

/// The fixture of tests in which the system refuses what a database needs.  A
/// filter of system calls that holds for one thread makes them fail.
class FailingDatabase : public ScratchHome {
 protected:
  using Access = SDatabaseFile::Access;

  // From now on the system call fails in this thread.
  static bool Refuse(int call, int cause) {
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
    EXPECT_EQ(1,
              std::distance(std::filesystem::directory_iterator(Config()), {}));
  }

  const std::string path_ = Path("Dispatch");
};
