// What is queued for the server at the end of the user import.

#include "accounts/Notices.h"

#include "console/Console.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"
#include "toolkit/Spool.h"
#include "toolkit/Times.h"

namespace {

constexpr int kIndent = 8;
constexpr int kLoginWidth = 12;

constexpr const char* kSummaryOpening[] = {
    "Here's a summary of the tasks performed by the Vellumcraft",
    "Install program:", "",
    "Accounts were set up for the following users:", ""};

constexpr const char* kNoAliases[] = {
    "",
    "",
    "No system-wide aliases or user forwards were set up by the",
    "installation process (users with .forward files, if any,",
    "are listed below).  Please look through your aliases file",
    "and set up accounts or aliases as necessary.  See manual",
    "chapters 5 and 6 which describe the three alias types",
    "and how to set them up.",
    ""};

constexpr const char* kFailedOpening[] = {
    "", "Install failed to set up accounts for the following users:",
    "(contact your Vellumcraft vendor for assistance)", ""};

constexpr const char* kSkippedOpening[] = {
    "",
    "Accounts *were not* set up for the following UNIX id's",
    "since they historically do not refer to actual users or",
    "because a home directory isn't specified in the password",
    "database:",
    ""};

constexpr const char* kSkippedClosing[] = {
    "", "You can add these accounts, or create aliases for them if",
    "you want.  See the manual for instructions.", ""};

constexpr const char* kForwardOpening[] = {
    "", "The following users had .forward files in their home dir-",
    "ectories:", ""};

constexpr const char* kForwardClosing[] = {
    "", "These files are not going to be honored by Vellumcraft.",
    "See the manual for instructions on setting up forwarding",
    "for an account.", ""};

constexpr const char* kSummaryClosing[] = {
    "", "Thank you for installing Vellumcraft!", "", ""};

// The host name goes between the two.
constexpr const char* pz_ForwardMessage1[] = {
    "\t**************************************************",
    "\t***  YOUR \".forward\" FILE IS NO LONGER ACTIVE  ***",
    "\t**************************************************", "",
    "The vellumcraft mail system has been installed on "};

constexpr const char* pz_ForwardMessage2[] = {
    ".",
    "",
    "Mail forwarding works differently in the new system: it no longer",
    "looks at .forward files.  Yours was left where it is, but it has no",
    "effect any more.  Your mail account can do any combination of the",
    "following:",
    "",
    "\t- deliver messages to your UNIX mailbox",
    "\t- forward messages to one or more other addresses",
    "\t- send vacation notices while you are away",
    "\t- filter mail using procmail, filter and the like",
    "",
    "Right now your account keeps all of your mail in your UNIX mailbox.",
    "To turn on vacation notices or forwarding, follow the instructions in",
    "the message that you have received with the subject",
    "\"Greeting (your name)\".",
    "",
    "We hope that you enjoy the mail system's interface, by World Wide Web",
    "and by fill-in-the-blank e-mail forms, and the choice of delivery",
    "options that it gives you.",
    ""};

template <std::size_t n>
void Append(const char* const (&lines)[n], SStringList* body) {
  for (const char* line : lines) {
    body->Push(line);
  }
}

void AppendIndented(const SStringList& lines, SStringList* body) {
  for (const SString& line : lines) {
    body->Push(SString(' ', kIndent) + Printable(line));
  }
}

SStringList HeaderLines(const SString& from, const SString& to,
                        const SString& subject, const SString& id) {
  SStringList header = "Date: " + RFC822Date();
  header.Push("From: " + from);
  header.Push("To: " + to);
  header.Push("Subject: " + subject);
  header.Push("Message-ID: <" + id + "@" + gstr_HostName + ">");
  return header;
}

SString PostmasterMailbox() {
  return "Mail Administrator <Postmaster@" + gstr_HostName + ">";
}

void QueueGreeting(const SUserImport& import) {
  SControl control(MessageIdDate() + ".AA" + ProcessIdString() +
                   ".NewAccounts");
  control.Set("Function:", "Account-Manager");
  control.Set("Control-Type:", "Request");
  control.Set("Priority:", "1");
  control.Set("Request-Type:", "Greet");
  control.Set("Account-To:", import.new_accounts);
  control.Write();
}

void AppendSkipped(const SUserImport& import, SStringList* body) {
  Append(kSkippedOpening, body);
  for (int i = 0; i < import.skipped_logins.Count(); ++i) {
    const SString login = Printable(import.skipped_logins[i]);
    const SString name = Printable(import.skipped_names[i]);
    body->Push(SString(' ', kIndent) + login +
               SString(' ', kLoginWidth - login.Length()) +
               (name.IsEmpty() ? SString() : " (" + name + ")"));
  }
  Append(kSkippedClosing, body);
}

SStringList SummaryBody(const SUserImport& import) {
  SStringList body;
  Append(kSummaryOpening, &body);
  AppendIndented(import.created, &body);
  Append(kNoAliases, &body);
  if (!import.failed.IsEmpty() && !import.accounts_exist) {
    Append(kFailedOpening, &body);
    AppendIndented(import.failed, &body);
    body.Push("");
  }
  if (!import.skipped_logins.IsEmpty()) {
    AppendSkipped(import, &body);
  }
  if (!import.forward_users.IsEmpty()) {
    Append(kForwardOpening, &body);
    AppendIndented(import.forward_users, &body);
    Append(kForwardClosing, &body);
  }
  Append(kSummaryClosing, &body);
  return body;
}

// A message under way: one time for its name and its identifier.
struct Mail {
  SString name;
  SString id;
  SControl control;
};

Mail BeginMail(const char* tag, const char* recipients_field,
               const SStringList& recipients, const SString& sender) {
  const SString id = MessageIdDate() + tag;
  const SString name = id + ProcessIdString() + ".Notify";
  SControl control(name);
  control.Set("Function:", "Account-Handler");
  control.Set("Control-Type:", "Mail");
  control.Set("Priority:", "1");
  control.Set(recipients_field, recipients);
  control.Set("Host-From:", gstr_HostName);
  control.Set("User-From:", sender);
  return {name, id, control};
}

void QueueSummary(const SUserImport& import) {
  const Mail mail = BeginMail(".AB", "Account-To:", "Postmaster", "SMTP<>");
  QueueMessage(mail.name, mail.control,
               HeaderLines("\"Vellumcraft Installation Program\" <>",
                           PostmasterMailbox(),
                           "Vellumcraft Installation Results", mail.id),
               SummaryBody(import));
}

void QueueForwardNotice(const SUserImport& import) {
  SStringList recipients;
  for (const SString& address : import.forward_users) {
    recipients.Push("SMTP <" + address + ">");
  }
  SStringList body;
  Append(pz_ForwardMessage1, &body);
  SStringList rest;
  Append(pz_ForwardMessage2, &rest);
  const SString last = body.Pop();
  body.Push(last + gstr_HostName + rest.Shift());
  body.Push(rest);
  const Mail mail = BeginMail(".AC", "Channel-To:", recipients,
                              "SMTP<Postmaster@" + gstr_HostName + ">");
  QueueMessage(mail.name, mail.control,
               HeaderLines(PostmasterMailbox(), "Users with forward files: ;",
                           "NOTICE: \".forward\" File Deactivated", mail.id),
               body);
}

}  // namespace

void QueueNotices(const SUserImport& import) {
  if (import.interrupted) {
    return;
  }
  if (!import.created.IsEmpty()) {
    QueueGreeting(import);
  }
  if (!import.created.IsEmpty() || !import.skipped_logins.IsEmpty() ||
      !import.forward_users.IsEmpty()) {
    QueueSummary(import);
  }
  if (!import.forward_users.IsEmpty()) {
    QueueForwardNotice(import);
  }
}
