// A second matcher for the same dialect, for tests and fuzzing only: a syntax
// tree and a recursive, backtracking walk over it, as plain as can be and as
// slow as that is.  It shares nothing with the engine but the definition of a
// match.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/pattern/Pattern.h"

class SlowMatcher {
 public:
  explicit SlowMatcher(std::string_view expression) : source_(expression) {
    root_ = ParseAlternatives();
    valid_ = valid_ && at_ == source_.size();
  }

  [[nodiscard]] bool IsValid() const { return valid_; }
  /// True when a match took more steps or went deeper than allowed; its result
  /// says nothing.
  [[nodiscard]] bool GaveUp() const { return steps_ > kMaxSteps; }

  bool Search(std::string_view text, std::size_t from, SMatch* match) {
    text_ = text;
    steps_ = 0;
    for (std::size_t start = from; valid_ && start <= text.size(); ++start) {
      spans_.assign(static_cast<std::size_t>(groups_) + 1, {});
      const bool found = Match(*root_, start, [&](std::size_t end) {
        spans_[0] = {start, end};
        return true;
      });
      if (found) {
        match->spans = spans_;
        return true;
      }
    }
    return false;
  }

 private:
  enum class Kind { kByte, kBegin, kEnd, kGroup, kSequence, kChoice, kRepeat };
  struct Node {
    Kind kind = Kind::kSequence;
    std::string bytes;  // kByte: those that match
    int group = 0;
    int min = 0;
    int max = 0;  // -1: no limit
    std::vector<std::unique_ptr<Node>> parts;
  };
  using NodePointer = std::unique_ptr<Node>;
  using Rest = std::function<bool(std::size_t)>;
  static constexpr int kMaxSteps = 200000;
  static constexpr int kMaxDepth = 200;    // of groups in an expression
  static constexpr int kMaxNested = 2000;  // calls of Match

  static NodePointer Make(Kind kind) {
    auto node = std::make_unique<Node>();
    node->kind = kind;
    return node;
  }
  [[nodiscard]] bool More() const { return valid_ && at_ < source_.size(); }
  [[nodiscard]] bool Next(char c) const { return More() && source_[at_] == c; }
  static bool IsDigit(char c) { return c >= '0' && c <= '9'; }

  NodePointer ParseAlternatives() {
    NodePointer choice = Make(Kind::kChoice);
    if (++depth_ > kMaxDepth) {
      valid_ = false;
      return choice;
    }
    choice->parts.push_back(ParseSequence());
    while (Next('|')) {
      ++at_;
      choice->parts.push_back(ParseSequence());
    }
    --depth_;
    return choice;
  }

  NodePointer ParseSequence() {
    NodePointer sequence = Make(Kind::kSequence);
    while (More() && !Next('|') && !Next(')')) {
      int min = 0;
      int max = 0;
      valid_ = !ParseQuantifier(&min, &max) && valid_;
      if (More()) {
        sequence->parts.push_back(ParseItem());
      }
    }
    return sequence;
  }

  NodePointer ParseItem() {
    NodePointer item = ParseAtom();
    const bool anchor = item->kind == Kind::kBegin || item->kind == Kind::kEnd;
    int min = 0;
    int max = 0;
    if (!ParseQuantifier(&min, &max)) {
      return item;
    }
    int ignored = 0;
    valid_ = valid_ && !anchor && min <= 65535 && max <= 65535 &&
             (max < 0 || max >= min) && !ParseQuantifier(&ignored, &ignored);
    NodePointer repeat = Make(Kind::kRepeat);
    repeat->min = min;
    repeat->max = max;
    repeat->parts.push_back(std::move(item));
    return repeat;
  }

  bool ParseQuantifier(int* min, int* max) {
    if (Next('*') || Next('+') || Next('?')) {
      *min = Next('+') ? 1 : 0;
      *max = Next('?') ? 1 : -1;
      ++at_;
      return true;
    }
    std::size_t i = at_ + 1;
    const auto number = [&](int* value) {
      const std::size_t begin = i;
      *value = 0;
      for (; i < source_.size() && IsDigit(source_[i]); ++i) {
        *value = std::min(*value * 10 + (source_[i] - '0'), 100000);
      }
      return i > begin;
    };
    if (!Next('{') || !number(min)) {
      return false;
    }
    *max = *min;
    if (i < source_.size() && source_[i] == ',') {
      ++i;
      if (!number(max)) {
        *max = -1;
      }
    }
    if (i == source_.size() || source_[i] != '}') {
      return false;
    }
    at_ = i + 1;
    return true;
  }

  NodePointer ParseAtom() {
    const char c = source_[at_];
    NodePointer atom = Make(Kind::kByte);
    if (c == '(') {
      ++at_;
      atom->kind = Kind::kGroup;
      atom->group = ++groups_;
      atom->parts.push_back(ParseAlternatives());
      valid_ = Next(')');
      ++at_;
    } else if (c == '[') {
      ParseBracket(&atom->bytes);
    } else if (c == '\\') {
      ParseEscape(&atom->bytes);
    } else {
      ++at_;
      if (c == '^' || c == '$') {
        atom->kind = c == '^' ? Kind::kBegin : Kind::kEnd;
      }
      for (int i = c == '.' ? 0 : 256; i < 256; ++i) {
        atom->bytes += static_cast<char>(i);
      }
      atom->bytes += c;
    }
    return atom;
  }

