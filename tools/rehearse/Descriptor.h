#pragma once

#include <unistd.h>

#include <string>
#include <utility>

#include "toolkit/Files.h"  // WriteAll

/// An open file descriptor that is closed at the end of its owner's life.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Close(); }

  void Close() {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  [[nodiscard]] int Get() const { return fd_; }
  [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// Everything up to the end of the file; what could be read when that fails.
[[nodiscard]] std::string ReadAll(int fd);

/// The content of a file of /proc or /etc; empty when it can't be read.
[[nodiscard]] std::string ReadFile(const std::string& path);
