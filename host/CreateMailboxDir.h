#pragma once

/// Makes sure that the server's mailbox directory exists.  When it can't be
/// made, the administrator's answer to whether to go on.
bool CreateMailboxDir();
