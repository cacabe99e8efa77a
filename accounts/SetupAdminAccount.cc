// Makes sure that the server has an administrator.
//
//   touches    the accounts "Postmaster" and "Root"
//   identity   mail owner
//   stops      an account can't be made or opened, answer "q", deliveries that
//              can be neither changed nor restored

#include "accounts/SetupAdminAccount.h"

#include "accounts/AdminAccounts.h"
#include "accounts/AdminDialogue.h"
#include "console/Console.h"
#include "driver/Settings.h"
#include "serverconfig/DatabaseMessages.h"
#include "toolkit/Signals.h"

namespace {

constexpr const char* pz_Currently =
    "The Postmaster account is currently configured with the following information:";
constexpr const char* pz_PasswordLine = "    Password:        [not shown]\n\n";
constexpr const char* pz_AccessLabel = "    Access Domains:  ";
constexpr const char* pz_PostmastersLabel = "    Postmasters:     ";
constexpr int kLabelWidth = 21;

constexpr const char* pz_Change =
    "Do you want to change any information? yes/no/quit ";

constexpr const char* pz_NeedsSetup =
    "The Postmaster account needs to be set up with a password and with delivery to one or more human recipients. You can also change the Access-Domains of the account (which is currently set up to be only your domain).";

constexpr const char* pz_EnterPassword =
    "Please enter a password for the Postmaster account. This will be used to configure all parameters and accounts in vellumcraft.  It is highly recommended that you DO NOT USE YOUR SYSTEM'S ROOT PASSWORD for this!";
constexpr const char* pz_WillShow =
    "NOTE: THE PASSWORD YOU TYPE WILL SHOW UP ON THE SCREEN!";

SString EnterAccessDomains() {
  return "Please enter the list of Access-Domains for the Postmaster account.  These are the domains (such as " +
         gstr_DomainName + ") or hosts (such as " + gstr_HostName +
         ") from which the Postmaster can configure vellumcraft.  Specifying a single host such as " +
         gstr_HostName +
         " is the most restrictive and therefore safest setting; however, to configure vellumcraft remotely from any computer in " +
         gstr_DomainName +
         ", you can list it here.  If there is more than one, separate them with commas or spaces.";
}
constexpr const char* pz_ReferToManual =
    "For more information about Access-Domains and general Security issues, please refer to the manual.";

constexpr const char* pz_ListPostmasters =
    "Please list the E-mail addresses of the people that are to have Postmaster privileges.  By specifying someone's address here, and supplying them with the Postmaster password, you give them control over every aspect of vellumcraft.  Such responsibility should be given only to the appropriate person(s).";
constexpr const char* pz_SeparateByCommas =
    "If you want to have multiple Postmasters, list their E-mail addresses here, separated by commas.";

constexpr const char* pz_NoValidAddress =
    "No valid addresses specified -- old postmaster deliveries retained.";

constexpr const char* pz_Completed = "Postmaster account setup completed.";

constexpr const char* pz_OldRetained =
    "WARNING:  An error occurred while editing the postmaster account.  The old delivery information has been retained.";
SString LikelyCause() {
  return "This is most likely caused by a problem with permissions on " +
         ConfigDirectory() + " or if the disk has filled up.";
}

constexpr const char* pz_NothingRetained =
    "ERROR:  The new deliveries specified for the postmaster account failed to be set up, and the old delivery information couldn't be retained.";
constexpr const char* pz_RunAgain =
    "Run this program again to set up the postmaster account.  If it fails a second time, contact your Vellumcraft vendor if you need help resolving this problem.";

void ShowSettings(const SStringList& access_domains,
                  const SStringList& postmasters) {
  const SString next_entry = "\n" + SString(' ', kLabelWidth);
  Print("\n");
  PrintMessage(pz_Currently);
  Print(pz_PasswordLine);
  Print(pz_AccessLabel + access_domains.Join(next_entry) + "\n\n");
  Print(pz_PostmastersLabel + postmasters.Join(next_entry) + "\n\n");
}

enum class Stored { kNew, kOld, kNeither };

// One change, so that mail for the Postmaster goes somewhere at any time.
bool SetDeliveries(SAccountMod* postmaster,
                   const PostmasterDeliveries& deliveries) {
  return postmaster->SetTogether({{"Account-Delivery", deliveries.accounts},
                                  {"Channel-Delivery", deliveries.channels}});
}

// What could not be stored when it was typed is tried once more: "completed"
// is said of all of it.
bool StoreMissing(SAccountMod* postmaster, const SString& password,
                  const SStringList& access_domains) {
  return (postmaster->Get("Password")[0] == password ||
          postmaster->Set("Password", password)) &&
         (postmaster->Get("Access-Domains").Join(",") ==
              access_domains.Join(",") ||
          postmaster->Set("Access-Domains", access_domains));
}

// "Completed" is said of what is on disk, so a failed sync is a failed change.
// The way back goes through the same open file: opened anew it would know
// nothing of data that the system could not write and has dropped.
Stored Store(SAccountDBMod* database, SAccountMod* postmaster,
             const SString& password, const SStringList& access_domains,
             const PostmasterDeliveries& wanted,
             const PostmasterDeliveries& former) {
  const SHoldSignals until_stored;
  if (StoreMissing(postmaster, password, access_domains) &&
      SetDeliveries(postmaster, wanted) && database->SyncDB() &&
      database->CloseDB()) {
    return Stored::kNew;
  }
  return SetDeliveries(postmaster, former) && database->SyncDB() &&
                 database->CloseDB()
             ? Stored::kOld
             : Stored::kNeither;
}

bool Report(Stored stored) {
  switch (stored) {
    case Stored::kNew:
      Print("\n");
      PrintMessage(pz_Completed);
      return true;
    case Stored::kOld:
      PrintMessage(pz_OldRetained);
      PrintMessage(LikelyCause());
      PrintMessage(DatabaseOwnership());
      return true;
    case Stored::kNeither:
      break;
  }
  PrintMessage(pz_NothingRetained);
  PrintMessage(pz_RunAgain);
  return false;
}

// The questions, with explanations for a new account.
bool Change(SAccountDBMod* database, SAccountMod* postmaster, bool is_new,
            const SStringList& access_domains, const SStringList& postmasters,
            const PostmasterDeliveries& former) {
  if (is_new) {
    PrintMessage(pz_NeedsSetup);
  }
  PrintMessage(pz_EnterPassword);
  PrintMessage(pz_WillShow);
  const SString password = AskPassword(postmaster);
  if (is_new) {
    PrintMessage(EnterAccessDomains());
    PrintMessage(pz_ReferToManual);
  }
  const SStringList domains = AskAccessDomains(postmaster, access_domains);
  if (is_new) {
    PrintMessage(pz_ListPostmasters);
    PrintMessage(pz_SeparateByCommas);
  }
  const PostmasterDeliveries wanted = AskPostmasters(*database, postmasters);
  if (wanted.accounts.IsEmpty() && wanted.channels.IsEmpty()) {
    Print("\n");
    PrintMessage(pz_NoValidAddress);
    return database->CloseDB() || Report(Stored::kOld);
  }
  return Report(Store(database, postmaster, password, domains, wanted, former));
}

}  // namespace

bool SetupAdminAccount() {
  SAccountDBMod database;
  SAccountMod postmaster;
  const PostmasterState state = OpenPostmaster(&database, &postmaster);
  if (state == PostmasterState::kFailed) {
    return false;
  }
  const PostmasterDeliveries former = {postmaster.Get("Account-Delivery"),
                                       postmaster.Get("Channel-Delivery")};
  const SStringList access_domains = postmaster.Get("Access-Domains");
  const SStringList postmasters = PostmasterAddresses(database, former);
  if (state == PostmasterState::kExisting) {
    ShowSettings(access_domains, postmasters);
    const char letter = AskLetter(pz_Change, "no");
    if (letter != 'y') {
      return letter != 'q';
    }
  }
  return Change(&database, &postmaster, state == PostmasterState::kNew,
                access_domains, postmasters, former);
}
