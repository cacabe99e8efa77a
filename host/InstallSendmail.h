#pragma once

/// Replaces the system's sendmail by a link to the server's emulator.  False
/// when mail waits in the old one's queue and the administrator wants to
/// deliver it first, or quits.
bool InstallSendmail();