  // True when the escape is one byte, not a class.
  bool ParseEscape(std::string* bytes) {
    ++at_;
    if (!More()) {
      valid_ = false;
      return true;
    }
    const char c = source_[at_++];
    const std::string digits = "0123456789";
    const std::string letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string members;
    switch (c) {
      case 'n':
        *bytes += '\n';
        return true;
      case 't':
        *bytes += '\t';
        return true;
      case 'r':
        *bytes += '\r';
        return true;
      case 'f':
        *bytes += '\f';
        return true;
      case 'd':
      case 'D':
        members = digits;
        break;
      case 's':
      case 'S':
        members = " \t\n\f\r";
        break;
      case 'w':
      case 'W':
        members = digits + letters + "_";
        break;
      default:
        valid_ = valid_ && (digits + letters).find(c) == std::string::npos;
        *bytes += c;
        return true;
    }
    const bool wanted = c == 'd' || c == 's' || c == 'w';
    for (int i = 0; i < 256; ++i) {
      const char byte = static_cast<char>(i);
      if ((members.find(byte) != std::string::npos) == wanted) {
        *bytes += byte;
      }
    }
    return false;
  }

  [[nodiscard]] bool AtNamedClass() const {
    const std::string_view rest = source_.substr(at_);
    if (rest.size() < 4 || rest[0] != '[' ||
        (rest[1] != ':' && rest[1] != '.' && rest[1] != '=')) {
      return false;
    }
    const std::string end = {rest[1], ']'};
    const std::size_t found = rest.find(end, 2);
    return found != std::string_view::npos &&
           rest.substr(2, found - 2).find_first_of("[]\\") ==
               std::string_view::npos;
  }

  void ParseBracket(std::string* bytes) {
    std::string members;
    ++at_;
    const bool negated = Next('^');
    at_ += negated ? 1 : 0;
    for (bool first = true; More() && (first || !Next(']')); first = false) {
      valid_ = !AtNamedClass();
      std::string low;
      const bool single = ParseMember(&low);
      if (!valid_ || !Next('-') || at_ + 1 >= source_.size() ||
          source_[at_ + 1] == ']') {
        members += low;
        continue;
      }
      ++at_;
      std::string high;
      valid_ = !AtNamedClass();
      valid_ = ParseMember(&high) && single && valid_ &&
               static_cast<unsigned char>(high[0]) >=
                   static_cast<unsigned char>(low[0]);
      for (int i = static_cast<unsigned char>(low[0]);
           valid_ && i <= static_cast<unsigned char>(high[0]); ++i) {
        members += static_cast<char>(i);
      }
    }
    valid_ = Next(']');
    ++at_;
    for (int i = 0; i < 256; ++i) {
      const char byte = static_cast<char>(i);
      if ((members.find(byte) == std::string::npos) == negated) {
        *bytes += byte;
      }
    }
  }

  bool ParseMember(std::string* bytes) {
    if (Next('\\')) {
      return ParseEscape(bytes);
    }
    *bytes += source_[at_++];
    return true;
  }

  bool Match(const Node& node, std::size_t at, const Rest& rest) {
    if (nested_ == kMaxNested) {
      steps_ = kMaxSteps;
    }
    if (++steps_ > kMaxSteps) {
      return false;
    }
    ++nested_;
    const bool found = MatchKind(node, at, rest);
    --nested_;
    return found;
  }

  bool MatchKind(const Node& node, std::size_t at, const Rest& rest) {
    switch (node.kind) {
      case Kind::kByte:
        return at < text_.size() &&
               node.bytes.find(text_[at]) != std::string::npos && rest(at + 1);
      case Kind::kBegin:
        return at == 0 && rest(at);
      case Kind::kEnd:
        return text_.substr(at).empty() || text_.substr(at) == "\n" ? rest(at)
                                                                    : false;
      case Kind::kGroup:
        return MatchGroup(node, at, rest);
      case Kind::kSequence:
        return MatchSequence(node, 0, at, rest);
      case Kind::kChoice:
        for (const NodePointer& part : node.parts) {
          if (Match(*part, at, rest)) {
            return true;
          }
        }
        return false;
      case Kind::kRepeat:
        return MatchRepeat(node, 0, at, rest);
    }
    return false;
  }

  bool MatchGroup(const Node& node, std::size_t at, const Rest& rest) {
    return Match(*node.parts[0], at, [&, at](std::size_t end) {
      SMatch::Span& span = spans_[static_cast<std::size_t>(node.group)];
      const SMatch::Span before = span;
      span = {at, end};
      if (rest(end)) {
        return true;
      }
      spans_[static_cast<std::size_t>(node.group)] = before;
      return false;
    });
  }

  bool MatchSequence(const Node& node, std::size_t part, std::size_t at,
                     const Rest& rest) {
    if (part == node.parts.size()) {
      return rest(at);
    }
    return Match(*node.parts[part], at, [&, part](std::size_t end) {
      return MatchSequence(node, part + 1, end, rest);
    });
  }

  // `done` repetitions are behind us.  An unbounded loop ends after a
  // repetition that it did not need and that consumed nothing.
  bool MatchRepeat(const Node& node, int done, std::size_t at,
                   const Rest& rest) {
    const bool more = node.max < 0 || done < node.max;
    if (more && Match(*node.parts[0], at, [&, done, at](std::size_t end) {
          const bool ended = node.max < 0 && done + 1 >= node.min && end == at;
          return ended ? rest(end) : MatchRepeat(node, done + 1, end, rest);
        })) {
      return true;
    }
    return done >= node.min && rest(at);
  }

  std::string_view source_;
  std::size_t at_ = 0;
  bool valid_ = true;
  int groups_ = 0;
  int depth_ = 0;
  NodePointer root_;
  std::string_view text_;
  std::vector<SMatch::Span> spans_;
  int steps_ = 0;
  int nested_ = 0;
};
