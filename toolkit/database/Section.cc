#include "toolkit/database/Section.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"

using namespace database_format;

namespace {

bool ComesBefore(const SSection::Key& key, std::string_view name) {
  return key.name.View() < name;
}

void AppendText(std::string_view text, std::string* out) {
  AppendNumber(text.size(), out);
  out->append(text);
}

std::size_t BeginRecord(RecordType type, std::uint32_t id,
                        std::uint32_t previous, std::string* out) {
  const std::size_t start = out->size();
  out->resize(start + kRecordBody);
  Put32(out->data() + start + kRecordPrevious, previous);
  Put32(out->data() + start + kRecordType, static_cast<std::uint32_t>(type));
  Put32(out->data() + start + kRecordId, id);
  return start;
}

}  // namespace

SStringList SSection::Get(std::string_view name) const {
  const auto found =
      std::lower_bound(keys.begin(), keys.end(), name, ComesBefore);
  return found != keys.end() && found->name.View() == name ? found->values
                                                           : SStringList();
}

void SSection::Set(const SString& name, const SStringList& values) {
  auto found =
      std::lower_bound(keys.begin(), keys.end(), name.View(), ComesBefore);
  if (found == keys.end() || !(found->name == name)) {
    found = keys.insert(found, Key{name, {}});
  }
  found->values = values;
  found->values.SetDefined();
}

SSectionCursor::SSectionCursor(std::string_view body) : rest_(body) {
  sound_ = TakeText(&rest_, &path_) && TakeNumber(&rest_, &keys_left_);
}

bool SSectionCursor::NextKey(std::string_view* name) {
  std::string_view passed;
  while (NextValue(&passed)) {
  }
  if (!sound_ || keys_left_ == 0) {
    return false;
  }
  --keys_left_;
  sound_ = TakeText(&rest_, name) && TakeNumber(&rest_, &values_left_);
  return sound_;
}

bool SSectionCursor::NextValue(std::string_view* value) {
  if (!sound_ || values_left_ == 0) {
    return false;
  }
  --values_left_;
  sound_ = TakeText(&rest_, value);
  return sound_;
}

bool SSectionCursor::AtEnd() const {
  return sound_ && keys_left_ == 0 && values_left_ == 0 &&
         rest_.size() < kRecordAlignment &&
         std::all_of(rest_.begin(), rest_.end(),
                     [](char byte) { return byte == '\0'; });
}

bool DecodeSection(std::string_view body, SSection* section) {
  SSectionCursor cursor(body);
  section->path = SString(cursor.Path());
  section->keys.clear();
  std::string_view text;
  while (cursor.NextKey(&text)) {
    SSection::Key& key = section->keys.emplace_back();
    key.name = SString(text);
    key.values.SetDefined();
    while (cursor.NextValue(&text)) {
      key.values.Push(SString(text));
    }
  }
  const auto out_of_order = [](const SSection::Key& a, const SSection::Key& b) {
    return !(a.name < b.name);
  };
  return cursor.AtEnd() &&
         std::adjacent_find(section->keys.begin(), section->keys.end(),
                            out_of_order) == section->keys.end();
}

void AppendSectionRecord(std::uint32_t id, const SSection& section,
                         std::uint32_t previous, std::string* out) {
  const std::size_t start =
      BeginRecord(RecordType::kSection, id, previous, out);
  AppendText(section.path.View(), out);
  AppendNumber(section.keys.size(), out);
  for (const SSection::Key& key : section.keys) {
    AppendText(key.name.View(), out);
    AppendNumber(static_cast<std::uint64_t>(key.values.Count()), out);
    for (const SString& value : key.values) {
      AppendText(value.View(), out);
    }
  }
  FinishRecord(start, out);
}

void AppendBareRecord(RecordType type, std::uint32_t id, std::uint32_t previous,
                      std::string* out) {
  FinishRecord(BeginRecord(type, id, previous, out), out);
}

void FinishRecord(std::size_t start, std::string* out, std::size_t checked,
                  std::uint64_t more) {
  while ((out->size() - start) % kRecordAlignment != 0) {
    out->push_back('\0');
  }
  char* record = out->data() + start;
  const std::size_t size = out->size() - start;
  Put32(record + kRecordSize, static_cast<std::uint32_t>(size + more));
  const std::string_view covered(record + kRecordSize,
                                 (checked == 0 ? size : checked) - kRecordSize);
  Put32(record + kRecordChecksum, Crc32c(covered));
}
