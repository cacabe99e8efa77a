// Any system configuration file, compared with the plainest way to read it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "driver/ReadSettings.h"
#include "fuzz/Scratch.h"
#include "toolkit/Files.h"

namespace {

constexpr const char* kKeys[] = {"DomainName", "Vellumcraft",  "ProgramDir",
                                 "MailboxDir", "MailUserName", "HostName"};

// White space ends a value; a vertical tab is none.
constexpr std::string_view kBlanks = " \t\n\r\f";

std::string ValueIn(std::string_view content, std::string_view key) {
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    std::string_view line = content.substr(0, end);
    content.remove_prefix(end == std::string_view::npos ? content.size()
                                                        : end + 1);
    if (line.starts_with(key)) {
      line.remove_prefix(key.size());
      if (!line.starts_with('=')) {
        return "";
      }
      line.remove_prefix(1);
      return std::string(line.substr(0, line.find_first_of(kBlanks)));
    }
  }
  return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const SScratch scratch;
  const std::string path = scratch.File("settings");
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  WriteFile(path, content);
  SStringList lines;
  Check(ReadLines(SString(path.c_str()), &lines));
  lines.ChopLineEnds();
  for (const char* key : kKeys) {
    Check(ReadConfig(lines, key).Std() == ValueIn(content, key));
  }
  unlink(path.c_str());
  return 0;
}
