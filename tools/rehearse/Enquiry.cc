#include "tools/rehearse/Enquiry.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>

namespace {

// A name without a file: the first byte is NUL.
constexpr char kName[] = "rehearse";

sockaddr_un Address() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::copy(kName, kName + sizeof kName - 1, address.sun_path + 1);
  return address;
}

constexpr socklen_t kAddressSize =
    offsetof(sockaddr_un, sun_path) + 1 + sizeof kName - 1;

}  // namespace

bool Enquiry::Open() {
  socket_ = SDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = Address();
  return socket_.IsOpen() &&
         bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
              kAddressSize) == 0 &&
         listen(socket_.Get(), 16) == 0;
}

void Enquiry::Answer(
    const std::function<std::string(const std::string&)>& answer) {
  const SDescriptor peer(
      accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  // Who asks nothing, or doesn't listen, can't hold up the rehearsal.
  const timeval patience = {2, 0};
  setsockopt(peer.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(peer.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  std::string question;
  std::array<char, 4096> buffer;
  while (question.find('\n') == std::string::npos) {
    const ssize_t n = read(peer.Get(), buffer.data(), buffer.size());
    if (n <= 0) {
      return;
    }
    question.append(buffer.data(), static_cast<std::size_t>(n));
  }
  (void)WriteAll(peer.Get(), answer(question.substr(0, question.find('\n'))));
}

Problem Ask(const std::string& question, std::string& answer) {
  const SDescriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = Address();
  if (connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address),
              kAddressSize) != 0) {
    return "this is no rehearsal; start one by: rehearse -- PROGRAM";
  }
  if (!WriteAll(peer.Get(), question + "\n")) {
    return ProblemOf("can't ask");
  }
  answer = ReadAll(peer.Get());
  return "";
}
