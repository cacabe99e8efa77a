// How long the installation program takes from its start to its first question,
// beside a shell that prints one.  Runs as root on a prepared throw-away host:
// see on_host.py.
//
// Each round starts the program anew on a terminal and ends it at the prompt.
// The processor time of the ended process, what the kernel did to start it
// included, is in the counter `cpu_ns`.

#include <benchmark/benchmark.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace {

using Command = std::vector<std::string>;

// Seconds of processor time from start to prompt; negative when none comes.
double StartOnce(const Command& command, const std::string& prompt,
                 double* passed) {
  const auto start = std::chrono::steady_clock::now();
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
      arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  std::string screen;
  char bytes[4096];
  while (screen.find(prompt) == std::string::npos) {
    const ssize_t n = read(terminal, bytes, sizeof bytes);
    if (n <= 0) {
      break;
    }
    screen.append(bytes, static_cast<std::size_t>(n));
  }
  *passed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  kill(child, SIGKILL);
  int status = 0;
  rusage used = {};
  wait4(child, &status, 0, &used);
  close(terminal);
  if (screen.find(prompt) == std::string::npos) {
    return -1;
  }
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) +
           static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

void Start(benchmark::State& state, const Command& command,
           const std::string& prompt) {
  double used = 0;
  for (auto _ : state) {
    double passed = 0;
    const double once = StartOnce(command, prompt, &passed);
    if (once < 0) {
      state.SkipWithError("no prompt");
      break;
    }
    used += once;
    state.SetIterationTime(passed);
  }
  state.counters["cpu_ns"] =
      used * 1e9 / static_cast<double>(state.iterations());
}

void Register(const char* name, const Command& command,
              const std::string& prompt) {
  benchmark::RegisterBenchmark(
      name, [=](benchmark::State& state) { Start(state, command, prompt); })
      ->UseManualTime()
      ->Iterations(100)
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace

// start_bench INSTALL PROMPT
int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc < 3) {
    return 2;
  }
  Register("ours", {argv[1]}, argv[2]);
  Register("dash", {"/usr/bin/dash", "-c", "printf 'Continue? '; read -r a"},
           "Continue? ");
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
