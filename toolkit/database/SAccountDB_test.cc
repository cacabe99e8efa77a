// What accounts and their database refuse, and what they remember.

#include "toolkit/database/SAccountDB.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "toolkit/database/ScratchHome.h"

namespace {

class SAccountDBTest : public ScratchHome {
 protected:
  static bool Make(SAccountDBMod& database, const char* uid) {
    SAccountMod account;
    return database.ModifyAccount(uid, &account) && account.Set("Name", uid) &&
           account.Set("SMTP-Address", SString(uid) + "@x.org") &&
           account.Lock();
  }
};

TEST_F(SAccountDBTest, ACopyOfAnAccountKeepsWhatWasRead) {
  SAccountDBMod database;
  ASSERT_TRUE(Make(database, "Ann"));
  SAccountMod changing;
  ASSERT_TRUE(database.ModifyAccount("Ann", &changing));
  const SAccount copy(changing);
  SAccount assigned;
  assigned = copy;
  const SAccount empty;
  ASSERT_TRUE(changing.Set("Name", "Anna"));
  EXPECT_EQ("Anna", changing.Get("Name")[0].Std());
  EXPECT_EQ("Ann", copy.Get("Name")[0].Std());
  EXPECT_EQ("Ann", assigned.Get("Name")[0].Std());
  assigned = empty;
  EXPECT_FALSE(assigned.Get("Name").Defined());
}

TEST_F(SAccountDBTest, AnAccountThatWasNeverOpenedCannotBeChanged) {
  SAccountMod account;
  errno = 0;
  EXPECT_FALSE(account.Set("Name", "Ann"));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_FALSE(account.Lock());
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(SAccountDBTest, FieldsAndUIDsWithoutANameAreRefused) {
  SAccountDBMod database;
  SAccountMod account;
  for (const char* uid : {"", ".", "..", "a/b", "a\nb"}) {
    errno = 0;
    EXPECT_FALSE(database.ModifyAccount(uid, &account)) << uid;
    EXPECT_EQ(EINVAL, errno) << uid;
  }
  ASSERT_TRUE(database.ModifyAccount("Ann", &account));
  errno = 0;
  EXPECT_FALSE(account.Set("", "value"));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_FALSE(database.GetAccountInfo("a/b"));
  EXPECT_TRUE(database.DeleteAccount("a/b")) << "there is none to remove";
  EXPECT_TRUE(database.DeleteAccount("")) << "nor is the top one";
}

TEST_F(SAccountDBTest, FieldsSetTogetherOnANewAccountWaitForLock) {
  SAccountDBMod database;
  SAccountMod account;
  ASSERT_TRUE(database.ModifyAccount("Ann", &account));
  const SString name("Name");
  const SString address("SMTP-Address");
  const SStringList ann("Ann");
  const SStringList at("ann@x.org");
  ASSERT_TRUE(account.SetTogether({{name, ann}, {address, at}}));
  EXPECT_FALSE(database.GetAccountInfo("Ann"));
  ASSERT_TRUE(account.Lock());
  EXPECT_EQ("Ann", database.GetAccountUID(S821Address("ann@x.org")).Std());
  EXPECT_TRUE(account.Lock()) << "a second one does nothing";
  EXPECT_EQ(1, database.AccountUIDCount());
}

TEST_F(SAccountDBTest, OfTwoThatBeginTheSameAccountTheFirstToLockMakesIt) {
  SAccountDBMod database;
  SAccountMod first;
  SAccountMod second;
  ASSERT_TRUE(database.ModifyAccount("Ann", &first));
  ASSERT_TRUE(database.ModifyAccount("Ann", &second));
  ASSERT_TRUE(second.Set("Name", "second"));
  ASSERT_TRUE(first.Set("Name", "first") && first.Lock());
  EXPECT_FALSE(second.Lock());
  EXPECT_EQ(EEXIST, errno);
  SAccount read;
  ASSERT_TRUE(database.GetAccountInfo("Ann", &read));
  EXPECT_EQ("first", read.Get("Name")[0].Std());
}

TEST_F(SAccountDBTest, AnAccountThatHasGoneMeanwhileCannotBeChanged) {
  SAccountDBMod database;
  ASSERT_TRUE(Make(database, "Ann") && Make(database, "Bob"));
  SAccountMod ann;
  SAccountMod bob;
  ASSERT_TRUE(database.ModifyAccount("Ann", &ann));
  ASSERT_TRUE(database.ModifyAccount("Bob", &bob));
  ASSERT_TRUE(database.DeleteAccount("Ann"));
  EXPECT_FALSE(ann.Set("Name", "late"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(database.GetAccountInfo("Ann"));
  EXPECT_TRUE(bob.Set("Name", "Robert")) << "the others aren't concerned";
}

TEST_F(SAccountDBTest, WhileAnotherWritesNothingIsChanged) {
  SAccountDBMod late;
  SAccountMod known;
  SAccountMod fresh;
  ASSERT_TRUE(Make(late, "Ann"));
  ASSERT_TRUE(late.ModifyAccount("Ann", &known));
  ASSERT_TRUE(late.ModifyAccount("Bob", &fresh));
  ASSERT_TRUE(late.CloseDB());
  SAccountDBMod writer;
  ASSERT_TRUE(writer.BecomeWriter());
  EXPECT_FALSE(known.Set("Name", "late"));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_FALSE(fresh.Lock());
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_FALSE(late.DeleteAccount("Ann"));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_EQ(1, writer.AccountUIDCount());
  ASSERT_TRUE(writer.CloseDB());
  EXPECT_TRUE(known.Set("Name", "in time"));
  EXPECT_TRUE(fresh.Lock());
}

TEST_F(SAccountDBTest, AFileThatIsNoDatabaseIsToldFromNone) {
  EXPECT_TRUE(SAccountDB().IsOpen()) << "a missing one reads as empty";
  EXPECT_EQ(0, SAccountDB().AccountUIDCount());
  EXPECT_TRUE(SAccountDB().GetLocalMailDomains().IsEmpty());
  EXPECT_EQ("", SAccountDB().GetAccountUID(S821Address("ann@x.org")).Std());
  WriteFile(Path("Accounts"), "no database");
  SAccountDBMod database;
  EXPECT_EQ(EBADMSG, database.OpenError());
  EXPECT_FALSE(database.IsOpen());
  EXPECT_FALSE(database.DeleteAccount("Ann"));
  EXPECT_FALSE(database.BecomeWriter());
  EXPECT_EQ(EBADMSG, errno);
  EXPECT_FALSE(CreateSpecialAccounts("mail", "10.0.0.1"));
}

TEST_F(SAccountDBTest, SpecialAccountsAreMadeOnceAndLeftAlone) {
  ASSERT_TRUE(CreateSpecialAccounts("mail.x.org", "10.0.0.1"));
  {
    SAccountDBMod database;
    SAccountMod help;
    ASSERT_TRUE(database.ModifyAccount("Help", &help));
    ASSERT_TRUE(help.Set("Name", "changed"));
  }
  ASSERT_TRUE(CreateSpecialAccounts("other", "10.0.0.2"));
  const SAccountDB database;
  EXPECT_EQ(6, database.AccountUIDCount());
  EXPECT_EQ("Lists",
            database.GetAccountUID(S821Address("lists@10.0.0.1")).Std());
  SAccount help;
  ASSERT_TRUE(database.GetAccountInfo("Help", &help));
  EXPECT_EQ("changed", help.Get("Name")[0].Std());
  EXPECT_EQ("Postmaster", help.Get("Account-Delivery")[0].Std());
}

TEST_F(SAccountDBTest, DomainsAreThoseOfTheNewestState) {
  SAccountDBMod database;
  ASSERT_TRUE(Make(database, "Ann"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(database.GetLocalMailDomains() == SStringList("x.org"));
  }
  SAccountMod ann;
  ASSERT_TRUE(database.ModifyAccount("Ann", &ann));
  ASSERT_TRUE(ann.Set("SMTP-Address", "ann@y.org"));
  SAccountMod list;  // without an address
  ASSERT_TRUE(database.ModifyAccount("List", &list) &&
              list.Set("Name", "List") && list.Lock());
  EXPECT_TRUE(database.GetLocalMailDomains() == SStringList("y.org"));
}

}  // namespace
