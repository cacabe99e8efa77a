#include "console/GeneratePassword.h"

#include "toolkit/Random.h"

namespace {

// No letter that is easily misheard or taken for another.
const SString kConsonants("bcdlmnprst");
const SString kVowels("aeio");

char DrawLetter(const SString& alphabet) {
  return alphabet[RandomInt(alphabet.Length())];
}

}  // namespace

SString GeneratePassword() {
  SString password;
  for (int syllable = 0; syllable < 2; ++syllable) {
    password += DrawLetter(kConsonants);
    password += DrawLetter(kVowels);
  }
  password += DrawLetter(kConsonants);
  password += SString(RandomInt(9) + 1);
  return password;
}
