// How long patterns take, beside the interpreter of PCRE2 and RE2, in the same
// run on the same input.
//
//   Hits/..., Misses/...  the system's own patterns on lines of the files and
//                         listings that they are for, lines that match and
//                         lines that nearly do
//   FirstUse/...          compiling a pattern and matching once
//   Worst/...             texts on which backtracking explodes
//
// Every engine gives the match and all its groups.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <benchmark/benchmark.h>
#include <pcre2.h>
#include <re2/re2.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "toolkit/pattern/Pattern.h"

namespace {

struct Ours {
  explicit Ours(const std::string& expression)
      : pattern(SPattern::Get(expression)) {}
  bool Search(const std::string& text) {
    return pattern->Search(text, 0, &match);
  }
  std::shared_ptr<const SPattern> pattern;
  SMatch match;
};

struct Pcre2 {
  explicit Pcre2(const std::string& expression) {
    int error = 0;
    std::size_t offset = 0;
    code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(expression.data()),
                         expression.size(), PCRE2_DOTALL, &error, &offset,
                         nullptr);
    data = pcre2_match_data_create_from_pattern(code, nullptr);
  }
  Pcre2(const Pcre2&) = delete;
  Pcre2& operator=(const Pcre2&) = delete;
  ~Pcre2() {
    pcre2_match_data_free(data);
    pcre2_code_free(code);
  }
  bool Search(const std::string& text) {
    return pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(text.data()),
                       text.size(), 0, 0, data, nullptr) > 0;
  }
  pcre2_code* code;
  pcre2_match_data* data;
};

RE2::Options Re2Options() {
  RE2::Options options(RE2::Latin1);
  options.set_dot_nl(true);
  options.set_log_errors(false);
  return options;
}

struct Re2 {
  explicit Re2(const std::string& expression)
      : re(expression, Re2Options()),
        groups(static_cast<std::size_t>(re.NumberOfCapturingGroups()) + 1) {}
  bool Search(const std::string& text) {
    return re.Match(text, 0, text.size(), RE2::UNANCHORED, groups.data(),
                    static_cast<int>(groups.size()));
  }
  RE2 re;
  std::vector<re2::StringPiece> groups;
};

using Lines = std::vector<std::string>;

// Lines as they stand in the files and listings, from a fixed seed.
class LineMaker {
 public:
  std::string Passwd() {
    return Word() + ":x:" + Number(60000) + ":100:" + Word() + " " + Word() +
           ",Room " + Number(900) + ",,:/home/" + Word() + ":/bin/sh";
  }
  std::string Inetd(const std::string& service) {
    return service + "\tstream\ttcp\tnowait\troot\t/usr/sbin/tcpd\t/usr/sbin/" +
           Word() + " -l";
  }
  std::string Ps(const std::string& command) {
    return "  " + Number(30000) + " ?        00:0" + Number(9) + ":" +
           Number(59) + " " + command;
  }
  std::string Netstat(const std::string& state) {
    return "tcp        0      0  *." + Number(9999) +
           "               *.*      " + "              " + state;
  }
  std::string Host() { return Word() + "." + Word() + ".example.com"; }
  std::string Address() {
    return Number(255) + "." + Number(255) + "." + Number(255) + "." +
           Number(255);
  }
  std::string Word() {
    std::string word;
    for (std::size_t n = 3 + random_() % 8; n > 0; --n) {
      word += static_cast<char>('a' + random_() % 26);
    }
    return word;
  }

 private:
  std::string Number(unsigned limit) {
    return std::to_string(random_() % limit);
  }
  std::mt19937 random_{19970301};
};

template <typename Make>
Lines Several(Make make) {
  Lines lines;
  for (int i = 0; i < 16; ++i) {
    lines.push_back(make());
  }
  return lines;
}

struct Case {
  std::string pattern;
  Lines hits;
  Lines misses;
};

