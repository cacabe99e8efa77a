// Any password file, searched as the administrator's "File" choice does.  Names
// hold anything; the screen must show none of it that a terminal obeys.

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "accounts/UserSources.h"
#include "fuzz/Scratch.h"

namespace {

// A file in memory in place of a standard descriptor.
void PutInPlace(int descriptor, std::string_view bytes) {
  const int fd = memfd_create("console", 0);
  Check(fd >= 0);
  Check(write(fd, bytes.data(), bytes.size()) ==
        static_cast<ssize_t>(bytes.size()));
  Check(lseek(fd, 0, SEEK_SET) == 0);
  Check(dup2(fd, descriptor) == descriptor);
  close(fd);
}

bool IsHarmless(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return c == '\n' || (byte >= 0x20 && byte != 0x7f);
}

void CheckScreen() {
  for (const char c : ReadFile("/dev/fd/1")) {
    Check(IsHarmless(c));
  }
}

void CheckCandidate(const SCandidate& user) {
  Check(!user.name.IsEmpty() || user.login.IsEmpty());
  Check(!user.password.IsEmpty());
  Check(user.name.View().find(',') == std::string_view::npos ||
        user.login.View().find(',') != std::string_view::npos);
  Check(user.forward.View().ends_with("/.forward"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const SScratch scratch;
  const std::string path = scratch.File("passwd");
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  WriteFile(path, content);
  PutInPlace(STDIN_FILENO, "f\n" + path + "\n");
  PutInPlace(STDOUT_FILENO, "");
  SUserImport import;
  import.full_install = true;
  const Source source = FindUsers(&import);
  Check(source ==
        (import.candidates.empty() ? Source::kNone : Source::kChosen));
  for (const SCandidate& user : import.candidates) {
    CheckCandidate(user);
  }
  CheckScreen();
  unlink(path.c_str());
  return 0;
}
