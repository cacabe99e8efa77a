#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <utility>

/// Runs code of a test in a process of its own, with its input and output in
/// the hands of the test: for code that reads descriptor 0, writes descriptor 1
/// or ends its process.
class TestChild {
 public:
  enum class Input { kPipe, kTerminal, kNull, kClosed };

  explicit TestChild(const std::function<void()>& run,
                     Input input = Input::kPipe) {
    int to_child[2] = {-1, -1};
    int from_child[2] = {-1, -1};
    EXPECT_EQ(0, pipe2(from_child, O_CLOEXEC));
    if (input == Input::kPipe) {
      EXPECT_EQ(0, pipe2(to_child, O_CLOEXEC));
    } else if (input == Input::kTerminal) {
      termios modes = {};
      EXPECT_EQ(0,
                openpty(&to_child[1], &to_child[0], nullptr, nullptr, nullptr));
      EXPECT_EQ(0, tcgetattr(to_child[0], &modes));
      modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
      EXPECT_EQ(0, tcsetattr(to_child[0], TCSANOW, &modes));
    } else if (input == Input::kNull) {
      to_child[0] = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    child_ = fork();
    if (child_ == 0) {
      dup2(from_child[1], STDOUT_FILENO);
      close(from_child[0]);
      close(from_child[1]);
      if (to_child[0] >= 0) {
        dup2(to_child[0], STDIN_FILENO);
        close(to_child[0]);
      } else {
        close(STDIN_FILENO);
      }
      if (to_child[1] >= 0) {
        close(to_child[1]);
      }
      run();
      _exit(0);
    }
    close(from_child[1]);
    if (to_child[0] >= 0) {
      close(to_child[0]);
    }
    output_ = from_child[0];
    input_ = to_child[1];
  }

  ~TestChild() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    EndInput();
    CloseOutput();
    if (typist_.joinable()) {
      typist_.join();
    }
  }

  TestChild(const TestChild&) = delete;
  TestChild& operator=(const TestChild&) = delete;

  void Type(const std::string& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              write(input_, bytes.data(), bytes.size()));
  }

  /// Types more than a pipe holds, then ends the input; needs `ReadToEnd`.
  void TypeInBackground(std::string bytes) {
    const int input = std::exchange(input_, -1);
    typist_ = std::thread([input, bytes = std::move(bytes)] {
      std::size_t done = 0;
      while (done < bytes.size()) {
        const ssize_t n =
            write(input, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
          break;
        }
        done += static_cast<std::size_t>(n);
      }
      close(input);
    });
  }

  void EndInput() { Close(&input_); }
  void CloseOutput() { Close(&output_); }
  void Signal(int number) { kill(child_, number); }

  /// What the child wrote until `wanted` was there, it closed its output, or
  /// `seconds` went by.
  std::string ReadUntil(const std::string& wanted, double seconds = 10) {
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration<double>(seconds);
    std::string output;
    while (wanted.empty() || output.find(wanted) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      pollfd ready = {output_, POLLIN, 0};
      if (left.count() <= 0 ||
          poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
        break;
      }
      char bytes[65536];
      const ssize_t n = read(output_, bytes, sizeof bytes);
      if (n <= 0) {
        break;
      }
      output.append(bytes, static_cast<std::size_t>(n));
    }
    return output;
  }

  std::string ReadFor(double seconds) { return ReadUntil("", seconds); }
  std::string ReadToEnd() { return ReadUntil("", 60); }

  /// Waits for the child's end: its exit status, or the negated number of the
  /// signal that killed it.
  int Wait() {
    int status = 0;
    const pid_t child = std::exchange(child_, -1);
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  static void Close(int* fd) {
    if (*fd >= 0) {
      close(std::exchange(*fd, -1));
    }
  }

  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::thread typist_;
};
