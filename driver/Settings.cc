#include "driver/Settings.h"

SString gstr_HostName;
SString gstr_DomainName;
SString gstr_IpAddress;
SString gstr_Vellumcraft;
SString gstr_ProgramDir;
SString gstr_MailboxDir;
SString gstr_MailOwner;
SString gstr_MailGroup;
SString gstr_forThisIP;
uid_t gn_MailUID = static_cast<uid_t>(-1);
gid_t gn_MailGID = static_cast<gid_t>(-1);
int gn_WWWPort = 80;

SStringList gstrl_Services;
SStringList gstrl_ServicePorts;
SString gstr_InetdConf;
SString gstr_MaildropDir;
SString gstr_PasswdFile;
SString gstr_Sendmail;
SString gstr_SendmailCF;
SString gstr_ServicesFile;

SStringList gstrl_Reminders;
int gf_ShowStoppers = 0;
int gf_VellumcraftIsRunning = 0;

const char* const gppz_BadUsers[] = {
    "sysadm",   "diag",    "auditor", "dbadmin",  "rfindd", "EZsetup", "demos",
    "OutOfBox", "4Dgifts", "adm",     "audit",    "bin",    "daemon",  "ftp",
    "ingres",   "listen",  "lp",      "noaccess", "nobody", "nuucp",   "smtp",
    "sundiag",  "sync",    "sys",     "sysdiag",  "uucp",   nullptr};
SStringList gstrl_BadUsers(gppz_BadUsers);
