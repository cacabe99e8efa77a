#pragma once

#include "toolkit/SStringList.h"
#include "toolkit/database/Store.h"

/// The values of a key as tasks know them; undefined when there is no such key.
[[nodiscard]] SStringList ValuesOf(const SStore::Section& section,
                                   const SString& key);
/// The values of a list as a database stores them.
[[nodiscard]] SStore::Values PlainValues(const SStringList& list);
