#include "toolkit/HostNames.h"

#include <gtest/gtest.h>

namespace {

TEST(HostNamesTest, ValidAndInvalidDomains) {
  const SString label63('a', 63);
  const SString domain253 =
      label63 + "." + label63 + "." + label63 + "." + SString('b', 61);
  struct Case {
    SString domain;
    bool want;
  };
  const Case kCases[] = {
      {"example.com", true},
      {"mail", true},
      {"a-b.c0", true},
      {"0a.b", true},
      {"1.2.3.x", true},
      {"[192.0.2.7]", true},
      {"[0.0.0.0]", true},
      {"[255.255.255.255]", true},
      {label63, true},
      {domain253, true},
      {"", false},
      {".", false},
      {"example.com.", false},
      {".example.com", false},
      {"a..b", false},
      {"-x", false},
      {"x-", false},
      {"a_b", false},
      {"a b", false},
      {"10.1.2", false},
      {"192.0.2.7", false},
      {"[192.0.2]", false},
      {"[192.0.2.256]", false},
      {"[192.0.2.7", false},
      {"[]", false},
      {"[192.0.2.7.1]", false},
      {label63 + "a", false},
      {domain253 + "b", false},
      {"b\xc3\xbc"
       "cher.example",
       false},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(IsValidDomain(c.domain), c.want) << c.domain;
  }
}

TEST(HostNamesTest, OnlyADottedQuadHasNames) {
  for (const char* text : {"", "localhost", "127.0.0", "127.0.0.1.2", "127.1",
                           "0x7f.0.0.1", "-v", "127.0.0.256", "127.0.0.1 "}) {
    EXPECT_TRUE(GetHostByAddr(text).IsEmpty()) << text;
  }
  EXPECT_TRUE(GetHostByAddr("127.0.0.1").Contains("localhost"));
}

TEST(HostNamesTest, NamesResolveToDottedQuads) {
  EXPECT_EQ(GetHostByName("localhost").Get(0), "127.0.0.1");
  EXPECT_EQ(GetHostByName("localhost.").Get(0), "127.0.0.1");
  EXPECT_TRUE(GetHostByName("no-such-host.invalid").IsEmpty());
  EXPECT_TRUE(GetHostByName("").IsEmpty());
}

}  // namespace
