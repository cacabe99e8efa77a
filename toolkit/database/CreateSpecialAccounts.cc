// The accounts through which the server itself is talked to.

#include "toolkit/database/SAccountDB.h"

namespace {

struct SpecialAccount {
  const char* uid;
  const char* name;
  const char* delivery_field;  // null: mail is discarded
  const char* delivery;
};

constexpr SpecialAccount kSpecialAccounts[] = {
    {"Accounts", "Account Manager", "Channel-Delivery", "Account-Manager"},
    {"Configuration", "Configuration Manager", "Channel-Delivery", "Dispatch"},
    {"Lists", "Mailing List Manager", "Channel-Delivery", "Account-Manager"},
    {"Help", "Mail System Help", "Account-Delivery", "Postmaster"},
    {"Mailer-Daemon", "Mail Delivery Subsystem", "Account-Delivery",
     "Postmaster"},
    {"Nobody", "Discarded Mail", nullptr, nullptr}};

bool Create(SAccountDBMod* database, const SpecialAccount& special,
            const SString& host_name, const SString& ip_address) {
  SStringList addresses(SString(special.uid) + "@" + host_name);
  addresses.Push(SString(special.uid) + "@" + ip_address);
  SAccountMod account;
  return database->ModifyAccount(special.uid, &account) &&
         account.Set("Name", special.name) &&
         account.Set("SMTP-Address", addresses) &&
         account.Set("SMTP-RewriteStyle", "comment") &&
         account.Set("Access-Domains", SStringList()) &&
         (special.delivery_field == nullptr ||
          account.Set(special.delivery_field, special.delivery)) &&
         account.Lock();
}

}  // namespace

bool CreateSpecialAccounts(const SString& host_name,
                           const SString& ip_address) {
  SAccountDBMod database;
  if (!database.IsOpen()) {
    return false;
  }
  for (const SpecialAccount& special : kSpecialAccounts) {
    if (!database.GetAccountInfo(special.uid) &&
        !Create(&database, special, host_name, ip_address)) {
      return false;
    }
  }
  return database.CloseDB();
}
