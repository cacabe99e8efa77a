#include "toolkit/Times.h"

#include <cstdio>
#include <ctime>

namespace {

constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed",
                                 "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int kFirstYear = 1900;

}  // namespace

SString RFC822Date() {
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  const long minutes = local.tm_gmtoff / 60;
  const long distance = minutes < 0 ? -minutes : minutes;
  char text[64];
  snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d %c%02ld%02ld",
           kDays[local.tm_wday], local.tm_mday, kMonths[local.tm_mon],
           local.tm_year + kFirstYear, local.tm_hour, local.tm_min,
           local.tm_sec, minutes < 0 ? '-' : '+', distance / 60, distance % 60);
  return SString(text);
}

SString MessageIdDate() {
  const time_t now = time(nullptr);
  tm utc = {};
  gmtime_r(&now, &utc);
  char text[64];
  snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d",
           utc.tm_year + kFirstYear, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
           utc.tm_min, utc.tm_sec);
  return SString(text);
}
