// Reads addresses after RFC 822 section 6.1 in one pass over tokens, without
// recursion.
//
// Beyond that grammar: empty elements are passed over, a phrase may hold dots
// ("J. R. Smith <jrs@x.org>"), bytes from 0x80 up are parts of words, though
// not of domains, and an address needs no domain.  Line ends and NUL bytes are
// refused in quotes and literals: they could not be passed on.  An element that
// does not parse is passed over up to its comma and counts as an empty address;
// so does what begins a group that nothing closes, and text behind a group.

#include "toolkit/Addresses.h"

#include <algorithm>
#include <array>
#include <vector>

namespace {

constexpr const char* kEmptyAddress = "<>";

enum class Kind { kWord, kLiteral, kSpecial, kBad, kEnd };

struct Token {
  Kind kind;
  std::string_view text;

  [[nodiscard]] bool Is(char special) const {
    return kind == Kind::kSpecial && text[0] == special;
  }
};

bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool IsSpecial(char c) {
  return std::string_view("()<>@,;:\\\".[]").find(c) != std::string_view::npos;
}

constexpr std::array<bool, 256> FindWordBytes() {
  std::array<bool, 256> is_word_byte = {};
  for (unsigned byte = 0x21; byte < is_word_byte.size(); ++byte) {
    is_word_byte[byte] = byte != 0x7f && !IsSpecial(static_cast<char>(byte));
  }
  return is_word_byte;
}

constexpr std::array<bool, 256> kIsWordByte = FindWordBytes();

bool IsWordByte(char c) {
  return kIsWordByte[static_cast<unsigned char>(c)];
}

// End of what `open` at `from` begins and `close` ends, a backslash hiding the
// byte behind it; npos when it has no end.
std::size_t EndOfQuoted(std::string_view text, std::size_t from, char open,
                        char close, bool nests) {
  int depth = 0;
  for (std::size_t i = from; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == close && i > from) {
      if (--depth <= 0) {
        return i + 1;
      }
    } else if (text[i] == open && (i == from || nests)) {
      ++depth;
    }
  }
  return std::string_view::npos;
}

// What an atom of a domain may hold.
bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x80;
  });
}

// Words with single dots between them, as most addresses have on both sides.
bool IsDottedWords(std::string_view text) {
  bool in_word = false;
  for (const char c : text) {
    if (!IsWordByte(c) && (c != '.' || !in_word)) {
      return false;
    }
    in_word = c != '.';
  }
  return in_word;
}

// Whether a quoted string or a literal holds what ends lines or strings.
bool HoldsLineEnd(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) !=
         std::string_view::npos;
}

// Cuts the text into tokens; comments and blanks only separate.  What is never
// closed, or can't stand where it does, becomes a bad token.
std::vector<Token> Tokenize(std::string_view text) {
  std::vector<Token> tokens;
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    std::size_t end = i + 1;
    Kind kind = Kind::kSpecial;
    if (IsBlank(c)) {
      ++i;
      continue;
    }
    if (c == '"') {
      kind = Kind::kWord;
      end = EndOfQuoted(text, i, '"', '"', false);
    } else if (c == '[') {
      kind = Kind::kLiteral;
      end = EndOfQuoted(text, i, '[', ']', false);
    } else if (c == '(') {
      end = EndOfQuoted(text, i, '(', ')', true);
      if (end != std::string_view::npos) {
        i = end;
        continue;
      }
    } else if (c == ')' || c == ']' || c == '\\') {
      kind = Kind::kBad;
    } else if (!IsSpecial(c)) {
      kind = IsWordByte(c) ? Kind::kWord : Kind::kBad;
      while (kind == Kind::kWord && end < text.size() &&
             IsWordByte(text[end])) {
        ++end;
      }
    }
    if (end == std::string_view::npos) {
      kind = Kind::kBad;
      end = text.size();
    }
    if (HoldsLineEnd(text.substr(i, end - i))) {
      kind = Kind::kBad;
    }
    tokens.push_back({kind, text.substr(i, end - i)});
    i = end;
  }
  tokens.push_back({Kind::kEnd, {}});
  return tokens;
}

struct Mailbox {
  SString route;
  SString local_part;
  SString domain;
};

class Reader {
 public:
  explicit Reader(std::string_view text) : tokens_(Tokenize(text)) {
    for (std::size_t i = tokens_.size(); i > 0 && last_semicolon_ == 0; --i) {
      last_semicolon_ = tokens_[i - 1].Is(';') ? i - 1 : 0;
    }
  }

  [[nodiscard]] bool AtEnd() const { return Now().kind == Kind::kEnd; }

  // Reads one element of a list and the comma behind it.  False when the
  // element is empty or only opens or closes a group.
  bool ReadElement(Mailbox* mailbox, bool* good);
  // Reads an address, in angle brackets or not, without phrase.
  bool ReadAddress(Mailbox* mailbox);

