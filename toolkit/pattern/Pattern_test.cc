#include "toolkit/pattern/Pattern.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "toolkit/pattern/Match.h"

namespace {

constexpr const char* kNoMatch = "no match";

// The match and its groups as "whole|first|second"; "-" for a group that took
// no part.
std::string FindFrom(std::string_view expression, std::string_view text,
                     std::size_t from) {
  const std::shared_ptr<const SPattern> compiled = SPattern::Get(expression);
  SMatch match;
  if (!compiled->Search(text, from, &match)) {
    return kNoMatch;
  }
  std::string shown;
  for (std::size_t i = 0; i < match.spans.size(); ++i) {
    const SMatch::Span& span = match.spans[i];
    shown += i > 0 ? "|" : "";
    shown += span.IsSet() ? text.substr(span.begin, span.Length()) : "-";
  }
  return shown;
}

std::string Find(std::string_view expression, std::string_view text) {
  return FindFrom(expression, text, 0);
}

bool Matches(std::string_view expression, std::string_view text) {
  return SPattern::Get(expression)->Matches(text);
}

std::string Repeat(std::string_view piece, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += piece;
  }
  return text;
}

struct Expectation {
  const char* expression;
  const char* text;
  const char* found;
};

void ExpectAll(const std::vector<Expectation>& table) {
  for (const auto& [expression, text, found] : table) {
    EXPECT_EQ(Find(expression, text), found)
        << "/" << expression << "/ on \"" << text << '"';
    EXPECT_EQ(Matches(expression, text), std::string(found) != kNoMatch)
        << "/" << expression << "/ on \"" << text << '"';
  }
}

TEST(PatternTest, EveryElementOfTheDialectMatchesWhatItSays) {
  ExpectAll({
      {"abc", "xabcx", "abc"},
      {"", "abc", ""},
      {"a.c", "a\nc", "a\nc"},
      {"a\\.c", "abc", kNoMatch},
      {"a\\.c", "a.c", "a.c"},
      {"\\/\\-\\\\\\$", "/-\\$", "/-\\$"},
      {"\\t\\n\\r\\f", "\t\n\r\f", "\t\n\r\f"},
      {"\\s+", "a \t\n\r\fb", " \t\n\r\f"},
      {"\\s", "\v", kNoMatch},
      {"\\S", "\v", "\v"},
      {"\\d+", "ab123c", "123"},
      {"\\D+", "12ab3", "ab"},
      {"\\w+", "-a_Z9-", "a_Z9"},
      {"\\W+", "a-.b", "-."},
      {"\\w", "\xe9", kNoMatch},
      {"[abc]+", "xxcabx", "cab"},
      {"[^@]+", "ab@c", "ab"},
      {"[\\s,]+", "a, b", ", "},
      {"[a-c]+", "xabcd", "abc"},
      {"[]a]+", "x]a]", "]a]"},
      {"[^]a]+", "]xa", "x"},
      {"[-a]+", "x-a", "-a"},
      {"[a-]+", "x-a", "-a"},
      {"[\\]\\\\]+", "a]\\b", "]\\"},
      {"[\\d.]+", "v1.2", "1.2"},
      {"[^\\s\\d]+", " 1ab", "ab"},
      {"[.*$^(|]+", "a.*$^(|", ".*$^(|"},
      {"a*", "aaab", "aaa"},
      {"a+", "baaa", "aaa"},
      {"a?b", "aab", "ab"},
      {"a{2}", "aaa", "aa"},
      {"a{2,}", "aaaa", "aaaa"},
      {"a{1,2}", "aaa", "aa"},
      {"a{0}b", "ab", "b"},
      {"(ab){2}", "ababab", "abab|ab"},
      {"[ab]{3}", "xabab", "aba"},
      {"a|b|c", "xcb", "c"},
      {"(a|ab)(c|bcd)", "abcd", "abcd|a|bcd"},
      {"(#|$)", "a#", "#|#"},
      {"a(|b)c", "ac", "ac|"},
  });
}

