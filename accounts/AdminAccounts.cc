// Finds the Postmaster account, or creates it and root's.
//
//   touches    the accounts "Postmaster" and "Root"
//   identity   mail owner
//   undoes     both accounts, when root's can't be made or added

#include "accounts/AdminAccounts.h"

#include "console/Console.h"
#include "console/GeneratePassword.h"
#include "driver/Settings.h"
#include "serverconfig/DatabaseMessages.h"

namespace {

constexpr const char* pz_Checking = "Checking for Postmaster account.... ";
constexpr const char* pz_Creating = "Creating Postmaster account.... ";

SString CouldNotAccess() {
  return "ERROR: Couldn't access the Postmaster account! This is probably a permission problem with the " +
         ConfigDirectory() + " directory.";
}

SString CouldNotCreate() {
  return "ERROR: Couldn't create the Postmaster account! This is probably a permission problem with the " +
         ConfigDirectory() + " directory.";
}

constexpr const char* pz_NoDelivery =
    "ERROR:  Couldn't set up the Postmaster account to deliver mail to the root account. Make sure that there are valid Postmaster deliveries set up before you run vellumcraft.";
constexpr const char* pz_CanSpecify =
    "You will have the opportunity to specify new deliveries in a moment, but you may want to check that it is set up correctly by running this program again.";

constexpr const char* pz_HoldOn = "hold on a second....\n";
constexpr const char* pz_CreatingRoot = "Creating a mail account for root.... ";

SString CouldNotCreateRoot() {
  return "ERROR: Couldn't create a mail account for root.  There is probably a problem with the permissions of " +
         ConfigDirectory() + " or the disk is full.";
}

constexpr const char* pz_AddingRoot =
    "Adding root to Postmaster delivery list.... ";

SString CouldNotAddRoot() {
  return "ERROR: Couldn't add root to the Postmaster account.  This is most likely caused by a problem with permissions on " +
         ConfigDirectory() + " or if the disk has filled up.";
}

void PrintOwnershipAndAbort(const SString& problem) {
  Print("\n");
  PrintMessage(problem);
  PrintMessage(DatabaseOwnership());
  PrintMessage(pz_ContactVendor);
  PrintMessage(pz_InstallationAborted);
}

// Where root has an account, the new one delivers there from the start: a run
// that is killed leaves no Postmaster whose mail goes nowhere.
bool CreatePostmaster(SAccountDBMod* database, SAccountMod* postmaster) {
  const SString root =
      database->GetAccountUID(S821Address("root@" + gstr_HostName));
  return database->ModifyAccount("Postmaster", postmaster) &&
         postmaster->Set("Name", "Mail Administrator") &&
         postmaster->Set("SMTP-Address", "Postmaster@" + gstr_HostName) &&
         postmaster->Set("SMTP-RewriteStyle", "comment") &&
         postmaster->Set("Manager-Delivery", SStringList()) &&
         postmaster->Set("Access-Domains", SStringList()) &&
         postmaster->Set("Password", GeneratePassword()) &&
         (root.IsEmpty() || postmaster->Set("Account-Delivery", root)) &&
         postmaster->Lock();
}

bool CreateRoot(SAccountDBMod* database, SAccountMod* root) {
  return database->ModifyAccount("Root", root) &&
         root->Set("Name", "System Administrator") &&
         root->Set("SMTP-Address", "root@" + gstr_HostName) &&
         root->Set("SMTP-RewriteStyle", "comment") &&
         root->Set("UNIX-UserName", "root") &&
         root->Set("Local-Delivery", "UNIX") &&
         root->Set("Access-Domains", SStringList()) &&
         root->Set("Password", GeneratePassword()) && root->Lock();
}

// Not fatal: the administrator is asked for the deliveries later.
void DeliverTo(SAccountMod* postmaster, const SString& uid,
               const char* failed) {
  if (postmaster->Set("Account-Delivery", uid)) {
    Print("done\n");
    return;
  }
  Print(SString(failed) + "\n\n");
  PrintMessage(pz_NoDelivery);
  PrintMessage(pz_CanSpecify);
}

// Makes root the first Postmaster.
bool AddRoot(SAccountDBMod* database, SAccountMod* postmaster) {
  const SString existing =
      database->GetAccountUID(S821Address("root@" + gstr_HostName));
  if (!existing.IsEmpty()) {
    DeliverTo(postmaster, existing, "failed");
    return true;
  }
  Print(pz_HoldOn);
  Print(pz_CreatingRoot);
  if (!CreateRoot(database, postmaster)) {
    Print("failed!\n\n");
    PrintMessage(CouldNotCreateRoot());
    PrintMessage(pz_ContactVendor);
    PrintMessage(pz_InstallationAborted);
    database->DeleteAccount("Root");
    database->DeleteAccount("Postmaster");
    return false;
  }
  Print("done\n");
  Print(pz_AddingRoot);
  if (!database->ModifyAccount("Postmaster", postmaster)) {
    Print("failed!\n");
    PrintOwnershipAndAbort(CouldNotAddRoot());
    database->DeleteAccount("Postmaster");
    database->DeleteAccount("Root");
    return false;
  }
  DeliverTo(postmaster, "Root", "failed!");
  return true;
}

}  // namespace

PostmasterState OpenPostmaster(SAccountDBMod* database,
                               SAccountMod* postmaster) {
  Print(pz_Checking);
  if (database->GetAccountInfo("Postmaster")) {
    Print("found\n");
    if (database->ModifyAccount("Postmaster", postmaster)) {
      return PostmasterState::kExisting;
    }
    PrintOwnershipAndAbort(CouldNotAccess());
    return PostmasterState::kFailed;
  }
  Print("not found\n");
  Print(pz_Creating);
  if (!CreatePostmaster(database, postmaster)) {
    Print("failed!\n");
    PrintOwnershipAndAbort(CouldNotCreate());
    return PostmasterState::kFailed;
  }
  return AddRoot(database, postmaster) ? PostmasterState::kNew
                                       : PostmasterState::kFailed;
}
