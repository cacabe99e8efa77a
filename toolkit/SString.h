#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

class SStringList;

/// A string of bytes: a value, copied on assignment and when passed by value.
///
/// Texts are 8-bit, no character set is assumed, NUL bytes are kept.  Lengths
/// and positions are counted in bytes and stay below 2^31.  Short strings (up
/// to 15 bytes) need no allocation.
///
/// The pattern operations take expressions of the dialect of
/// docs/patterns.md.  A pattern that can't be parsed matches nothing and
/// changes nothing.
class SString {
 public:
  SString() = default;
  /// A copy of a text that ends in a NUL byte; a null pointer gives "".
  SString(const char* text) : text_(text == nullptr ? "" : text) {}
  explicit SString(std::string_view text) : text_(text) {}
  explicit SString(std::string&& text) : text_(std::move(text)) {}
  /// `n` copies of `c`; none when `n` is not positive.
  SString(char c, int n);
  /// The number in decimal.
  SString(int number);
  SString(bool) = delete;
  SString(char) = delete;

  SString& operator=(int number);
  SString& operator=(const char* text);

  SString& operator+=(char c);
  SString& operator+=(const SString& text);

  /// The byte at `i`; NUL outside of the string.
  char operator[](int i) const;

  /// Length in bytes.
  [[nodiscard]] int Length() const { return static_cast<int>(text_.size()); }
  [[nodiscard]] bool IsEmpty() const { return text_.empty(); }
  /// The bytes, valid until the string changes or dies.
  [[nodiscard]] std::string_view View() const { return text_; }
  /// The bytes for code that works on std::string.
  [[nodiscard]] const std::string& Std() const { return text_; }

  /// The content and a terminating NUL byte, for system calls; valid until the
  /// string changes or dies.
  operator const char*() const { return text_.c_str(); }
  explicit operator bool() const = delete;

  /// Number of occurrences of `c`.
  [[nodiscard]] int Count(char c) const;
  /// Position of the first `c` at or after `from`; -1 when there is none.
  [[nodiscard]] int Index(char c, int from) const;

  /// Lower-cases ASCII letters in place and returns the string.
  SString& LowerCase();
  /// Removes the last byte, whatever it is.
  void Chop();
  /// Replaces the content by the next line of the stream, its line end
  /// included; "" at the end of the stream.
  void ReadLine(std::istream& in);
  /// Writes the content, nothing added.
  void Write(std::ostream& out) const;

  /// True when the pattern matches anywhere.  No flag is known.
  [[nodiscard]] bool HasMatch(const char* re, const char* flags = "") const;

  /// The captured groups of the leftmost match, in order, a group that took no
  /// part as ""; for a pattern without groups the matched text as the only
  /// element.  Empty when nothing matches.
  [[nodiscard]] SStringList M(const char* re, const char* flags = "") const;
  [[nodiscard]] SStringList M(const SString& re, const char* flags = "") const;

  /// Replaces the first match, with the flag "g" every match, by `replacement`,
  /// in which "$1" to "$9" stand for groups; any other "$" stands for itself, a
  /// group that took no part or does not exist for nothing.  Returns the groups
  /// of the first match as `M` does (callers by design ignore them).
  SStringList S(const char* re, const SString& replacement,
                const char* flags = "");
  SStringList S(const SString& re, const SString& replacement,
                const char* flags = "");

  /// The pieces between the matches of the pattern, at most `limit` of them,
  /// the last holding the rest.  Empty leading pieces are dropped.  0 means no
  /// limit, and then empty trailing pieces are dropped, too.  "" gives no
  /// pieces.
  [[nodiscard]] SStringList Split(const char* re, int limit) const;
  [[nodiscard]] SStringList Split(const char* re) const;
  /// The pieces between exact occurrences of `separator`, empty ones kept, at
  /// most `limit` of them (0: no limit), the last holding the rest.  "" gives
  /// no pieces.
  [[nodiscard]] SStringList SplitExact(const SString& separator,
                                       int limit) const;

  friend bool operator==(const SString& a, const SString& b) {
    return a.text_ == b.text_;
  }
  friend bool operator==(const SString& a, const char* b) {
    return a.text_ == (b == nullptr ? "" : b);
  }
  friend bool operator<(const SString& a, const SString& b) {
    return a.text_ < b.text_;
  }

  friend SString operator+(const SString& a, const SString& b);
  friend SString operator+(SString&& a, const SString& b);
  friend SString operator+(const SString& a, const char* b);
  friend SString operator+(SString&& a, const char* b);
  friend SString operator+(const SString& a, char b);
  friend SString operator+(SString&& a, char b);
  friend SString operator+(const char* a, const SString& b);
  friend SString operator+(char a, const SString& b);
  // Would append one byte, not a number.
  friend SString operator+(const SString& a, int b) = delete;
  friend SString operator+(int a, const SString& b) = delete;

 private:
  std::string text_;
};

/// Writes the content.
std::ostream& operator<<(std::ostream& out, const SString& text);
/// Reads one whole line, its line end included.
std::istream& operator>>(std::istream& in, SString& line);
