#include "toolkit/database/TextForm.h"

#include <cerrno>
#include <map>
#include <set>

namespace {

constexpr const char* kHexDigits = "0123456789abcdef";

int HexValue(char c) {
  const std::size_t value = std::string_view(kHexDigits).find(c);
  return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

void AppendHex(unsigned char byte, std::string* out) {
  *out += "\\x";
  *out += kHexDigits[byte >> 4];
  *out += kHexDigits[byte & 15];
}

bool Unescape(std::string_view text, std::string* out) {
  out->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      *out += text[i];
      continue;
    }
    const char kind = ++i < text.size() ? text[i] : '\0';
    if (kind == '\\') {
      *out += '\\';
    } else if (kind == 't') {
      *out += '\t';
    } else if (kind == 'n') {
      *out += '\n';
    } else if (kind == 'r') {
      *out += '\r';
    } else if (kind == 'x' && i + 2 < text.size() &&
               HexValue(text[i + 1]) >= 0 && HexValue(text[i + 2]) >= 0) {
      *out +=
          static_cast<char>(HexValue(text[i + 1]) << 4 | HexValue(text[i + 2]));
      i += 2;
    } else {
      return false;
    }
  }
  return true;
}

// Reads the text form line by line.
class TextReader {
 public:
  explicit TextReader(std::vector<SSection>* sections) : sections_(sections) {}

  // Null when the line is good, else what is wrong with it.
  const char* TakeLine(std::string_view line) {
    if (line.empty() || line[0] == '#') {
      return nullptr;
    }
    std::string text;
    const bool is_value = line[0] == '\t';
    if (!Unescape(line.substr(is_value ? 1 : 0), &text)) {
      return "unknown escape";
    }
    if (is_value) {
      return TakeValue(text);
    }
    return line[0] == '/' ? TakeSection(text) : TakeKey(text);
  }

  // To be called after the last line.
  void Finish() {
    if (section_.Path().IsEmpty()) {
      return;
    }
    for (const auto& [name, values] : keys_) {
      section_.Append(SString(std::string_view(name)), values);
    }
    sections_->push_back(std::move(section_));
    section_ = SSection();
    keys_.clear();
  }

 private:
  const char* TakeSection(const std::string& path) {
    Finish();
    if (!paths_.insert(path).second) {
      return "section given twice";
    }
    section_ = SSection(SString(std::string_view(path)));
    values_ = nullptr;
    return nullptr;
  }
  const char* TakeKey(const std::string& key) {
    if (section_.Path().IsEmpty()) {
      return "key outside of a section";
    }
    const auto [place, is_new] = keys_.try_emplace(key);
    if (!is_new) {
      return "key given twice";
    }
    values_ = &place->second;
    return nullptr;
  }
  const char* TakeValue(const std::string& value) {
    if (values_ == nullptr) {
      return "value without a key";
    }
    values_->Push(SString(std::string_view(value)));
    return nullptr;
  }

  std::vector<SSection>* sections_;
  std::set<std::string> paths_;
  SSection section_;
  std::map<std::string, SStringList> keys_;
  SStringList* values_ = nullptr;
};

}  // namespace

std::string EscapeText(std::string_view text, bool is_key) {
  std::string escaped;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      escaped += "\\\\";
    } else if (c == '\t') {
      escaped += "\\t";
    } else if (c == '\n') {
      escaped += "\\n";
    } else if (c == '\r') {
      escaped += "\\r";
    } else if (byte < 0x20 || byte == 0x7f ||
               (is_key && i == 0 && (c == '/' || c == '#'))) {
      AppendHex(byte, &escaped);
    } else {
      escaped += c;
    }
  }
  return escaped;
}

bool DatabaseAsText(SDatabaseFile* file, std::string* text) {
  std::map<std::string, std::uint32_t> in_order;
  for (std::uint32_t id = 0; id < file->Sections(); ++id) {
    std::string_view body;
    if (file->ReadBody(id, &body)) {
      in_order.emplace(SSectionCursor(body).Path(), id);
    } else if (errno != ENOENT) {
      return false;
    }
  }
  for (const auto& [path, id] : in_order) {
    std::string_view body;
    if (!file->ReadBody(id, &body)) {
      return false;
    }
    *text += EscapeText(path, false) + "\n";
    SSectionCursor cursor(body);
    std::string_view key;
    while (cursor.NextKey(&key)) {
      *text += EscapeText(key, true) + "\n";
      std::string_view value;
      while (cursor.NextValue(&value)) {
        text->push_back('\t');
        *text += EscapeText(value, false) + "\n";
      }
    }
    if (!cursor.AtEnd()) {
      errno = EBADMSG;
      return false;
    }
  }
  return true;
}

bool DatabaseFromText(std::string_view text, std::vector<SSection>* sections,
                      std::string* problem) {
  TextReader reader(sections);
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    const char* wrong = reader.TakeLine(text.substr(0, end));
    if (wrong != nullptr) {
      *problem = "line " + std::to_string(number) + ": " + wrong;
      return false;
    }
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  reader.Finish();
  return true;
}
