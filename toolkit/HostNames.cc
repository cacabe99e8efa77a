#include "toolkit/HostNames.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

namespace {

constexpr std::size_t kMaxDomain = 253;
constexpr std::size_t kMaxLabel = 63;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetterDigitHyphen(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         c == '-';
}

bool AllDigits(std::string_view text) {
  for (const char c : text) {
    if (!IsDigit(c)) {
      return false;
    }
  }
  return true;
}

bool IsOctet(std::string_view text) {
  if (text.empty() || text.size() > 3 || !AllDigits(text)) {
    return false;
  }
  int value = 0;
  for (const char c : text) {
    value = value * 10 + (c - '0');
  }
  return value <= 255;
}

bool IsDottedQuad(std::string_view text) {
  for (int i = 0; i < 3; ++i) {
    const std::size_t dot = text.find('.');
    if (dot == std::string_view::npos || !IsOctet(text.substr(0, dot))) {
      return false;
    }
    text.remove_prefix(dot + 1);
  }
  return IsOctet(text);
}

bool IsLabel(std::string_view text) {
  if (text.empty() || text.size() > kMaxLabel || text.front() == '-' ||
      text.back() == '-') {
    return false;
  }
  for (const char c : text) {
    if (!IsLetterDigitHyphen(c)) {
      return false;
    }
  }
  return true;
}

SStringList AddressesOf(const SString& name) {
  SStringList addresses;
  const hostent* host = gethostbyname(name);
  if (host == nullptr || host->h_addrtype != AF_INET) {
    return addresses;
  }
  for (char** address = host->h_addr_list; *address != nullptr; ++address) {
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, *address, text, sizeof text) != nullptr) {
      addresses.Push(text);
    }
  }
  return addresses;
}

}  // namespace

SStringList GetHostByName(const SString& name) {
  SStringList addresses = AddressesOf(name);
  if (addresses.IsEmpty() && name.View().ends_with('.')) {
    SString without_dot = name;
    without_dot.Chop();
    addresses = AddressesOf(without_dot);
  }
  return addresses;
}

// By value, as callers know it.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
SStringList GetHostByAddr(SString address) {
  SStringList names;
  in_addr binary = {};
  if (!IsDottedQuad(address.View()) ||
      inet_pton(AF_INET, address, &binary) != 1) {
    return names;
  }
  const hostent* host = gethostbyaddr(&binary, sizeof binary, AF_INET);
  if (host == nullptr) {
    return names;
  }
  names.Push(host->h_name);
  for (char** alias = host->h_aliases; *alias != nullptr; ++alias) {
    names.Push(*alias);
  }
  return names;
}

bool IsValidDomain(const SString& domain) {
  std::string_view rest = domain.View();
  if (rest.starts_with('[') && rest.ends_with(']')) {
    return IsDottedQuad(rest.substr(1, rest.size() - 2));
  }
  if (rest.size() > kMaxDomain) {
    return false;
  }
  while (true) {
    const std::size_t dot = rest.find('.');
    if (!IsLabel(rest.substr(0, dot))) {
      return false;
    }
    if (dot == std::string_view::npos) {
      return !AllDigits(rest);
    }
    rest.remove_prefix(dot + 1);
  }
}
