#include "toolkit/database/Lists.h"

SStringList ValuesOf(const SStore::Section& section, const SString& key) {
  SStringList list;
  const auto found = section.keys.find(key.View());
  if (found != section.keys.end()) {
    for (const std::string& value : found->second) {
      list.Push(SString(std::string_view(value)));
    }
    list.SetDefined();
  }
  return list;
}

SStore::Values PlainValues(const SStringList& list) {
  SStore::Values values;
  for (const SString& value : list) {
    values.push_back(value.Std());
  }
  return values;
}
