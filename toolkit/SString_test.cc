#include "toolkit/SString.h"

#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>
#include <vector>

#include "toolkit/SStringList.h"

namespace {

// A number added to a string would append one byte, or move a pointer.
template <typename A, typename B>
concept Addable = requires(A a, B b) {
  a + b;
};
static_assert(Addable<SString, SString>);
static_assert(Addable<SString, const char*>);
static_assert(Addable<const char*, SString>);
static_assert(Addable<SString, char>);
static_assert(Addable<char, SString>);
static_assert(!Addable<SString, int>);
static_assert(!Addable<int, SString>);
// A string is not true or false.
static_assert(!std::is_constructible_v<bool, SString>);

std::vector<std::string> Strings(const SStringList& list) {
  std::vector<std::string> strings;
  for (const SString& element : list) {
    strings.push_back(element.Std());
  }
  return strings;
}

using Pieces = std::vector<std::string>;

TEST(SStringTest, IsMadeFromTextsNumbersAndRepeatedBytes) {
  EXPECT_EQ(SString(), "");
  EXPECT_EQ(SString(static_cast<const char*>(nullptr)), "");
  EXPECT_EQ(SString("abc"), "abc");
  EXPECT_EQ(SString('=', 3), "===");
  EXPECT_EQ(SString('=', 0), "");
  EXPECT_EQ(SString('=', -1), "");
  EXPECT_EQ(SString(8080), "8080");
  EXPECT_EQ(SString(-5), "-5");
  EXPECT_EQ(SString(-2147483647 - 1), "-2147483648");
}

TEST(SStringTest, AssignmentReplacesTheContent) {
  SString text = "old";
  text = "new";
  EXPECT_EQ(text, "new");
  text = 25;
  EXPECT_EQ(text, "25");
  // From a part of itself.
  text = "abcdef";
  text = static_cast<const char*>(text) + 3;
  EXPECT_EQ(text, "def");
}

TEST(SStringTest, ConcatenationMakesNewValues) {
  const SString a = "a";
  EXPECT_EQ(a + a, "aa");
  EXPECT_EQ(a + "b", "ab");
  EXPECT_EQ("b" + a, "ba");
  EXPECT_EQ(a + 'c', "ac");
  EXPECT_EQ('c' + a, "ca");
  EXPECT_EQ(a + "b" + 'c' + a, "abca");
  EXPECT_EQ(a, "a");
  SString sum = "x";
  sum += 'y';
  sum += SString("z");
  sum += sum;
  EXPECT_EQ(sum, "xyzxyz");
}

TEST(SStringTest, CopiesAreIndependent) {
  const SString first = "a text that is too long for a small string";
  SString second = first;
  second += '!';
  EXPECT_EQ(first, "a text that is too long for a small string");
}

TEST(SStringTest, ComparesExactlyAndInBothOrders) {
  EXPECT_TRUE(SString("a") == "a");
  EXPECT_TRUE("a" == SString("a"));
  EXPECT_FALSE(SString("a") == "A");
  EXPECT_FALSE(SString("a") == "ab");
  EXPECT_TRUE(SString("a") != "b");
}

TEST(SStringTest, BytesOutsideAreNul) {
  const SString text = "ab";
  EXPECT_EQ(text[0], 'a');
  EXPECT_EQ(text[1], 'b');
  EXPECT_EQ(text[2], '\0');
  EXPECT_EQ(text[-1], '\0');
}

TEST(SStringTest, CountsAndFindsBytes) {
  const SString text = "a.b.c";
  EXPECT_EQ(text.Count('.'), 2);
  EXPECT_EQ(text.Count('x'), 0);
  EXPECT_EQ(text.Index('.', 0), 1);
  EXPECT_EQ(text.Index('.', 2), 3);
  EXPECT_EQ(text.Index('.', 4), -1);
  EXPECT_EQ(text.Index('.', 99), -1);
  EXPECT_EQ(text.Index('a', -3), 0);
}

TEST(SStringTest, LowerCaseChangesAsciiLettersOnlyAndInPlace) {
  SString text = "AbZ\xc3\x84[]";
  EXPECT_EQ(text.LowerCase(), "abz\xc3\x84[]");
  EXPECT_EQ(text, "abz\xc3\x84[]");
}

TEST(SStringTest, ChopRemovesTheLastByteWhateverItIs) {
  SString text = "ab";
  text.Chop();
  EXPECT_EQ(text, "a");
  text.Chop();
  text.Chop();
  EXPECT_EQ(text, "");
}

TEST(SStringTest, KeepsNulBytes) {
  const SString text(std::string_view("a\0b", 3));
  EXPECT_EQ(text.Length(), 3);
  EXPECT_EQ((text + "c").Length(), 4);
  EXPECT_TRUE(text.HasMatch("a.b"));
}

TEST(SStringTest, ReadsWholeLinesWithTheirEnds) {
  std::istringstream in("one\n\nlast");
  SString line;
  in >> line;
  EXPECT_EQ(line, "one\n");
  line.ReadLine(in);
  EXPECT_EQ(line, "\n");
  line.ReadLine(in);
  EXPECT_EQ(line, "last");
  line.ReadLine(in);
  EXPECT_EQ(line, "");
}

TEST(SStringTest, WritesTheContentAndNothingElse) {
  std::ostringstream out;
  SString("a\n").Write(out);
  out << SString("b");
  EXPECT_EQ(out.str(), "a\nb");
}

TEST(SStringTest, MReturnsGroupsOrTheMatch) {
  const SString line = "DomainName=example.com trailing";
  EXPECT_EQ(Strings(line.M("^DomainName=(\\S+)")), Pieces({"example.com"}));
  EXPECT_EQ(Strings(SString("DomainName=").M("^DomainName=(\\S+)")), Pieces());
  EXPECT_EQ(SString("DomainName=").M("^DomainName=(\\S+)").Pop(), "");
  EXPECT_EQ(Strings(line.M("N\\w+")), Pieces({"Name"}));
  EXPECT_EQ(Strings(SString("b").M("(a)|(b)")), Pieces({"", "b"}));
  EXPECT_EQ(Strings(SString("abc").M(SString("(b)(c)"))), Pieces({"b", "c"}));
}

TEST(SStringTest, SReplacesTheFirstMatchOrEvery) {
  struct Case {
    const char* text;
    const char* re;
    const char* replacement;
    const char* flags;
    const char* want;
  };
  const Case kCases[] = {
      {"mx.sub.example.org", "\\..*", "", "", "mx"},
      {"mx", "\\..*", "", "", "mx"},
      {"a b  c", "\\s+", "-", "", "a-b  c"},
      {"a b  c", "\\s+", "-", "g", "a-b-c"},
      {"ann, Room 12", ",.*", "", "", "ann"},
      {"smtp stream", "^(\\w+)\\s", "[$1]", "", "[smtp]stream"},
      {"b", "(a)?b", "<$1>", "", "<>"},
      {"b", "b", "$2$", "", "$"},
      {"b", "b", "$0 $x $", "", "$0 $x $"},
      {"abc", "x*", "-", "g", "-a-b-c-"},
      {"a$b", "\\$", "$1", "", "ab"},
      {"", "^$", "new", "", "new"},
      {"same", "(", "x", "g", "same"},
  };
  for (const Case& c : kCases) {
    SString text = c.text;
    text.S(c.re, c.replacement, c.flags);
    EXPECT_EQ(text, c.want) << c.text << " s/" << c.re << "/" << c.replacement;
  }
}

TEST(SStringTest, SplitGivesThePiecesBetweenMatches) {
  struct Case {
    const char* text;
    const char* re;
    int limit;
    Pieces want;
  };
  const Case kCases[] = {
      {"one,two three,,four", "[\\s,]+", 0, {"one", "two", "three", "four"}},
      {" , one, two ,", "[\\s,]+", 0, {"one", "two"}},
      {"", "[\\s,]+", 0, {}},
      {",, ,", "[\\s,]+", 0, {}},
      {"one", ",", 0, {"one"}},
      {"a,,b", ",", 0, {"a", "", "b"}},
      {"a,b,c", ",", 2, {"a", "b,c"}},
      {",,a,b,c", ",", 2, {"a", "b,c"}},
      {"a,", ",", 2, {"a", ""}},
      {"a,b", "(", 0, {"a,b"}},
      {"abc", "", 0, {"a", "b", "c"}},
      {"a,b", ",*", 0, {"a", "b"}},
      {"abc", "", 2, {"a", "bc"}},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(Strings(SString(c.text).Split(c.re, c.limit)), c.want)
        << c.text << " at " << c.re;
  }
}

TEST(SStringTest, SplitExactKeepsEmptyPieces) {
  EXPECT_EQ(Strings(SString("a/b//c").SplitExact("/", 0)),
            Pieces({"a", "b", "", "c"}));
  EXPECT_EQ(Strings(SString("/a/").SplitExact("/", 0)), Pieces({"", "a", ""}));
  EXPECT_EQ(Strings(SString("X/a/b").SplitExact("/", 2)), Pieces({"X", "a/b"}));
  EXPECT_EQ(Strings(SString("X").SplitExact("/", 2)), Pieces({"X"}));
  EXPECT_EQ(Strings(SString("").SplitExact("/", 0)), Pieces());
  EXPECT_EQ(Strings(SString("a.b").SplitExact("..", 0)), Pieces({"a.b"}));
}

}  // namespace
