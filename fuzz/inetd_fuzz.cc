// Any Internet daemon's configuration: every line is as before or commented
// out, none is left for the services, and the backup is the former file.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "driver/Settings.h"
#include "fuzz/Scratch.h"
#include "host/EditInetdConf.h"

namespace {

constexpr const char* kServices[] = {"smtp", "pop3", "pop-3", "mail", "finger"};

// White space of the patterns; a vertical tab is none.
constexpr std::string_view kBlanks = " \t\n\r\f";

std::string WithoutServices(std::string_view line) {
  const std::size_t begin = line.find_first_not_of(kBlanks);
  if (begin != std::string_view::npos) {
    const std::string_view rest = line.substr(begin);
    for (const std::string_view service : kServices) {
      if (rest.starts_with(service) && rest.size() > service.size() &&
          kBlanks.find(rest[service.size()]) != std::string_view::npos) {
        return "#" + std::string(rest);
      }
    }
  }
  return std::string(line);
}

std::string WithoutServicesInAll(std::string_view content) {
  std::string edited;
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    const std::string_view line =
        content.substr(0, end == std::string_view::npos ? end : end + 1);
    edited += WithoutServices(line);
    content.remove_prefix(line.size());
  }
  return edited;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const SScratch scratch;
  static const SStringList services = [] {
    SStringList names;
    for (const char* service : kServices) {
      names.Push(service);
    }
    return names;
  }();
  const std::string path = scratch.File("inetd.conf");
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  WriteFile(path, content);
  gstr_InetdConf = SString(path.c_str());
  Check(UpdateInetdConf(services));
  Check(ReadFile(path) == WithoutServicesInAll(content));
  Check(ReadFile(path + ".bak") == content);
  unlink(path.c_str());
  unlink((path + ".bak").c_str());
  return 0;
}
