#pragma once

#include "toolkit/database/SAccountDB.h"

/// What was found or made of the Postmaster account.
enum class PostmasterState { kExisting, kNew, kFailed };

/// Opens the Postmaster account, or creates it with root as the first
/// Postmaster, and says so.  After `kFailed` everything was told.
[[nodiscard]] PostmasterState OpenPostmaster(SAccountDBMod* database,
                                             SAccountMod* postmaster);
