// Makes the server's special accounts exist.
//
//   touches    the account database
//   identity   mail owner
//   stops      the account database can't be written

#include "accounts/SetupSpecialAccounts.h"

#include "driver/Settings.h"
#include "serverconfig/DatabaseMessages.h"
#include "toolkit/database/SAccountDB.h"

bool SetupSpecialAccounts() {
  if (CreateSpecialAccounts(gstr_HostName, gstr_IpAddress)) {
    return true;
  }
  PrintConfigurationTrouble();
  return false;
}
