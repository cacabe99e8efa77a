#include "accounts/MailboxReader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::string_view kSeparator = "From ";

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

}  // namespace

bool SMailboxReader::WriteText(std::string_view text) {
  if (text.empty()) {
    return true;
  }
  if (holds_return_ && !sink_->Write("\r")) {
    return false;
  }
  holds_return_ = text.back() == '\r';
  text.remove_suffix(holds_return_ ? 1 : 0);
  return text.empty() || sink_->Write(text);
}

bool SMailboxReader::EndLine() {
  holds_return_ = false;
  at_line_begin_ = true;
  return place_ != Place::kMessage || sink_->Write("\r\n");
}

// Finds out what a line is; that takes its first bytes, or before the first
// message a byte that is not blank.
bool SMailboxReader::TakeLineBegin(std::string_view* piece, bool is_last) {
  if (place_ == Place::kBefore) {
    while (begin_.empty() && !piece->empty() && IsBlank(piece->front())) {
      // What stands before a separator must be on lines of its own.
      indented_ = piece->front() != '\n';
      piece->remove_prefix(1);
    }
  }
  while (!piece->empty() && begin_.size() < kSeparator.size() &&
         piece->front() != '\n') {
    begin_ += piece->front();
    piece->remove_prefix(1);
  }
  const bool is_clear = begin_.size() == kSeparator.size() ||
                        (!piece->empty() && !begin_.empty()) ||
                        (!piece->empty() && place_ != Place::kBefore) ||
                        is_last;
  if (!is_clear) {
    return true;
  }
  const bool separates = begin_ == kSeparator && !indented_;
  if (place_ == Place::kBefore && !separates) {
    unrecognized_ = !begin_.empty();
    return !unrecognized_;
  }
  at_line_begin_ = false;
  const std::string text = std::move(begin_);
  begin_.clear();
  if (separates) {
    place_ = Place::kSeparator;
    return sink_->BeginMessage();
  }
  place_ = Place::kMessage;
  return WriteText(text);
}

bool SMailboxReader::TakeLineRest(std::string_view* piece) {
  const std::size_t end = piece->find('\n');
  const std::string_view text = piece->substr(0, end);
  piece->remove_prefix(text.size());
  if (place_ == Place::kMessage && !WriteText(text)) {
    return false;
  }
  if (piece->empty()) {
    return true;
  }
  piece->remove_prefix(1);
  return EndLine();
}

// Takes the lines of a message that the piece holds as a whole; many of them
// make one call of the sink.
bool SMailboxReader::TakeWholeLines(std::string_view* piece) {
  std::size_t filled = 0;
  while (!piece->starts_with(kSeparator)) {
    std::string_view line =
        piece->substr(0, std::min(piece->size(), lines_.size() - 2));
    const std::size_t end = line.find('\n');
    if (end == std::string_view::npos) {
      break;
    }
    line = line.substr(0, end);
    piece->remove_prefix(end + 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    if (lines_.size() - filled < line.size() + 2) {
      if (!sink_->Write({lines_.data(), filled})) {
        return false;
      }
      filled = 0;
    }
    std::memcpy(lines_.data() + filled, line.data(), line.size());
    filled += line.size();
    lines_[filled++] = '\r';
    lines_[filled++] = '\n';
    place_ = Place::kMessage;
  }
  return filled == 0 || sink_->Write({lines_.data(), filled});
}

bool SMailboxReader::Take(std::string_view piece) {
  while (!piece.empty()) {
    const bool is_in_messages =
        at_line_begin_ && begin_.empty() && place_ != Place::kBefore;
    if (is_in_messages && !TakeWholeLines(&piece)) {
      return false;
    }
    if (is_in_messages && piece.size() >= kSeparator.size()) {
      // The usual case needs no bytes put by.
      at_line_begin_ = false;
      place_ = Place::kMessage;
      if (piece.starts_with(kSeparator)) {
        place_ = Place::kSeparator;
        if (!sink_->BeginMessage()) {
          return false;
        }
      }
    }
    if (!piece.empty() && !(at_line_begin_ ? TakeLineBegin(&piece, false)
                                           : TakeLineRest(&piece))) {
      return false;
    }
  }
  return true;
}

bool SMailboxReader::Finish() {
  std::string_view nothing;
  if (!begin_.empty() && !TakeLineBegin(&nothing, true)) {
    return false;
  }
  return at_line_begin_ || EndLine();
}
