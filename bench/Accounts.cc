#include "bench/Accounts.h"

#include <random>
#include <string_view>

namespace {

constexpr unsigned kSeed = 19970301;

constexpr const char* kGivenNames[] = {"Ann",  "Bob",   "Carla", "David",
                                       "Emma", "Frank", "Grace", "Henry",
                                       "Ida",  "John",  "Karen", "Leo"};
constexpr const char* kFamilyNames[] = {
    "Smith", "Miller", "Brown", "Wilson",  "Taylor", "Anderson",
    "Moore", "Martin", "Clark", "Johnson", "Walker", "Young"};

template <std::size_t n>
std::string Pick(const char* const (&names)[n], std::minstd_rand* random) {
  return names[(*random)() % n];
}

// Letters that stand for the number: unlike digits they make logins of
// different beginnings, as people have them.
std::string Letters(std::size_t number) {
  std::string letters;
  for (int i = 0; i < 5; ++i) {
    letters += static_cast<char>('a' + number % 26);
    number /= 26;
  }
  return letters;
}

std::string Text(std::size_t size, std::minstd_rand* random) {
  constexpr std::string_view kCharacters =
      "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kCharacters[(*random)() / 64 % kCharacters.size()];
  }
  return text;
}

}  // namespace

SampleAccount MakeAccount(std::size_t number) {
  std::minstd_rand random(static_cast<unsigned>(kSeed + number));
  const std::string given = Pick(kGivenNames, &random);
  const std::string family = Pick(kFamilyNames, &random);
  const std::string login = Letters(number);
  SampleAccount account;
  account.uid = given + "-" + family + "-" + std::to_string(number);
  account.addresses = {AddressOf(number), login + "@mail.example.com"};
  account.fields = {{"Name", {given + " " + family}},
                    {"Raw-Password", {Text(34, &random) + "UNIX-PASSWORD"}},
                    {"Local-Delivery", {"UNIX"}},
                    {"SMTP-Address", account.addresses},
                    {"SMTP-RewriteStyle", {"comment"}},
                    {"Finger-Info", {"Room " + std::to_string(number % 900)}},
                    {"UNIX-UserName", {login}},
                    {"POP-Address", {login}}};
  return account;
}

std::string AddressOf(std::size_t number) {
  return Letters(number) + "@example.com";
}

std::string FreeAddress(std::size_t number) {
  return Letters(number) + "@example.org";
}

std::vector<std::size_t> ShuffledNumbers(std::size_t count, std::size_t limit) {
  std::mt19937_64 random(kSeed);
  std::vector<std::size_t> numbers(count);
  for (std::size_t& number : numbers) {
    number = random() % limit;
  }
  return numbers;
}
