#include "toolkit/Privileges.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "toolkit/Files.h"

namespace {

constexpr uid_t kOwner = 950;
constexpr gid_t kOwnerGroup = 951;
constexpr uid_t kUser = 1001;
constexpr gid_t kUserGroup = 1002;

struct Identity {
  uid_t uid;
  gid_t gid;
  int groups;
  friend bool operator==(const Identity&, const Identity&) = default;
};

Identity Now() {
  return {geteuid(), getegid(), getgroups(0, nullptr)};
}

const Identity kMailOwner = {kOwner, kOwnerGroup, 0};

// Exit status of a child of root that became the mail owner and then ran
// `test`; identities of the test program itself stay untouched.
int InChild(const std::function<bool()>& test) {
  const pid_t child = fork();
  if (child == 0) {
    const bool good = BecomeMailOwner(kOwner, kOwnerGroup) && test();
    _exit(good ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class PrivilegesTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "identities can only be changed by root";
    }
  }
};

TEST_F(PrivilegesTest, TheMailOwnerHasNoOtherGroup) {
  EXPECT_EQ(0, InChild([] {
              return Now() == kMailOwner && getuid() == 0 && getgid() == 0;
            }));
}

TEST_F(PrivilegesTest, ActingAsRootKeepsTheMailGroup) {
  EXPECT_EQ(
      0, InChild([] {
        bool good = false;
        {
          const SActAs as_root(SActAs::Root{});
          good = as_root.Succeeded() && Now() == Identity{0, kOwnerGroup, 0};
        }
        return good && Now() == kMailOwner;
      }));
}

TEST_F(PrivilegesTest, ActingAsAUserHasTheUsersGroupOnly) {
  EXPECT_EQ(0, InChild([] {
              bool good = false;
              {
                const SActAs as_user(kUser, kUserGroup);
                gid_t group = 0;
                good = as_user.Succeeded() &&
                       Now() == Identity{kUser, kUserGroup, 1} &&
                       getgroups(1, &group) == 1 && group == kUserGroup &&
                       open("/etc/shadow", O_RDONLY | O_CLOEXEC) < 0;
              }
              return good && Now() == kMailOwner;
            }));
}

TEST_F(PrivilegesTest, BlocksNestInEitherOrder) {
  EXPECT_EQ(0, InChild([] {
              bool good = true;
              {
                const SActAs as_root(SActAs::Root{});
                {
                  const SActAs as_user(kUser, kUserGroup);
                  good = good && Now() == Identity{kUser, kUserGroup, 1};
                  {
                    const SActAs as_root_again(SActAs::Root{});
                    good = good && geteuid() == 0;
                  }
                  good = good && Now() == Identity{kUser, kUserGroup, 1};
                }
                good = good && Now() == Identity{0, kOwnerGroup, 0};
              }
              return good && Now() == kMailOwner;
            }));
}

TEST_F(PrivilegesTest, ErrnoOutlivesTheBlock) {
  EXPECT_EQ(0, InChild([] {
              errno = 0;
              {
                const SActAs as_user(kUser, kUserGroup);
                errno = ELOOP;
              }
              return errno == ELOOP;
            }));
}

TEST_F(PrivilegesTest, AUserThatCannotBeBecomeChangesNothing) {
  EXPECT_EQ(0, InChild([] {
              // No user has this id; the kernel refuses it.
              const SActAs as_nobody(static_cast<uid_t>(-1),
                                     static_cast<gid_t>(-1));
              return !as_nobody.Succeeded() && Now() == kMailOwner;
            }));
}

TEST_F(PrivilegesTest, ALostWayBackEndsTheProcess) {
  EXPECT_EQ(255, InChild([] {
              const SActAs as_user(kUser, kUserGroup);
              // Gives up root for good, as no code of ours does.
              seteuid(0);
              return setresuid(kUser, kUser, kUser) == 0;
            }));
}

TEST_F(PrivilegesTest, RootForGoodIsRootWithTheMailGroup) {
  EXPECT_EQ(
      0, InChild([] {
        return BecomeRootForGood() && Now() == Identity{0, kOwnerGroup, 0};
      }));
}

TEST_F(PrivilegesTest, RootIsAUserLikeOthers) {
  EXPECT_EQ(0, InChild([] {
              bool good = false;
              {
                const SActAs as_user(0, 0);
                good = as_user.Succeeded() && Now() == Identity{0, 0, 1};
              }
              return good && Now() == kMailOwner;
            }));
}

TEST_F(PrivilegesTest, AUserWhoIsInForceAlreadyIsStillSetUpFully) {
  EXPECT_EQ(0, InChild([] {
              bool good = false;
              {
                const SActAs as_owner(kOwner, kOwnerGroup);
                good = as_owner.Succeeded() &&
                       Now() == Identity{kOwner, kOwnerGroup, 1};
              }
              return good && Now() == kMailOwner;
            }));
}

TEST_F(PrivilegesTest, WithoutRootAUserIsRefusedAndTheProcessGoesOn) {
  EXPECT_EQ(0, InChild([] {
              if (seteuid(0) != 0 || setresuid(kUser, kUser, kUser) != 0) {
                return false;
              }
              {
                const SActAs as_other(kOwner, kOwnerGroup);
                if (as_other.Succeeded()) {
                  return false;
                }
              }
              return geteuid() == kUser;
            }));
}

}  // namespace
