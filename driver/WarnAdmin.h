#pragma once

#include "toolkit/SStringList.h"

/// Prints the reminders, or how to administer the server when there are none.
/// Always true.
bool WarnAdmin();

/// The reminders as they are shown: one a line, indented by four blanks.
[[nodiscard]] SString ReminderLines(const SStringList& reminders);
