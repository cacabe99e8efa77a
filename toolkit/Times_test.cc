#include "toolkit/Times.h"

#include <gtest/gtest.h>

#include <ctime>

#include "toolkit/Environment.h"
#include "toolkit/Random.h"

namespace {

// The time as strftime tells it in the C locale, before and after: the texts
// must be one of the two.
SString Formatted(const char* format, const tm& time) {
  char text[100];
  strftime(text, sizeof text, format, &time);
  return text;
}

TEST(TimesTest, RFC822DateIsLocalTimeWithItsZone) {
  for (const char* zone : {"UTC0", "XYZ-5:30", "ABC+3:30", "EST5"}) {
    setenv("TZ", zone, 1);
    tzset();
    const time_t before = time(nullptr);
    const SString date = RFC822Date();
    const time_t after = time(nullptr);
    const char* kFormat = "%a, %d %b %Y %H:%M:%S %z";
    EXPECT_TRUE(date == Formatted(kFormat, *localtime(&before)) ||
                date == Formatted(kFormat, *localtime(&after)))
        << date;
    EXPECT_EQ(date.Length(), 31);
  }
  unsetenv("TZ");
  tzset();
}

TEST(TimesTest, MessageIdDateIsUtc) {
  setenv("TZ", "XYZ-5:30", 1);
  tzset();
  const time_t before = time(nullptr);
  const SString date = MessageIdDate();
  const time_t after = time(nullptr);
  EXPECT_TRUE(date == Formatted("%Y%m%d%H%M%S", *gmtime(&before)) ||
              date == Formatted("%Y%m%d%H%M%S", *gmtime(&after)))
      << date;
  unsetenv("TZ");
  tzset();
}

TEST(EnvironmentTest, UnsetVariablesAreEmpty) {
  unsetenv("VC_TEST_VARIABLE");
  EXPECT_EQ(GetEnv("VC_TEST_VARIABLE"), "");
  {
    const SString value = "value that dies before it is read";
    PutEnv("VC_TEST_VARIABLE", value);
  }
  EXPECT_EQ(GetEnv("VC_TEST_VARIABLE"), "value that dies before it is read");
  EXPECT_TRUE(ProcessIdString().HasMatch("^[1-9]\\d*$"));
}

TEST(RandomTest, EveryResultIsDrawnEquallyOften) {
  constexpr int kDraws = 90000;
  SeedRandom(1);
  int drawn[9] = {};
  for (int i = 0; i < kDraws; ++i) {
    const int result = RandomInt(9);
    ASSERT_GE(result, 0);
    ASSERT_LT(result, 9);
    ++drawn[result];
  }
  // Six standard deviations of 10,000.
  for (const int count : drawn) {
    EXPECT_NEAR(count, kDraws / 9, 570);
  }
  EXPECT_EQ(RandomInt(1), 0);
}

TEST(RandomTest, ARangeThatDoesNotFitIntoTheGeneratorsIsDrawnEvenlyToo) {
  // The generator's range is a third larger; were it folded, half of all
  // results and not a third would be small.
  constexpr int kRange = 3 << 29;
  constexpr int kDraws = 9000;
  SeedRandom(1);
  int small = 0;
  for (int i = 0; i < kDraws; ++i) {
    small += RandomInt(kRange) < kRange / 3 ? 1 : 0;
  }
  EXPECT_NEAR(small, kDraws / 3, 270);  // six standard deviations
}

TEST(RandomTest, TheSeedDecides) {
  SeedRandom(7);
  const int first = RandomInt(1000000);
  SeedRandom(7);
  EXPECT_EQ(RandomInt(1000000), first);
}

}  // namespace
