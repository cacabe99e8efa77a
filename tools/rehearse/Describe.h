#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "tools/rehearse/Changes.h"
#include "tools/rehearse/Json.h"
#include "tools/rehearse/Processes.h"
#include "tools/rehearse/SignalWatch.h"

/// Names by id, from a file of /etc: other name services belong to the host.
class Names {
 public:
  explicit Names(const std::string& file);
  [[nodiscard]] std::string Of(unsigned long id) const;

 private:
  std::map<unsigned long, std::string> names_;
};

struct Owners {
  Names users{"/etc/passwd"};
  Names groups{"/etc/group"};

  /// "user:group"
  [[nodiscard]] std::string Of(const struct stat& status) const {
    return users.Of(status.st_uid) + ":" + groups.Of(status.st_gid);
  }
};

/// What a terminal would obey is shown as "?".
[[nodiscard]] std::string Printable(const std::string& text);

/// "created", "changed", "moved", "removed"
[[nodiscard]] const char* NameOf(Change::Kind kind);

/// Mode, owner, path and differences of a change.
[[nodiscard]] std::string Describe(const Change& change, const Owners& owners);

/// One change as a line of a report, with its kind.
[[nodiscard]] std::string Line(const Change& change, const Owners& owners);

/// A title and its lines, "none" where there are none.
[[nodiscard]] std::string Section(const std::string& title,
                                  const std::string& lines);

[[nodiscard]] std::string ProcessLines(const std::vector<Process>& processes);
[[nodiscard]] std::string SignalLines(const std::vector<Signalled>& signalled);

/// Puts what is known of a change into an object.
void AddChange(JsonObject& object, const Change& change, const Owners& owners);
[[nodiscard]] std::string AsJson(const Change& change, const Owners& owners);
[[nodiscard]] std::string AsJson(const Process& process);
[[nodiscard]] std::string AsJson(const Signalled& one);

/// A JSON list, each item as `as_json` tells it.
template <typename Item, typename AsJson>
std::string JsonList(const std::vector<Item>& items, AsJson as_json) {
  std::string text = "[";
  for (const Item& item : items) {
    text += text.size() > 1 ? ",\n  " : "\n  ";
    text += as_json(item);
  }
  return text + "]";
}

[[nodiscard]] std::string JsonStrings(const std::vector<std::string>& strings);
