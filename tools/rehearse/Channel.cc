#include "tools/rehearse/Channel.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

// A peer that is gone is an error here, never SIGPIPE.
bool SendAll(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t n = send(fd, bytes, size, MSG_NOSIGNAL);
    if (n < 0 && errno != EINTR) {
      return false;
    }
    const std::size_t sent = n < 0 ? 0 : static_cast<std::size_t>(n);
    bytes += sent;
    size -= sent;
  }
  return true;
}

bool ReceiveAll(int fd, char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t n = recv(fd, bytes, size, 0);
    if (n == 0 || (n < 0 && errno != EINTR)) {
      return false;
    }
    const std::size_t received = n < 0 ? 0 : static_cast<std::size_t>(n);
    bytes += received;
    size -= received;
  }
  return true;
}

}  // namespace

bool Send(int fd, Message::Kind kind, const std::string& text) {
  const std::uint64_t size = text.size();
  std::string frame(1, static_cast<char>(kind));
  frame.append(reinterpret_cast<const char*>(&size), sizeof size);
  return SendAll(fd, frame.data(), frame.size()) &&
         SendAll(fd, text.data(), text.size());
}

bool Receive(int fd, Message& message) {
  char kind = 0;
  std::uint64_t size = 0;
  if (!ReceiveAll(fd, &kind, 1) ||
      !ReceiveAll(fd, reinterpret_cast<char*>(&size), sizeof size)) {
    return false;
  }
  message.kind = static_cast<Message::Kind>(kind);
  message.text.resize(size);
  return ReceiveAll(fd, message.text.data(), size);
}
