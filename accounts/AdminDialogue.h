#pragma once

#include "toolkit/database/SAccountDB.h"

/// How mail for the Postmaster leaves: to accounts and over channels.
struct PostmasterDeliveries {
  SStringList accounts;
  SStringList channels;
};

/// The addresses that the deliveries stand for, as they are shown.
[[nodiscard]] SStringList PostmasterAddresses(
    const SAccountDB& database, const PostmasterDeliveries& deliveries);

/// Asks for the password and stores it, if it can be; the password.
[[nodiscard]] SString AskPassword(SAccountMod* postmaster);
/// Asks for the hosts and domains, until all are understood, and stores them, if
/// they can be; the list.
[[nodiscard]] SStringList AskAccessDomains(SAccountMod* postmaster,
                                           SStringList current);
/// Asks for the people and says which can't be used.
[[nodiscard]] PostmasterDeliveries AskPostmasters(const SAccountDB& database,
                                                  const SStringList& current);
