#include "driver/Initialize.h"

#include "driver/Settings.h"
#include "toolkit/Files.h"

namespace {

// The file behind a link is what is edited; a path that leads nowhere stays as
// it is for messages to name it.
SString BehindLinks(const SString& path) {
  const SString real_path = RealPath(path);
  return real_path.IsEmpty() ? path : real_path;
}

void AddService(const SString& name, const SString& port) {
  gstrl_Services.Push(name);
  gstrl_ServicePorts.Push(port);
}

}  // namespace

bool Initialize() {
  gstr_PasswdFile = "/etc/passwd";
  gstr_InetdConf = BehindLinks("/etc/inetd.conf");
  gstr_ServicesFile = BehindLinks("/etc/services");
  gstr_MaildropDir = "/var/mail/";
  gstr_Sendmail = "/usr/lib/sendmail";
  gstr_SendmailCF = "/etc/sendmail.cf";
  AddService("smtp", "25");
  AddService("pop3", "110");
  AddService("finger", "79");
  return true;
}
