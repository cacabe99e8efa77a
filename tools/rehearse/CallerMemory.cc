#include "tools/rehearse/CallerMemory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/rehearse/Processes.h"
#include "tools/rehearse/ReadFile.h"

namespace {

constexpr std::uint64_t kPageBytes = 4096;  // no smaller pages anywhere
constexpr std::size_t kMostStrings = 1000;

}  // namespace

// Page by page: a call that reaches an unmapped one reads nothing of it.
std::string ReadMemory(pid_t process, std::uint64_t address, std::size_t size) {
  const SDescriptor memory(
      open(ProcessFile(process, "mem").c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes;
  while (bytes.size() < size) {
    const std::uint64_t at = address + bytes.size();
    const std::size_t part = std::min<std::size_t>(
        size - bytes.size(), kPageBytes - at % kPageBytes);
    std::string page(part, '\0');
    const ssize_t n =
        pread(memory.Get(), page.data(), part, static_cast<off_t>(at));
    if (n <= 0) {
      return bytes;
    }
    bytes.append(page, 0, static_cast<std::size_t>(n));
  }
  return bytes;
}

std::string ReadString(pid_t process, std::uint64_t address,
                       std::size_t limit) {
  std::string text;
  while (text.size() < limit) {
    const std::uint64_t at = address + text.size();
    const std::string page =
        ReadMemory(process, at, kPageBytes - at % kPageBytes);
    const auto end = page.find('\0');
    text += page.substr(0, end);
    if (page.empty() || end != std::string::npos) {
      break;
    }
  }
  text.resize(std::min(text.size(), limit));
  return text;
}

std::vector<std::string> ReadStrings(pid_t process, std::uint64_t address) {
  std::vector<std::string> strings;
  while (address != 0 && strings.size() < kMostStrings) {
    const std::string bytes =
        ReadMemory(process, address + strings.size() * sizeof(std::uint64_t),
                   sizeof(std::uint64_t));
    std::uint64_t string = 0;
    if (bytes.size() != sizeof string) {
      break;
    }
    std::memcpy(&string, bytes.data(), sizeof string);
    if (string == 0) {
      break;
    }
    strings.push_back(ReadString(process, string));
  }
  return strings;
}
