#include "tools/rehearse/HostReport.h"

#include <sys/wait.h>

#include <algorithm>
#include <sstream>

#include "tools/rehearse/Describe.h"
#include "tools/rehearse/Telling.h"

namespace {

constexpr const char* pz_NothingChanged =
    "Nothing was changed on this host: all of this happened in memory only.\n";

// A person reads that much of one file; JSON has all of it.
constexpr int kMostDiffLines = 120;
constexpr std::size_t kMostNames = 10;

// A diff, indented and not longer than anybody would read.
std::string DiffLines(const std::string& diff) {
  std::string text;
  std::istringstream lines(diff);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    if (count < kMostDiffLines) {
      // A tab begins the values of a database's text.
      const bool value = line.size() > 1 && line[1] == '\t';
      text += "      " + line.substr(0, 1) + (value ? "\t" : "") +
              Printable(line.substr(
                  std::min<std::size_t>(line.size(), value ? 2 : 1))) +
              "\n";
    }
  }
  if (count > kMostDiffLines) {
    text +=
        "      ... " + std::to_string(count - kMostDiffLines) + " more lines\n";
  }
  return text;
}

std::string EntryLines(const Entry& entry, const Owners& owners) {
  std::string text = "  " + Describe(*entry.change, owners);
  if (!entry.copy_of.empty()) {
    text += ", a copy of " + Printable(entry.copy_of) + " as it was";
  }
  if (!entry.note.empty()) {
    text += " (" + entry.note + ")";
  }
  return text + "\n" + DiffLines(entry.diff);
}

std::string LinesOf(const Told& told, Group group, const Owners& owners) {
  std::string lines;
  for (const Entry& entry : told.entries) {
    if (entry.group == group) {
      lines += EntryLines(entry, owners);
    }
  }
  return lines;
}

std::string JoinValues(const Account& account, const std::string& key) {
  const auto found = account.find(key);
  std::string joined;
  for (const std::string& value :
       found == account.end() ? std::vector<std::string>() : found->second) {
    joined += joined.empty() ? "" : ", ";
    joined += value;
  }
  return joined;
}

std::string AccountLines(const Told& told, const Owners& owners) {
  std::string lines;
  for (const AccountChange& change : told.accounts) {
    const Account& account =
        change.kind == Change::Kind::kRemoved ? change.before : change.after;
    lines +=
        std::string("  ") + NameOf(change.kind) + "  " + Printable(change.uid);
    for (const char* key : {"Name", "SMTP-Address"}) {
      const std::string values = JoinValues(account, key);
      lines += values.empty() ? "" : "  " + Printable(values);
    }
    lines += "\n";
  }
  for (const Entry& entry : told.entries) {
    if (entry.group == Group::kAccounts) {
      lines += Line(*entry.change, owners) + DiffLines(entry.diff);
    }
  }
  return lines;
}

std::string QueuedLine(const Queued& queued) {
  std::string line = "  queued  " + Printable(queued.what);
  for (std::size_t i = 0; i < std::min(queued.to.size(), kMostNames); ++i) {
    line += i == 0 ? " to " : ", ";
    line += Printable(queued.to[i]);
  }
  if (queued.to.size() > kMostNames) {
    line += " and " + std::to_string(queued.to.size() - kMostNames) + " more";
  }
  line +=
      queued.subject.empty() ? "" : ", \"" + Printable(queued.subject) + "\"";
  return line + ", " + Printable(queued.control) + "\n";
}

std::string DirectoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

struct NewFiles {
  std::size_t count = 0;
  long long bytes = 0;
  bool is_told = false;
};

// New files are told by directory, and these are not told themselves.
class MailTeller {
 public:
  MailTeller(const Told& told, const Owners& owners)
      : told_(told), owners_(owners) {}

  std::string Lines();

 private:
  [[nodiscard]] bool IsQueued(const std::string& path) const;
  std::string LineOf(const Entry& entry);

  const Told& told_;
  const Owners& owners_;
  std::map<std::string, NewFiles> directories_;
};

bool MailTeller::IsQueued(const std::string& path) const {
  return std::any_of(
      told_.queued.begin(), told_.queued.end(), [&path](const Queued& queued) {
        return std::find(queued.files.begin(), queued.files.end(), path) !=
               queued.files.end();
      });
}

bool IsNewFile(const Entry& entry) {
  return IsRegular(entry.change->after) &&
         entry.change->kind == Change::Kind::kCreated;
}

std::string MailTeller::LineOf(const Entry& entry) {
  const std::string& path = entry.change->path;
  if (IsQueued(path)) {
    return "";
  }
  if (IsNewFile(entry)) {
    NewFiles& files = directories_[DirectoryOf(path)];
    if (files.is_told) {
      return "";
    }
    files.is_told = true;
    return "  created  " + std::to_string(files.count) +
           (files.count == 1 ? " file in " : " files in ") +
           Printable(DirectoryOf(path)) + ", " + std::to_string(files.bytes) +
           " bytes\n";
  }
  // A directory with new files below it is named by these.
  const auto below = directories_.lower_bound(path + "/");
  if (entry.change->kind == Change::Kind::kCreated &&
      below != directories_.end() && below->first.starts_with(path + "/")) {
    return "";
  }
  return Line(*entry.change, owners_);
}

std::string MailTeller::Lines() {
  std::string lines;
  for (const Queued& queued : told_.queued) {
    lines += QueuedLine(queued);
  }
  for (const Entry& entry : told_.entries) {
    if (entry.group == Group::kMail && IsNewFile(entry) &&
        !IsQueued(entry.change->path)) {
      NewFiles& files = directories_[DirectoryOf(entry.change->path)];
      ++files.count;
      files.bytes += entry.change->after->status.st_size;
    }
  }
  for (const Entry& entry : told_.entries) {
    lines += entry.group == Group::kMail ? LineOf(entry) : "";
  }
  return lines;
}