std::vector<Case> SystemCases() {
  LineMaker m;
  const auto inetd = [&] { return m.Inetd(m.Word()); };
  const auto indented = [&] { return "   " + m.Inetd(m.Word()); };
  const auto words = [&] {
    return m.Word() + ", " + m.Word() + ",," + m.Word();
  };
  const auto host = [&] { return m.Host(); };
  const auto word = [&] { return m.Word(); };
  const auto passwd = [&] { return m.Passwd(); };
  const auto ps = [&] { return m.Ps(m.Word()); };
  const auto blank = [] { return std::string("        "); };
  const auto route = [&] { return "SMTP <" + m.Word() + "@" + m.Host() + ">"; };
  const auto install = [&] { return m.Word() + ".install"; };
  return {
      {"AddUserAccounts$",
       {"/opt/vellumcraft/bin/AddUserAccounts"},
       {"/opt/vellumcraft/bin/Install", "/opt/AddUserAccounts/Install"}},
      {"^HostName", Several([&] { return "HostName=" + m.Host(); }),
       Several([&] { return "DomainName=" + m.Host(); })},
      {"^HostName=(\\S+)",
       Several([&] { return "HostName=" + m.Host() + " # " + m.Word(); }),
       {"HostName=", "HostName= mail", "HostNames=mail"}},
      {"\\..*", Several(host), Several(word)},
      {"[\\s,]+", Several(words), Several(host)},
      {"\\S", Several(indented), Several(blank)},
      {"^\\s*(#|$)", Several([&] { return "  # " + m.Inetd(m.Word()); }),
       Several(indented)},
      {"^\\s+", Several(indented), Several(inetd)},
      {"\\s.*", Several(inetd), Several(host)},
      {"^", Several(inetd), {}},
      {"(.*)", Several(route), {}},
      {"^SMTP ", Several(route), Several(host)},
      {"^<([^@].*)>",
       Several([&] { return "<" + m.Word() + "@" + m.Host() + ">"; }),
       Several([&] { return "<@" + m.Host() + ":" + m.Word() + ">"; })},
      {"^\\s*(pop3)(\\s)", Several([&] { return m.Inetd("pop3"); }),
       Several([&] { return m.Inetd("pop3s"); })},
      {" vellumcra?f?t?$", Several([&] { return m.Ps("vellumcr"); }),
       Several(ps)},
      {".* ", Several(ps), Several(host)},
      {"^tcp(\\s+\\S+){3}\\.(\\d+)\\s+.*LISTEN\\s*$",
       Several([&] { return m.Netstat("LISTEN"); }),
       Several([&] { return m.Netstat("ESTABLISHED"); })},
      {"^\\s*(\\d+).*\\s(\\S+)\\s*$",
       Several(ps),
       {"  PID TTY          TIME CMD", "  1234", "42"}},
      {"\\.install$", Several(install), Several(host)},
      {"^\\d{1,3}(\\.\\d{1,3}){3}(/\\d{1,2})?",
       Several([&] { return m.Address() + "/24"; }),
       {"192.168.1.x", "10.1.2", "1234.5.6.7"}},
      {"^\\s", Several(indented), Several(inetd)},
      {"\\s+", Several(inetd), Several(host)},
      {"^\\s*$", Several(blank), Several(indented)},
      {"^From", Several([&] { return "From " + m.Word() + "@" + m.Host(); }),
       Several([&] { return "For " + m.Word(); })},
      {",.*", Several(passwd), Several(host)},
  };
}

const std::vector<Case>& Cases() {
  static const std::vector<Case> cases = SystemCases();
  return cases;
}

