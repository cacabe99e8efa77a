#include "toolkit/SStringList.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <istream>
#include <ostream>

#include "toolkit/Replacement.h"
#include "toolkit/pattern/Pattern.h"

namespace {

const SString kNoElement;

// Small enough to stay in the processor's cache.
constexpr std::size_t kPieceRead = std::size_t{64} * 1024;

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

// The text of a substitution, "\\/" standing for a slash.
SString WithPlainSlashes(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
      plain += text[i] == '/' ? "" : "\\";
    }
    plain += text[i];
  }
  return SString(std::move(plain));
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
      filter.replacement =
          WithPlainSlashes(text.substr(middle + 1, end - middle - 1));
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

// Eight bytes of an element, so that most comparisons need not touch the
// element itself.
struct SortKey {
  std::uint64_t bytes;  // the first most significant, NUL behind the end
  std::uint32_t held;   // how many of them belong to the element
  std::uint32_t element;

  [[nodiscard]] bool SameBytes(const SortKey& other) const {
    return bytes == other.bytes && held == other.held;
  }
  friend bool operator<(const SortKey& a, const SortKey& b) {
    return a.bytes != b.bytes ? a.bytes < b.bytes : a.held < b.held;
  }
};

constexpr std::size_t kKeyBytes = sizeof(SortKey::bytes);

void FillKey(std::string_view text, std::size_t depth, SortKey* key) {
  const std::string_view rest = text.substr(depth);
  std::uint64_t bytes = 0;
  if (rest.size() >= kKeyBytes) {
    std::memcpy(&bytes, rest.data(), kKeyBytes);
  } else {
    std::memcpy(&bytes, rest.data(), rest.size());
  }
  if constexpr (std::endian::native == std::endian::little) {
    bytes = __builtin_bswap64(bytes);
  }
  key->bytes = bytes;
  key->held =
      static_cast<std::uint32_t>(std::min<std::size_t>(rest.size(), kKeyBytes));
}

// Keys of elements that agree in their first `depth` bytes.
struct SortRange {
  std::size_t begin;
  std::size_t end;
  std::size_t depth;
};

// Leaves in `keys` the order of the elements.  Ranges that agree in eight more
// bytes wait for their turn: nothing recurses, and no byte of a common
// beginning is compared again.
void SortKeys(const SString* elements, std::vector<SortKey>* keys) {
  constexpr std::size_t kFew = 16;
  std::vector<SortRange> ranges = {{0, keys->size(), 0}};
  while (!ranges.empty()) {
    const SortRange range = ranges.back();
    ranges.pop_back();
    SortKey* const begin = keys->data() + range.begin;
    SortKey* const end = keys->data() + range.end;
    if (range.depth > 0 && range.end - range.begin <= kFew) {
      std::sort(begin, end, [elements](const SortKey& a, const SortKey& b) {
        return elements[a.element] < elements[b.element];
      });
      continue;
    }
    for (SortKey* key = begin; key < end; ++key) {
      FillKey(elements[key->element].View(), range.depth, key);
    }
    if (!std::is_sorted(begin, end)) {
      std::sort(begin, end);
    }
    for (SortKey* first = begin; first < end;) {
      SortKey* last = first + 1;
      while (last < end && last->SameBytes(*first)) {
        ++last;
      }
      if (last - first > 1 && first->held == kKeyBytes) {
        ranges.push_back({static_cast<std::size_t>(first - keys->data()),
                          static_cast<std::size_t>(last - keys->data()),
                          range.depth + kKeyBytes});
      }
      first = last;
    }
  }
}

// Elements by their text: a table twice as large as they are many, in which an
// element lies at the first free place from that of its hash on.
class SeenElements {
 public:
  explicit SeenElements(std::size_t count)
      : places_(std::bit_ceil(count * 2 + 1)) {}

  // False when an equal one is there already.  `elements` are all elements,
  // `number` the one to be added.
  bool Add(const SString* elements, std::size_t number) {
    const std::string_view text = elements[number].View();
    const std::size_t hash = std::hash<std::string_view>()(text);
    const auto mark = static_cast<std::uint32_t>(hash >> 32);
    std::size_t at = hash;
    while (true) {
      Place& place = places_[at & (places_.size() - 1)];
      if (place.number == 0) {
        place = {mark, static_cast<std::uint32_t>(number + 1)};
        return true;
      }
      if (place.mark == mark && elements[place.number - 1].View() == text) {
        return false;
      }
      ++at;
    }
  }

