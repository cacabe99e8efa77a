#include "tools/rehearse/Describe.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

const char* TypeOf(mode_t mode) {
  return S_ISREG(mode)    ? "file"
         : S_ISDIR(mode)  ? "directory"
         : S_ISLNK(mode)  ? "link"
         : S_ISFIFO(mode) ? "fifo"
         : S_ISSOCK(mode) ? "socket"
                          : "device";
}

std::string Octal(mode_t mode) {
  std::array<char, 8> text = {};
  std::snprintf(text.data(), text.size(), "%04o", mode & 07777);
  return text.data();
}

std::string Differences(const Change& change, const Owners& owners) {
  const struct stat& before = change.before->status;
  const struct stat& after = change.after->status;
  std::string text;
  if (change.kind == Change::Kind::kMoved) {
    text += ", from " + Printable(change.from);
  }
  if (change.kind == Change::Kind::kChanged && change.content_changed) {
    text += (before.st_mode & S_IFMT) != (after.st_mode & S_IFMT)
                ? std::string(", was a ") + TypeOf(before.st_mode)
                : std::string(", content");
  }
  if ((before.st_mode & 07777) != (after.st_mode & 07777)) {
    text += ", mode was " + Octal(before.st_mode);
  }
  if (before.st_uid != after.st_uid || before.st_gid != after.st_gid) {
    text += ", owner was " + owners.Of(before);
  }
  return text;
}

void AddState(JsonObject& object, const FileState& state,
              const Owners& owners) {
  const struct stat& status = state.status;
  object.Add("type", TypeOf(status.st_mode));
  object.Add("mode", Octal(status.st_mode));
  object.AddNumber("uid", status.st_uid);
  object.AddNumber("gid", status.st_gid);
  object.Add("owner", owners.users.Of(status.st_uid));
  object.Add("group", owners.groups.Of(status.st_gid));
  object.AddNumber("size", status.st_size);
  object.AddNumber("links", static_cast<long long>(status.st_nlink));
  if (S_ISLNK(status.st_mode)) {
    object.Add("target", state.link);
  }
}

}  // namespace

Names::Names(const std::string& file) {
  std::istringstream lines(ReadFile(file));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    std::string id;
    std::getline(fields, name, ':');
    std::getline(fields, id, ':');
    std::getline(fields, id, ':');
    names_.emplace(std::strtoul(id.c_str(), nullptr, 10), name);
  }
}

std::string Names::Of(unsigned long id) const {
  const auto found = names_.find(id);
  return found == names_.end() ? std::to_string(id) : found->second;
}

const char* NameOf(Change::Kind kind) {
  switch (kind) {
    case Change::Kind::kCreated:
      return "created";
    case Change::Kind::kChanged:
      return "changed";
    case Change::Kind::kMoved:
      return "moved";
    case Change::Kind::kRemoved:
      return "removed";
  }
  return "";
}

std::string Printable(const std::string& text) {
  std::string shown = text;
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = '?';
    }
  }
  return shown;
}

std::string Describe(const Change& change, const Owners& owners) {
  const FileState& state = change.after ? *change.after : *change.before;
  const mode_t mode = state.status.st_mode;
  std::string text = Octal(mode) + "  " + owners.Of(state.status) + "  " +
                     Printable(change.path);
  if (S_ISDIR(mode)) {
    text += "/";
  } else if (S_ISLNK(mode)) {
    text += " -> " + Printable(state.link);
  } else if (!S_ISREG(mode)) {
    text += std::string(" (") + TypeOf(mode) + ")";
  }
  if (change.before && change.after) {
    text += Differences(change, owners);
  }
  return text;
}

std::string Line(const Change& change, const Owners& owners) {
  return std::string("  ") + NameOf(change.kind) + "  " +
         Describe(change, owners) + "\n";
}

std::string Section(const std::string& title, const std::string& lines) {
  return title + (lines.empty() ? " none\n" : "\n" + lines);
}

std::string ProcessLines(const std::vector<Process>& processes) {
  std::string text;
  for (const Process& process : processes) {
    text += std::string("  ") + std::to_string(process.id) + "  " +
            Printable(process.name) + "  " + Printable(process.command) + "\n";
  }
  return text;
}

std::string SignalLines(const std::vector<Signalled>& signalled) {
  std::string text;
  for (const Signalled& one : signalled) {
    text += std::string("  ") + std::to_string(one.target.id) + "  " +
            Printable(one.target.name) + "  " + SignalName(one.signal) +
            " from " + Printable(one.sender);
    text += one.effect.empty() ? "\n" : ", taken to have " + one.effect + "\n";
  }
  return text;
}

void AddChange(JsonObject& object, const Change& change, const Owners& owners) {
  object.Add("path", change.path);
  object.Add("kind", NameOf(change.kind));
  if (change.kind == Change::Kind::kMoved) {
    object.Add("from", change.from);
  }
  object.AddRaw("content_changed", change.content_changed ? "true" : "false");
  for (const auto& [key, state] :
       {std::pair("before", &change.before), {"after", &change.after}}) {
    if (*state) {
      JsonObject inner;
      AddState(inner, **state, owners);
      object.AddRaw(key, inner.Text());
    }
  }
}

std::string AsJson(const Change& change, const Owners& owners) {
  JsonObject object;
  AddChange(object, change, owners);
  return object.Text();
}

std::string AsJson(const Process& process) {
  JsonObject object;
  object.AddNumber("pid", process.id);
  object.Add("name", process.name);
  object.Add("command", process.command);
  return object.Text();
}

std::string AsJson(const Signalled& one) {
  JsonObject object;
  object.AddNumber("pid", one.target.id);
  object.Add("name", one.target.name);
  object.AddNumber("signal", one.signal);
  object.Add("signal_name", SignalName(one.signal));
  object.Add("sender", one.sender);
  object.AddNumber("sender_pid", one.sender_id);
  if (!one.effect.empty()) {
    object.Add("taken_to_have", one.effect);
  }
  return object.Text();
}

std::string JsonStrings(const std::vector<std::string>& strings) {
  std::string text = "[";
  for (const std::string& string : strings) {
    text += text.size() > 1 ? "," : "";
    text += JsonString(string);
  }
  return text + "]";
}
