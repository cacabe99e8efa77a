#include "toolkit/database/TextForm.h"

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
  explicit TextReader(SStore::Sections* sections) : sections_(sections) {}

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
      return TakeValue(std::move(text));
    }
    return line[0] == '/' ? TakeSection(text) : TakeKey(text);
  }

 private:
  const char* TakeSection(const std::string& path) {
    const auto [place, is_new] = sections_->try_emplace(path);
    if (!is_new) {
      return "section given twice";
    }
    place->second.order = sections_->size();
    section_ = &place->second;
    values_ = nullptr;
    return nullptr;
  }
  const char* TakeKey(const std::string& key) {
    if (section_ == nullptr) {
      return "key outside of a section";
    }
    if (key.empty()) {
      return "empty key";
    }
    const auto [place, is_new] = section_->keys.try_emplace(key);
    if (!is_new) {
      return "key given twice";
    }
    values_ = &place->second;
    return nullptr;
  }
  const char* TakeValue(std::string value) {
    if (values_ == nullptr) {
      return "value without a key";
    }
    values_->push_back(std::move(value));
    return nullptr;
  }

  SStore::Sections* sections_;
  SStore::Section* section_ = nullptr;
  SStore::Values* values_ = nullptr;
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

std::string DatabaseAsText(const SStore::Sections& sections) {
  std::string text;
  for (const auto& [path, section] : sections) {
    text += EscapeText(path, false);
    text += '\n';
    for (const auto& [key, values] : section.keys) {
      text += EscapeText(key, true);
      text += '\n';
      for (const std::string& value : values) {
        text += '\t';
        text += EscapeText(value, false);
        text += '\n';
      }
    }
  }
  return text;
}

bool DatabaseFromText(std::string_view text, SStore::Sections* sections,
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
  return true;
}
