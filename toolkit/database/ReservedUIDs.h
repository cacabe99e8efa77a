#pragma once

/// UIDs that no user's account may get, whether their accounts exist or not.
constexpr const char* kReservedUIDs[] = {"Postmaster",    "Root",  "Accounts",
                                         "Configuration", "Lists", "Help",
                                         "Mailer-Daemon", "Nobody"};
