// Where the users come from: the menu, the scan, the choice of candidates.
//
//   reads      group, password and shadow databases, or a password file
//   identity   root for the password file and the shadow passwords

#include "accounts/UserSources.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>

#include "accounts/ShadowPasswords.h"
#include "console/Console.h"
#include "console/GeneratePassword.h"
#include "driver/Settings.h"
#include "serverconfig/ControlRequests.h"
#include "toolkit/Files.h"
#include "toolkit/Privileges.h"

namespace {

constexpr const char* kMailGroups[] = {"mail", "staff"};

constexpr const char* pz_NoMailGroup =
    "ERROR: couldn't find the 'mail' group in the group database.  This is assumed to be the group owner of users' mailboxes, and must exist for Vellumcraft to deliver mail to local users.";
constexpr const char* pz_NonStandard =
    "Please contact your Vellumcraft vendor so that we can support your non-standard configuration in the future.";
constexpr const char* pz_Aborted = "Installation aborted.";

constexpr const char* pz_AlreadyAccounts =
    "There are already some electronic mail accounts in the Vellumcraft account database.  If you would like to synchronize your UNIX password database with the internal Vellumcraft database, you can do that now.";
constexpr const char* pz_WillBeSearched =
    "The UNIX password database will be searched for users that currently don't have accounts in Vellumcraft, and accounts for those users will be created.";
constexpr const char* pz_SelectMethod =
    "Please select one of the following methods for setting up the accounts:";
constexpr const char* pz_CanBeCreated =
    "Electronic mail accounts can be created automatically for the users that currently have UNIX login accounts.  Please select one of the following methods for setting up the accounts:";

constexpr const char* pz_MenuSources =
    "        [A]  Search for all users, including those\n"
    "             in the /etc/passwd file and NIS/NIS+.\n\n"
    "        [P]  Search through /etc/passwd only.\n\n"
    "        [F]  Search through a custom password file.\n\n";
constexpr const char* pz_MenuNone =
    "        [N]  Don't automatically set up any accounts.\n\n";

constexpr const char* pz_AskFile = "Enter the password file name: ";

constexpr const char* pz_FormToBegin =
    "Would you like to have an account form sent to your mailbox?  It can be used to begin adding users to the system.  Alternately you can use the World-Wide-Web interface for all your administration of Vellumcraft.";
constexpr const char* pz_FormToAdd =
    "Would you like to have an account form sent to your mailbox?  It can be used to add users to the system. Alternately you can use the World-Wide-Web interface for all your administration of Vellumcraft.";
constexpr const char* pz_SendForm = "Send an E-mail account form? yes/no ";

SString CouldNotOpen(const SString& file) {
  return "WARNING: couldn't open " + file + " to determine the user accounts.";
}

// A password of the traditional form, the only one the server can take over.
constexpr int kTraditionalPassword = 13;

const dev_t kNullDevice = makedev(1, 3);

void OfferAccountForm(const char* explanation) {
  PrintMessage(explanation);
  if (AskLetter(pz_SendForm, "no") == 'y') {
    SendNewAccountForm();
  }
}

char AskMethod(const SUserImport& import) {
  if (import.accounts_exist) {
    PrintMessage(pz_AlreadyAccounts);
    PrintMessage(pz_WillBeSearched);
    PrintMessage(pz_SelectMethod);
  } else {
    PrintMessage(pz_CanBeCreated);
  }
  Print(pz_MenuSources);
  if (import.full_install) {
    Print(pz_MenuNone);
  }
  const SString prompt = SString("Which method?  All/Passwd/File/") +
                         (import.full_install ? "None/" : "") + "Quit ";
  const bool is_optional = import.accounts_exist && import.full_install;
  return AskLetter(prompt, is_optional ? "N" : "P");
}

// A stream over a password file, opened as root; null when it can't be.  What is
// neither a file nor nothing might never begin, or never end.
FILE* OpenPasswordFile(const SString& path) {
  const SActAs as_root(SActAs::Root{});
  SDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0 ||
      (!S_ISREG(status.st_mode) && status.st_rdev != kNullDevice)) {
    return nullptr;
  }
  FILE* stream = fdopen(file.Get(), "r");
  if (stream != nullptr) {
    file.Release();
  }
  return stream;
}

