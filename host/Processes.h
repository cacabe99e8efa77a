#pragma once

#include "toolkit/SStringList.h"

// Looking at the running host and signalling its processes.  None of these
// functions prints; an empty list means that nothing was found.

/// Runs the command through the shell with its input from /dev/null and returns
/// its standard output, a line an element with its line end; a line of more
/// than 511 bytes comes in several elements.
[[nodiscard]] SStringList ReadCommand(const SString& command);

/// The sendmail queue listing: "/usr/lib/sendmail -bp".
[[nodiscard]] SStringList ReadMailq();

/// Ports, in decimal, of the TCP sockets that listen: from
/// "/usr/etc/netstat -an", or where that can't be executed from /proc/net.
/// Duplicates stay.
[[nodiscard]] SStringList BoundSockets();

/// One line per process, its id, a blank and its name: from
/// "/usr/bin/ps -e", or where that can't be executed from /proc.
[[nodiscard]] SStringList ReadProcessInfo();

/// Sends the signal, as root, to the processes of these lines, each beginning
/// with an id as those of `ReadProcessInfo` do; ids of 10 and below and this
/// process are never signalled.  1 if at least one was signalled, else 0.
int SignalProcesses(const SStringList& processes, int signal);

/// The same for every process called `name`, compared with what the process
/// table keeps of it: the first 8 bytes, or the first 15.  Pattern characters
/// in `name` keep their meaning.  A name without a word character is none.
int KillProgram(const SString& name, int signal);
