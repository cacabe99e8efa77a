#include "console/Format.h"

#include <string_view>

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\r\f\v";

}  // namespace

SString Format(const SString& text, int width, int /*indent*/,
               const SString& separator) {
  const std::string_view bytes = text.View();
  const std::string_view line_end = separator.View();
  const std::size_t room = width > 0 ? static_cast<std::size_t>(width) : 0;
  std::string lines;
  lines.reserve(bytes.size() + line_end.size());
  std::size_t column = 0;
  std::size_t start = bytes.find_first_not_of(kWhiteSpace);
  while (start != std::string_view::npos) {
    const std::size_t end = bytes.find_first_of(kWhiteSpace, start);
    const std::string_view word = bytes.substr(start, end - start);
    if (column > 0 && column + 1 + word.size() > room) {
      lines += line_end;
      column = 0;
    }
    if (column > 0) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += word.size();
    start = bytes.find_first_not_of(kWhiteSpace, end);
  }
  if (column > 0) {
    lines += line_end;
  }
  return SString(std::move(lines));
}
