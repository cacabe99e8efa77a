#pragma once

#include "toolkit/SStringList.h"

// The process table and the listening sockets as Linux shows them in /proc
// (proc(5)).  Readers print nothing; an empty list means that nothing is there.

/// The lines that "ps -e" would print of the running processes, without its
/// heading, by ascending id.
[[nodiscard]] SStringList ProcProcessLines();
/// The line of one process, made of its /proc/ID/stat: id, terminal, time and
/// name, a dead one marked "<defunct>".  Bytes of the name that are no
/// printable ASCII become "?".  "" when `stat` is not of that form.
[[nodiscard]] SString ProcessLine(const SString& stat);

/// Ports, in decimal, of the TCP sockets that listen on IPv4, then on IPv6.
[[nodiscard]] SStringList ProcListeningPorts();
/// The ports of the listening sockets among the lines of /proc/net/tcp or
/// /proc/net/tcp6.
[[nodiscard]] SStringList ListeningPorts(const SStringList& sockets);
