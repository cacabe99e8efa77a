#pragma once

#include "accounts/UserImport.h"
#include "toolkit/database/SAccountDB.h"

/// Creates the accounts of all candidates, with everything that belongs to it,
/// a line on the console each.  An interrupt is put off to the next candidate.
void CreateUserAccounts(SAccountDBMod* database, SUserImport* import);
