#include "driver/ReadSettings.h"

#include <gtest/gtest.h>

namespace {

SStringList Lines(std::initializer_list<const char*> lines) {
  SStringList list;
  for (const char* line : lines) {
    list.Push(line);
  }
  return list;
}

std::string Value(std::initializer_list<const char*> lines, const char* key) {
  return ReadConfig(Lines(lines), key).Std();
}

TEST(ReadConfigTest, TheValueFollowsTheEqualsSign) {
  EXPECT_EQ("mx", Value({"DomainName=example.org", "HostName=mx"}, "HostName"));
  EXPECT_EQ("a=b", Value({"Key=a=b"}, "Key"));
}

TEST(ReadConfigTest, TheValueEndsAtTheFirstWhiteSpace) {
  for (const char* line :
       {"Key=one two", "Key=one\ttwo", "Key=one\r", "Key=one\f", "Key=one "}) {
    EXPECT_EQ("one", Value({line}, "Key")) << line;
  }
  EXPECT_EQ("one\v", Value({"Key=one\v"}, "Key"));
}

TEST(ReadConfigTest, ALineWithoutAValueDirectlyAfterTheSignGivesNothing) {
  for (const char* line : {"Key = one", "Key= one", "Key =one", "Key=", "Key",
                           "Key:one", " Key=one", "#Key=one", "key=one"}) {
    EXPECT_EQ("", Value({line}, "Key")) << line;
  }
}

TEST(ReadConfigTest, TheFirstLineThatBeginsWithTheKeyDecides) {
  EXPECT_EQ("first", Value({"Key=first", "Key=second"}, "Key"));
  EXPECT_EQ("", Value({"KeyRing=gold", "Key=second"}, "Key"));
  EXPECT_EQ("", Value({"Key", "Key=second"}, "Key"));
  EXPECT_EQ("second", Value({" Key=first", "Key=second"}, "Key"));
}

TEST(ReadConfigTest, MissingKeysAndEmptyFilesGiveNothing) {
  EXPECT_EQ("", Value({"Other=x"}, "Key"));
  EXPECT_EQ("", Value({}, "Key"));
  EXPECT_EQ("", Value({""}, "Key"));
}

TEST(ReadConfigTest, ALineOfAnyLengthIsOneLine) {
  const SString value('v', 1'000'000);
  SStringList lines;
  lines.Push("Key=" + value);
  EXPECT_EQ(1'000'000, ReadConfig(lines, "Key").Length());
}

}  // namespace
