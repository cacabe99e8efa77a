#pragma once

#include <cstdint>
#include <vector>

struct sock_filter;

/// Puts together the filter program that picks system calls (seccomp(2)).
/// Every call that no rule takes goes on.
class CallFilter {
 public:
  /// Calls of another architecture, as of 32-bit programs, go on or fail.
  enum class Foreign { kGoOn, kFail };

  explicit CallFilter(Foreign foreign);

  /// The call is announced.
  void Announce(int number);
  /// The call is announced if the argument is this (its lower 32 bits count).
  void AnnounceIf(int number, unsigned argument, std::uint32_t value);
  /// The call is announced unless the argument is 0 (all 64 bits count).
  void AnnounceUnlessZero(int number, unsigned argument);
  /// The call is announced if the argument has one of these bits.
  void AnnounceIfAny(int number, unsigned argument, std::uint32_t bits);
  /// The call fails with this errno.
  void Fail(int number, int error);

  [[nodiscard]] std::vector<sock_filter> Finish() const;

 private:
  void AddRule(int number, const std::vector<sock_filter>& body);

  std::vector<sock_filter> filter_;
};
