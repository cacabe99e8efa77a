#include "toolkit/SStringList.h"

#include <algorithm>
#include <istream>
#include <ostream>
#include <unordered_set>

#include "toolkit/pattern/Pattern.h"

namespace {

const SString kNoElement;

// "/EXPR/", "!/EXPR/" or "s/EXPR/TEXT/", taken apart.
struct Filter {
  enum class Form { kNone, kMatch, kNoMatch, kSubstitute };
  Form form = Form::kNone;
  SString pattern;
  SString replacement;
};

// Position of the first "/" at or after `from` that no backslash precedes.
std::size_t FindSlash(std::string_view text, std::size_t from) {
  for (std::size_t i = from; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '/') {
      return i;
    }
  }
  return std::string_view::npos;
}

Filter ParseFilter(std::string_view text) {
  Filter filter;
  if (text.starts_with("s/")) {
    const std::size_t middle = FindSlash(text, 2);
    const std::size_t end =
        middle == std::string_view::npos ? middle : FindSlash(text, middle + 1);
    if (end != std::string_view::npos) {
      filter.form = Filter::Form::kSubstitute;
      filter.pattern = SString(text.substr(2, middle - 2));
      filter.replacement = SString(text.substr(middle + 1, end - middle - 1));
    }
    return filter;
  }
  const bool negated = text.starts_with("!");
  const std::size_t first = negated ? 1 : 0;
  const std::size_t last = text.rfind('/');
  if (text.substr(first).starts_with("/") && last > first) {
    filter.form = negated ? Filter::Form::kNoMatch : Filter::Form::kMatch;
    filter.pattern = SString(text.substr(first + 1, last - first - 1));
  }
  return filter;
}

}  // namespace

SStringList::SStringList(const char* element) {
  Push(element);
}

SStringList::SStringList(const SString& element) {
  Push(element);
}

SStringList::SStringList(const char* const* vector) {
  for (; *vector != nullptr; ++vector) {
    Push(*vector);
  }
}

void SStringList::Push(const char* element) {
  elements_.emplace_back(element);
}

void SStringList::Push(const SString& element) {
  elements_.push_back(element);
}

void SStringList::Push(SString&& element) {
  elements_.push_back(std::move(element));
}

void SStringList::Push(const SStringList& list) {
  Insert(list, Count());
}

SString SStringList::Pop() {
  if (IsEmpty()) {
    return {};
  }
  SString last = std::move(elements_.back());
  elements_.pop_back();
  return last;
}

SString SStringList::Shift() {
  if (IsEmpty()) {
    return {};
  }
  SString first = std::move(elements_[shifted_]);
  ++shifted_;
  if (shifted_ == elements_.size()) {
    elements_.clear();
    shifted_ = 0;
  }
  return first;
}

const SString& SStringList::Get(int i) const {
  return i >= 0 && i < Count() ? elements_[shifted_ + static_cast<unsigned>(i)]
                               : kNoElement;
}

SString& SStringList::operator[](int i) {
  if (i >= 0 && i < Count()) {
    return elements_[shifted_ + static_cast<unsigned>(i)];
  }
  static SString outside;
  outside = "";
  return outside;
}

int SStringList::Count() const {
  return static_cast<int>(elements_.size() - shifted_);
}

void SStringList::Insert(const SStringList& list, int pos) {
  const std::vector<SString> inserted(list.begin(), list.end());
  const int clamped = std::clamp(pos, 0, Count());
  elements_.insert(begin() + clamped, inserted.begin(), inserted.end());
}

void SStringList::Splice(int pos, int n) {
  const int first = std::clamp(pos, 0, Count());
  const int last = first + std::clamp(n, 0, Count() - first);
  elements_.erase(begin() + first, begin() + last);
}

void SStringList::Delete(const char* text) {
  const auto from = elements_.begin() + static_cast<std::ptrdiff_t>(shifted_);
  elements_.erase(
      std::remove_if(from, elements_.end(),
                     [text](const SString& e) { return e == text; }),
      elements_.end());
}

bool SStringList::Contains(const char* text) const {
  return std::any_of(begin(), end(),
                     [text](const SString& e) { return e == text; });
}

bool SStringList::Contains(const SString& text) const {
  return std::find(begin(), end(), text) != end();
}

void SStringList::Sort() {
  std::sort(elements_.begin() + static_cast<std::ptrdiff_t>(shifted_),
            elements_.end());
}

void SStringList::Unique() {
  // The views stay good: elements are moved away only after they were seen.
  std::unordered_set<std::string> seen;
  std::vector<SString> kept;
  for (const SString& element : *this) {
    if (seen.insert(element.Std()).second) {
      kept.push_back(element);
    }
  }
  elements_ = std::move(kept);
  shifted_ = 0;
}

SString SStringList::Join() const {
  return Join("");
}

SString SStringList::Join(const SString& separator) const {
  std::string joined;
  for (int i = 0; i < Count(); ++i) {
    if (i > 0) {
      joined += separator.View();
    }
    joined += Get(i).View();
  }
  return SString(std::move(joined));
}

void SStringList::Chop() {
  for (int i = 0; i < Count(); ++i) {
    (*this)[i].Chop();
  }
}

void SStringList::ChopLineEnds() {
  for (int i = 0; i < Count(); ++i) {
    if (Get(i).View().ends_with('\n')) {
      (*this)[i].Chop();
    }
  }
}

void SStringList::S(const char* re, const SString& replacement,
                    const char* flags) {
  for (int i = 0; i < Count(); ++i) {
    (*this)[i].S(re, replacement, flags);
  }
}

void SStringList::Reset() {
  *this = SStringList();
}

SStringList SStringList::Grep(const SString& expression,
                              SStringList* /*rest*/) const {
  const Filter filter = ParseFilter(expression.View());
  SStringList result;
  if (filter.form == Filter::Form::kNone) {
    return result;
  }
  const std::shared_ptr<const SPattern> pattern =
      SPattern::Get(filter.pattern.View());
  const bool wanted = filter.form != Filter::Form::kNoMatch;
  for (const SString& element : *this) {
    if (pattern->Matches(element.View()) == wanted) {
      result.Push(element);
    }
  }
  if (filter.form == Filter::Form::kSubstitute) {
    for (int i = 0; i < result.Count(); ++i) {
      result[i].S(filter.pattern, filter.replacement);
    }
  }
  return result;
}

SStringList::operator char* const*() const {
  vector_.clear();
  for (const SString& element : *this) {
    // exec takes pointers to char but changes nothing.
    vector_.push_back(const_cast<char*>(element.Std().c_str()));
  }
  vector_.push_back(nullptr);
  return vector_.data();
}

std::vector<SString>::const_iterator SStringList::begin() const {
  return elements_.begin() + static_cast<std::ptrdiff_t>(shifted_);
}

std::vector<SString>::const_iterator SStringList::end() const {
  return elements_.end();
}

bool operator==(const SStringList& a, const SStringList& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

SStringList LowerCase(const SStringList& list) {
  SStringList lowered = list;
  for (int i = 0; i < lowered.Count(); ++i) {
    lowered[i].LowerCase();
  }
  return lowered;
}

std::istream& operator>>(std::istream& in, SStringList& lines) {
  while (true) {
    SString line;
    line.ReadLine(in);
    if (line.IsEmpty()) {
      return in;
    }
    lines.Push(std::move(line));
  }
}

std::ostream& operator<<(std::ostream& out, const SStringList& list) {
  for (const SString& element : list) {
    out << element << '\n';
  }
  return out;
}
