#include "tools/rehearse/Report.h"

#include "tools/rehearse/Describe.h"

namespace {

std::string ListenerLines(const std::vector<Listener>& listeners) {
  std::string text;
  for (const Listener& listener : listeners) {
    text += "  " + listener.protocol + " " + listener.address + " port " +
            std::to_string(listener.port) + "  " + Printable(listener.process) +
            "\n";
  }
  return text;
}

std::string AsJson(const Listener& listener) {
  JsonObject object;
  object.Add("protocol", listener.protocol);
  object.Add("address", listener.address);
  object.AddNumber("port", listener.port);
  object.Add("process", listener.process);
  object.AddNumber("pid", listener.id);
  return object.Text();
}

}  // namespace

std::string ReportAsText(const Findings& findings) {
  const Owners owners;
  std::string files;
  for (const Change& change : findings.files) {
    files += Line(change, owners);
  }
  std::string text =
      Section("Files:", files) +
      Section("Processes signalled:", SignalLines(findings.signalled)) +
      Section("Processes started:", ProcessLines(findings.started)) +
      Section("Processes ended:", ProcessLines(findings.ended)) +
      Section("Ports listened on:", ListenerLines(findings.listening));
  if (!findings.no_longer_listening.empty()) {
    text += Section("Ports no longer listened on:",
                    ListenerLines(findings.no_longer_listening));
  }
  for (const std::string& path : findings.read_only) {
    text += "Read-only in the rehearsal: " + Printable(path) + "\n";
  }
  return text;
}

std::string ReportAsJson(const Findings& findings) {
  const Owners owners;
  const auto as_json = [&owners](const auto& item) {
    if constexpr (std::is_same_v<std::decay_t<decltype(item)>, Change>) {
      return AsJson(item, owners);
    } else {
      return AsJson(item);
    }
  };
  JsonObject object;
  object.AddRaw("files", JsonList(findings.files, as_json));
  object.AddRaw("signalled", JsonList(findings.signalled, as_json));
  object.AddRaw("started", JsonList(findings.started, as_json));
  object.AddRaw("ended", JsonList(findings.ended, as_json));
  object.AddRaw("listening", JsonList(findings.listening, as_json));
  object.AddRaw("no_longer_listening",
                JsonList(findings.no_longer_listening, as_json));
  object.AddRaw("read_only", JsonStrings(findings.read_only));
  return object.Text() + "\n";
}