 private:
  [[nodiscard]] const Token& Now() const { return tokens_[at_]; }
  bool Take(char special);
  bool EndsElement() const {
    return AtEnd() || Now().Is(',') || (in_group_ && Now().Is(';'));
  }
  // Whether a phrase, if any, and then `special` come next.
  bool PhraseLeadsTo(char special) const;
  void SkipPhrase();
  // Goes to the end of the element; false when it is there already.
  bool SkipElement();
  bool ReadDotted(SString* text, bool is_domain);
  bool ReadRoute(SString* route);
  bool ReadSpec(Mailbox* mailbox);

  std::vector<Token> tokens_;
  std::size_t at_ = 0;
  std::size_t last_semicolon_ = 0;
  bool in_group_ = false;
};

bool Reader::Take(char special) {
  const bool taken = Now().Is(special);
  at_ += taken ? 1 : 0;
  return taken;
}

bool Reader::PhraseLeadsTo(char special) const {
  std::size_t i = at_;
  while (tokens_[i].kind == Kind::kWord || tokens_[i].Is('.')) {
    ++i;
  }
  return tokens_[i].Is(special);
}

void Reader::SkipPhrase() {
  while (Now().kind == Kind::kWord || Now().Is('.')) {
    ++at_;
  }
}

bool Reader::ReadDotted(SString* text, bool is_domain) {
  std::string joined;
  do {
    const Token& part = Now();
    const bool is_part =
        is_domain ? (part.kind == Kind::kLiteral && IsAscii(part.text)) ||
                        (part.kind == Kind::kWord && part.text[0] != '"' &&
                         IsAscii(part.text))
                  : part.kind == Kind::kWord;
    if (!is_part) {
      return false;
    }
    joined += joined.empty() ? "" : ".";
    joined += part.text;
    ++at_;
  } while (Take('.'));
  *text = SString(std::move(joined));
  return true;
}

bool Reader::ReadRoute(SString* route) {
  do {
    SString domain;
    if (!Take('@') || !ReadDotted(&domain, true)) {
      return false;
    }
    *route += (route->IsEmpty() ? "@" : ",@") + domain;
  } while (Take(','));
  return Take(':');
}

bool Reader::ReadSpec(Mailbox* mailbox) {
  return ReadDotted(&mailbox->local_part, false) &&
         (!Take('@') || ReadDotted(&mailbox->domain, true));
}

bool Reader::ReadAddress(Mailbox* mailbox) {
  if (!Take('<')) {
    return ReadSpec(mailbox);
  }
  if (Now().Is('@') && !ReadRoute(&mailbox->route)) {
    return false;
  }
  return ReadSpec(mailbox) && Take('>');
}

bool Reader::SkipElement() {
  const bool skips = !EndsElement();
  while (!EndsElement()) {
    ++at_;
  }
  return skips;
}

bool Reader::ReadElement(Mailbox* mailbox, bool* good) {
  if (Take(',')) {
    return false;
  }
  if (in_group_ && Take(';')) {
    in_group_ = false;
    return SkipElement();
  }
  if (!in_group_ && at_ < last_semicolon_ && !Now().Is(':') &&
      PhraseLeadsTo(':')) {
    SkipPhrase();
    Take(':');
    in_group_ = true;
    return false;
  }
  if (PhraseLeadsTo('<')) {
    SkipPhrase();
  }
  const bool is_address = ReadAddress(mailbox);
  *good = !SkipElement() && is_address;
  return true;
}

}  // namespace

S821Address::S821Address(const SString& text) {
  const std::size_t at = text.View().find('@');
  if (at != std::string_view::npos) {
    const std::string_view local_part = text.View().substr(0, at);
    const std::string_view domain = text.View().substr(at + 1);
    if (IsDottedWords(local_part) && IsDottedWords(domain) && IsAscii(domain)) {
      local_part_ = SString(local_part);
      domain_ = SString(domain);
      return;
    }
  }
  Reader reader(text.View());
  Mailbox mailbox;
  if (reader.ReadAddress(&mailbox) && reader.AtEnd()) {
    local_part_ = mailbox.local_part;
    domain_ = mailbox.domain;
    route_ = mailbox.route;
  }
}

SString S821Address::Text() const {
  if (IsNull()) {
    return kEmptyAddress;
  }
  const SString spec =
      domain_.IsEmpty() ? local_part_ : local_part_ + "@" + domain_;
  return route_.IsEmpty() ? spec : "<" + route_ + ":" + spec + ">";
}

S822Parser::S822Parser(const SString& text) {
  Reader reader(text.View());
  while (!reader.AtEnd()) {
    Mailbox mailbox;
    bool good = false;
    if (!reader.ReadElement(&mailbox, &good)) {
      continue;
    }
    const SString spec = mailbox.domain.IsEmpty()
                             ? mailbox.local_part
                             : mailbox.local_part + "@" + mailbox.domain;
    if (!good) {
      addresses_.Push(kEmptyAddress);
    } else if (mailbox.route.IsEmpty()) {
      addresses_.Push(spec);
    } else {
      addresses_.Push("<" + mailbox.route + ":" + spec + ">");
    }
  }
}

S821Parser::S821Parser(const SString& text, bool list_mode)
    : S822Parser(list_mode ? text : SString()) {
  if (!list_mode) {
    addresses_.Push(S821Address(text).Text());
  }
}
