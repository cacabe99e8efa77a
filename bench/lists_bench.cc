// How long lists of a million lines take: reading, Unique, Sort, Grep.
//
//   Read/ours             a file's lines into a list
//   Unique/ours           against a dictionary of Python: see lists_peers.py
//   Sort/ours, Sort/std   against std::sort on std::string
//   Grep/ours             one pattern on every line: see lists_peers.pl
//
// The file is VC_BENCH_DIR/lines; MakeLines writes it when it is missing.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "toolkit/SStringList.h"

namespace {

constexpr std::size_t kLines = 1'000'000;
constexpr const char* kPattern = "^[a-z]+:x:[0-9]*7:";

// Lines of a password file, a tenth of them twice.
void MakeLines(const std::string& path) {
  std::mt19937 random(19970301);
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < kLines; ++i) {
    if (i % 10 == 9) {
      lines.push_back(lines[random() % lines.size()]);
      continue;
    }
    std::string login;
    for (std::size_t n = 3 + random() % 6; n > 0; --n) {
      login += static_cast<char>('a' + random() % 26);
    }
    lines.push_back(login + ":x:" + std::to_string(random() % 60000) + ":100:" +
                    login + ",Room " + std::to_string(random() % 900) +
                    ":/home/" + login + ":/bin/sh");
  }
  std::ofstream file(path + ".new");
  for (const std::string& line : lines) {
    file << line << '\n';
  }
  file.close();
  std::filesystem::rename(path + ".new", path);
}

std::string LinesFile() {
  const char* parent = std::getenv("VC_BENCH_DIR");
  std::string path =
      std::string(parent == nullptr ? "/tmp" : parent) + "/lines";
  if (!std::filesystem::exists(path)) {
    MakeLines(path);
  }
  return path;
}

SStringList ReadLines() {
  std::ifstream file(LinesFile());
  SStringList lines;
  file >> lines;
  return lines;
}

void Read(benchmark::State& state) {
  const std::string path = LinesFile();
  for (auto _ : state) {
    std::ifstream file(path);
    SStringList lines;
    file >> lines;
    if (lines.Count() != static_cast<int>(kLines)) {
      state.SkipWithError("lines are missing");
    }
    state.PauseTiming();
    lines.Reset();
    state.ResumeTiming();
  }
}

void Unique(benchmark::State& state) {
  const SStringList lines = ReadLines();
  for (auto _ : state) {
    state.PauseTiming();
    SStringList distinct = lines;
    state.ResumeTiming();
    distinct.Unique();
    state.PauseTiming();
    state.counters["found"] = distinct.Count();
    distinct.Reset();
    state.ResumeTiming();
  }
}

void Sort(benchmark::State& state) {
  const SStringList lines = ReadLines();
  for (auto _ : state) {
    state.PauseTiming();
    SStringList sorted = lines;
    state.ResumeTiming();
    sorted.Sort();
    state.PauseTiming();
    if (!std::is_sorted(sorted.begin(), sorted.end())) {
      state.SkipWithError("not sorted");
    }
    sorted.Reset();
    state.ResumeTiming();
  }
}

void SortByStandard(benchmark::State& state) {
  std::ifstream file(LinesFile());
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line + '\n');
  }
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<std::string> sorted = lines;
    state.ResumeTiming();
    std::sort(sorted.begin(), sorted.end());
    state.PauseTiming();
    benchmark::DoNotOptimize(sorted.data());
    sorted = {};
    state.ResumeTiming();
  }
}

void Grep(benchmark::State& state) {
  const SStringList lines = ReadLines();
  const SString filter = SString("/") + kPattern + "/";
  for (auto _ : state) {
    SStringList found = lines.Grep(filter);
    state.PauseTiming();
    state.counters["found"] = found.Count();
    found.Reset();
    state.ResumeTiming();
  }
}

void Once(const char* name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, function)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Once("Read/ours", Read);
  Once("Unique/ours", Unique);
  Once("Sort/ours", Sort);
  Once("Sort/std", SortByStandard);
  Once("Grep/ours", Grep);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
