#pragma once

/// Offers to set the setgid bit of the system maildrop directory.  False when
/// there is no such directory, when its mode can't be read, and for "quit".
bool FixMaildropDir();
