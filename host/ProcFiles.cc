// The running processes and listening sockets from /proc.

#include "host/ProcFiles.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "host/FixedPaths.h"
#include "toolkit/Files.h"

namespace {

constexpr int kHexadecimal = 16;
constexpr const char* kListening = "0A";  // TCP_LISTEN

// The number that is the whole of `digits`; -1 when it isn't one.
int Number(std::string_view digits, int base) {
  int number = -1;
  const char* const end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, number, base);
  return result.ec == std::errc() && result.ptr == end ? number : -1;
}

// The names of processes are their own choice, line ends and terminal controls
// included.
SString Harmless(std::string_view name) {
  std::string shown(name);
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f) {
      c = '?';
    }
  }
  return SString(std::move(shown));
}

std::vector<int> ProcessIds() {
  std::vector<int> ids;
  for (const SString& name : ReadDir(kProc)) {
    const int id = Number(name.View(), 10);
    if (id > 0) {
      ids.push_back(id);
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

SStringList PortsIn(const SString& path) {
  SStringList lines;
  // Without IPv6 there is no file, which is the same as no socket.
  static_cast<void>(ReadLines(path, &lines));
  return ListeningPorts(lines);
}

}  // namespace

SString ProcessLine(const SString& stat) {
  // "231 (name) S ...": the name may hold blanks and parentheses itself.
  const std::string_view text = stat.View();
  const std::size_t open = text.find(" (");
  const std::size_t close = text.rfind(") ");
  if (open == std::string_view::npos || close == std::string_view::npos ||
      close < open + 2 || close + 2 >= text.size()) {
    return "";
  }
  const SString id(text.substr(0, open));
  const SString name = Harmless(text.substr(open + 2, close - open - 2));
  const bool is_dead = text[close + 2] == 'Z';
  return id + " ? 00:00:00 " + name + (is_dead ? " <defunct>" : "") + "\n";
}

SStringList ProcProcessLines() {
  SStringList lines;
  for (const int id : ProcessIds()) {
    const SString stat =
        MapFileRead(SString(kProc) + "/" + SString(id) + "/stat");
    const SString line = ProcessLine(stat);
    if (!line.IsEmpty()) {  // else it has ended meanwhile
      lines.Push(line);
    }
  }
  return lines;
}

SStringList ListeningPorts(const SStringList& sockets) {
  SStringList ports;
  for (const SString& socket : sockets) {
    // "   0: 0100007F:0019 00000000:0000 0A ...": number, local address and
    // port, remote address and port, state; all but the number in hexadecimal.
    const SStringList fields =
        socket.M("^\\s*\\d+:\\s+\\S+:(\\S+)\\s+\\S+\\s+(\\S+)");
    const int port = Number(fields[0].View(), kHexadecimal);
    if (fields[1] == kListening && port >= 0) {
      ports.Push(SString(port));
    }
  }
  return ports;
}

SStringList ProcListeningPorts() {
  SStringList ports = PortsIn(kProcTcp4);
  ports.Push(PortsIn(kProcTcp6));
  return ports;
}
