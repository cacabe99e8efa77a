// The loop over the candidates of the user import.
//
//   touches    the account database; for each user the spool file, a notice
//              beside ".forward", the POP mailbox
//   identity   root for the spool, the user for the user's files, else the mail
//              owner
//   stops      nothing; a signal ends the loop at the next candidate

#include "accounts/CreateUserAccounts.h"

#include "accounts/ConvertMailbox.h"
#include "accounts/PasswordEntries.h"
#include "accounts/SecureSpool.h"
#include "accounts/UserFiles.h"
#include "console/Console.h"
#include "driver/Interrupts.h"
#include "driver/Settings.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

// Tells the server that what stands before is a stored form.
constexpr const char* kPasswordMarker = "UNIX-PASSWORD";
constexpr int kPasswordPadding = 38;

constexpr const char* pz_NotConverted =
    "Error: Unable to convert user's mailbox to Vellumcraft's POP format!\n";

constexpr const char* pz_NotOnDisk =
    "Error: couldn't write the last accounts to disk!\n";

// Only such a login names a file of the spool directory.
bool IsPlainName(const SString& login) {
  return !login.IsEmpty() && login.Count('/') == 0 && !(login == ".") &&
         !(login == "..");
}

SStringList AddressesOf(const SString& login, const SStringList& domains) {
  SStringList addresses;
  for (const SString& domain : domains) {
    addresses.Push(login + "@" + domain);
  }
  return addresses;
}

// UID of the first account that has one of the addresses; "" for none.
SString AccountWith(const SAccountDB& database, const SStringList& addresses) {
  for (const SString& address : addresses) {
    SString uid = database.GetAccountUID(S821Address(address));
    if (!uid.IsEmpty()) {
      return uid;
    }
  }
  return {};
}

// An account that was made for the login, not one that has its address for
// another reason.
bool IsAccountOf(const SAccountDB& database, const SString& uid,
                 const SString& login) {
  SAccount account;
  if (!database.GetAccountInfo(uid, &account)) {
    return false;
  }
  const SStringList pop_login = account.Get("POP-Address");
  const SStringList unix_login = account.Get("UNIX-UserName");
  return account.Get("Local-Delivery").Contains("Mailbox") &&
         (pop_login.Contains(login) || unix_login.Contains(login) ||
          (pop_login.IsEmpty() && unix_login.IsEmpty()));
}

void CheckSpool(const SString& path, const SCandidate& user, uid_t uid,
                gid_t mail_group) {
  if (IsPlainName(user.login)) {
    SecureSpool(path, uid, mail_group);
    return;
  }
  const SActAs as_root(SActAs::Root{});
  if (PathTaken(path)) {
    Print("\nALERT: Possible security problem with " + Printable(path) + "\n");
  }
}

// Reads and leaves files in the user's home; nothing when the user can't be
// become.
SStringList VisitHome(const SCandidate& user, const SPasswordEntries::Ids& ids,
                      bool* has_forward) {
  const SActAs as_user(ids.uid, ids.gid);
  if (!as_user.Succeeded()) {
    return {};
  }
  *has_forward = HasForward(user);
  if (*has_forward) {
    LeaveForwardNotice(user);
  }
  return ReadFingerLines(user);
}

bool CreateAccount(SAccountDBMod* database, const SUserImport& import,
                   const SCandidate& user, const SString& uid,
                   const SString& password, const SStringList& addresses,
                   const SStringList& finger_lines) {
  SAccountMod account;
  return database->ModifyAccount(uid, &account) &&
         account.Set("Name", user.name) &&
         account.Set("Raw-Password", password) &&
         account.Set("Local-Delivery", import.delivery) &&
         account.Set("SMTP-Address", addresses) &&
         account.Set("SMTP-RewriteStyle", "comment") &&
         account.Set("Finger-Info", finger_lines.Join("\r\n")) &&
         (!import.unix_logins || account.Set("UNIX-UserName", user.login)) &&
         (!import.pop_logins || account.Set("POP-Address", user.login)) &&
         account.Lock();
}

void CreateUserAccount(SAccountDBMod* database, SUserImport* import,
                       const SCandidate& user,
                       const SPasswordEntries::Ids& ids) {
  const SStringList addresses = AddressesOf(user.login, import->domains);
  Print("    " + Printable(addresses.Get(0)) + " (" + Printable(user.name) +
        ")....");
  const SString spool = gstr_MaildropDir + user.login;
  CheckSpool(spool, user, ids.uid, import->mail_group);

  bool has_forward = false;
  const SStringList finger_lines = VisitHome(user, ids, &has_forward);
  if (has_forward) {
    import->forward_users.Push(addresses.Get(0));
  }
  const bool converts = import->convert_mailboxes && IsPlainName(user.login);
  SString existing = AccountWith(*database, addresses);
  const bool can_create = existing.IsEmpty() && database->BecomeWriter();
  if (can_create) {
    // Another import may have made it before its turn was over.
    existing = AccountWith(*database, addresses);
  }
  if (!existing.IsEmpty()) {
    Print("already exists\n");
    if (converts && IsAccountOf(*database, existing, user.login) &&
        !ResumeConversion(spool, existing)) {
      Print(pz_NotConverted);
    }
    return;
  }
  const SString uid = GenerateAccountUID(*database, user.name);
  const SString password =
      user.password + kPasswordMarker + SString(' ', kPasswordPadding);
  const SString shown = user.name + " (" + user.login + ")";
  if (!can_create || !CreateAccount(database, *import, user, uid, password,
                                    addresses, finger_lines)) {
    import->failed.Push(shown);
    Print("Error: couldn't create the account!\n");
    return;
  }
  import->created.Push(shown);
  import->new_accounts.Push(uid + " " + password);
  Print("created\n");
  if (converts && !ConvertMailbox(spool, uid)) {
    Print(pz_NotConverted);
  }
}

}  // namespace

void CreateUserAccounts(SAccountDBMod* database, SUserImport* import) {
  const SDeferInterrupts until_done;
  SPasswordEntries entries;
  for (const SCandidate& user : import->candidates) {
    if (gf_Killed) {
      Print("\n\nInterrupted.\n");
      import->interrupted = true;
      break;
    }
    SPasswordEntries::Ids ids = {};
    if (entries.Find(user.login, &ids)) {
      CreateUserAccount(database, import, user, ids);
    }
  }
  if (!database->CloseDB()) {
    Print(pz_NotOnDisk);
  }
}
