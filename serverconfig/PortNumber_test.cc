#include "serverconfig/PortNumber.h"

#include <gtest/gtest.h>

namespace {

TEST(PortNumberTest, PortsAndOtherTexts) {
  struct Case {
    const char* text;
    int want;
  };
  const Case kCases[] = {
      {"1", 1},           {"65535", 65535}, {"8080", 8080},
      {"80.9", 80},       {"80.", 80},      {" 80 ", 80},
      {"080", 80},        {"+80", 80},      {"0", 0},
      {"65536", 0},       {"-1", 0},        {"", 0},
      {"web", 0},         {"nan", 0},       {"inf", 0},
      {"0x50", 0},        {"80abc", 0},     {"8 0", 0},
      {"0.9", 0},         {".5", 0},        {"99999999999999999999", 0},
      {"65535.5", 65535},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(PortNumber(c.text), c.want) << c.text;
  }
}

}  // namespace
