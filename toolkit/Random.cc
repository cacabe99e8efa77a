#include "toolkit/Random.h"

#include <cstdlib>

void SeedRandom(unsigned seed) {
  srandom(seed);
}

int RandomInt(int n) {
  // random() draws from [0, 2^31); what lies above the last whole multiple of
  // n would make small results likelier and is drawn again.
  constexpr long kRange = 1L << 31;
  const long usable = kRange - kRange % n;
  long drawn = random();
  while (drawn >= usable) {
    drawn = random();
  }
  return static_cast<int>(drawn % n);
}
