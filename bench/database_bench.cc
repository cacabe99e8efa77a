// How long the account database takes, beside LMDB and SQLite, in the same run
// with the same accounts.
//
//   Create/...     accounts made: both addresses and the UID looked up, eight
//                  fields, visible as a whole; per account and per field
//   Set/...        one field of an existing account, visible at once
//   .../reader     the same while another process reads as fast as it can
//   LookUp/...     an address that there is, or is not, in the newest state
//   Open/...       a closed database: open, one look-up, close
//   Durable/...    accounts made, each on disk before the next
//
// The databases lie below the directory that VC_BENCH_DIR names.

#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "bench/Stores.h"

namespace {

constexpr std::size_t kMany = 100'000;
constexpr std::size_t kFew = 1'000;
constexpr std::size_t kHuge = 1'000'000;
constexpr std::size_t kSets = 20'000;
constexpr std::size_t kLookUps = 10'000;
constexpr std::size_t kDurable = 300;

template <typename Account>
const std::vector<Account>& ManyAccounts() {
  static const std::vector<Account> accounts = [] {
    std::vector<Account> made;
    for (std::size_t i = 0; i < kMany; ++i) {
      made.emplace_back(MakeAccount(i));
    }
    return made;
  }();
  return accounts;
}

std::string PathOf(const std::string& name) {
  const char* parent = std::getenv("VC_BENCH_DIR");
  return std::string(parent == nullptr ? "/tmp" : parent) + "/" + name;
}

// An empty directory, gone with its scope.
class Scratch {
 public:
  explicit Scratch(const std::string& name) : path_(PathOf(name)) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~Scratch() { std::filesystem::remove_all(path_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  [[nodiscard]] const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

// One transaction per account.
struct Lmdb : LmdbStore {
  using LmdbStore::LmdbStore;
};

// One transaction per field.
struct LmdbByField : LmdbStore {
  using LmdbStore::LmdbStore;
  bool CreateUnlessTaken(const SampleAccount& account) {
    return CreateByFields(account);
  }
};

// Another process that reads accounts, each of which must be there as a whole.
template <typename Store>
class Reader {
 public:
  explicit Reader(const std::string& directory) {
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared_ = new (memory) Shared;
    child_ = fork();
    if (child_ == 0) {
      ReadOn(directory);
      _exit(0);
    }
    while (shared_->reads.load() == 0) {
      usleep(1000);
    }
  }
  ~Reader() {
    End();
    munmap(shared_, sizeof(Shared));
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void MayRead(std::size_t accounts) {
    shared_->accounts.store(accounts, std::memory_order_release);
  }
  // Ends the process; false when anything was missing.
  bool End() {
    if (child_ > 0) {
      shared_->ends.store(true);
      int status = 0;
      waitpid(child_, &status, 0);
      child_ = -1;
      succeeded_ = status == 0 && shared_->failures.load() == 0;
    }
    return succeeded_;
  }
  [[nodiscard]] std::size_t Reads() const { return shared_->reads.load(); }

 private:
  struct Shared {
    std::atomic<std::size_t> accounts{0};
    std::atomic<std::size_t> reads{0};
    std::atomic<std::size_t> failures{0};
    std::atomic<bool> ends{false};
  };

  void ReadOn(const std::string& directory) {
    Store store(directory, Store::Access::kRead);
    const auto& known = ManyAccounts<typename Store::Account>();
    const std::vector<std::size_t> numbers = ShuffledNumbers(65536, kMany);
    for (std::size_t i = 0; !shared_->ends.load(std::memory_order_relaxed);
         ++i) {
      const std::size_t accounts =
          shared_->accounts.load(std::memory_order_acquire);
      if (accounts > 0) {
        const typename Store::Account& account =
            known[numbers[i % numbers.size()] % accounts];
        if (!store.HasAddress(typename Store::Address(account.addresses[1])) ||
            !store.IsWhole(account)) {
          shared_->failures.fetch_add(1);
        }
      }
      shared_->reads.fetch_add(1, std::memory_order_relaxed);
    }
  }

  Shared* shared_ = nullptr;
  pid_t child_ = -1;
  bool succeeded_ = false;
};

template <typename Store>
void Create(benchmark::State& state, bool with_reader) {
  const auto& accounts = ManyAccounts<typename Store::Account>();
  for (auto _ : state) {
    state.PauseTiming();
    const Scratch scratch("create");
    std::unique_ptr<Reader<Store>> reader;
    {
      Store store(scratch.Path(), Store::Access::kWrite);
      // A first one makes the files.
      bool made = store.CreateUnlessTaken(accounts[0]);
      if (with_reader) {
        reader = std::make_unique<Reader<Store>>(scratch.Path());
      }
      state.ResumeTiming();
      for (std::size_t i = 1; i < accounts.size(); ++i) {
        made = store.CreateUnlessTaken(accounts[i]) && made;
        if (reader != nullptr) {
          reader->MayRead(i);
        }
      }
      state.PauseTiming();
      if (!made || (reader != nullptr && !reader->End())) {
        state.SkipWithError("not all accounts were made or read");
      }
    }
    state.ResumeTiming();
  }
}

// Cost of one account while the database grows from nothing to `count`.
void CreateCounted(benchmark::State& state, std::size_t count) {
  const auto& accounts = ManyAccounts<OurAccount>();
  const std::size_t databases = kMany / count;
  for (auto _ : state) {
    for (std::size_t n = 0; n < databases; ++n) {
      state.PauseTiming();
      const Scratch scratch("counted");
      auto store =
          std::make_unique<OurStore>(scratch.Path(), OurStore::Access::kWrite);
      bool made = store->CreateUnlessTaken(accounts[0]);
      state.ResumeTiming();
      for (std::size_t i = 1; i < count; ++i) {
        made = store->CreateUnlessTaken(accounts[i]) && made;
      }
      state.PauseTiming();
      if (!made) {
        state.SkipWithError("not all accounts were made");
      }
      store.reset();
      state.ResumeTiming();
    }
  }
}

// A database of `count` accounts for one use, made once and kept for all rounds.
template <typename Store>
std::string Prepared(const std::string& use, std::size_t count) {
  const std::string directory = PathOf(use + "-" + std::to_string(count));
  const std::string done = directory + "/" +
                           (std::is_same_v<Store, OurStore> ? "ours" : "lmdb") +
                           "-done";
  if (!std::filesystem::exists(done)) {
    std::filesystem::create_directories(directory);
    Store store(directory, Store::Access::kWrite);
    for (std::size_t i = 0; i < count; ++i) {
      const typename Store::Account account(MakeAccount(i));
      if (!store.CreateUnlessTaken(account)) {
        std::abort();
      }
    }
    std::filesystem::create_directory(done);
  }
  return directory;
}

template <typename Store>
void Set(benchmark::State& state, bool with_reader) {
  const std::string directory = Prepared<Store>("changed", kMany);
  const auto& accounts = ManyAccounts<typename Store::Account>();
  const std::vector<std::size_t> numbers = ShuffledNumbers(kSets, kMany);
  for (auto _ : state) {
    state.PauseTiming();
    {
      Store store(directory, Store::Access::kWrite);
      std::unique_ptr<Reader<Store>> reader;
      if (with_reader) {
        reader = std::make_unique<Reader<Store>>(directory);
        reader->MayRead(kMany);
      }
      bool stored = store.Set(accounts[0], "Finger-Info", "Office 1");
      state.ResumeTiming();
      for (const std::size_t number : numbers) {
        stored = store.Set(accounts[number], "Finger-Info",
                           "Office " + std::to_string(number)) &&
                 stored;
      }
      state.PauseTiming();
      if (!stored || (reader != nullptr && !reader->End())) {
        state.SkipWithError("not everything was stored or read");
      }
    }
    state.ResumeTiming();
  }
}

template <typename Store>
void LookUp(benchmark::State& state, std::size_t count, bool hit) {
  const std::string directory = Prepared<Store>("read", count);
  // Both get the address in the type that their callers have.
  std::vector<typename Store::Address> addresses;
  for (const std::size_t number : ShuffledNumbers(kLookUps, count)) {
    addresses.push_back(
        Store::AddressFrom(hit ? AddressOf(number) : FreeAddress(number)));
  }
  Store store(directory, Store::Access::kRead);
  bool right = true;
  for (const auto& address : addresses) {
    right = store.HasAddress(address) == hit && right;
  }
  for (auto _ : state) {
    for (const auto& address : addresses) {
      right = store.HasAddress(address) == hit && right;
    }
  }
  if (!right) {
    state.SkipWithError("wrong answer");
  }
}

template <typename Store>
void Open(benchmark::State& state, std::size_t count) {
  const std::string directory = Prepared<Store>("read", count);
  const std::vector<std::size_t> numbers = ShuffledNumbers(kLookUps, count);
  std::size_t i = 0;
  bool right = true;
  for (auto _ : state) {
    Store store(directory, Store::Access::kRead);
    right = store.HasAddress(
                Store::AddressFrom(AddressOf(numbers[i++ % numbers.size()]))) &&
            right;
  }
  if (!right) {
    state.SkipWithError("wrong answer");
  }
}

void DurableOurs(benchmark::State& state) {
  const auto& accounts = ManyAccounts<OurAccount>();
  for (auto _ : state) {
    state.PauseTiming();
    {
      const Scratch scratch("durable");
      OurStore store(scratch.Path(), OurStore::Access::kWrite);
      bool made = store.CreateUnlessTaken(accounts[kDurable]) && store.Sync();
      state.ResumeTiming();
      for (std::size_t i = 0; i < kDurable; ++i) {
        made = store.CreateUnlessTaken(accounts[i]) && store.Sync() && made;
      }
      state.PauseTiming();
      if (!made) {
        state.SkipWithError("not all accounts were made");
      }
    }
    state.ResumeTiming();
  }
}

template <typename Store, typename... Arguments>
void DurablePeer(benchmark::State& state, Arguments... arguments) {
  const auto& accounts = ManyAccounts<SampleAccount>();
  for (auto _ : state) {
    state.PauseTiming();
    {
      const Scratch scratch("durable");
      Store store(scratch.Path(), arguments...);
      bool made = store.CreateUnlessTaken(accounts[kDurable]);
      state.ResumeTiming();
      for (std::size_t i = 0; i < kDurable; ++i) {
        made = store.CreateUnlessTaken(accounts[i]) && made;
      }
      state.PauseTiming();
      if (!made) {
        state.SkipWithError("not all accounts were made");
      }
    }
    state.ResumeTiming();
  }
}

template <typename Function, typename... Arguments>
void Once(const std::string& name, Function function, Arguments... arguments) {
  benchmark::RegisterBenchmark(name.c_str(), function, arguments...)
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
}

void RegisterAll() {
  for (const bool reader : {false, true}) {
    const std::string with = reader ? "/reader" : "";
    Once("Create/ours" + with, Create<OurStore>, reader);
    Once("Create/lmdb-account" + with, Create<Lmdb>, reader);
    Once("Create/lmdb-field" + with, Create<LmdbByField>, reader);
    Once("Set/ours" + with, Set<OurStore>, reader);
    Once("Set/lmdb" + with, Set<Lmdb>, reader);
  }
  Once("Growth/1000", CreateCounted, kFew);
  Once("Growth/100000", CreateCounted, kMany);
  for (const std::size_t count : {kMany, kHuge}) {
    const std::string size = std::to_string(count);
    for (const bool hit : {true, false}) {
      const std::string name = "LookUp/" + size + (hit ? "/hit" : "/miss");
      benchmark::RegisterBenchmark((name + "/ours").c_str(), LookUp<OurStore>,
                                   count, hit);
      benchmark::RegisterBenchmark((name + "/lmdb").c_str(), LookUp<Lmdb>,
                                   count, hit);
    }
    benchmark::RegisterBenchmark(("Open/" + size + "/ours").c_str(),
                                 Open<OurStore>, count);
    benchmark::RegisterBenchmark(("Open/" + size + "/lmdb").c_str(), Open<Lmdb>,
                                 count);
  }
  Once("Durable/ours", DurableOurs);
  Once("Durable/lmdb", DurablePeer<LmdbStore, LmdbStore::Access>,
       LmdbStore::Access::kDurable);
  Once("Durable/sqlite", DurablePeer<SqliteStore>);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
