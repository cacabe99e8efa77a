#pragma once

// Host paths that are the same on every host and named by no setting.

/// Runs the commands below.
constexpr const char* kShell = "/bin/sh";

/// Lists sockets ("-an") and processes ("-e") where the system has them.
constexpr const char* kNetstat = "/usr/etc/netstat";
constexpr const char* kPs = "/usr/bin/ps";

/// What Linux has in their place: see proc(5).
constexpr const char* kProc = "/proc";
constexpr const char* kProcTcp4 = "/proc/net/tcp";
constexpr const char* kProcTcp6 = "/proc/net/tcp6";
