#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

/// Cuts a mailbox that comes in pieces of any size into messages.
///
/// A line that begins with "From " separates messages and belongs to none.
/// Every other line ends in "\r\n" afterwards: a line feed, then a carriage
/// return, is removed from its end first.  Lines are otherwise left alone, and
/// never held in memory as a whole.
class SMailboxReader {
 public:
  /// Where the messages go.
  class Sink {
   public:
    virtual ~Sink() = default;
    /// Ends the message in hand, if any, and begins another.
    virtual bool BeginMessage() = 0;
    virtual bool Write(std::string_view bytes) = 0;
  };

  explicit SMailboxReader(Sink* sink);

  /// Takes the next piece; false as soon as the sink says so.
  [[nodiscard]] bool Take(std::string_view piece);
  /// Hands what is held back, to make few calls of the sink, to it.
  [[nodiscard]] bool Flush();
  /// The mailbox has ended: ends a last line without line end, and flushes.
  [[nodiscard]] bool Finish();

  /// True when something other than blank lines came first and it was no
  /// "From " line.
  [[nodiscard]] bool IsUnrecognized() const { return unrecognized_; }

 private:
  enum class Place { kBefore, kSeparator, kMessage };

  bool BeginMessage();
  bool Put(std::string_view text);
  bool TakeWholeLines(std::string_view* piece);
  bool TakeLineBegin(std::string_view* piece, bool is_last);
  bool TakeLineRest(std::string_view* piece);
  bool WriteText(std::string_view text);
  bool EndLine();

  Sink* sink_;
  Place place_ = Place::kBefore;
  bool at_line_begin_ = true;
  bool unrecognized_ = false;
  // Before the first message: blanks stand before this place in its line.
  bool indented_ = false;
  // A carriage return is written only when more of its line follows.
  bool holds_return_ = false;
  std::unique_ptr<char[]> held_;  // of the message in hand, for the sink
  std::size_t held_size_ = 0;
  std::string begin_;  // of a line, until it is clear what it is
};
