// How long the conversion of a spool mailbox takes, beside `git mailsplit` and
// `cp`, and how much memory it needs.  Everything lies on tmpfs.
//
//   large/...   128 MB, the median message 8 KB
//   tiny/...    20,000 messages of a few lines
//   Memory/...  a mailbox of 4 MB and one of 4 GB; run with
//               --memory, because that takes 8 GB of tmpfs
//
// Each runs as a program of its own; the processor time and memory of its
// process are in the counters `cpu_ns` and `kilobytes`.
//
//   conversion_bench --make FILE          writes the mailbox of 128 MB
//   conversion_bench --convert DIRECTORY  converts the mailbox DIRECTORY/ann into
//                                         DIRECTORY/mailboxes, to be profiled

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "accounts/ConvertMailbox.h"
#include "driver/Settings.h"
#include "toolkit/Environment.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLarge = std::size_t{128} << 20;
constexpr std::size_t kTinyMessages = 20'000;
constexpr std::size_t kSmallest = std::size_t{4} << 20;
constexpr std::size_t kHuge = std::size_t{4} << 30;
constexpr double kMedianMessage = 8192;

// Mail as it lies in spools: headers, then lines of words.
class MailboxMaker {
 public:
  explicit MailboxMaker(const std::string& path)
      : file_(path, std::ios::binary) {}

  // A message of about that many bytes; what it took.
  std::size_t Append(std::size_t size) {
    std::string message =
        "From ann@example.com Sat Mar  1 12:00:00 1997\n"
        "From: Ann Smith <ann@example.com>\n"
        "To: Bob Miller <bob@example.com>\n"
        "Subject: " +
        Line(20) + "Message-ID: <" + std::to_string(random_()) +
        "@example.com>\n\n";
    while (message.size() < size) {
      message += Line(1 + random_() % 76);
    }
    message += '\n';
    file_ << message;
    return message.size();
  }
  // Messages of log-normal size, as mail has it.
  void Fill(std::size_t bytes) {
    std::lognormal_distribution<double> size(std::log(kMedianMessage), 1.0);
    for (std::size_t made = 0; made < bytes;) {
      made += Append(static_cast<std::size_t>(size(random_)));
    }
  }

 private:
  std::string Line(std::size_t length) {
    constexpr char kLetters[] = "etaoin shrdlu etaoin cmfwyp vbgkjq xz ,.";
    std::string line;
    for (std::size_t i = 0; i < length; ++i) {
      line += kLetters[random_() % (sizeof kLetters - 1)];
    }
    return line + '\n';
  }

  std::ofstream file_;
  std::mt19937_64 random_{19970301};
};

const std::string& Directory() {
  static const std::string directory = [] {
    std::string made = "/dev/shm/vc-conversionXXXXXX";
    return mkdtemp(made.data()) == nullptr ? std::string() : made;
  }();
  return directory;
}

std::string Path(const char* name) {
  return Directory() + "/" + name;
}

void MakeTiny(const std::string& path) {
  MailboxMaker maker(path);
  for (std::size_t i = 0; i < kTinyMessages; ++i) {
    maker.Append(0);
  }
}

// The work in a process of its own, measured as a round.
void Measure(benchmark::State& state, const std::function<bool()>& work) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    _exit(work() ? 0 : 1);
  }
  int status = 0;
  rusage used = {};
  wait4(child, &status, 0, &used);
  const std::chrono::duration<double> passed =
      std::chrono::steady_clock::now() - start;
  if (status != 0) {
    state.SkipWithError("the work failed");
  }
  const auto nanoseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e9 +
           static_cast<double>(time.tv_usec) * 1e3;
  };
  state.SetIterationTime(passed.count());
  state.counters["cpu_ns"] =
      nanoseconds(used.ru_utime) + nanoseconds(used.ru_stime);
  state.counters["kilobytes"] = static_cast<double>(used.ru_maxrss);
}

bool Run(const std::vector<const char*>& command) {
  std::vector<char*> arguments;
  for (const char* argument : command) {
    arguments.push_back(const_cast<char*>(argument));
  }
  arguments.push_back(nullptr);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  execvp(arguments[0], arguments.data());
  return false;
}

// Converts the mailbox "ann" as a program of its own, as the peers are: what
// this one has used doesn't count.
void Convert(benchmark::State& state) {
  fs::create_directory(Path("mailboxes"));
  Measure(state, [] {
    return Run({"/proc/self/exe", "--convert", Directory().c_str()});
  });
  fs::remove_all(Path("mailboxes"));
  fs::remove(Path("ann"));
}

bool ConvertIn(const SString& directory) {
  PutEnv("Vellumcraft", directory);
  gstr_MailboxDir = directory + "/mailboxes/";
  gstr_HostName = "mail.example.com";
  return ConvertMailbox(directory + "/ann", "Ann");
}

void Ours(benchmark::State& state, const char* mailbox) {
  for (auto _ : state) {
    fs::copy_file(Path(mailbox), Path("ann"));
    Convert(state);
  }
}

void GitMailsplit(benchmark::State& state, const char* mailbox) {
  for (auto _ : state) {
    fs::create_directory(Path("split"));
    const std::string output = "-o" + Path("split");
    Measure(state, [&] {
      return Run({"git", "mailsplit", output.c_str(), Path(mailbox).c_str()});
    });
    fs::remove_all(Path("split"));
  }
}

void Copy(benchmark::State& state, const char* mailbox) {
  for (auto _ : state) {
    Measure(state, [&] {
      return Run({"cp", Path(mailbox).c_str(), Path("copy").c_str()});
    });
    fs::remove(Path("copy"));
  }
}

void Memory(benchmark::State& state, std::size_t size) {
  for (auto _ : state) {
    MailboxMaker(Path("ann")).Fill(size);
    Convert(state);
  }
}

template <typename Function, typename Argument>
void Once(const char* name, Function function, Argument argument) {
  benchmark::RegisterBenchmark(name, function, argument)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "--convert" && argc == 3) {
    return ConvertIn(argv[2]) ? 0 : 1;
  }
  if (mode == "--make" && argc == 3) {
    MailboxMaker(argv[2]).Fill(kLarge);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (mode == "--memory") {
    Once("Memory/4MB", Memory, kSmallest);
    Once("Memory/4GB", Memory, kHuge);
  } else {
    MailboxMaker(Path("large")).Fill(kLarge);
    MakeTiny(Path("tiny"));
    for (const char* mailbox : {"large", "tiny"}) {
      const std::string name = mailbox;
      Once((name + "/ours").c_str(), Ours, mailbox);
      Once((name + "/mailsplit").c_str(), GitMailsplit, mailbox);
    }
    Once("large/cp", Copy, "large");
  }
  benchmark::RunSpecifiedBenchmarks();
  fs::remove_all(Directory());
  return 0;
}
