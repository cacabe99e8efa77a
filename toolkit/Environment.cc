#include "toolkit/Environment.h"

#include <unistd.h>

#include <cstdlib>

void PutEnv(const SString& key, const SString& value) {
  setenv(key, value, 1);
}

SString GetEnv(const char* key) {
  return SString(getenv(key));
}

SString ProcessIdString() {
  return SString(static_cast<int>(getpid()));
}