std::string Words(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += text.empty() ? "" : " ";
    text += Printable(word);
  }
  return text;
}

std::string StartLines(const std::vector<ServerStart>& starts,
                       const Owners& owners) {
  std::string lines;
  for (const ServerStart& start : starts) {
    lines += "  " + Words(start.arguments) + "  (" + Printable(start.program) +
             " in " + Printable(start.directory) + ", as " +
             owners.users.Of(start.uid) + ":" + owners.groups.Of(start.gid) +
             ")\n";
  }
  return lines;
}

std::string RefusalLines(const std::vector<Refusal>& refusals) {
  std::string lines;
  for (const Refusal& refusal : refusals) {
    lines += "  " + Printable(refusal.process) + "  " + Printable(refusal.what);
    lines += refusal.count > 1 ? ", " + std::to_string(refusal.count) + " times"
                               : "";
    lines += "\n";
  }
  return lines;
}

std::string StatusText(int status) {
  return WIFSIGNALED(status) ? "ended by " + SignalName(WTERMSIG(status))
                             : std::to_string(WEXITSTATUS(status));
}

std::string AsJson(const Entry& entry, const Owners& owners) {
  JsonObject object;
  AddChange(object, *entry.change, owners);
  object.Add("group", NameOf(entry.group));
  if (!entry.copy_of.empty()) {
    object.Add("copy_of", entry.copy_of);
  }
  if (!entry.diff.empty()) {
    object.Add("diff", entry.diff);
  }
  return object.Text();
}

std::string AsJson(const Account& account) {
  JsonObject object;
  for (const auto& [key, values] : account) {
    object.AddRaw(key, JsonStrings(values));
  }
  return object.Text();
}

std::string AsJson(const AccountChange& change) {
  JsonObject object;
  object.Add("uid", change.uid);
  object.Add("kind", NameOf(change.kind));
  if (change.kind != Change::Kind::kCreated) {
    object.AddRaw("before", AsJson(change.before));
  }
  if (change.kind != Change::Kind::kRemoved) {
    object.AddRaw("after", AsJson(change.after));
  }
  return object.Text();
}

std::string AsJson(const Queued& queued) {
  JsonObject object;
  object.Add("control", queued.control);
  object.Add("what", queued.what);
  object.AddRaw("to", JsonStrings(queued.to));
  object.Add("subject", queued.subject);
  return object.Text();
}

std::string AsJson(const ServerStart& start) {
  JsonObject object;
  object.Add("program", start.program);
  object.AddRaw("arguments", JsonStrings(start.arguments));
  object.Add("directory", start.directory);
  object.AddNumber("uid", start.uid);
  object.AddNumber("gid", start.gid);
  return object.Text();
}

std::string AsJson(const Refusal& refusal) {
  JsonObject object;
  object.Add("what", refusal.what);
  object.Add("process", refusal.process);
  object.AddNumber("count", refusal.count);
  return object.Text();
}

}  // namespace

std::string HostReportAsText(const HostFindings& findings,
                             const Changes& changes) {
  const Told told = Tell(findings.program, findings.files, changes);
  const Owners owners;
  std::string text =
      "Rehearsal of: " + Words(findings.program) + "\n" +
      Section("Created:", LinesOf(told, Group::kCreated, owners)) +
      Section("Changed:", LinesOf(told, Group::kChanged, owners)) +
      Section("Moved:", LinesOf(told, Group::kMoved, owners)) +
      Section("Removed:", LinesOf(told, Group::kRemoved, owners)) +
      Section("Accounts:", AccountLines(told, owners)) +
      Section("Mail:", MailTeller(told, owners).Lines()) +
      Section("Signals:", SignalLines(findings.signals)) +
      Section("Would start:", StartLines(findings.starts, owners));
  if (!findings.refusals.empty()) {
    text += Section("Refused:", RefusalLines(findings.refusals));
  }
  if (!findings.left_running.empty()) {
    text += Section("Left running, ended by rehearse:",
                    ProcessLines(findings.left_running));
  }
  for (const std::string& path : findings.read_only) {
    text += "Read-only in the rehearsal: " + Printable(path) + "\n";
  }
  return text + "Exit status: " + StatusText(findings.status) + "\n" +
         pz_NothingChanged;
}

std::string HostReportAsJson(const HostFindings& findings,
                             const Changes& changes) {
  const Told told = Tell(findings.program, findings.files, changes);
  const Owners owners;
  const auto as_json = [](const auto& item) { return AsJson(item); };
  const auto with_owners = [&owners](const auto& item) {
    return AsJson(item, owners);
  };
  JsonObject object;
  object.AddRaw("program", JsonStrings(findings.program));
  object.AddNumber("exit_status", WIFSIGNALED(findings.status)
                                      ? 128 + WTERMSIG(findings.status)
                                      : WEXITSTATUS(findings.status));
  object.AddRaw("files", JsonList(told.entries, with_owners));
  object.AddRaw("accounts", JsonList(told.accounts, as_json));
  object.AddRaw("queued", JsonList(told.queued, as_json));
  object.AddRaw("signals", JsonList(findings.signals, as_json));
  object.AddRaw("would_start", JsonList(findings.starts, as_json));
  object.AddRaw("refused", JsonList(findings.refusals, as_json));
  object.AddRaw("left_running", JsonList(findings.left_running, as_json));
  object.AddRaw("read_only", JsonStrings(findings.read_only));
  return object.Text() + "\n";
}
