#pragma once

#include <sys/types.h>

#include <vector>

#include "toolkit/SStringList.h"

/// A login that is to get an account.
struct SCandidate {
  SString name;  // full name
  SString login;
  SString password;  // carried over or made up
  SString project;   // paths in the home directory
  SString plan;
  SString forward;
};

/// What the steps of the user import know of each other.
struct SUserImport {
  bool full_install = false;
  bool accounts_exist = false;
  gid_t mail_group = 0;

  // Found in the password database, in its order.
  std::vector<SCandidate> candidates;
  SStringList skipped_names;
  SStringList skipped_logins;

  // Chosen for all new accounts together.
  SStringList domains;
  bool pop_logins = false;
  bool unix_logins = true;
  SString delivery = "UNIX";
  bool convert_mailboxes = false;

  // What came out.
  SStringList created;        // "full name (login)"
  SStringList failed;         // the same
  SStringList forward_users;  // first address of users with a ".forward" file
  SStringList new_accounts;   // "UID password", for the greeting
  bool interrupted = false;
};
