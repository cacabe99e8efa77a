#include "tools/rehearse/ReadFile.h"

#include <fcntl.h>

std::string ReadAll(int fd) {
  std::string content;
  static_cast<void>(ReadToEnd(fd, &content));
  return content;
}

std::string ReadFile(const std::string& path) {
  const SDescriptor file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return file.IsOpen() ? ReadAll(file.Get()) : std::string();
}