 private:
  struct Place {
    std::uint32_t mark = 0;    // upper half of the hash
    std::uint32_t number = 0;  // of the element, from 1; 0 is free
  };
  std::vector<Place> places_;
};

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

void SStringList::PushLines(std::string_view text) {
  const auto line_ends = std::count(text.begin(), text.end(), '\n');
  const std::size_t needed =
      elements_.size() + static_cast<std::size_t>(line_ends) + 1;
  if (needed > elements_.capacity()) {
    elements_.reserve(std::max(needed, 2 * elements_.capacity()));
  }
  while (!text.empty()) {
    const std::size_t line_end = text.find('\n');
    const std::size_t length =
        line_end == std::string_view::npos ? text.size() : line_end + 1;
    elements_.emplace_back(text.substr(0, length));
    text.remove_prefix(length);
  }
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
  // As many were taken as are moved now: still constant time for each.
  if (2 * shifted_ >= elements_.size()) {
    elements_.erase(elements_.begin(), At(0));
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
  if (&list == this) {
    Insert(SStringList(list), pos);
    return;
  }
  const int clamped = std::clamp(pos, 0, Count());
  elements_.insert(begin() + clamped, list.begin(), list.end());
}

void SStringList::Splice(int pos, int n) {
  const int first = std::clamp(pos, 0, Count());
  const int last = first + std::clamp(n, 0, Count() - first);
  elements_.erase(begin() + first, begin() + last);
}

void SStringList::Delete(const char* text) {
  // `text` may lie in an element.
  const SString deleted = text;
  elements_.erase(std::remove(At(0), elements_.end(), deleted),
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
  std::vector<SortKey> keys(elements_.size() - shifted_);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    keys[i].element = static_cast<std::uint32_t>(i);
  }
  SString* const elements = elements_.data() + shifted_;
  SortKeys(elements, &keys);
  Elements sorted;
  sorted.reserve(keys.size());
  for (const SortKey& key : keys) {
    sorted.push_back(std::move(elements[key.element]));
  }
  elements_ = std::move(sorted);
  shifted_ = 0;
}

void SStringList::Unique() {
  elements_.erase(elements_.begin(), At(0));
  shifted_ = 0;
  // The kept ones move to the front, where they stay.
  SeenElements seen(elements_.size());
  std::size_t kept = 0;
  for (std::size_t i = 0; i < elements_.size(); ++i) {
    if (i != kept) {
      elements_[kept] = std::move(elements_[i]);
    }
    if (seen.Add(elements_.data(), kept)) {
      ++kept;
    }
  }
  elements_.erase(At(kept), elements_.end());
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
  SMatch match;
  for (const SString& element : *this) {
    const std::string_view text = element.View();
    if (filter.form != Filter::Form::kSubstitute) {
      if (pattern->Matches(text) == wanted) {
        result.Push(element);
      }
    } else if (pattern->Search(text, 0, &match)) {
      std::string replaced(text.substr(0, match.spans[0].begin));
      AppendReplacement(filter.replacement.View(), text, match, &replaced);
      replaced += text.substr(match.spans[0].end);
      result.Push(SString(std::move(replaced)));
    }
  }
  return result;
}

SStringList::operator char**() const {
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
  std::vector<char> piece(kPieceRead);
  std::string begun;  // a line whose end wasn't read yet
  bool is_room_made = false;
  while (in) {
    in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    std::string_view text(piece.data(), static_cast<std::size_t>(in.gcount()));
    if (!begun.empty()) {
      const std::size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
      begun.append(text.substr(0, length));
      text.remove_prefix(length);
      if (!begun.ends_with('\n')) {
        continue;
      }
      lines.Push(SString(std::move(begun)));
      begun.clear();
    }
    const std::size_t whole = text.rfind('\n') + 1;
    lines.PushLines(text.substr(0, whole));
    begun = text.substr(whole);
    if (!is_room_made && whole > 0) {
      // Files mostly tell how much is left; as many lines to a byte as here.
      const auto left = std::max<std::streamsize>(in.rdbuf()->in_avail(), 0);
      const std::size_t more =
          static_cast<std::size_t>(left) / whole * lines.elements_.size();
      lines.elements_.reserve(lines.elements_.size() + more + more / 16);
      is_room_made = true;
    }
  }
  if (!begun.empty()) {
    lines.Push(SString(std::move(begun)));
  }
  return in;
}

std::ostream& operator<<(std::ostream& out, const SStringList& list) {
  for (const SString& element : list) {
    out << element << '\n';
  }
  return out;
}
