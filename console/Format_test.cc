#include "console/Format.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Wrap(const std::string& text, int width) {
  return Format(SString(std::string_view(text)), width, 0, "\n").Std();
}

TEST(FormatTest, WordsAreJoinedByOneBlankWhateverStoodBetweenThem) {
  EXPECT_EQ("one two three four five six\n",
            Wrap("  one\ttwo \t three\nfour\r\f\vfive  six \n", 75));
}

TEST(FormatTest, NoWordsGiveNothing) {
  EXPECT_EQ("", Wrap("", 75));
  EXPECT_EQ("", Wrap(" \t\n\r\f\v ", 75));
}

TEST(FormatTest, ALineMayBeExactlyAsLongAsTheWidth) {
  EXPECT_EQ("12345 789\nx\n", Wrap("12345 789 x", 9));
  EXPECT_EQ("12345\n7890\n", Wrap("12345 7890", 9));
}

TEST(FormatTest, ALongerWordStandsAloneOnItsLine) {
  EXPECT_EQ("1234567890\n", Wrap("1234567890", 4));
  EXPECT_EQ("ab\n1234567890\ncd\n", Wrap("ab 1234567890 cd", 4));
}

TEST(FormatTest, WidthsWithoutRoomGiveAWordALine) {
  EXPECT_EQ("a\nb\n", Wrap("a b", 1));
  EXPECT_EQ("a\nb\n", Wrap("a b", 0));
  EXPECT_EQ("a\nb\n", Wrap("a b", -5));
}

TEST(FormatTest, TheSeparatorEndsEveryLineTheLastIncluded) {
  EXPECT_EQ("a b\r\n> c\r\n> ", Format("a b c", 3, 0, "\r\n> ").Std());
  EXPECT_EQ("ab", Format("a b", 1, 0, "").Std());
}

TEST(FormatTest, OtherBytesBelongToWords) {
  EXPECT_EQ("\xa0\x01 \xff\n", Wrap("\xa0\x01 \xff", 75));
  EXPECT_EQ(std::string("a\0b\n", 4), Wrap(std::string("a\0b", 3), 75));
}

// The rule once more in its slowest form: try to add a word and look.
std::string WrapSlowly(const std::string& text, std::size_t width) {
  std::string lines;
  std::string line;
  std::string word;
  for (const char c : text + " ") {
    if (c != ' ' && c != '\n') {
      word += c;
      continue;
    }
    if (word.empty()) {
      continue;
    }
    const std::string longer = line.empty() ? word : line + " " + word;
    if (!line.empty() && longer.size() > width) {
      lines += line + "\n";
      line = word;
    } else {
      line = longer;
    }
    word.clear();
  }
  return line.empty() ? lines : lines + line + "\n";
}

TEST(FormatTest, EveryShortTextIsWrappedAsTheRuleSays) {
  constexpr char kAlphabet[] = {'a', ' ', '\n'};
  for (int length = 0; length <= 9; ++length) {
    int texts = 1;
    for (int i = 0; i < length; ++i) {
      texts *= 3;
    }
    for (int number = 0; number < texts; ++number) {
      std::string text;
      for (int i = 0, rest = number; i < length; ++i, rest /= 3) {
        text += kAlphabet[rest % 3];
      }
      for (const int width : {1, 2, 3, 4, 5}) {
        ASSERT_EQ(WrapSlowly(text, static_cast<std::size_t>(width)),
                  Wrap(text, width))
            << "width " << width << " of \"" << text << "\"";
      }
    }
  }
}

}  // namespace
