#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// An account as the user import makes it, and always the same for a number.
struct SampleAccount {
  using Field = std::pair<std::string, std::vector<std::string>>;

  std::string uid;
  std::vector<std::string> addresses;
  std::vector<Field> fields;  // eight, the addresses among them
};

[[nodiscard]] SampleAccount MakeAccount(std::size_t number);
/// The first address of the account of that number.
[[nodiscard]] std::string AddressOf(std::size_t number);
/// An address of the same kind that no account has.
[[nodiscard]] std::string FreeAddress(std::size_t number);
/// `count` numbers below `limit` in an order that looks random.
[[nodiscard]] std::vector<std::size_t> ShuffledNumbers(std::size_t count,
                                                       std::size_t limit);
