// Any text as a list of addresses and as one address.  An address that is read
// must be one that can be passed on: read again it is the same, alone.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/Scratch.h"
#include "toolkit/Addresses.h"

namespace {

void CheckAddress(const SString& text) {
  Check(!text.IsEmpty());
  Check(text.View().find_first_of(std::string_view("\r\n\0", 3)) ==
        std::string_view::npos);
  const S821Address address(text);
  Check(address.Text() == text);
  if (address.IsNull()) {
    Check(text == "<>");
    return;
  }
  const S821Parser list(text);
  Check(list.Addresses().Count() == 1);
  Check(list.Addresses().Get(0) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const SString input(
      std::string_view(reinterpret_cast<const char*>(data), size));
  const S821Parser list(input);
  for (const SString& address : list.Addresses()) {
    CheckAddress(address);
  }
  const S821Parser single(input, false);
  Check(single.Addresses().Count() == 1);
  CheckAddress(single.Addresses().Get(0));
  return 0;
}
