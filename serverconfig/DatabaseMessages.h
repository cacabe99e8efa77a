#pragma once

#include "toolkit/SString.h"

// What several tasks say when a database can't be opened or written.

extern const char* const pz_ContactVendor;
extern const char* const pz_InstallationAborted;

/// The directory of the databases as messages name it.
[[nodiscard]] SString ConfigDirectory();
/// Who must own the databases, and with which modes.
[[nodiscard]] SString DatabaseOwnership();
/// The paragraphs of a configuration database that can't be opened.
void PrintConfigurationTrouble();
