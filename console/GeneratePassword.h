#pragma once

#include "toolkit/SString.h"

/// A new password of 6 characters that can be read aloud: consonant, vowel,
/// consonant, vowel, consonant, digit from 1 to 9.  Drawn from `RandomInt`.
[[nodiscard]] SString GeneratePassword();