TEST(PatternTest, AnchorsBindToTheWholeText) {
  ExpectAll({
      {"^a", "ba", kNoMatch},
      {"^b", "a\nb", kNoMatch},
      {"a$", "ab", kNoMatch},
      {"a$", "ba", "a"},
      {"a$", "a\n", "a"},
      {"a$", "a\n\n", kNoMatch},
      {"a$", "a\nb", kNoMatch},
      {"^$", "", ""},
      {"^$", "\n", ""},
      {"$", "\n", ""},
      {"\\s*$", "a \n", " \n"},
      {"a\\n$", "a\n", "a\n"},
      {"(^a|b)c", "bcac", "bc|b"},
      {"x*^a", "a", "a"},
      {"a$b", "ab", kNoMatch},
      {"$\\n", "a\n", "\n"},
  });
}

TEST(PatternTest, BracesThatOpenNoRepetitionAreLiterals) {
  ExpectAll({
      {"{", "a{", "{"},
      {"a{", "a{", "a{"},
      {"a{}", "a{}", "a{}"},
      {"a{,2}", "a{,2}", "a{,2}"},
      {"a{1", "a{1", "a{1"},
      {"a{1,", "a{1,", "a{1,"},
      {"a{ 1}", "a{ 1}", "a{ 1}"},
      {"a{x}+", "a{x}}", "a{x}}"},
      {"}", "}", "}"},
      {"]", "]", "]"},
  });
}

TEST(PatternTest, BracketsThatNameNoClassAreBytesLikeOthers) {
  EXPECT_TRUE(Matches("^[[a]+$", "[a["));
  EXPECT_TRUE(Matches("^[[:]+$", "[:["));
  EXPECT_TRUE(Matches("^[[:a\\d]+$", "[:a1"));
  EXPECT_FALSE(Matches("^[[:a]+$", "b"));
  EXPECT_FALSE(SPattern::Get("[[:a")->IsValid());
}

TEST(PatternTest, TheLeftmostMatchIsTakenAndThereTheGreediest) {
  ExpectAll({
      {"a|ab", "ab", "a"},
      {"(a|ab)$", "ab", "ab|ab"},
      {"b|abc", "abc", "abc"},
      {".*b", "abab", "abab"},
      {"(a*)(a*)", "aaa", "aaa|aaa|"},
      {"(a*)(a+)", "aaa", "aaa|aa|a"},
      {"(.*)(\\d+)", "x123", "x123|x12|3"},
      {"(a|b)*", "abab", "abab|b"},
      {"((a)|b)*", "ab", "ab|b|a"},
      {"(a)?b", "b", "b|-"},
      {"(a)|(b)", "b", "b|-|b"},
      {"(a|ab)(bc|c)?", "abc", "abc|a|bc"},
  });
}

TEST(PatternTest, AnIterationThatConsumesNothingIsTheLast) {
  ExpectAll({
      {"(a*)*", "aab", "aa|"},
      {"(a*)+", "aab", "aa|"},
      {"(a|)*b", "aab", "aab|"},
      {"(|a)*", "aa", "|"},
      {"(|a)+", "aa", "|"},
      {"(|a)+b", "aab", "aab|"},
      {"((a*)*)*b", "aab", "aab||"},
      {"(a*){2,}", "aa", "aa|"},
      {"(^)*a", "a", "a|"},
      {"()*", "a", "|"},
  });
}

TEST(PatternTest, SearchingFromWithinATextKeepsItsAnchors) {
  EXPECT_EQ(FindFrom("a", "aba", 1), "a");
  EXPECT_EQ(FindFrom("^b", "ab", 1), kNoMatch);
  EXPECT_EQ(FindFrom("\\s+", "a  b  c", 3), "  ");
  EXPECT_EQ(FindFrom("", "ab", 2), "");
  EXPECT_EQ(FindFrom("x*", "ab", 2), "");
  EXPECT_EQ(FindFrom("", "ab", 3), kNoMatch);
}

TEST(PatternTest, ATextWithoutStorageIsTheEmptyText) {
  EXPECT_EQ(Find("^\\s*", std::string_view()), "");
  EXPECT_EQ(Find("(a*)$", std::string_view()), "|");
}

