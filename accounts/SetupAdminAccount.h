#pragma once

/// Makes sure that the server has an administrator: the Postmaster account with
/// a password, the hosts it may be used from, and the people behind it.
bool SetupAdminAccount();
