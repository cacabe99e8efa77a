#include "accounts/UserSources.h"

#include <gtest/gtest.h>

namespace {

TEST(FullNameTest, TheCommentUpToTheFirstCommaIsTheName) {
  const struct {
    const char* gecos;
    const char* login;
    const char* name;
  } kCases[] = {
      {"Ann Smith", "ann", "Ann Smith"},
      {"Ann Smith,Room 12,555", "ann", "Ann Smith"},
      {"&,Room 12", "ann", "Ann"},
      {"& and &", "bob", "Bob and Bob"},
      {"&", "Bob", "Bob"},
      {"&", "9lives", "9lives"},
      {"&", "\xe9va", "\xe9va"},
      {"", "ann", "ann"},
      {",Room 12", "ann", "ann"},
      {"&", "", ""},
      {"", "", ""},
      {" ", "ann", " "},
      {"M\xc3\xbcller", "m", "M\xc3\xbcller"},
      {"a\"b\\c$1", "x", "a\"b\\c$1"},
      {"&", "$1&", "$1&"},
  };
  for (const auto& one : kCases) {
    EXPECT_EQ(std::string(one.name), FullName(one.gecos, one.login).Std())
        << one.gecos << " of " << one.login;
  }
}

}  // namespace
