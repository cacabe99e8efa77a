// Any spool mailbox in pieces of any size, compared with the plainest way to
// cut it.  The first byte of the input tells the pieces' size.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/MailboxReader.h"
#include "fuzz/Scratch.h"

namespace {

constexpr std::string_view kBlanks = " \t\n\r\f";

class Messages : public SMailboxReader::Sink {
 public:
  bool BeginMessage() override {
    messages.emplace_back();
    return true;
  }
  bool Write(std::string_view bytes) override {
    Check(!messages.empty());
    messages.back() += bytes;
    return true;
  }
  std::vector<std::string> messages;
};

// False when it is no mailbox.
bool Cut(std::string_view content, std::vector<std::string>* messages) {
  const std::size_t begin = content.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) {
    return true;
  }
  if (begin > 0 && content[begin - 1] != '\n') {
    return false;
  }
  content.remove_prefix(begin);
  if (!content.starts_with("From ")) {
    return false;
  }
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    std::string_view line = content.substr(0, end);
    content.remove_prefix(end == std::string_view::npos ? content.size()
                                                        : end + 1);
    if (line.starts_with("From ")) {
      messages->emplace_back();
      continue;
    }
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    messages->back() += line;
    messages->back() += "\r\n";
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t piece = std::max<std::size_t>(data[0], 1);
  const std::string_view content(reinterpret_cast<const char*>(data) + 1,
                                 size - 1);
  Messages sink;
  SMailboxReader reader(&sink);
  bool taken = true;
  for (std::size_t i = 0; taken && i < content.size(); i += piece) {
    taken = reader.Take(content.substr(i, piece));
  }
  taken = taken && reader.Finish();
  std::vector<std::string> wanted;
  const bool is_mailbox = Cut(content, &wanted);
  Check(taken == is_mailbox);
  Check(reader.IsUnrecognized() == !is_mailbox);
  Check(sink.messages == wanted);
  return 0;
}