TEST(PatternTest, ZeroBytesAndHighBytesAreBytesLikeOthers) {
  const std::string text("a\0b\xff", 4);
  EXPECT_EQ(Find(std::string("\0b", 2), text), std::string("\0b", 2));
  EXPECT_EQ(Find("\xff", text), "\xff");
  EXPECT_EQ(Find("[\x80-\xff]", text), "\xff");
  EXPECT_EQ(Find("a.b", text), std::string("a\0b", 3));
}

TEST(PatternTest, WhatCantBeParsedMatchesNothing) {
  for (const char* expression : {"(",
                                 "(a",
                                 ")",
                                 "a)",
                                 "(a))",
                                 "*",
                                 "+a",
                                 "?",
                                 "a|*b",
                                 "(*a)",
                                 "(+)",
                                 "{2}",
                                 "|{2}",
                                 "({2})",
                                 "a**",
                                 "a+*",
                                 "a*?",
                                 "a+?",
                                 "a??",
                                 "a{2}?",
                                 "a*+",
                                 "a++",
                                 "a?+",
                                 "a{2}{3}",
                                 "(a)*?",
                                 "(?:a)",
                                 "(?=a)",
                                 "(?!a)",
                                 "(?<=a)",
                                 "(?i)a",
                                 "(a)\\1",
                                 "\\1",
                                 "\\b",
                                 "\\Aa",
                                 "a\\z",
                                 "\\x41",
                                 "\\e",
                                 "\\h",
                                 "\\v",
                                 "\\pL",
                                 "\\Qa\\E",
                                 "\\0",
                                 "[a",
                                 "[",
                                 "[]",
                                 "[^",
                                 "[^]",
                                 "[a\\]",
                                 "[z-a]",
                                 "[\\d-z]",
                                 "[a-\\d]",
                                 "[[:alpha:]]",
                                 "[[.a.]]",
                                 "[\\b]",
                                 "a\\",
                                 "^*",
                                 "$+",
                                 "^{2}",
                                 "a{2,1}",
                                 "a{65536}",
                                 "a{99999999999999999999}"}) {
    EXPECT_FALSE(SPattern::Get(expression)->IsValid()) << expression;
    EXPECT_FALSE(Matches(expression, "")) << expression;
    EXPECT_FALSE(Matches(expression, expression)) << expression;
  }
}

TEST(PatternTest, GroupsAreCounted) {
  EXPECT_EQ(SPattern::Get("a")->GroupCount(), 0);
  EXPECT_EQ(SPattern::Get("(a)((b)|c)")->GroupCount(), 3);
  EXPECT_EQ(SPattern::Get("(a){3}(b){0}")->GroupCount(), 2);
}

