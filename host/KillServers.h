#pragma once

/// Finds the server's ports that other programs hold and offers to end these.
/// Always true.
bool KillServers();
