// The names that accounts and their mailboxes get.

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "toolkit/Environment.h"
#include "toolkit/database/AccountState.h"
#include "toolkit/database/Hash.h"
#include "toolkit/database/SAccountDB.h"

namespace {

constexpr std::size_t kLongestBase = 40;

bool MayStandInUID(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         (c >= '0' && c <= '9') || static_cast<unsigned char>(c) >= 0x80;
}

bool ContinuesCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

std::string BaseOf(std::string_view full_name) {
  std::string base;
  for (const char c : full_name) {
    if (MayStandInUID(c)) {
      base.push_back(c);
    } else if (!base.empty() && base.back() != '-') {
      base.push_back('-');
    }
  }
  if (base.size() > kLongestBase) {
    std::size_t length = kLongestBase;
    while (length > 0 && ContinuesCharacter(base[length])) {
      --length;
    }
    base.resize(length);
  }
  while (!base.empty() && base.back() == '-') {
    base.pop_back();
  }
  return base.empty() ? "User" : base;
}

// The number of buckets; 0 when mailboxes aren't spread.
std::uint32_t BucketCount() {
  const SString text = GetEnv("MailboxBucketCount");
  if (!text.HasMatch("^\\d{1,9}$") || text.Count('\n') != 0) {
    return 0;
  }
  const long count = std::strtol(text, nullptr, 10);
  return count < 2 ? 0 : static_cast<std::uint32_t>(count);
}

std::uint32_t Fnv1a(std::string_view text) {
  std::uint32_t hash = 2166136261U;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  }
  return hash;
}

}  // namespace

bool IsPlainFileName(std::string_view uid) {
  if (uid.empty() || uid == "." || uid == "..") {
    return false;
  }
  bool is_plain = true;
  for (const char c : uid) {  // without an end halfway, many at once
    is_plain &= c != '/' && static_cast<unsigned char>(c) >= 0x20 && c != 0x7f;
  }
  return is_plain;
}

SString SAccountDB::GenerateUID(const SString& full_name) {
  State& state = *state_;
  const std::string base = BaseOf(full_name.View());
  state.Follow();
  if (state.suffix_removals != state.file.RemovalGeneration()) {
    state.next_suffix.clear();
    state.suffix_removals = state.file.RemovalGeneration();
  }
  // Suffixes below the remembered one were taken and still are.
  int& suffix = state.next_suffix[std::string(SLowerCaseText(base).View())];
  for (;; ++suffix) {
    SString uid{std::string_view(base)};
    if (suffix > 0) {
      uid = uid + "-" + SString(suffix + 1);
    }
    if (!IsUIDTaken(uid)) {
      return uid;
    }
  }
}

SString GenerateAccountUID(SAccountDB& database, const SString& full_name) {
  return database.GenerateUID(full_name);
}

SString GetMailboxSubpath(const SString& uid) {
  if (!IsPlainFileName(uid.View())) {
    return {};
  }
  const std::uint32_t buckets = BucketCount();
  if (buckets == 0) {
    return uid;
  }
  const std::uint32_t bucket =
      Fnv1a(SLowerCaseText(uid.View()).View()) % buckets;
  return SString(static_cast<int>(bucket)) + "/" + uid;
}
