// A stand-in for a server daemon on a throw-away host, never for real use.
//
//   NAME [--ports P,P...] [--ignore S,S...] [--log FILE] [--inetd FILE] [--stay]
//   NAME -bp
//
// It says what it is, holds the ports on every address, goes into the
// background (not with --stay) and writes the number of each signal it gets to
// its log, a line each; SIGTERM and the like end it unless ignored.  Its name
// in the process table is the one it was started under.  Started as
// "vellumcraft" it holds the mail ports by itself; with --inetd it holds those
// of the file's active lines and looks again at each SIGHUP; with -bp it only
// lists the queue as sendmail does.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// In memory that no list of changed files covers.
const char kLogDirectory[] = "/dev/shm/standins";

std::vector<int> NumbersOf(const std::string& list) {
  std::vector<int> numbers;
  std::istringstream words(list);
  for (std::string word; std::getline(words, word, ',');) {
    numbers.push_back(std::atoi(word.c_str()));
  }
  return numbers;
}

std::map<int, int> g_sockets;  // by port

bool Hold(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
          0 ||
      listen(fd, 16) != 0) {
    close(fd);
    return false;
  }
  g_sockets[port] = fd;
  return true;
}

// As inetd: holds the ports of the active lines, and no others.
void Serve(const std::string& file) {
  std::set<int> wanted;
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string service;
    words >> service;
    const servent* const entry = getservbyname(service.c_str(), "tcp");
    if (entry != nullptr) {
      wanted.insert(ntohs(static_cast<std::uint16_t>(entry->s_port)));
    }
  }
  std::erase_if(g_sockets, [&wanted](const auto& held) {
    return !wanted.contains(held.first) && close(held.second) == 0;
  });
  for (const int port : wanted) {
    if (!g_sockets.contains(port) && !Hold(port)) {
      continue;  // another daemon has it
    }
  }
}

// As sendmail -bp.
int ListQueue() {
  std::ifstream listing("/var/spool/mqueue/listing");
  if (listing) {
    std::cout << listing.rdbuf();
  } else {
    std::cout << "Mail queue is empty\n";
  }
  return 0;
}

void Append(const std::string& log, const std::string& line) {
  const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd >= 0) {
    if (write(fd, line.data(), line.size()) < 0) {
      std::perror(log.c_str());
    }
    close(fd);
  }
}

[[noreturn]] void LogSignals(const std::string& log,
                             const std::set<int>& ignored,
                             const std::string& inetd_file) {
  sigset_t all;
  sigfillset(&all);
  Append(log, "ready\n");
  for (;;) {
    int signal = 0;
    if (sigwait(&all, &signal) != 0) {
      continue;
    }
    Append(log, std::to_string(signal) + "\n");
    if (signal == SIGHUP && !inetd_file.empty()) {
      Serve(inetd_file);
    }
    const bool ends =
        signal == SIGTERM || signal == SIGINT || signal == SIGQUIT;
    if (ends && !ignored.contains(signal)) {
      std::exit(0);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* const slash = std::strrchr(argv[0], '/');
  const std::string name = slash == nullptr ? argv[0] : slash + 1;
  std::vector<int> ports;
  std::set<int> ignored;
  std::string log;
  std::string inetd_file;
  bool stay = false;
  if (name == "vellumcraft") {
    ports = {25, 110, 79};
  }
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const std::string value = i + 1 < argc ? argv[i + 1] : "";
    if (option == "--ports") {
      ports = NumbersOf(value);
    } else if (option == "--ignore") {
      const std::vector<int> numbers = NumbersOf(value);
      ignored.insert(numbers.begin(), numbers.end());
    } else if (option == "--log") {
      log = value;
    } else if (option == "--inetd") {
      inetd_file = value;
    } else if (option == "-bp") {
      return ListQueue();
    } else if (option == "--stay") {
      stay = true;
    }
  }
  std::printf("%s: stand-in for the real server, for rehearsals only\n",
              name.c_str());
  std::fflush(stdout);
  for (const int port : ports) {
    if (!Hold(port)) {
      std::fprintf(stderr, "%s: port %d: %s\n", name.c_str(), port,
                   std::strerror(errno));
      return 1;
    }
  }
  if (!inetd_file.empty()) {
    Serve(inetd_file);
  }
  // Blocked before the fork, so that no signal is lost.
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  if (!stay && fork() != 0) {
    _exit(0);
  }
  setsid();
  mkdir(kLogDirectory, 01777);
  chmod(kLogDirectory, 01777);
  if (log.empty()) {
    log = std::string(kLogDirectory) + "/" + name + "." +
          std::to_string(getpid());
  }
  LogSignals(log, ignored, inetd_file);
}
