#include "tools/rehearse/Descriptor.h"

#include <fcntl.h>

#include <array>
#include <cerrno>

std::string ReadAll(int fd) {
  std::string bytes;
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return bytes;
    }
    bytes.append(buffer.data(), static_cast<std::size_t>(n));
  }
}

std::string ReadFile(const std::string& path) {
  const Descriptor file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return file.IsOpen() ? ReadAll(file.Get()) : std::string();
}
