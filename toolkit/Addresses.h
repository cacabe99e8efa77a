#pragma once

#include "toolkit/SStringList.h"

/// One mail address as used in a mail transaction (RFC 821 section 4.1.2):
/// local part, optional domain, optional source route.
class S821Address {
 public:
  S821Address() = default;
  /// Parses an address without phrase or comments, with or without angle
  /// brackets, with or without a domain.  What does not parse is the empty
  /// address, whose text is "<>".
  explicit S821Address(const SString& text);

  /// True for the empty address.
  [[nodiscard]] bool IsNull() const { return local_part_.IsEmpty(); }
  /// As typed; quotes kept.
  [[nodiscard]] const SString& LocalPart() const { return local_part_; }
  /// As typed; "" when there is none.
  [[nodiscard]] const SString& Domain() const { return domain_; }
  void SetDomain(const SString& domain) { domain_ = domain; }
  /// "@a,@b" of "<@a,@b:local@domain>"; "" when there is none.
  [[nodiscard]] const SString& Route() const { return route_; }
  /// "local@domain", or "<@route:local@domain>" when there is a route, "<>" for
  /// the empty address.
  [[nodiscard]] SString Text() const;

 private:
  SString local_part_;
  SString domain_;
  SString route_;
};

/// A list of addresses as people type it and headers hold it (RFC 822 section
/// 6.1), separated by commas outside of quotes, comments and brackets; "phrase
/// <address>", comments, groups and empty elements are understood.
class S822Parser {
 public:
  explicit S822Parser(const SString& text);
  /// The bare addresses in order, each as `S821Address::Text`; an element that
  /// does not parse as "<>".
  [[nodiscard]] const SStringList& Addresses() const { return addresses_; }

 protected:
  SStringList addresses_;
};

/// Reads an address or, in list mode, a list of addresses.
class S821Parser : public S822Parser {
 public:
  explicit S821Parser(const SString& text, bool list_mode = true);
};
