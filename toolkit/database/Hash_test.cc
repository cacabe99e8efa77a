#include "toolkit/database/Hash.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The same a byte at a time.
std::string Lower(std::string text) {
  for (char& c : text) {
    c = LowerCaseOf(c);
  }
  return text;
}

// So many bytes, any byte among them at any place.
std::string Bytes(std::size_t size, unsigned first) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += static_cast<char>(first + i * 37);
  }
  return text;
}

TEST(HashTest, OnlyAsciiLettersGetLowerCaseAtAnyPlaceOfAnyLength) {
  EXPECT_EQ("@az[`az{\xc4\x80", Lower("@AZ[`az{\xc4\x80"));
  for (std::size_t size = 0; size < 40; ++size) {
    for (unsigned first = 0; first < 256; ++first) {
      const std::string text = Bytes(size, first);
      const std::string lower = Lower(text);
      ASSERT_EQ(lower, SLowerCaseText(text).View()) << size << " " << first;
      ASSERT_TRUE(IsSameInLowerCase(text, lower)) << size << " " << first;
      ASSERT_TRUE(IsSameInAnyCase(lower, text)) << size << " " << first;
    }
  }
}

TEST(HashTest, PiecesAreJoined) {
  EXPECT_EQ("ann@example.com",
            SLowerCaseText({"Ann", "@", "Example.COM"}).View());
  EXPECT_EQ("", SLowerCaseText({"", ""}).View());
  for (const std::size_t size : {254, 255, 256, 257, 300}) {
    EXPECT_EQ(std::string(size, 'a') + "b",
              SLowerCaseText({std::string(size, 'A'), "B"}).View());
  }
}

TEST(HashTest, OneOtherByteAnywhereIsAnotherText) {
  for (std::size_t size = 1; size < 40; ++size) {
    const std::string text = Bytes(size, 'A');
    for (std::size_t at = 0; at < size; ++at) {
      std::string other = Lower(text);
      other[at] = static_cast<char>(other[at] ^ 1);
      ASSERT_FALSE(IsSameInLowerCase(text, other)) << size << " " << at;
    }
    EXPECT_FALSE(IsSameInLowerCase(text, Lower(text) + "a"));
    EXPECT_FALSE(IsSameInAnyCase(text, Lower(text) + "a"));
  }
}

}  // namespace
