#pragma once

#include "accounts/UserImport.h"

/// Asks, once for all new accounts, for mail domains, login names, delivery and
/// conversion.  False when the administrator quits at the host-name question.
[[nodiscard]] bool AskImportOptions(SUserImport* import);
