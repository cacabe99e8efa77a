#include "toolkit/SString.h"

#include <algorithm>
#include <istream>
#include <ostream>

#include "toolkit/Replacement.h"
#include "toolkit/SStringList.h"
#include "toolkit/pattern/Pattern.h"

namespace {

char LowerCaseOf(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// What `M` returns for a match.
SStringList GroupsOf(std::string_view text, const SMatch& match) {
  SStringList groups;
  for (std::size_t i = 1; i < match.spans.size(); ++i) {
    groups.Push(SString(TextOf(text, match.spans[i])));
  }
  if (match.spans.size() == 1) {
    groups.Push(SString(TextOf(text, match.spans[0])));
  }
  return groups;
}

}  // namespace

SString::SString(char c, int n)
    : text_(n > 0 ? static_cast<std::size_t>(n) : 0, c) {}

SString::SString(int number) : text_(std::to_string(number)) {}

SString& SString::operator=(int number) {
  text_ = std::to_string(number);
  return *this;
}

SString& SString::operator=(const char* text) {
  // `text` may lie in this string.
  return *this = SString(text);
}

SString& SString::operator+=(char c) {
  text_.push_back(c);
  return *this;
}

SString& SString::operator+=(const SString& text) {
  text_ += text.text_;
  return *this;
}

char SString::operator[](int i) const {
  const auto position = static_cast<std::size_t>(i);
  return i >= 0 && position < text_.size() ? text_[position] : '\0';
}

int SString::Count(char c) const {
  return static_cast<int>(std::count(text_.begin(), text_.end(), c));
}

int SString::Index(char c, int from) const {
  const std::size_t found =
      text_.find(c, from > 0 ? static_cast<std::size_t>(from) : 0);
  return found == std::string::npos ? -1 : static_cast<int>(found);
}

SString& SString::LowerCase() {
  std::transform(text_.begin(), text_.end(), text_.begin(), LowerCaseOf);
  return *this;
}

void SString::Chop() {
  if (!text_.empty()) {
    text_.pop_back();
  }
}

void SString::ReadLine(std::istream& in) {
  if (!std::getline(in, text_)) {
    text_.clear();
  } else if (!in.eof()) {
    text_.push_back('\n');
  }
}

void SString::Write(std::ostream& out) const {
  out.write(text_.data(), static_cast<std::streamsize>(text_.size()));
}

bool SString::HasMatch(const char* re, const char* /*flags*/) const {
  return SPattern::Get(re)->Matches(text_);
}

SStringList SString::M(const char* re, const char* /*flags*/) const {
  SMatch match;
  return SPattern::Get(re)->Search(text_, 0, &match) ? GroupsOf(text_, match)
                                                     : SStringList();
}

SStringList SString::M(const SString& re, const char* /*flags*/) const {
  SMatch match;
  return SPattern::Get(re.View())->Search(text_, 0, &match)
             ? GroupsOf(text_, match)
             : SStringList();
}

SStringList SString::S(const char* re, const SString& replacement,
                       const char* flags) {
  return S(SString(re), replacement, flags);
}

SStringList SString::S(const SString& re, const SString& replacement,
                       const char* flags) {
  const std::shared_ptr<const SPattern> pattern = SPattern::Get(re.View());
  SMatch match;
  if (!pattern->Search(text_, 0, &match)) {
    return {};
  }
  const bool global = flags != nullptr && std::string_view(flags).find('g') !=
                                              std::string_view::npos;
  SStringList groups = GroupsOf(text_, match);
  std::string result;
  std::size_t copied = 0;
  bool found = true;
  while (found) {
    const SMatch::Span whole = match.spans[0];
    result.append(text_, copied, whole.begin - copied);
    AppendReplacement(replacement.View(), text_, match, &result);
    copied = whole.end;
    std::size_t next = whole.end;
    if (whole.Length() == 0) {
      // Go on behind an empty match, or it would be found for ever.
      if (copied < text_.size()) {
        result.push_back(text_[copied]);
      }
      next = ++copied;
    }
    found =
        global && next <= text_.size() && pattern->Search(text_, next, &match);
  }
  if (copied < text_.size()) {
    result.append(text_, copied);
  }
  text_ = std::move(result);
  return groups;
}

SStringList SString::Split(const char* re, int limit) const {
  SStringList pieces;
  const std::shared_ptr<const SPattern> pattern = SPattern::Get(re);
  const std::string_view text = text_;
  SMatch match;
  std::size_t begin = 0;
  std::size_t from = 0;
  while ((limit <= 0 || pieces.Count() + 1 < limit) && from <= text.size() &&
         pattern->Search(text, from, &match)) {
    const SMatch::Span span = match.spans[0];
    from = span.end;
    if (span.Length() == 0) {
      ++from;
      // Nothing stands between this and the match or the begin before it.
      if (span.begin == begin || span.begin >= text.size()) {
        continue;
      }
    }
    if (span.begin > begin || !pieces.IsEmpty()) {
      pieces.Push(SString(text.substr(begin, span.begin - begin)));
    }
    begin = span.end;
  }
  if (!text.empty()) {
    pieces.Push(SString(text.substr(begin)));
  }
  if (limit == 0) {
    while (!pieces.IsEmpty() && pieces.Get(pieces.Count() - 1).IsEmpty()) {
      pieces.Pop();
    }
  }
  return pieces;
}

SStringList SString::Split(const char* re) const {
  return Split(re, 0);
}

SStringList SString::SplitExact(const SString& separator, int limit) const {
  SStringList pieces;
  const std::string_view text = text_;
  std::size_t begin = 0;
  while (!separator.IsEmpty() && (limit <= 0 || pieces.Count() + 1 < limit)) {
    const std::size_t found = text.find(separator.View(), begin);
    if (found == std::string_view::npos) {
      break;
    }
    pieces.Push(SString(text.substr(begin, found - begin)));
    begin = found + separator.View().size();
  }
  if (!text.empty()) {
    pieces.Push(SString(text.substr(begin)));
  }
  return pieces;
}

SString operator+(const SString& a, const SString& b) {
  return SString(a) + b;
}

SString operator+(SString&& a, const SString& b) {
  a.text_ += b.text_;
  return std::move(a);
}

SString operator+(const SString& a, const char* b) {
  return SString(a) + b;
}

SString operator+(SString&& a, const char* b) {
  a.text_ += b;
  return std::move(a);
}

SString operator+(const SString& a, char b) {
  return SString(a) + b;
}

SString operator+(SString&& a, char b) {
  a.text_ += b;
  return std::move(a);
}

SString operator+(const char* a, const SString& b) {
  return SString(a) + b;
}

SString operator+(char a, const SString& b) {
  return SString(a, 1) + b;
}

std::ostream& operator<<(std::ostream& out, const SString& text) {
  return out << text.View();
}

std::istream& operator>>(std::istream& in, SString& line) {
  line.ReadLine(in);
  return in;
}
