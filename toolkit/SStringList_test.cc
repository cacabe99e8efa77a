#include "toolkit/SStringList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

SStringList ListOf(std::initializer_list<const char*> elements) {
  SStringList list;
  for (const char* element : elements) {
    list.Push(element);
  }
  return list;
}

TEST(SStringListTest, IsMadeFromOneElementOrAVector) {
  const char* const vector[] = {"Install", "127.0.0.1", nullptr};
  EXPECT_EQ(SStringList(vector), ListOf({"Install", "127.0.0.1"}));
  EXPECT_EQ(SStringList("a").Count(), 1);
  EXPECT_EQ(SStringList("").Count(), 1);
  EXPECT_EQ(SStringList().Count(), 0);
}

TEST(SStringListTest, ShiftAndPopTakeFromTheEnds) {
  SStringList list = ListOf({"a", "b", "c"});
  EXPECT_EQ(list.Shift(), "a");
  EXPECT_EQ(list.Pop(), "c");
  EXPECT_EQ(list, ListOf({"b"}));
  EXPECT_EQ(list.Shift(), "b");
  EXPECT_EQ(list.Shift(), "");
  EXPECT_EQ(list.Pop(), "");
  EXPECT_EQ(list.Count(), 0);
}

TEST(SStringListTest, WhatWasShiftedIsGoneForEveryOperation) {
  SStringList list = ListOf({"x", "b", "a", "b"});
  list.Shift();
  EXPECT_EQ(list.Get(0), "b");
  EXPECT_EQ(list.Join(","), "b,a,b");
  EXPECT_FALSE(list.Contains("x"));
  list.Insert(ListOf({"n"}), 0);
  EXPECT_EQ(list.Join(","), "n,b,a,b");
  list.Unique();
  EXPECT_EQ(list.Join(","), "n,b,a");
  list.Shift();
  list.Sort();
  EXPECT_EQ(list.Join(","), "a,b");
  list.Shift();
  list.Delete("b");
  EXPECT_EQ(list.Count(), 0);
}

TEST(SStringListTest, ALongListIsShiftedInLinearTime) {
  constexpr int kElements = 300000;
  SStringList list;
  for (int i = 0; i < kElements; ++i) {
    list.Push(SString(i));
  }
  int taken = 0;
  while (list.Count() > 0) {
    ASSERT_EQ(list.Shift(), SString(taken));
    ++taken;
  }
  EXPECT_EQ(taken, kElements);
}

TEST(SStringListTest, PushAppendsElementsAndLists) {
  SStringList list = ListOf({"a"});
  list.Push(ListOf({"b", "c"}));
  list.Push(list);
  EXPECT_EQ(list.Join(), "abcabc");
}

TEST(SStringListTest, ElementsOutsideAreEmpty) {
  const SStringList list = ListOf({"a"});
  EXPECT_EQ(list.Get(1), "");
  EXPECT_EQ(list.Get(-1), "");
  // Also of a list that could be changed, such as the result of a call.
  EXPECT_EQ(SStringList()[0], "");
  SStringList changed;
  changed[3] = "nobody's";
  EXPECT_EQ(changed[3], "");
  EXPECT_EQ(changed.Count(), 0);
}

TEST(SStringListTest, InsertAndSpliceClampTheirPositions) {
  SStringList list = ListOf({"a", "d"});
  list.Insert(ListOf({"b", "c"}), 1);
  list.Insert(ListOf({"e"}), 99);
  EXPECT_EQ(list.Join(), "abcde");
  list.Splice(3, 99);
  EXPECT_EQ(list.Join(), "abc");
  list.Splice(0, 1);
  EXPECT_EQ(list.Join(), "bc");
  list.Splice(7, 1);
  EXPECT_EQ(list.Join(), "bc");
}

TEST(SStringListTest, SortIsByBytesAndUniqueKeepsTheFirst) {
  SStringList list = ListOf({"b", "\xc3\xa4", "B", "a", "b", ""});
  list.Unique();
  EXPECT_EQ(list.Join(","), "b,\xc3\xa4,B,a,");
  list.Sort();
  EXPECT_EQ(list.Join(","), ",B,a,b,\xc3\xa4");
}

TEST(SStringListTest, ChopLineEndsTakesOnlyLineEnds) {
  SStringList list = ListOf({"a\n", "b", "\n", ""});
  list.ChopLineEnds();
  EXPECT_EQ(list, ListOf({"a", "b", "", ""}));
  list.Chop();
  EXPECT_EQ(list, ListOf({"", "", "", ""}));
}

TEST(SStringListTest, AnEmptyListIsDefinedOnlyWhenMarked) {
  SStringList list;
  EXPECT_FALSE(list.Defined());
  list.SetDefined();
  EXPECT_TRUE(list.Defined());
  list.Reset();
  EXPECT_FALSE(list.Defined());
  list.Push("");
  EXPECT_TRUE(list.Defined());
}

TEST(SStringListTest, GrepHasThreeForms) {
  const SStringList lines =
      ListOf({"# comment", "  ", "smtp stream", "  pop3 stream", "x/y"});
  struct Case {
    const char* expression;
    SStringList want;
  };
  const Case kCases[] = {
      {"/stream/", ListOf({"smtp stream", "  pop3 stream"})},
      {"!/^\\s*(#|$)/", ListOf({"smtp stream", "  pop3 stream", "x/y"})},
      {"s/^\\s*(\\w+)\\s.*/<$1>/", ListOf({"<smtp>", "<pop3>"})},
      {"s/o//", ListOf({"# cmment", "  pp3 stream"})},
      {"/x/y/", ListOf({"x/y"})},
      {"s/x\\/y/z/", ListOf({"z"})},
      {"s/x\\/(y)/$1\\/x\\\\\\//", ListOf({"y/x\\\\/"})},
      {"/(/", SStringList()},
      {"stream", SStringList()},
      {"s/stream/", SStringList()},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(lines.Grep(c.expression).Join("|"), c.want.Join("|"))
        << c.expression;
  }
  EXPECT_EQ(lines.Get(2), "smtp stream");
}

