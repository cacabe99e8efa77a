#include "tools/rehearse/FileText.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/Format.h"
#include "toolkit/database/TextForm.h"
#include "tools/rehearse/ReadFile.h"

namespace {

constexpr std::size_t kLongestText = 1 << 20;

constexpr std::array<std::string_view, 6> kPasswordFiles = {
    "passwd", "passwd-", "shadow", "shadow-", "gshadow", "gshadow-"};

// What stands for a hash where there is none.
constexpr std::array<std::string_view, 6> kNoHash = {"",  "x",  "*",
                                                     "!", "!!", "!*"};

bool IsDatabase(const std::string& content) {
  using database_format::kMagic;
  return content.starts_with(std::string_view(kMagic, sizeof kMagic));
}

// A database is opened by name: that of a nameless file in memory.
std::optional<std::string> DumpOf(const std::string& content) {
  const SDescriptor file(memfd_create("database", MFD_CLOEXEC));
  SDatabaseFile database;
  std::string text;
  if (!WriteAll(file.Get(), content) ||
      !database.Open("/proc/self/fd/" + std::to_string(file.Get()),
                     SDatabaseFile::Access::kRead) ||
      !DatabaseAsText(&database, &text)) {
    return std::nullopt;
  }
  return text;
}

std::string LowerCase(std::string text) {
  for (char& c : text) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return text;
}

bool SpeaksOfPasswords(const std::string& text) {
  return LowerCase(text).find("password") != std::string::npos;
}

}  // namespace

std::optional<FileText> TextOf(const std::string& content) {
  if (IsDatabase(content)) {
    std::optional<std::string> dump = DumpOf(content);
    return dump ? std::optional<FileText>({std::move(*dump), true})
                : std::nullopt;
  }
  if (content.size() > kLongestText ||
      content.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  return FileText{content, false};
}

std::string Secrets::MaskOf(const std::string& value) {
  const std::size_t number =
      numbers_.emplace(value, numbers_.size() + 1).first->second;
  std::string mask = "(masked ";
  mask += std::to_string(number);
  return mask + ')';
}

// name:hash:...
std::string Secrets::MaskField(const std::string& line) {
  const std::size_t start = line.find(':');
  if (start == std::string::npos) {
    return line;
  }
  const std::size_t end = std::min(line.find(':', start + 1), line.size());
  const std::string hash = line.substr(start + 1, end - start - 1);
  if (std::find(kNoHash.begin(), kNoHash.end(), hash) != kNoHash.end()) {
    return line;
  }
  return line.substr(0, start + 1) + MaskOf(hash) + line.substr(end);
}

// password = value
std::string Secrets::MaskAssignment(const std::string& line) {
  const std::size_t word = LowerCase(line).find("password");
  const std::size_t sign =
      word == std::string::npos ? word : line.find_first_of("=:", word);
  const std::size_t value = sign == std::string::npos
                                ? sign
                                : line.find_first_not_of(" \t", sign + 1);
  return value == std::string::npos
             ? line
             : line.substr(0, value) + MaskOf(line.substr(value));
}

std::string Secrets::Mask(const std::string& path, const FileText& text) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const bool has_hashes =
      std::find(kPasswordFiles.begin(), kPasswordFiles.end(), name) !=
      kPasswordFiles.end();
  std::string masked;
  std::istringstream lines(text.text);
  bool secret_key = false;
  for (std::string line; std::getline(lines, line);) {
    const bool has_end = !lines.eof();
    if (text.is_database && line.starts_with('\t')) {
      if (secret_key && line.size() > 1) {
        line.replace(1, std::string::npos, MaskOf(line.substr(1)));
      }
    } else if (text.is_database) {
      secret_key = SpeaksOfPasswords(line);
    } else {
      line = has_hashes ? MaskField(line) : MaskAssignment(line);
    }
    masked += line;
    masked += has_end ? "\n" : "";
  }
  return masked;
}
