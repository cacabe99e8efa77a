#pragma once

/// Seeds the generator; called once at start-up.
void SeedRandom(unsigned seed);
/// A uniformly drawn integer from 0 to `n` - 1 (`n` at least 1), without the
/// bias of a plain remainder.
[[nodiscard]] int RandomInt(int n);
