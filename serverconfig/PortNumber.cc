#include "serverconfig/PortNumber.h"

#include <charconv>

#include "toolkit/SStringList.h"

namespace {

constexpr int kLastPort = 65535;

}  // namespace

int PortNumber(const SString& text) {
  const SString digits = text.M("^\\s*\\+?(\\d+)(\\.\\d*)?\\s*$")[0];
  int port = 0;
  const std::string_view view = digits.View();
  const auto result =
      std::from_chars(view.data(), view.data() + view.size(), port);
  return result.ec == std::errc() && port <= kLastPort ? port : 0;
}
