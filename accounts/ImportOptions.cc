// What all new accounts have in common: domains, login names, delivery.

#include "accounts/ImportOptions.h"

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/HostNames.h"

namespace {

constexpr const char* pz_ListDomains =
    "Please list all of the mail domains that each user should receive mail for, listing the most important one first (i.e. the one that should show up on outgoing mail).";

SString ForExample() {
  return "For example, if you want all of your users to receive mail addressed to <user@" +
         gstr_DomainName + "> as well as <user@" + gstr_HostName +
         ">, and you prefer the address with just your domain for outgoing mail, you would specify";
}

constexpr const char* pz_AsMany =
    "here.  You can list as many domains as you want, separated by spaces or commas.";

constexpr const char* pz_AskDomains = "Mail domains: ";

constexpr const char* pz_NoHostName =
    "You didn't specify the hostname of this machine.  You will probably see a lot of errors for misaddressed mail without it, so you are encouraged to add it to the list.";

constexpr const char* pz_DomainsUsed =
    "The following domains will be used for addresses in each user's account:";

SString OutgoingDomain(const SString& domain) {
  return "Also, addresses in outgoing mail will have " + domain +
         " as the domain.";
}

constexpr const char* pz_WhatYouWant = "Is this what you want? yes/no ";

constexpr const char* pz_AtLeastOne =
    "Error:  You must specify at least one domain.\n";

constexpr const char* pz_PopLogins =
    "If you want, you can set up a POP login name for each newly created account.  The POP login name will be the same as the UNIX username for the account.  You may want to do this whether or not you set up the account with POP delivery by default, just to make things easier later.  If you don't want users to enable POP delivery, you would not want to set up POP login names for them.";
constexpr const char* pz_AskPopLogins = "Set up POP login names? yes/no ";

constexpr const char* pz_UnixLogins =
    "If you want, you can set up a UNIX login name for each newly created account. You need to do this if you want to set up the account with UNIX delivery.  You may want to do this whether or not you set up the account with UNIX delivery by default, just to make things easier later.  If you don't want users to enable UNIX delivery, you would not want to set up UNIX login names for them.";
constexpr const char* pz_AskUnixLogins = "Set up UNIX login names? yes/no ";

constexpr const char* pz_Delivery =
    "Since you have chosen to create both UNIX and POP login names, you must choose whether to enable UNIX delivery or POP delivery by default for each account.";
constexpr const char* pz_AskDelivery = "Set up UNIX delivery or POP delivery? ";

constexpr const char* pz_Conversion =
    "Since you have chosen POP delivery by default, you may want to move each user's existing mail from the UNIX spool directory to the Vellumcraft POP mailbox directory, so that the user can retrieve the old mail using POP.";
constexpr const char* pz_AskConversion = "Convert mailboxes to POP mailboxes? ";

// The domains that are understood, complete and in lower case.
SStringList CheckDomains(const SStringList& typed) {
  Print("Checking domains....\n");
  SStringList accepted;
  for (const SString& domain : typed) {
    if (!IsValidDomain(domain)) {
      Print("Invalid syntax for domain: " + domain + "\n");
    } else if (domain.Count('.') == 0) {
      accepted.Push(domain + "." + gstr_DomainName);
    } else {
      accepted.Push(domain);
    }
  }
  return LowerCase(accepted);
}

// False when the administrator quits.
bool OfferHostName(SStringList* accepted) {
  SString lower_host = gstr_HostName;
  if (accepted->Contains(lower_host.LowerCase())) {
    return true;
  }
  PrintMessage(pz_NoHostName);
  const char letter =
      AskLetter("Add " + gstr_HostName + " to the list? yes/no/quit ", "yes");
  if (letter == 'y') {
    accepted->Push(gstr_HostName);
  }
  return letter != 'q';
}

bool ConfirmDomains(const SStringList& accepted) {
  PrintMessage(pz_DomainsUsed);
  Print("     " + accepted.Join("\n     ") + "\n\n");
  PrintMessage(OutgoingDomain(accepted[0]));
  return AskLetter(pz_WhatYouWant, "yes") != 'n';
}

bool AskDomains(SUserImport* import) {
  PrintMessage(pz_ListDomains);
  PrintMessage(ForExample());
  Print("    " + gstr_DomainName + "," + gstr_HostName + "\n\n");
  PrintMessage(pz_AsMany);

  SStringList proposal = gstr_DomainName;
  proposal.Push(gstr_HostName);
  while (true) {
    const SStringList typed =
        Ask(pz_AskDomains, proposal.Join(",")).Split("[\\s,]+").Grep("/\\S/");
    SStringList accepted = CheckDomains(typed);
    if (!OfferHostName(&accepted)) {
      return false;
    }
    if (accepted.IsEmpty()) {
      Print(pz_AtLeastOne);
      proposal = gstr_HostName;
    } else if (ConfirmDomains(accepted)) {
      import->domains = accepted;
      return true;
    } else {
      proposal = accepted;
    }
  }
}

void AskLogins(SUserImport* import) {
  PrintMessage(pz_PopLogins);
  if (AskLetter(pz_AskPopLogins, "yes") != 'y') {
    return;
  }
  import->pop_logins = true;
  import->delivery = "Mailbox";
  PrintMessage(pz_UnixLogins);
  import->unix_logins = AskLetter(pz_AskUnixLogins, "yes") == 'y';
  if (import->unix_logins) {
    PrintMessage(pz_Delivery);
    if (AskLetter(pz_AskDelivery, "UNIX") == 'u') {
      import->delivery = "UNIX";
    }
  }
}

void AskConversion(SUserImport* import) {
  if (import->delivery == "Mailbox") {
    PrintMessage(pz_Conversion);
    import->convert_mailboxes = AskLetter(pz_AskConversion, "yes") == 'y';
  }
}

}  // namespace

bool AskImportOptions(SUserImport* import) {
  if (!AskDomains(import)) {
    return false;
  }
  AskLogins(import);
  AskConversion(import);
  Print("\nCreating user accounts....\n");
  return true;
}