TEST(SStringListTest, SChangesTheElementsThemselves) {
  SStringList lines = ListOf({"  smtp x", "\tpop3 y", "z"});
  lines.S("^\\s+", "");
  lines.S("\\s.*", "");
  EXPECT_EQ(lines, ListOf({"smtp", "pop3", "z"}));
}

TEST(SStringListTest, LowerCaseIsANewList) {
  const SStringList list = ListOf({"Example.COM"});
  EXPECT_EQ(LowerCase(list), ListOf({"example.com"}));
  EXPECT_EQ(list, ListOf({"Example.COM"}));
}

TEST(SStringListTest, BecomesAVectorForExec) {
  const SStringList list = ListOf({"vellumcraft", "192.0.2.7"});
  char** vector = list;
  EXPECT_STREQ(vector[0], "vellumcraft");
  EXPECT_STREQ(vector[1], "192.0.2.7");
  EXPECT_EQ(vector[2], nullptr);
}

TEST(SStringListTest, ReadingAndJoiningReproducesAFile) {
  for (const char* content :
       {"", "a", "a\n", "\n\n", "a\r\nb\n\n  c\t\nlast"}) {
    std::istringstream in(content);
    SStringList lines;
    in >> lines;
    EXPECT_EQ(lines.Join(), content);
  }
}

TEST(SStringListTest, LongAndShortLinesAreReadAsTheyStand) {
  for (const int length : {0, 1, 65534, 65535, 65536, 131071, 131072, 300000}) {
    for (const char* rest : {"", "\n", "\nb", "\n\nb\n"}) {
      const SString first('a', length);
      std::istringstream in((first + rest).Std());
      SStringList lines = "kept";
      in >> lines;
      ASSERT_EQ("kept" + first + rest, lines.Join()) << length << rest;
      for (int i = 1; i + 1 < lines.Count(); ++i) {
        ASSERT_EQ(lines[i].Length() - 1, lines[i].Index('\n', 0)) << length;
      }
    }
  }
}

TEST(SStringListTest, WritesALineForEachElement) {
  std::ostringstream out;
  out << ListOf({"a", ""});
  EXPECT_EQ(out.str(), "a\n\n");
}

TEST(SStringListTest, SortsAsTheStandardLibraryDoes) {
  // Texts that differ near the ends of eight-byte pieces, by length, by NUL
  // bytes and by bytes from 0x80 up; several of each.
  std::vector<std::string> texts;
  unsigned drawn = 1;
  for (int i = 0; i < 20000; ++i) {
    drawn = drawn * 1103515245U + 12345U;
    std::string text((drawn >> 16) % 4 * 8, 'p');
    for (unsigned n = (drawn >> 20) % 10; n > 0; --n) {
      drawn = drawn * 1103515245U + 12345U;
      text.push_back(std::string("\0a\xff", 3)[(drawn >> 16) % 3]);
    }
    texts.push_back(text);
  }
  SStringList list = "taken";
  for (const std::string& text : texts) {
    list.Push(SString(std::string_view(text)));
  }
  list.Shift();
  list.Sort();
  std::sort(texts.begin(), texts.end());
  ASSERT_EQ(list.Count(), static_cast<int>(texts.size()));
  for (int i = 0; i < list.Count(); ++i) {
    ASSERT_EQ(list[i].Std(), texts[static_cast<std::size_t>(i)]) << i;
  }
}

TEST(SStringListTest, LongEqualElementsAreSortedWithoutRecursion) {
  SStringList list;
  for (int i = 0; i < 100; ++i) {
    list.Push(SString('x', 100000) + SString(99 - i));
  }
  list.Sort();
  EXPECT_TRUE(list[0] == SString('x', 100000) + "0");
  EXPECT_TRUE(list[99] == SString('x', 100000) + "99");
}

TEST(SStringListTest, UniqueKeepsTheFirstOfEach) {
  SStringList list;
  for (int i = 0; i < 5000; ++i) {
    list.Push(SString(i * 7919 % 1000) + " text beyond a short string");
  }
  SStringList want;
  for (int i = 0; i < 1000; ++i) {
    want.Push(list[i]);
  }
  list.Unique();
  EXPECT_EQ(list, want);
  SStringList empty;
  empty.Unique();
  empty.Sort();
  EXPECT_EQ(empty.Count(), 0);
}

TEST(SStringListTest, AnElementOfTheListItselfCanBeDeleted) {
  SStringList list = ListOf({"a long element that is stored elsewhere", "b",
                             "a long element that is stored elsewhere", "c"});
  list.Delete(list[0]);
  EXPECT_EQ(list, ListOf({"b", "c"}));
}

TEST(SStringListTest, AListIsInsertedIntoItself) {
  SStringList list = ListOf({"a", "b"});
  list.Insert(list, 1);
  EXPECT_EQ(list, ListOf({"a", "a", "b", "b"}));
}

TEST(SStringListTest, LinesAreAppendedBehindWhatIsThere) {
  SStringList list = "first";
  list.PushLines("a\n\nlast");
  list.PushLines("");
  EXPECT_EQ(list, ListOf({"first", "a\n", "\n", "last"}));
}

}  // namespace
