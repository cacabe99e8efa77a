#pragma once

/// Installs the module databases that an upgrade brought, with the settings
/// that must survive it.
bool UpdateConfiguration();
