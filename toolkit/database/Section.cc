#include "toolkit/database/Section.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"

using namespace database_format;

namespace {

void AppendText(std::string_view text, std::string* out) {
  AppendNumber(text.size(), out);
  out->append(text);
}

void AppendKey(std::string_view name, const SStringList& values,
               std::string* out) {
  AppendText(name, out);
  AppendNumber(static_cast<std::uint64_t>(values.Count()), out);
  for (const SString& value : values) {
    AppendText(value.View(), out);
  }
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
  SStringList values;
  SSectionCursor cursor(keys_, key_count_);
  std::string_view text;
  while (cursor.NextKey(&text) && text <= name) {
    if (text == name) {
      values.SetDefined();
      while (cursor.NextValue(&text)) {
        values.Push(SString(text));
      }
      break;
    }
  }
  return values;
}

void SSection::Set(const SString& name, const SStringList& values) {
  SSectionCursor cursor(keys_, key_count_);
  std::size_t begin = 0;
  std::size_t end = 0;
  std::string_view text;
  while (cursor.NextKey(&text) && text <= name.View()) {
    const bool is_former = text == name.View();
    cursor.SkipValues();
    end = keys_.size() - cursor.Rest().size();
    if (is_former) {
      break;
    }
    begin = end;
  }
  std::string key;
  AppendKey(name.View(), values, &key);
  key_count_ += begin == end ? 1 : 0;
  keys_.replace(begin, end - begin, key);
}

void SSection::Append(const SString& name, const SStringList& values) {
  AppendKey(name.View(), values, &keys_);
  ++key_count_;
}

bool SSection::Decode(std::string_view body) {
  SSectionCursor cursor(body);
  const std::string_view keys = cursor.Rest();
  path_ = SString(cursor.Path());
  key_count_ = cursor.KeysLeft();
  std::string_view former;
  std::string_view name;
  while (cursor.NextKey(&name)) {
    if (cursor.KeysLeft() + 1 < key_count_ && name <= former) {
      return false;
    }
    former = name;
    cursor.SkipValues();
  }
  keys_ = keys.substr(0, keys.size() - cursor.Rest().size());
  return cursor.AtEnd();
}

void SSection::AppendBody(std::string* out) const {
  AppendText(path_.View(), out);
  AppendNumber(key_count_, out);
  out->append(keys_);
}

SSectionCursor::SSectionCursor(std::string_view body) : rest_(body) {
  sound_ = TakeText(&rest_, &path_) && TakeNumber(&rest_, &keys_left_);
}

SSectionCursor::SSectionCursor(std::string_view keys, std::uint32_t key_count)
    : sound_(true), rest_(keys), keys_left_(key_count) {}

void SSectionCursor::SkipValues() {
  std::string_view passed;
  while (NextValue(&passed)) {
  }
}

bool SSectionCursor::NextKey(std::string_view* name) {
  SkipValues();
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

void AppendSectionRecord(std::uint32_t id, const SSection& section,
                         std::uint32_t previous, std::string* out) {
  const std::size_t start =
      BeginRecord(RecordType::kSection, id, previous, out);
  section.AppendBody(out);
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
