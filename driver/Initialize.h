#pragma once

/// Fills the paths of host files and the list of services.  Always true.
bool Initialize();
