// Creates a mail account for every real login of the host.
//
//   touches    the account database, spool files, notices in home directories,
//              POP mailboxes, the server's spool
//   identity   mail owner; root and users in the steps that need them
//   stops      no mail group, no account database, answer "q" at the menu

#include "accounts/AddUserAccounts.h"

#include "accounts/CreateUserAccounts.h"
#include "accounts/ImportOptions.h"
#include "accounts/Notices.h"
#include "accounts/UserSources.h"
#include "console/Console.h"
#include "serverconfig/DatabaseMessages.h"

namespace {

// The accounts that the installation itself creates stay below.
constexpr int kAccountsOfUsersExist = 9;

constexpr const char* pz_Exiting = "Exiting.";

}  // namespace

bool AddUserAccounts(unsigned full_install) {
  SUserImport import;
  import.full_install = full_install != 0;
  if (!FindMailGroup(&import)) {
    return false;
  }
  SAccountDBMod database;
  if (!database.IsOpen()) {
    PrintConfigurationTrouble();
    PrintMessage(pz_Exiting);
    return false;
  }
  import.accounts_exist = database.AccountUIDCount() >= kAccountsOfUsersExist;

  const Source source = FindUsers(&import);
  if (source == Source::kQuit) {
    return false;
  }
  if (source == Source::kChosen && AskImportOptions(&import)) {
    CreateUserAccounts(&database, &import);
  }
  QueueNotices(import);
  return true;
}
