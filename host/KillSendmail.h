#pragma once

/// Looks for a running sendmail daemon and offers to end it.  False when the
/// administrator quits.
bool KillSendmail();
