#include "tools/rehearse/NetworkCalls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/rehearse/CallerMemory.h"
#include "tools/rehearse/Processes.h"

namespace {

// Domain names, the port mapper of NIS, directories: they are only read.
constexpr std::array<int, 5> kNameServices = {53, 111, 389, 636, 853};
constexpr unsigned kMostMessages = 1024;  // as sendmmsg(2)

template <typename Struct>
Struct As(const std::string& bytes) {
  Struct value = {};
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
  return value;
}

struct Peer {
  int family = AF_UNSPEC;
  std::string address;
  int port = 0;
  bool nameless = true;  // no address at all
  bool file = false;     // a socket that lies in a directory
};

Peer ReadPeer(pid_t caller, std::uint64_t address, std::uint64_t size) {
  Peer peer;
  const std::string bytes = ReadMemory(
      caller, address,
      std::min<std::uint64_t>(size & 0xffffffffU, sizeof(sockaddr_storage)));
  if (address == 0 || bytes.size() < sizeof(sa_family_t)) {
    return peer;
  }
  peer.nameless = false;
  peer.family = As<sa_family_t>(bytes);
  std::array<char, INET6_ADDRSTRLEN> text = {};
  if (peer.family == AF_UNIX) {
    peer.address = bytes.substr(sizeof(sa_family_t));
    peer.file = !peer.address.empty() && peer.address[0] != '\0';
  } else if (peer.family == AF_INET6) {
    const auto name = As<sockaddr_in6>(bytes);
    inet_ntop(AF_INET6, &name.sin6_addr, text.data(), text.size());
    peer.address = text.data();
    peer.port = ntohs(name.sin6_port);
  } else {
    const auto name = As<sockaddr_in>(bytes);
    inet_ntop(AF_INET, &name.sin_addr, text.data(), text.size());
    peer.address = text.data();
    peer.port = ntohs(name.sin_port);
  }
  return peer;
}

// "@name" for a name that is no file, as others write it.
std::string NameOf(const Peer& peer) {
  if (peer.family != AF_UNIX) {
    return peer.address + " port " + std::to_string(peer.port);
  }
  std::string name = peer.address;
  name.front() = '@';
  return name;
}

Contact Reach(const Peer& peer) {
  switch (peer.family) {
    case AF_UNIX:
      return peer.file || peer.address.empty()
                 ? Contact{}
                 : Contact{"connection to " + NameOf(peer), ECONNREFUSED};
    case AF_UNSPEC:  // an unconnected socket takes it for AF_INET
    case AF_INET:
    case AF_INET6:
      return peer.port == 0 ||
                     std::find(kNameServices.begin(), kNameServices.end(),
                               peer.port) != kNameServices.end()
                 ? Contact{}
                 : Contact{"connection to " + NameOf(peer), ECONNREFUSED};
    case AF_NETLINK:
      return {};
    default:
      return {"connection of address family " + std::to_string(peer.family),
              ECONNREFUSED};
  }
}

Contact ReachAll(pid_t caller, std::uint64_t first, std::uint64_t count,
                 std::size_t step) {
  for (std::uint64_t i = 0; i < std::min<std::uint64_t>(count, kMostMessages);
       ++i) {
    const auto message =
        As<msghdr>(ReadMemory(caller, first + i * step, sizeof(msghdr)));
    const Peer peer =
        ReadPeer(caller, reinterpret_cast<std::uint64_t>(message.msg_name),
                 message.msg_namelen);
    Contact contact = peer.nameless ? Contact{} : Reach(peer);
    if (!contact.what.empty()) {
      return contact;
    }
  }
  return {};
}

// The family of a socket of another process.
int FamilyOf(pid_t caller, int fd) {
  const SDescriptor process(static_cast<int>(syscall(
      SYS_pidfd_open, std::atoi(ProcessStatus(caller, "Tgid").c_str()), 0)));
  const SDescriptor copy(
      static_cast<int>(syscall(SYS_pidfd_getfd, process.Get(), fd, 0)));
  int family = AF_UNSPEC;
  socklen_t size = sizeof family;
  (void)getsockopt(copy.Get(), SOL_SOCKET, SO_DOMAIN, &family, &size);
  return family;
}

bool IsInternet(int family) {
  return family == AF_INET || family == AF_INET6;
}

}  // namespace

const std::vector<int>& NetworkCalls() {
  static const std::vector<int> calls = {
      SYS_connect, SYS_bind, SYS_listen, SYS_sendto, SYS_sendmsg, SYS_sendmmsg};
  return calls;
}

Contact ContactOf(const HeldCall& call) {
  const auto& arguments = call.arguments;
  switch (call.number) {
    case SYS_connect: {
      const Peer peer = ReadPeer(call.caller, arguments[1], arguments[2]);
      // AF_UNSPEC takes a connection back.
      return peer.family == AF_UNSPEC ? Contact{} : Reach(peer);
    }
    case SYS_bind: {
      const Peer peer = ReadPeer(call.caller, arguments[1], arguments[2]);
      return IsInternet(peer.family) && peer.port != 0
                 ? Contact{"to hold " + NameOf(peer), EACCES}
                 : Contact{};
    }
    case SYS_listen:
      return IsInternet(FamilyOf(call.caller, call.Int(0)))
                 ? Contact{"to wait for connections", EACCES}
                 : Contact{};
    case SYS_sendto: {
      const Peer peer = ReadPeer(call.caller, arguments[4], arguments[5]);
      return peer.nameless ? Contact{} : Reach(peer);
    }
    case SYS_sendmsg:
      return ReachAll(call.caller, arguments[1], 1, 0);
    case SYS_sendmmsg:
      return ReachAll(call.caller, arguments[1], arguments[2], sizeof(mmsghdr));
    default:
      return {};
  }
}
