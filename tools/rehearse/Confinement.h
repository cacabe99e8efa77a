#pragma once

#include "tools/rehearse/Problem.h"

/// What a rehearsal leaves a program of root's rights.
enum class Rights {
  kUsual,       // nothing that reaches beyond the name spaces
  kPrivileged,  // that, but mounts and the like in the name spaces
  kOnThisHost   // nothing that reaches other processes or the network, either
};

/// In the process that becomes the program: takes root's other rights away for
/// good; false with errno when that fails.
[[nodiscard]] bool DropRights(Rights rights);

/// In the process that becomes the program, while it may still mount: keeps it
/// from looking through /proc at the files, memory and environment of processes
/// that are not its own (landlock(7)).  Where the kernel can't do that, root's
/// processes are out of reach all the same, for want of rights.
[[nodiscard]] Problem HideOtherProcesses();

/// In the process that becomes the program: no descriptor but the first three
/// survives, none of these is a directory of the host, and a crash leaves no
/// image with the host's own handler.
[[nodiscard]] Problem CloseWaysOut();