// Takes entries of the password database in and sorts them.
class Scan {
 public:
  explicit Scan(SUserImport* import) : import_(import) {}
  void Take(const passwd& entry);

 private:
  SString PasswordOf(const passwd& entry);
  void Skip(const SString& name, const SString& login, const char* reason);

  SUserImport* import_;
  SShadowPasswords shadow_;
};

SString Scan::PasswordOf(const passwd& entry) {
  SString own(entry.pw_passwd);
  if (own.Length() == kTraditionalPassword) {
    return own;
  }
  SString shadow = shadow_.Find(entry.pw_name);
  return shadow.Length() == kTraditionalPassword ? shadow : GeneratePassword();
}

void Scan::Skip(const SString& name, const SString& login, const char* reason) {
  import_->skipped_names.Push(name);
  import_->skipped_logins.Push(login);
  Print("Skipping " + Printable(login) + " (" + reason + ")\n");
}

void Scan::Take(const passwd& entry) {
  const SString login(entry.pw_name);
  const SString password = PasswordOf(entry);
  const SString name = FullName(entry.pw_gecos, login);
  SString home(entry.pw_dir);
  if (gstrl_BadUsers.Contains(login)) {
    Skip(name, login, "system user");
    return;
  }
  if (home.IsEmpty()) {
    Skip(name, login, "no home directory");
    return;
  }
  if (!home.View().ends_with('/')) {
    home += '/';
  }
  import_->candidates.push_back({name, login, password, home + "/.project",
                                 home + "/.plan", home + "/.forward"});
}

void ScanDatabase(SUserImport* import) {
  Scan scan(import);
  setpwent();
  while (const passwd* entry = getpwent()) {
    scan.Take(*entry);
  }
  endpwent();
}

void ScanFile(SUserImport* import, FILE* file) {
  Scan scan(import);
  while (const passwd* entry = fgetpwent(file)) {
    scan.Take(*entry);
  }
  fclose(file);
}

Source FindInFile(SUserImport* import, const SString& path) {
  Print("Searching through " + path + "....\n\n");
  FILE* file = OpenPasswordFile(path);
  if (file == nullptr) {
    PrintMessage(CouldNotOpen(path));
    if (!import->full_install) {
      return Source::kQuit;
    }
    OfferAccountForm(pz_FormToAdd);
    return Source::kNone;
  }
  ScanFile(import, file);
  return Source::kChosen;
}

}  // namespace

SString FullName(const SString& gecos, const SString& login) {
  SString own_name = login;
  if (own_name[0] >= 'a' && own_name[0] <= 'z') {
    own_name = SString(static_cast<char>(own_name[0] - 'a' + 'A'), 1) +
               SString(login.View().substr(1));
  }
  SString name;
  for (const char c : gecos.View().substr(0, gecos.View().find(','))) {
    if (c == '&') {
      name += own_name;
    } else {
      name += c;
    }
  }
  return name.IsEmpty() ? login : name;
}

bool FindMailGroup(SUserImport* import) {
  for (const char* name : kMailGroups) {
    const group* entry = getgrnam(name);
    if (entry != nullptr) {
      import->mail_group = entry->gr_gid;
      return true;
    }
  }
  PrintMessage(pz_NoMailGroup);
  PrintMessage(pz_NonStandard);
  PrintMessage(pz_Aborted);
  return false;
}

Source FindUsers(SUserImport* import) {
  Source source = Source::kChosen;
  switch (AskMethod(*import)) {
    case 'a':
      Print("Searching for users.... \n\n");
      ScanDatabase(import);
      break;
    case 'p':
      source = FindInFile(import, gstr_PasswdFile);
      break;
    case 'f':
      source = FindInFile(import, Ask(pz_AskFile, gstr_PasswdFile));
      break;
    case 'q':
      return Source::kQuit;
    default:
      if (!import->accounts_exist) {
        OfferAccountForm(pz_FormToBegin);
      }
      return Source::kNone;
  }
  if (source != Source::kChosen) {
    return source;
  }
  if (import->candidates.empty()) {
    Print("No accounts to create.\n");
    return Source::kNone;
  }
  const auto count = static_cast<int>(import->candidates.size());
  Print(SString(count) + " UNIX accounts found." +
        (import->accounts_exist ? "  (Existing accounts will not be modified.)"
                                : "") +
        "\n\n\n");
  return Source::kChosen;
}
