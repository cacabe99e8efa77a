#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

// What tests with files of their own share.

/// Where scratch directories of many small files are fastest: memory, where there
/// is some.
inline std::string MemoryDirectory() {
  return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir();
}

/// A new directory that only its owner may enter.  It is removed with all that it
/// holds when the object goes.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& parent = testing::TempDir())
      : path_(std::filesystem::path(parent) / "scratchXXXXXX") {
    EXPECT_NE(nullptr, mkdtemp(path_.data())) << path_;
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  /// Its absolute path, without a slash at the end.
  [[nodiscard]] const std::string& Directory() const { return path_; }
  /// The path of that name in it.
  [[nodiscard]] std::string Path(std::string_view name) const {
    return path_ + "/" + std::string(name);
  }

 private:
  std::string path_;
};

/// The bytes of the file; none when it can't be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// Makes the bytes the whole content of the file, which may be new.
inline void WriteFile(const std::string& path, std::string_view bytes) {
  EXPECT_TRUE(std::ofstream(path, std::ios::binary) << bytes << std::flush)
      << path;
}