// The patterns of the installer, each on lines that it is for and lines that
// it must leave alone.
TEST(PatternTest, TheSystemsPatternsFindTheirLines) {
  const char* const tcp = "^tcp(\\s+\\S+){3}\\.(\\d+)\\s+.*LISTEN\\s*$";
  const char* const ps = "^\\s*(\\d+).*\\s(\\S+)\\s*$";
  const char* const ip = "^\\d{1,3}(\\.\\d{1,3}){3}(/\\d{1,2})?";
  ExpectAll({
      {"AddUserAccounts$", "/opt/bin/AddUserAccounts", "AddUserAccounts"},
      {"AddUserAccounts$", "/AddUserAccounts/Install", kNoMatch},
      {"^DomainName", "DomainName=example.com", "DomainName"},
      {"^DomainName=(\\S+)", "DomainName=example.com # ours",
       "DomainName=example.com|example.com"},
      {"^DomainName=(\\S+)", "DomainName=", kNoMatch},
      {"^DomainName=(\\S+)", "DomainName= example.com", kNoMatch},
      {"^DomainName=(\\S+)", " DomainName=example.com", kNoMatch},
      {"\\..*", "mail.example.com", ".example.com"},
      {"\\..*", "mail", kNoMatch},
      {"[\\s,]+", "one, two,,three", ", "},
      {"\\S", " \t\n", kNoMatch},
      {"\\S", " \tx", "x"},
      {"^\\s*(#|$)", "  # comment", "  #|#"},
      {"^\\s*(#|$)", " \t\n", " \t\n|"},
      {"^\\s*(#|$)", "", "|"},
      {"^\\s*(#|$)", "  smtp stream # x", kNoMatch},
      {"^\\s+", " \tsmtp", " \t"},
      {"^\\s+", "smtp ", kNoMatch},
      {"\\s.*", "smtp\tstream tcp", "\tstream tcp"},
      {"^", "text", ""},
      {"(.*)", "ann@example.com", "ann@example.com|ann@example.com"},
      {"(.*)", "", "|"},
      {"^SMTP ", "SMTP <ann@example.com>", "SMTP "},
      {"^SMTP ", "X SMTP ", kNoMatch},
      {"^<([^@].*)>", "<ann@example.com>", "<ann@example.com>|ann@example.com"},
      {"^<([^@].*)>", "<@relay:ann@example.com>", kNoMatch},
      {"^\\s*(pop3)(\\s)", " pop3\tstream", " pop3\t|pop3|\t"},
      {"^\\s*(pop3)(\\s)", "pop3s stream", kNoMatch},
      {"^\\s*(pop3)(\\s)", "#pop3 stream", kNoMatch},
      {" vellumcra?f?t?$", " 12 ? 0:00 vellumcr", " vellumcr"},
      {" vellumcra?f?t?$", " 12 ? 0:00 vellumcraft", " vellumcraft"},
      {" vellumcra?f?t?$", " 12 ? 0:00 vellumcrafts", kNoMatch},
      {".* ", "vi /etc/hosts  x", "vi /etc/hosts  "},
      {".* ", "word", kNoMatch},
      {tcp, "tcp        0      0  *.25                   *.*       LISTEN",
       "tcp        0      0  *.25                   *.*       LISTEN|  *|25"},
      {tcp,
       "tcp        0      0  10.0.0.7.110       10.0.0.9.1055    LISTEN \n",
       "tcp        0      0  10.0.0.7.110       10.0.0.9.1055    LISTEN \n"
       "|  10.0.0.7|110"},
      {tcp,
       "tcp        0      0  10.0.0.7.110       10.0.0.9.1055    "
       "ESTABLISHED",
       kNoMatch},
      {tcp, "udp        0      0  *.25                   *.*       LISTEN",
       kNoMatch},
      {ps, "  123 ?        00:00:01 sendmail",
       "  123 ?        00:00:01 sendmail|123|sendmail"},
      {ps, "7 x \n", "7 x \n|7|x"},
      {ps, "  PID TTY          TIME CMD", kNoMatch},
      {ps, "12345", kNoMatch},
      {"\\.install$", "WWW-Server.install", ".install"},
      {"\\.install$", "WWW-Server.installed", kNoMatch},
      {"\\.install$", "WWW-Serverxinstall", kNoMatch},
      {ip, "192.168.1.10", "192.168.1.10|.10|-"},
      {ip, "192.168.1.0/24", "192.168.1.0/24|.0|/24"},
      {ip, "192.168.1.0/245", "192.168.1.0/24|.0|/24"},
      {ip, "1921.168.1.0", kNoMatch},
      {ip, "192.168.1", kNoMatch},
      {ip, "host 192.168.1.1", kNoMatch},
      {"^\\s", " continued", " "},
      {"^\\s", "header", kNoMatch},
      {"\\s+", "a \t b", " \t "},
      {"^\\s*$", " \t\n", " \t\n"},
      {"^\\s*$", " x", kNoMatch},
      {"^From", "From ann", "From"},
      {"^From", ">From ann", kNoMatch},
      {",.*", "Ann Smith,Room 1,", ",Room 1,"},
  });
}

// What a search costs, every step counted.
std::uint64_t CostOf(const char* expression, const std::string& text,
                     bool wanted) {
  pattern::Code code;
  pattern::Compile(expression, &code);
  SMatch match;
  pattern::Effort effort;
  EXPECT_EQ(pattern::Search(code, text, 0, &match, &effort), wanted)
      << expression;
  return effort.tried + effort.backward + effort.forward +
         effort.states * code.instructions.size();
}

// Texts of `length` bytes: a beginning, a piece repeated, an end.
struct HardCase {
  const char* expression;
  const char* begin;
  const char* piece;
  const char* end;
  bool matches;
};

