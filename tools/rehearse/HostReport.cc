#include "tools/rehearse/HostReport.h"

#include <sys/wait.h>

#include "tools/rehearse/Describe.h"

namespace {

constexpr const char* pz_NothingChanged =
    "Nothing was changed on this host: all of this happened in memory only.\n";

std::string StatusOf(int status) {
  return WIFSIGNALED(status) ? "ended by " + SignalName(WTERMSIG(status))
                             : std::to_string(WEXITSTATUS(status));
}

std::string LinesOf(const HostFindings& findings, Change::Kind kind,
                    const Owners& owners) {
  std::string lines;
  for (const Change& change : findings.files) {
    if (change.kind == kind) {
      lines += Line(change, owners);
    }
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
    lines +=
        "  " + Printable(refusal.process) + "  " + Printable(refusal.what) +
        (refusal.count > 1 ? ", " + std::to_string(refusal.count) + " times"
                           : "") +
        "\n";
  }
  return lines;
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
                             const Changes& /*changes*/) {
  const Owners owners;
  std::string text =
      Section("Created:", LinesOf(findings, Change::Kind::kCreated, owners)) +
      Section("Changed:", LinesOf(findings, Change::Kind::kChanged, owners)) +
      Section("Moved:", LinesOf(findings, Change::Kind::kMoved, owners)) +
      Section("Removed:", LinesOf(findings, Change::Kind::kRemoved, owners)) +
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
  return text + "Exit status: " + StatusOf(findings.status) + "\n" +
         pz_NothingChanged;
}

std::string HostReportAsJson(const HostFindings& findings,
                             const Changes& /*changes*/) {
  const Owners owners;
  const auto as_json = [&owners](const auto& item) {
    if constexpr (std::is_same_v<std::decay_t<decltype(item)>, Change>) {
      return AsJson(item, owners);
    } else {
      return AsJson(item);
    }
  };
  JsonObject object;
  object.AddRaw("program", JsonStrings(findings.program));
  object.AddNumber("exit_status", WIFSIGNALED(findings.status)
                                      ? 128 + WTERMSIG(findings.status)
                                      : WEXITSTATUS(findings.status));
  object.AddRaw("files", JsonList(findings.files, as_json));
  object.AddRaw("signals", JsonList(findings.signals, as_json));
  object.AddRaw("would_start", JsonList(findings.starts, as_json));
  object.AddRaw("refused", JsonList(findings.refusals, as_json));
  object.AddRaw("left_running", JsonList(findings.left_running, as_json));
  object.AddRaw("read_only", JsonStrings(findings.read_only));
  object.AddRaw("host_changed", "false");
  return object.Text() + "\n";
}
