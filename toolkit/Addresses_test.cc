#include "toolkit/Addresses.h"

#include <gtest/gtest.h>

namespace {

SString Parsed(const char* text) {
  return S821Parser(text).Addresses().Join(" | ");
}

TEST(AddressesTest, ListsAsPeopleTypeThem) {
  struct Case {
    const char* text;
    const char* want;
  };
  const Case kCases[] = {
      {"", ""},
      {"ann", "ann"},
      {"ann@mail", "ann@mail"},
      {"ROOT@Mail.Example.Com", "ROOT@Mail.Example.Com"},
      {"Ann Smith <ann@x.org>", "ann@x.org"},
      {"\"Smith, Ann\" <ann@x.org>", "ann@x.org"},
      {"ann@x.org (Ann, home)", "ann@x.org"},
      {"J. R. Smith <jrs@x.org>", "jrs@x.org"},
      {"staff: ann, bob@x.org;", "ann | bob@x.org"},
      {"nobody:;", ""},
      {"a: b; , c", "b | c"},
      {"\"john doe\"@x.org", "\"john doe\"@x.org"},
      {"\"a\\\"b\"@x.org", "\"a\\\"b\"@x.org"},
      {"user%gw@x.org", "user%gw@x.org"},
      {"host!user@x.org", "host!user@x.org"},
      {"bob@[192.0.2.7]", "bob@[192.0.2.7]"},
      {"ann,,bob ,", "ann | bob"},
      {"<ann@x.org>,<>", "ann@x.org | <>"},
      {"<@r.org:bob@x.org>", "<@r.org:bob@x.org>"},
      {"<@r.org,@s.org:bob@x.org>", "<@r.org,@s.org:bob@x.org>"},
      {"((nested) comment) ann (x\\)y)", "ann"},
      // Refused, each an empty address of its own.
      {"bob smith", "<>"},
      {"bob@", "<>"},
      {"@x.org", "<>"},
      {"a@b@c", "<>"},
      {"ann;bob", "<>"},
      {"\"open", "<>"},
      {"(open", "<>"},
      {"<ann@x.org", "<>"},
      {"ann>", "<>"},
      {"<@:bob@x.org>", "<>"},
      {"<@r.org bob@x.org>", "<>"},
      {"<@r.org,bob@x.org>", "<>"},
      {"a..b@x.org", "<>"},
      {".a@x.org", "<>"},
      {"a.@x.org", "<>"},
      {"a@x..org", "<>"},
      {"a@\"x\"", "<>"},
      {"a\x01@x.org", "<>"},
      {"\"a\nb\"@x.org", "<>"},
      {"bob@[192.0.2.7\r]", "<>"},
      {"bob@b\xc3\xbc"
       "cher.example",
       "<>"},
      {"J\xc3\xbcrgen (\xc3\xbc) <j@x.org>", "j@x.org"},
      {"bad bad, ann", "<> | ann"},
      {"<bad bad>, ann", "<> | ann"},
      {"g: bad bad, ann;, bob", "<> | ann | bob"},
      {":ann, bob", "<> | bob"},
      {"staff: ann, bob", "<> | bob"},
      {"a: b;, c: d, e", "b | <> | e"},
      {"a: b; c, d", "b | <> | d"},
      {"a: b; c: d;", "b | <>"},
      {"a:; b", "<>"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(Parsed(c.text), c.want) << c.text;
  }
}

TEST(AddressesTest, ExamplesOfTheStandard) {
  // RFC 822, appendix A.
  EXPECT_EQ(Parsed("\"Alfred Neuman\" <Neuman@BBN-TENEXA>"),
            "Neuman@BBN-TENEXA");
  EXPECT_EQ(Parsed("\":sysmail\"@ Some-Group. Some-Org"),
            "\":sysmail\"@Some-Group.Some-Org");
  EXPECT_EQ(Parsed("Muhammed.(I am the greatest) Ali @(the) Vegas.WBA"),
            "Muhammed.Ali@Vegas.WBA");
  EXPECT_EQ(Parsed("Wilt . (the Stilt) Chamberlain@NBA.US"),
            "Wilt.Chamberlain@NBA.US");
  EXPECT_EQ(Parsed("Gourmets: Pompous Person <WhoZiWhatZit@Cordon-Bleu>,"
                   " Childs@WGBH.Boston, \"Galloping Gourmet\"@"
                   " ANT.Down-Under (Australian National Television),"
                   " Cheapie@Discount-Liquors;,"
                   " Cruisers: Port@Portugal, Jones@SEA;,"
                   " Another@Somewhere.SomeOrg"),
            "WhoZiWhatZit@Cordon-Bleu | Childs@WGBH.Boston |"
            " \"Galloping Gourmet\"@ANT.Down-Under |"
            " Cheapie@Discount-Liquors | Port@Portugal | Jones@SEA |"
            " Another@Somewhere.SomeOrg");
}

TEST(AddressesTest, OneAddressIsTakenApart) {
  const S821Address address("<@r.org:\"j d\"@Mail.x.org>");
  EXPECT_EQ(address.Route(), "@r.org");
  EXPECT_EQ(address.LocalPart(), "\"j d\"");
  EXPECT_EQ(address.Domain(), "Mail.x.org");
  EXPECT_EQ(address.Text(), "<@r.org:\"j d\"@Mail.x.org>");

  S821Address bare("ann");
  EXPECT_EQ(bare.Domain(), "");
  EXPECT_EQ(bare.Text(), "ann");
  bare.SetDomain("x.org");
  EXPECT_EQ(bare.Text(), "ann@x.org");

  for (const char* text : {"", "<>", "a b", "Ann <ann@x.org>", "a,b", "a@b>"}) {
    EXPECT_TRUE(S821Address(text).IsNull()) << text;
    EXPECT_EQ(S821Address(text).Text(), "<>");
  }
  EXPECT_EQ(S821Parser("ann,bob", false).Addresses().Join("|"), "<>");
  EXPECT_EQ(S821Parser("ann@x", false).Addresses().Join("|"), "ann@x");
}

TEST(AddressesTest, DeepAndLongTextsAreReadWithoutRecursion) {
  const SString deep = SString('(', 1000000) + SString(')', 1000000) + "ann";
  EXPECT_EQ(S821Parser(deep).Addresses().Join(), "ann");
  SString list;
  for (int i = 0; i < 50000; ++i) {
    list += "a,";
  }
  EXPECT_EQ(S821Parser(list).Addresses().Count(), 50000);
  EXPECT_EQ(S821Parser(SString('<', 1000000)).Addresses().Join(), "<>");
}

}  // namespace
