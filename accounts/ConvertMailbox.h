#pragma once

#include "toolkit/SString.h"

/// Moves the mail of a spool mailbox into the POP mailbox of an account, one
/// file per message.  True when that is done or there is nothing to convert;
/// after false everything was told and the spool file is as it was.
[[nodiscard]] bool ConvertMailbox(const SString& spool, const SString& uid);

/// For an account that was there before: does over, or ends, a conversion of
/// this spool file that a killed process had begun.  True, and nothing is
/// printed, when there was none or it is done now; else as `ConvertMailbox`.
[[nodiscard]] bool ResumeConversion(const SString& spool, const SString& uid);
