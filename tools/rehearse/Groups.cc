#include "tools/rehearse/Groups.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <sstream>

#include "tools/rehearse/ReadFile.h"

namespace {

constexpr const char* kSettings = "/etc/vellumcraft.conf";
constexpr std::array<const char*, 2> kSpools = {"/var/mail", "/var/spool/mail"};
constexpr const char* kControlSuffix = "-Control";
constexpr const char* kHeaderSuffix = "-Header";
constexpr const char* kBodySuffix = "-Body";

std::string SettingsFile(const std::vector<std::string>& program) {
  for (std::size_t i = 1; i < program.size(); ++i) {
    std::string file = kSettings + ("-" + program[i]);
    if (access(file.c_str(), F_OK) == 0) {
      return file;
    }
  }
  return kSettings;
}

// The value of the first line that begins with the key, up to a blank.
std::string Setting(const std::string& settings, const std::string& key) {
  std::istringstream lines(settings);
  for (std::string line; std::getline(lines, line);) {
    const auto sign = line.find('=');
    if (line.starts_with(key) && sign != std::string::npos) {
      const std::string value = line.substr(sign + 1);
      return value.substr(0, value.find_first_of(" \t\r"));
    }
  }
  return "";
}

// A directory as the report names it: without links, with a "/".
std::string Directory(const std::string& path) {
  std::array<char, PATH_MAX> resolved = {};
  return (realpath(path.c_str(), resolved.data()) == nullptr
              ? path
              : std::string(resolved.data())) +
         "/";
}

// The sections of a database's text.
std::map<std::string, Account> AccountsOf(const std::string& text) {
  std::map<std::string, Account> accounts;
  Account* account = nullptr;
  std::vector<std::string>* values = nullptr;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('/')) {
      account = &accounts[line.substr(1)];
    } else if (line.starts_with('\t') && values != nullptr) {
      values->push_back(line.substr(1));
    } else if (account != nullptr) {
      values = &(*account)[line];
    }
  }
  return accounts;
}

// The values of a field of a control file or of a message's header.
std::vector<std::string> Field(const std::string& text,
                               const std::string& name) {
  std::vector<std::string> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ": ")) {
      values.push_back(line.substr(name.size() + 2));
      while (values.back().ends_with('\r')) {
        values.back().pop_back();
      }
    }
  }
  return values;
}

std::string FirstOf(const std::vector<std::string>& values) {
  return values.empty() ? "" : values.front();
}

}  // namespace

const char* NameOf(Group group) {
  constexpr std::array<const char*, 6> kNames = {"created", "changed",  "moved",
                                                 "removed", "accounts", "mail"};
  return kNames[static_cast<std::size_t>(group)];
}

Grouping::Grouping(const std::vector<std::string>& program) {
  const std::string settings = ReadFile(SettingsFile(program));
  const std::string home = Setting(settings, "Vellumcraft");
  if (!home.empty()) {
    accounts_ = Directory(home) + "config/Accounts";
    control_ = Directory(home + "/control");
    messages_ = Directory(home + "/messages");
    mail_ = {control_, messages_, Directory(home + "/deferred")};
  }
  if (const std::string boxes = Setting(settings, "MailboxDir");
      !boxes.empty()) {
    mail_.push_back(Directory(boxes));
  }
  for (const char* spool : kSpools) {
    mail_.push_back(Directory(spool));
  }
}

Group Grouping::Of(const Change& change) const {
  if (change.path == accounts_) {
    return Group::kAccounts;
  }
  for (const std::string& directory : mail_) {
    if (change.path.starts_with(directory)) {
      return Group::kMail;
    }
  }
  switch (change.kind) {
    case Change::Kind::kCreated:
      return Group::kCreated;
    case Change::Kind::kChanged:
      return Group::kChanged;
    case Change::Kind::kMoved:
      return Group::kMoved;
    case Change::Kind::kRemoved:
      break;
  }
  return Group::kRemoved;
}

std::vector<AccountChange> CompareAccounts(const std::string& before,
                                           const std::string& after) {
  const std::map<std::string, Account> old_ones = AccountsOf(before);
  const std::map<std::string, Account> new_ones = AccountsOf(after);
  std::map<std::string, AccountChange> changes;
  for (const auto& [uid, account] : old_ones) {
    changes[uid] = {Change::Kind::kRemoved, uid, account, {}};
  }
  for (const auto& [uid, account] : new_ones) {
    AccountChange& change = changes[uid];
    change.kind = old_ones.contains(uid) ? Change::Kind::kChanged
                                         : Change::Kind::kCreated;
    change.uid = uid;
    change.after = account;
  }
  std::vector<AccountChange> different;
  for (auto& [uid, change] : changes) {
    if (change.kind != Change::Kind::kChanged ||
        change.before != change.after) {
      different.push_back(std::move(change));
    }
  }
  return different;
}

std::vector<Queued> ListQueued(const std::vector<Change>& changes,
                               const Grouping& grouping) {
  const std::string directory = grouping.ControlDirectory();
  const std::string suffix = kControlSuffix;
  std::vector<Queued> queued;
  for (const Change& change : changes) {
    if (directory.empty() || change.kind != Change::Kind::kCreated ||
        !change.path.starts_with(directory) || !change.path.ends_with(suffix)) {
      continue;
    }
    const std::string name = change.path.substr(
        directory.size(),
        change.path.size() - directory.size() - suffix.size());
    const std::string message = grouping.MessageDirectory() + name;
    const std::string control = ReadFile(change.path);
    Queued one;
    one.control = change.path;
    one.files = {change.path, message + kHeaderSuffix, message + kBodySuffix};
    const std::string request = FirstOf(Field(control, "Request-Type"));
    one.what = request.empty() ? "message" : request;
    for (const std::string& account : Field(control, "Account-To")) {
      // Behind the account's name, a request may carry its password.
      one.to.push_back(account.substr(0, account.find(' ')));
    }
    for (std::string& channel : Field(control, "Channel-To")) {
      one.to.push_back(std::move(channel));
    }
    one.subject = FirstOf(Field(ReadFile(message + kHeaderSuffix), "Subject"));
    queued.push_back(one);
  }
  return queued;
}