template <typename Engine>
void MatchLines(benchmark::State& state, const std::string& pattern,
                const Lines& lines, bool wanted) {
  Engine engine(pattern);
  for (const std::string& line : lines) {
    if (engine.Search(line) != wanted) {
      state.SkipWithError("wrong result");
    }
  }
  for (auto _ : state) {
    for (const std::string& line : lines) {
      benchmark::DoNotOptimize(engine.Search(line));
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(lines.size()));
}

// Repeated no times, three characters make a new text of the same pattern.
std::string Fresh(const std::string& pattern, std::size_t n) {
  std::string fresh = pattern;
  for (int i = 0; i < 3; ++i) {
    fresh += static_cast<char>('a' + n % 26);
    fresh += "{0}";
    n /= 26;
  }
  return fresh;
}

// A fresh text each time, so that no cache can know it.
template <typename Engine>
void FirstUse(benchmark::State& state) {
  const std::vector<Case>& cases = Cases();
  std::size_t n = 0;
  for (auto _ : state) {
    for (const Case& one : cases) {
      Engine engine(Fresh(one.pattern, ++n));
      benchmark::DoNotOptimize(engine.Search(one.hits[0]));
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(cases.size()));
}

struct Worst {
  const char* name;
  const char* pattern;
  std::string (*text)(std::size_t size);
};

std::string Letters(std::size_t size) {
  return std::string(size, 'a');
}

std::string LettersAndC(std::size_t size) {
  return std::string(size, 'a') + 'c';
}

std::string LettersBC(std::size_t size) {
  return std::string(size, 'a') + "bc";
}

std::string Words(std::size_t size) {
  std::string words;
  while (words.size() < size) {
    words += "abcd  ";
  }
  return words + "x";
}

std::string BlanksAndX(std::size_t size) {
  return std::string(size, ' ') + 'x';
}

std::string Digits(std::size_t size) {
  return std::string(size, '7');
}

std::string BlankAndDigits(std::size_t size) {
  return ' ' + std::string(size, '7');
}

std::string LettersAndB(std::size_t size) {
  return std::string(size, 'a') + 'b';
}

constexpr Worst kWorst[] = {
    {"StarStar", "^(a*)*b$", Letters},
    {"StarStarC", "^(a*)*b$", LettersAndC},
    {"StarStarBC", "^(a*)*b$", LettersBC},
    {"StarStarHit", "^(a*)*b$", LettersAndB},
    {"AOrAA", "(a|aa)+$", LettersAndB},
    {"AOrAAHit", "(a|aa)+$", Letters},
    {"WordsHash", "^(\\S+\\s*)*#$", Words},
    {"WordsHit", "^(\\S+\\s*)*x$", Words},
    {"Blanks", "\\s+$", BlanksAndX},
    {"Digits", "^\\s*(\\d+).*\\s(\\S+)\\s*$", Digits},
    {"BlankDigits", "^\\s*(\\d+).*\\s(\\S+)\\s*$", BlankAndDigits},
    {"NoBlank", ".* ", Letters},
};

template <typename Engine>
void MatchWorst(benchmark::State& state, const Worst& worst, std::size_t size) {
  const std::string text = worst.text(size);
  Engine engine(worst.pattern);
  bool found = false;
  for (auto _ : state) {
    found = engine.Search(text);
    benchmark::DoNotOptimize(found);
  }
  state.SetLabel(found ? "found" : "not found");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(text.size()));
}

template <typename Engine>
void RegisterLines(const std::string& name, const Case& one, const Lines& lines,
                   bool hit) {
  benchmark::RegisterBenchmark(
      name.c_str(), [&one, &lines, hit](benchmark::State& state) {
        MatchLines<Engine>(state, one.pattern, lines, hit);
      });
}

template <typename Engine>
void RegisterWorst(const std::string& name, const Worst& worst,
                   std::size_t size) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [&worst, size](benchmark::State& state) {
                                 MatchWorst<Engine>(state, worst, size);
                               });
}

// Peers stand next to each other, so that a busy moment of the machine hits
// both.
void RegisterAll() {
  for (const Case& one : Cases()) {
    for (const bool hit : {true, false}) {
      const Lines& lines = hit ? one.hits : one.misses;
      if (lines.empty()) {
        continue;
      }
      const std::string name = (hit ? "Hits/" : "Misses/") + one.pattern;
      RegisterLines<Ours>(name + "/ours", one, lines, hit);
      RegisterLines<Pcre2>(name + "/pcre2", one, lines, hit);
    }
  }
  benchmark::RegisterBenchmark("FirstUse/ours", FirstUse<Ours>);
  benchmark::RegisterBenchmark("FirstUse/pcre2", FirstUse<Pcre2>);
  for (const Worst& worst : kWorst) {
    for (const std::size_t size : {10000U, 20000U}) {
      const std::string name =
          std::string("Worst/") + worst.name + "/" + std::to_string(size);
      RegisterWorst<Ours>(name + "/ours", worst, size);
      RegisterWorst<Re2>(name + "/re2", worst, size);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
