#pragma once

/// Makes the server's special accounts exist.
bool SetupSpecialAccounts();