TEST(PatternTest, TwiceTheTextCostsTwiceTheSteps) {
  const std::vector<HardCase> cases = {
      {"^(a*)*b$", "", "a", "", false},
      {"^(a*)*b$", "", "a", "c", false},
      {"^(a*)*b$", "", "a", "cb", false},
      {"^(a*)*b$", "", "a", "b", true},
      {"(a|aa)+$", "", "a", "b", false},
      {"(a|aa)+$", "", "a", "b\n", false},
      {"(a|aa)+$", "", "a", "", true},
      {"((a|aa)+)$", "", "a", "b", false},
      {"(a|aa)+c", "c", "a", "bc", false},
      {"(x+x+)+y", "y", "x", "", false},
      {"^(\\S+\\s*)*#$", "", "abc ", "x", false},
      {"^(\\S+\\s*)*#$", "", "abc ", "x#x#", true},
      {"^(\\S+\\s*)*#\\d$", "", "abc ", "#1x1", false},
      {"\\s+$", "", " ", "x", false},
      {"\\s+$", "", " \n", "x\n", true},
      {"(\\s)+$", "", " ", "x\n\n", true},
      {"(\\s+)+$", "x", " ", "x", false},
      {"^\\s*(\\d+).*\\s(\\S+)\\s*$", "", "7", "", false},
      {"^\\s*(\\d+).*\\s(\\S+)\\s*$", " ", "7", "", false},
      {"^\\s*(\\d+).*\\s(\\S+)\\s*$", " ", "7", " x", true},
      {"^\\s*(\\d+).*\\s(\\S+)\\s*$", " 7", " ", "", false},
      {".* ", "", "a", "", false},
      {".*.*.*x", "x", "a", "", true},
      {".*.*=.*;", "=", "=", "", false},
      {"(.*)(.*)(.*)(.*)(.*)[xy]z", "z", "x", "", false},
      {"a?a?a?a?a?a?a?a?aaaaaaaab", "b", "a", "", false},
      {"(a?){20}a{20}b|c", "", "a", "", false},
      {"(a|b|ab)*c", "c", "ab", "", true},
      {"([ab]*a[ab]{8}c)|d", "", "abb", "", false},
  };
  for (const HardCase& hard : cases) {
    const std::string half = hard.begin + Repeat(hard.piece, 20000) + hard.end;
    const std::string whole = hard.begin + Repeat(hard.piece, 40000) + hard.end;
    const std::uint64_t cost = CostOf(hard.expression, half, hard.matches);
    const std::uint64_t twice = CostOf(hard.expression, whole, hard.matches);
    EXPECT_LE(twice, cost * 22 / 10 + 100) << hard.expression;
    EXPECT_LE(cost, half.size() * 12 + 1000) << hard.expression;
  }
}

// The table of sets is forgotten many times over on the way.
TEST(PatternTest, MoreSetsThanTheTableHoldsCostNoMoreThanTheProgramPerByte) {
  std::string text;
  std::uint32_t random = 1;
  for (int i = 0; i < 60000; ++i) {
    random = random * 1664525 + 1013904223;
    text += (random >> 24) % 2 == 0 ? 'a' : 'b';
  }
  text[15000 + 15] = 'a';
  pattern::Code code;
  pattern::Compile("x([ab]{14})a", &code);
  pattern::Effort effort;
  EXPECT_FALSE(pattern::SearchInTwoPasses(code, text, 0, nullptr, &effort));
  EXPECT_GT(effort.states, 10000U);
  EXPECT_LE(effort.states, text.size() + 2);
  text[15000] = 'x';
  SMatch match;
  EXPECT_TRUE(pattern::SearchInTwoPasses(code, text, 0, &match, &effort));
  EXPECT_EQ(match.spans[0].begin, 15000U);
  EXPECT_EQ(match.spans[1].end, 15015U);
  // Wherever in the table the first pass ends, the second has room for a block.
  for (std::size_t size = 16000; size < text.size(); size += 1000) {
    ASSERT_TRUE(pattern::SearchInTwoPasses(
        code, std::string_view(text).substr(0, size), 0, &match, &effort));
    EXPECT_EQ(match.spans[0].begin, 15000U) << size;
    EXPECT_EQ(match.spans[1].end, 15015U) << size;
  }
}

