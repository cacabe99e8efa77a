#pragma once

#include "toolkit/SStringList.h"

/// The IPv4 addresses of the name in dotted decimal, the first one first
/// (gethostbyname); a name that does not resolve is tried once more without a
/// trailing ".".  Empty when nothing is found.
[[nodiscard]] SStringList GetHostByName(const SString& name);

/// The names of a dotted IPv4 address, the official one first, then its
/// aliases (gethostbyaddr).  Empty when the text is no dotted quad of decimal
/// numbers or the address has no name.
[[nodiscard]] SStringList GetHostByAddr(SString address);

/// True when the text is acceptable as a mail domain: 1 to 253 bytes, labels of
/// 1 to 63 letters, digits and hyphens that neither begin nor end in a hyphen,
/// joined by single dots, the last label not all digits (RFC 1123 section 2.1);
/// or a domain literal "[a.b.c.d]" with octets 0 to 255 (RFC 822 section 6.2.3).
[[nodiscard]] bool IsValidDomain(const SString& domain);
