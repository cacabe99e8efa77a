#pragma once

/// Asks the server to compute the sizes of all mailboxes.  False when the
/// request can't be written; callers by design go on.
bool ComputeSizes();

/// Asks the server to mail the form for new accounts, as `ComputeSizes`.
bool SendNewAccountForm();