TEST(PatternTest, ALineOfFiveMegabytesIsMatchedWhole) {
  const std::string text = Repeat("word  ", 833334);
  SMatch match;
  ASSERT_TRUE(SPattern::Get("^(\\S+\\s*)*$")->Search(text, 0, &match));
  EXPECT_EQ(match.spans[0].Length(), text.size());
  EXPECT_EQ(match.spans[1].begin, text.size() - 6);
  EXPECT_FALSE(Matches("^(\\S+\\s*)*#$", text + "x"));
  EXPECT_FALSE(Matches("^(\\S+\\s*)*# $", text + "x "));
  ASSERT_TRUE(SPattern::Get("(\\s|d)+$")->Search(text + "\n", 0, &match));
  EXPECT_EQ(match.spans[0].begin, text.size() - 3);
  EXPECT_EQ(match.spans[1].begin, text.size());
}

TEST(PatternTest, TenThousandParenthesesAreNested) {
  const std::string open(10000, '(');
  const std::string close(10000, ')');
  EXPECT_EQ(SPattern::Get(open + "a" + close)->GroupCount(), 10000);
  SMatch match;
  ASSERT_TRUE(SPattern::Get(open + "a" + close)->Search("ba", 0, &match));
  EXPECT_EQ(match.spans[10000].begin, 1U);
  EXPECT_FALSE(SPattern::Get(open + "a")->IsValid());
  EXPECT_FALSE(SPattern::Get("a" + close)->IsValid());
  const std::string deep = Repeat("(", 1000) + "a" + Repeat(")?", 1000) + "b";
  EXPECT_TRUE(Matches(deep, "ab"));
  EXPECT_FALSE(Matches(deep, "aa"));
}

TEST(PatternTest, ProgramsThatWouldGrowTooLargeAreRefused) {
  EXPECT_TRUE(SPattern::Get("a{1000}")->IsValid());
  EXPECT_TRUE(SPattern::Get("(a{100}){100}")->IsValid());
  EXPECT_TRUE(Matches("^(a{100}){100}$", std::string(10000, 'a')));
  EXPECT_FALSE(Matches("^(a{100}){100}$", std::string(9999, 'a')));
  for (const char* expression :
       {"(a{1000}){1000}", "((a{1000}){1000}){1000}", "a{65535}b{65535}",
        "(((a{1,65535}){1,65535}){1,65535}){1,65535}",
        "((((((((((a{10}){10}){10}){10}){10}){10}){10}){10}){10}){10})",
        "(a*){65535}"}) {
    EXPECT_FALSE(SPattern::Get(expression)->IsValid()) << expression;
  }
  // One more than there is room for, and alternatives that move all before them.
  EXPECT_TRUE(SPattern::Get(std::string(65535, 'a'))->IsValid());
  EXPECT_FALSE(SPattern::Get(std::string(65536, 'a') + "|b")->IsValid());
  EXPECT_FALSE(
      SPattern::Get(Repeat("(", 9000) + "a" + Repeat("|b)", 9000))->IsValid());
  // Loops in each other whose bodies may be empty are copied for each level.
  const std::string loops = Repeat("(", 2000) + "a*" + Repeat(")*", 2000);
  EXPECT_FALSE(SPattern::Get(loops)->IsValid());
  EXPECT_TRUE(
      SPattern::Get(Repeat("(", 50) + "a*" + Repeat(")*", 50))->IsValid());
}

TEST(PatternTest, CompiledPatternsAreKept) {
  const std::shared_ptr<const SPattern> first = SPattern::Get("kept(\\d)");
  EXPECT_EQ(SPattern::Get("kept(\\d)"), first);
  for (int i = 0; i < 1000; ++i) {
    const std::string text = std::to_string(i);
    EXPECT_TRUE(Matches(text + "$", text));
  }
  EXPECT_EQ(first->GroupCount(), 1);
}

// A destructor of a static object may run after any cache is gone.
struct UsesPatternsAtExit {
  ~UsesPatternsAtExit() {
    if (!Matches("^(a|b)*$", "abab")) {
      std::abort();
    }
  }
};
const UsesPatternsAtExit kUsesPatternsAtExit;

}  // namespace
