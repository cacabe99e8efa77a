#include "toolkit/database/Section.h"

#include <algorithm>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"

using namespace database_format;

namespace {

// Room for the keys of most accounts.
constexpr std::size_t kUsualSize = 400;

std::size_t SizeOfText(std::string_view text) {
  return SizeOfNumber(text.size()) + text.size();
}

char* PutText(char* at, std::string_view text) {
  at = PutNumber(at, text.size());
  return std::copy(text.begin(), text.end(), at);
}

std::size_t SizeOfKey(std::string_view name, const SStringList& values) {
  std::size_t size = SizeOfText(name) +
                     SizeOfNumber(static_cast<std::uint64_t>(values.Count()));
  for (const SString& value : values) {
    size += SizeOfText(value.View());
  }
  return size;
}

void PutKey(char* at, std::string_view name, const SStringList& values) {
  at = PutText(at, name);
  at = PutNumber(at, static_cast<std::uint64_t>(values.Count()));
  for (const SString& value : values) {
    at = PutText(at, value.View());
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
  if (cursor.FindKey(name)) {
    values.SetDefined();
    std::string_view text;
    while (cursor.NextValue(&text)) {
      values.Push(SString(text));
    }
  }
  return values;
}

bool SSection::IsBehindAll(std::string_view name) const {
  std::string_view rest = std::string_view(keys_).substr(last_key_);
  std::string_view last;
  return key_count_ == 0 ||
         (TakeText(&rest, &last) && CompareKeys(last, name) < 0);
}

void SSection::Set(const SString& name, const SStringList& values) {
  if (IsBehindAll(name.View())) {
    Append(name, values);
    return;
  }
  SSectionCursor cursor(keys_, key_count_);
  std::size_t begin = 0;
  std::size_t end = 0;
  std::string_view text;
  for (int order = -1; order < 0 && cursor.NextKey(&text);) {
    order = CompareKeys(text, name.View());
    if (order <= 0) {
      cursor.SkipValues();
      end = keys_.size() - cursor.Rest().size();
      begin = order < 0 ? end : begin;
    }
  }
  const std::size_t size = SizeOfKey(name.View(), values);
  key_count_ += begin == end ? 1 : 0;
  last_key_ += end <= last_key_ ? size - (end - begin) : 0;
  keys_.replace(begin, end - begin, size, '\0');
  PutKey(keys_.data() + begin, name.View(), values);
}

void SSection::Append(const SString& name, const SStringList& values) {
  last_key_ = keys_.size();
  keys_.reserve(kUsualSize);
  keys_.resize(last_key_ + SizeOfKey(name.View(), values));
  PutKey(keys_.data() + last_key_, name.View(), values);
  ++key_count_;
}

bool SSection::Decode(std::string_view body) {
  SSectionCursor cursor(body);
  const std::string_view keys = cursor.Rest();
  path_ = SString(cursor.Path());
  key_count_ = cursor.KeysLeft();
  last_key_ = 0;
  std::string_view former;
  std::string_view name;
  for (std::size_t at = 0; cursor.NextKey(&name);
       at = keys.size() - cursor.Rest().size()) {
    last_key_ = at;
    if (cursor.KeysLeft() + 1 < key_count_ && CompareKeys(name, former) <= 0) {
      *this = SSection();
      return false;
    }
    former = name;
    cursor.SkipValues();
  }
  keys_ = keys.substr(0, keys.size() - cursor.Rest().size());
  return cursor.AtEnd();
}

void SSection::AppendBody(std::string* out) const {
  const std::size_t begin = out->size();
  out->resize(begin + SizeOfText(path_.View()) + SizeOfNumber(key_count_));
  PutNumber(PutText(out->data() + begin, path_.View()), key_count_);
  out->append(keys_);
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
