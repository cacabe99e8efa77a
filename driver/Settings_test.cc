#include "driver/Settings.h"

#include <gtest/gtest.h>

#include "driver/FullInstall.h"
#include "driver/Initialize.h"
#include "driver/Interrupts.h"

namespace {

// Before anything else has run: the first test of its program.
TEST(SettingsTest, TheyBeginEmptyExceptForThePort) {
  for (const SString* text :
       {&gstr_HostName, &gstr_DomainName, &gstr_IpAddress, &gstr_Vellumcraft,
        &gstr_ProgramDir, &gstr_MailboxDir, &gstr_MailOwner, &gstr_MailGroup,
        &gstr_forThisIP, &gstr_InetdConf, &gstr_MaildropDir, &gstr_PasswdFile,
        &gstr_Sendmail, &gstr_SendmailCF, &gstr_ServicesFile}) {
    EXPECT_EQ("", *text);
  }
  for (const SStringList* list :
       {&gstrl_Services, &gstrl_ServicePorts, &gstrl_Reminders}) {
    EXPECT_TRUE(list->IsEmpty());
  }
  EXPECT_EQ(80, gn_WWWPort);
  EXPECT_EQ(0, gf_ShowStoppers);
  EXPECT_EQ(0, gf_VellumcraftIsRunning);
  EXPECT_EQ(1, gf_OkToBeKilled);
  EXPECT_EQ(0, gf_Killed);
}

TEST(SettingsTest, TheSystemsLoginsAreListedInTheirOrder) {
  EXPECT_EQ(
      "sysadm diag auditor dbadmin rfindd EZsetup demos OutOfBox 4Dgifts adm "
      "audit bin daemon ftp ingres listen lp noaccess nobody nuucp smtp sundiag "
      "sync sys sysdiag uucp",
      gstrl_BadUsers.Join(" "));
}

TEST(InitializeTest, PathsAndServicesAreFilledIn) {
  EXPECT_TRUE(Initialize());
  EXPECT_EQ("/etc/passwd", gstr_PasswdFile);
  EXPECT_EQ("/var/mail/", gstr_MaildropDir);
  EXPECT_EQ("/usr/lib/sendmail", gstr_Sendmail);
  EXPECT_EQ("/etc/sendmail.cf", gstr_SendmailCF);
  EXPECT_EQ("smtp pop3 finger", gstrl_Services.Join(" "));
  EXPECT_EQ("25 110 79", gstrl_ServicePorts.Join(" "));
}

TEST(FullInstallTest, TheOrderOfTheTasks) {
  SStringList names;
  for (const SInstallTask& task : InstallTasks()) {
    names.Push(task.name);
  }
  EXPECT_EQ(
      "AskToContinue Initialize CreateMailboxDir UpdateConfiguration "
      "FixMaildropDir SetupSpecialAccounts ConfigureFeatures AddUserAccounts "
      "SetupAdminAccount EditInetdConf KillSendmail InstallSendmail KillServers "
      "StartDaemon WarnAdmin",
      names.Join(" "));
}

}  // namespace
