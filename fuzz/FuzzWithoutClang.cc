// Stands in for libFuzzer where only g++ is at hand:
//
//   NAME_fuzz [-runs=N] DIRECTORY...
//
// runs every file of the directories, then N blind mutations of them, the same
// ones every time.  Silent when all goes well; an input that ends the program
// is written to standard error in hexadecimal digits.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size);
extern "C" __attribute__((weak)) std::size_t LLVMFuzzerCustomMutator(
    std::uint8_t* data, std::size_t size, std::size_t max_size, unsigned seed);

namespace {

constexpr std::size_t kRoomToGrow = 64;

std::mt19937 engine(1);
std::vector<std::string> corpus;
std::string current;

std::size_t Below(std::size_t limit) {
  return limit == 0 ? 0 : engine() % limit;
}

// One small change of the first `size` bytes; the new size.
std::size_t Change(std::uint8_t* data, std::size_t size, std::size_t max_size) {
  const std::string& other = corpus[Below(corpus.size())];
  const std::size_t at = Below(size + 1);
  const std::size_t length = 1 + Below(8);
  switch (engine() % 5) {
    case 0:  // another byte
      if (at < size) {
        data[at] = static_cast<std::uint8_t>(engine());
      }
      return size;
    case 1:  // another bit
      if (at < size) {
        data[at] ^= static_cast<std::uint8_t>(1U << Below(8));
      }
      return size;
    case 2: {  // some bytes less
      const std::size_t cut = std::min(length, size - at);
      std::memmove(data + at, data + at + cut, size - at - cut);
      return size - cut;
    }
    case 3: {  // some bytes twice
      const std::size_t more = std::min({length, size - at, max_size - size});
      std::memmove(data + at + more, data + at, size - at);
      return size + more;
    }
    default: {  // some bytes of another file
      const std::size_t from = Below(other.size() + 1);
      const std::size_t copied =
          std::min({length * 4, other.size() - from, max_size - at});
      std::copy_n(other.data() + from, copied, data + at);
      return std::max(size, at + copied);
    }
  }
}

void RunOne(const std::string& input) {
  current = input;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(current.data()),
                         current.size());
}

void Mutate() {
  std::string input = corpus[Below(corpus.size())];
  std::size_t size = input.size();
  input.resize(size + kRoomToGrow);
  auto* data = reinterpret_cast<std::uint8_t*>(input.data());
  if (LLVMFuzzerCustomMutator != nullptr) {
    size = LLVMFuzzerCustomMutator(data, size, input.size(),
                                   static_cast<unsigned>(engine()));
  } else {
    for (std::size_t i = 1 + Below(4); i > 0; --i) {
      size = Change(data, size, input.size());
    }
  }
  input.resize(size);
  RunOne(input);
}

// Async-signal-safe.
void ShowInput(int /*signal*/) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char c : current) {
    const auto byte = static_cast<unsigned char>(c);
    const char hex[] = {kDigits[byte >> 4], kDigits[byte & 15]};
    static_cast<void>(!write(STDERR_FILENO, hex, sizeof hex));
  }
  static_cast<void>(!write(STDERR_FILENO, "\n", 1));
  std::signal(SIGABRT, SIG_DFL);
  std::raise(SIGABRT);
}

void ReadDirectory(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(in),
                        std::istreambuf_iterator<char>());
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                        std::size_t max_size) {
  return Change(data, size, max_size);
}

int main(int argc, char** argv) {
  constexpr const char kRuns[] = "-runs=";
  long runs = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], kRuns, std::strlen(kRuns)) == 0) {
      runs = std::strtol(argv[i] + std::strlen(kRuns), nullptr, 10);
    } else {
      ReadDirectory(argv[i]);
    }
  }
  if (corpus.empty()) {
    return 1;
  }
  std::signal(SIGABRT, ShowInput);
  for (const std::string& input : corpus) {
    RunOne(input);
  }
  while (runs-- > 0) {
    Mutate();
  }
  return 0;
}
