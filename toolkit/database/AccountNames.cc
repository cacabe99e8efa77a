// Names of accounts: UIDs made of full names, paths of mailboxes.

#include <cstdlib>

#include "toolkit/Environment.h"
#include "toolkit/database/SAccountDB.h"

namespace {

constexpr std::size_t kLongestUID = 40;

// The FNV hash, 32 bits, variant 1a (Fowler, Noll, Vo).
constexpr std::uint32_t kFnvOffset = 2166136261U;
constexpr std::uint32_t kFnvPrime = 16777619U;

bool BelongsIntoUID(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || static_cast<unsigned char>(c) >= 0x80;
}

bool ContinuesCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

std::string MakeBase(std::string_view full_name) {
  std::string base;
  for (const char c : full_name) {
    if (BelongsIntoUID(c)) {
      base += c;
    } else if (!base.empty() && base.back() != '-') {
      base += '-';
    }
  }
  if (base.size() > kLongestUID) {
    std::size_t end = kLongestUID;
    while (end > 0 && ContinuesCharacter(base[end])) {
      --end;
    }
    base.resize(end);
  }
  while (!base.empty() && base.back() == '-') {
    base.pop_back();
  }
  return base.empty() ? "User" : base;
}

bool IsPlainFileName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") {
    return false;
  }
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '/' || byte < 0x20 || byte == 0x7f) {
      return false;
    }
  }
  return true;
}

}  // namespace

SString GenerateAccountUID(SAccountDB& database, const SString& full_name) {
  const SString base(MakeBase(full_name.View()));
  if (!database.IsUIDTaken(base)) {
    return base;
  }
  int suffix = std::max(database.NextSuffix(base), 2);
  SString uid = base + "-" + SString(suffix);
  while (database.IsUIDTaken(uid)) {
    ++suffix;
    uid = base + "-" + SString(suffix);
  }
  database.NextSuffix(base) = suffix;
  return uid;
}

SString GetMailboxSubpath(const SString& uid) {
  if (!IsPlainFileName(uid.View())) {
    return "";
  }
  const long count = strtol(GetEnv("MailboxBucketCount"), nullptr, 10);
  if (count < 2) {
    return uid;
  }
  SString lower_uid = uid;
  std::uint32_t hash = kFnvOffset;
  for (const char c : lower_uid.LowerCase().View()) {
    hash = (hash ^ static_cast<unsigned char>(c)) * kFnvPrime;
  }
  return SString(std::to_string(hash % static_cast<unsigned long>(count))) +
         "/" + uid;
}
