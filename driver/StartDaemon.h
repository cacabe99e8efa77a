#pragma once

/// Starts the server, or tells a running one to take up its new configuration.
/// False when the administrator does not want to start it with problems open,
/// or when no process can be made.
bool StartDaemon();
