#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// What the fuzz programs share: a claim that ends the program when it is wrong,
// and files in memory for code that reads and writes files.

inline void Check(bool holds, const char* file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
  if (!holds) {
    std::fprintf(stderr, "%s:%d: the claim is wrong\n", file, line);
    std::abort();
  }
}

/// A directory in memory, made once a process.
class SScratch {
 public:
  SScratch() : path_("/dev/shm/fuzzXXXXXX") {
    Check(mkdtemp(path_.data()) != nullptr);
  }
  ~SScratch() { static_cast<void>(rmdir(path_.c_str())); }
  SScratch(const SScratch&) = delete;
  SScratch& operator=(const SScratch&) = delete;

  [[nodiscard]] std::string File(const char* name) const {
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, std::string_view bytes) {
  const int fd =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Check(fd >= 0);
  Check(write(fd, bytes.data(), bytes.size()) ==
        static_cast<ssize_t>(bytes.size()));
  close(fd);
}

inline std::string ReadFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  Check(fd >= 0 && fstat(fd, &status) == 0);
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  Check(read(fd, bytes.data(), bytes.size()) == status.st_size);
  close(fd);
  return bytes;
}
