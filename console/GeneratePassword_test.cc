#include "console/GeneratePassword.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "toolkit/Random.h"

namespace {

const std::string kAlphabets[] = {"bcdlmnprst", "aeio",       "bcdlmnprst",
                                  "aeio",       "bcdlmnprst", "123456789"};

TEST(GeneratePasswordTest, EveryPlaceDrawsFromItsOwnAlphabetOnly) {
  SeedRandom(1);
  for (int i = 0; i < 10000; ++i) {
    const std::string password = GeneratePassword().Std();
    ASSERT_EQ(6U, password.size());
    for (std::size_t place = 0; place < 6; ++place) {
      ASSERT_NE(std::string::npos, kAlphabets[place].find(password[place]))
          << password;
    }
  }
}

TEST(GeneratePasswordTest, EveryLetterAndDigitComesUpAboutEquallyOften) {
  SeedRandom(2);
  constexpr int kDraws = 20000;
  std::map<char, int> counts[6];
  for (int i = 0; i < kDraws; ++i) {
    const SString password = GeneratePassword();
    for (int place = 0; place < 6; ++place) {
      ++counts[place][password[place]];
    }
  }
  for (std::size_t place = 0; place < 6; ++place) {
    const double expected = static_cast<double>(kDraws) /
                            static_cast<double>(kAlphabets[place].size());
    for (const char c : kAlphabets[place]) {
      EXPECT_NEAR(expected, counts[place][c], expected * 0.2)
          << "place " << place << ", " << c;
    }
  }
}

TEST(GeneratePasswordTest, LettersAreDrawnFromLeftToRight) {
  SeedRandom(3);
  std::string expected;
  for (const std::string& alphabet : kAlphabets) {
    expected += alphabet[static_cast<std::size_t>(
        RandomInt(static_cast<int>(alphabet.size())))];
  }
  SeedRandom(3);
  EXPECT_EQ(expected, GeneratePassword().Std());
}

TEST(GeneratePasswordTest, TheSeedDecidesThePasswords) {
  SeedRandom(4);
  const SString first = GeneratePassword();
  const SString second = GeneratePassword();
  SeedRandom(4);
  EXPECT_EQ(first.Std(), GeneratePassword().Std());
  EXPECT_EQ(second.Std(), GeneratePassword().Std());
}

}  // namespace
