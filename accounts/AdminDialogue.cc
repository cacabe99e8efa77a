// The questions about the Postmaster account.

#include "accounts/AdminDialogue.h"

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/HostNames.h"

namespace {

constexpr int kShortestPassword = 6;

constexpr const char* pz_AskPassword = "Postmaster password: ";

constexpr const char* pz_NewPassword =
    "Please enter a new password (at least 6 characters, not beginning with whitespace)";

constexpr const char* pz_AskAccess = "Access Domains: ";

constexpr const char* pz_AccessRejected =
    "At least one of the Access-Domains you entered was rejected because it had invalid syntax. Please enter them again below.  Access-Domains can be host names, domain names, IP addresses, or IP networks specified using a netmask.  An example might be:";

constexpr const char* pz_AskPostmasters = "Postmasters: ";

bool IsAccessDomain(const SString& entry) {
  return IsValidDomain(entry) ||
         entry.HasMatch("^\\d{1,3}(\\.\\d{1,3}){3}(/\\d{1,2})?");
}

// The entries that are understood; the others are named.
SStringList CheckAccessDomains(const SStringList& entries) {
  SStringList kept;
  for (const SString& entry : entries) {
    if (IsAccessDomain(entry)) {
      kept.Push(entry);
    } else {
      Print("Invalid Access-Domain: " + entry + "\n");
    }
  }
  Print("\n");
  return kept;
}

SString LowerCased(SString text) {
  return text.LowerCase();
}

// A name without domain, or with one of a single label, is one of ours.
S821Address Completed(const SString& text) {
  S821Address address(text);
  if (address.Domain().IsEmpty()) {
    address.SetDomain(gstr_HostName);
  }
  if (address.Domain().Count('.') == 0) {
    address.SetDomain(address.Domain() + "." + gstr_DomainName);
  }
  return address;
}

}  // namespace

SStringList PostmasterAddresses(const SAccountDB& database,
                                const PostmasterDeliveries& deliveries) {
  SStringList addresses;
  for (const SString& uid : deliveries.accounts) {
    SAccount account;
    if (database.GetAccountInfo(uid, &account)) {
      addresses.Push(account.Get("SMTP-Address")[0]);
    }
  }
  SStringList forwards = deliveries.channels.Grep("s/^SMTP //");
  // A source route keeps its brackets.
  forwards.S("^<([^@].*)>", "$1");
  addresses.Push(forwards);
  return addresses;
}

SString AskPassword(SAccountMod* postmaster) {
  while (true) {
    Print(pz_AskPassword);
    SString password = GetInput("", 0);
    if (password.Length() >= kShortestPassword && !password.HasMatch("^\\s")) {
      static_cast<void>(postmaster->Set("Password", password));
      return password;
    }
    PrintMessage(pz_NewPassword);
  }
}

SStringList AskAccessDomains(SAccountMod* postmaster, SStringList current) {
  while (true) {
    const SStringList entries =
        Ask(pz_AskAccess, current.Join(",")).Split("[\\s,]+");
    current = entries;
    if (!entries.IsEmpty()) {
      current = CheckAccessDomains(entries);
    }
    if (current.Count() == entries.Count()) {
      break;
    }
    Print("\n");
    PrintMessage(pz_AccessRejected);
    Print("     " + gstr_DomainName + ",123.45.60.1,123.45.60.64/26\n\n");
  }
  static_cast<void>(postmaster->Set("Access-Domains", current));
  return current;
}

PostmasterDeliveries AskPostmasters(const SAccountDB& database,
                                    const SStringList& current) {
  const SString answer = Ask(pz_AskPostmasters, current.Join(","));
  SStringList local_domains = LowerCase(database.GetLocalMailDomains());
  local_domains.Push(LowerCased(gstr_HostName));

  PostmasterDeliveries deliveries;
  const S821Parser parser(answer);
  for (const SString& text : parser.Addresses()) {
    if (S821Address(text).IsNull()) {
      Print("Null address ignored.\n");
      continue;
    }
    const S821Address address = Completed(text);
    const SString uid = database.GetAccountUID(address);
    if (!uid.IsEmpty()) {
      deliveries.accounts.Push(uid);
    } else if (local_domains.Contains(LowerCased(address.Domain()))) {
      Print("Address doesn't refer to a local account: " + address.Text() +
            "\n");
    } else {
      deliveries.channels.Push("SMTP " + address.Text());
    }
  }
  return deliveries;
}
