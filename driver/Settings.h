#pragma once

#include <sys/types.h>

#include "toolkit/SStringList.h"

// What the tasks share: one instance each for the whole run.  Settled at
// start-up unless another source is named.

extern SString gstr_HostName;     // fully qualified host name
extern SString gstr_DomainName;   // mail domain
extern SString gstr_IpAddress;    // host address in brackets
extern SString gstr_Vellumcraft;  // server root directory, with trailing "/"
extern SString gstr_ProgramDir;   // server programs, with trailing "/"
extern SString gstr_MailboxDir;   // server mailboxes, with trailing "/"
extern SString gstr_MailOwner;    // login that owns the mail system
extern SString gstr_MailGroup;    // name of its primary group
extern SString gstr_forThisIP;    // address this run is for, or empty
extern uid_t gn_MailUID;          // user id of the mail owner
extern gid_t gn_MailGID;          // its primary group id
extern int gn_WWWPort;            // web administration (ConfigureFeatures)

// Filled by `Initialize`.
extern SStringList gstrl_Services;      // service names
extern SStringList gstrl_ServicePorts;  // their ports as text, same order
extern SString gstr_InetdConf;          // Internet daemon's configuration
extern SString gstr_MaildropDir;        // system maildrop, with trailing "/"
extern SString gstr_PasswdFile;         // password file
extern SString gstr_Sendmail;           // system sendmail program
extern SString gstr_SendmailCF;         // sendmail configuration
extern SString gstr_ServicesFile;       // services database

// Gathered by the tasks.
extern SStringList gstrl_Reminders;  // things left to the administrator
extern int gf_ShowStoppers;          // a problem blocks the server start
extern int gf_VellumcraftIsRunning;  // server processes found (KillServers)

// System logins that never get a mail account.
extern const char* const gppz_BadUsers[];  // ends in a null pointer
extern SStringList gstrl_BadUsers;         // the same and the mail owner
