#include "accounts/MailboxReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::string_view kSeparator = "From ";
// Small enough to stay in the processor's cache on its way to the file.
constexpr std::size_t kHeld = std::size_t{64} * 1024;
// Most lines are no longer.
constexpr std::size_t kUsualLine = 80;

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

}  // namespace

SMailboxReader::SMailboxReader(Sink* sink)
    : sink_(sink), held_(std::make_unique_for_overwrite<char[]>(kHeld)) {}

bool SMailboxReader::Flush() {
  const std::size_t size = std::exchange(held_size_, 0);
  return size == 0 || sink_->Write({held_.get(), size});
}

bool SMailboxReader::Put(std::string_view text) {
  if (kHeld - held_size_ < text.size() && !Flush()) {
    return false;
  }
  if (text.size() > kHeld) {
    return sink_->Write(text);
  }
  std::memcpy(held_.get() + held_size_, text.data(), text.size());
  held_size_ += text.size();
  return true;
}

bool SMailboxReader::BeginMessage() {
  place_ = Place::kSeparator;
  return Flush() && sink_->BeginMessage();
}

bool SMailboxReader::WriteText(std::string_view text) {
  if (text.empty()) {
    return true;
  }
  if (holds_return_ && !Put("\r")) {
    return false;
  }
  holds_return_ = text.back() == '\r';
  text.remove_suffix(holds_return_ ? 1 : 0);
  return Put(text);
}

bool SMailboxReader::EndLine() {
  holds_return_ = false;
  at_line_begin_ = true;
  return place_ != Place::kMessage || Put("\r\n");
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
    return BeginMessage();
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

// Takes the lines of a message that the piece holds as a whole.
bool SMailboxReader::TakeWholeLines(std::string_view* piece) {
  while (!piece->starts_with(kSeparator)) {
    const std::size_t end = piece->find('\n');
    if (end == std::string_view::npos) {
      break;
    }
    const std::string_view line =
        piece->substr(0, end - (end > 0 && (*piece)[end - 1] == '\r' ? 1 : 0));
    if (end <= kUsualLine && kUsualLine <= piece->size() &&
        kUsualLine + 2 <= kHeld - held_size_) {
      // A copy of constant length is faster, though it takes more.
      std::memcpy(held_.get() + held_size_, line.data(), kUsualLine);
      std::memcpy(held_.get() + held_size_ + line.size(), "\r\n", 2);
      held_size_ += line.size() + 2;
    } else if (!Put(line) || !Put("\r\n")) {
      return false;
    }
    piece->remove_prefix(end + 1);
    place_ = Place::kMessage;
  }
  return true;
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
      if (piece.starts_with(kSeparator) && !BeginMessage()) {
        return false;
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
  return (at_line_begin_ || EndLine()) && Flush();
}
