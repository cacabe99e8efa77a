#include "toolkit/Replacement.h"

std::string_view TextOf(std::string_view text, const SMatch::Span& span) {
  return span.IsSet() ? text.substr(span.begin, span.Length())
                      : std::string_view();
}

void AppendReplacement(std::string_view replacement, std::string_view text,
                       const SMatch& match, std::string* out) {
  while (!replacement.empty()) {
    const std::size_t dollar = replacement.find('$');
    out->append(replacement.substr(0, dollar));
    if (dollar == std::string_view::npos) {
      return;
    }
    replacement.remove_prefix(dollar);
    const char digit = replacement.size() > 1 ? replacement[1] : '\0';
    if (digit >= '1' && digit <= '9') {
      const auto group = static_cast<std::size_t>(digit - '0');
      if (group < match.spans.size()) {
        out->append(TextOf(text, match.spans[group]));
      }
      replacement.remove_prefix(2);
    } else {
      out->push_back('$');
      replacement.remove_prefix(1);
    }
  }
}
