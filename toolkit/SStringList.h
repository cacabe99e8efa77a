#pragma once

#include <iosfwd>
#include <string_view>
#include <vector>

#include "toolkit/SString.h"

/// An ordered list of strings: a value, copied on assignment.  Elements are
/// addressed from 0.  `Shift`, `Pop` and `Push` of one element take constant
/// time, `Contains` linear, `Unique` linear, `Sort` n log n.
class SStringList {
 public:
  SStringList() = default;
  /// One element.
  SStringList(const char* element);
  SStringList(const SString& element);
  /// Every element of a vector that ends in a null pointer, as main gets it.
  explicit SStringList(const char* const* vector);

  void Push(const char* element);
  void Push(const SString& element);
  void Push(SString&& element);
  /// Appends all elements of `list` (which may be this list).
  void Push(const SStringList& list);
  /// Appends every line of the text, each with its line end; what follows the
  /// last line end is a line, too.
  void PushLines(std::string_view text);

  /// Removes and returns the last element; "" from an empty list.
  SString Pop();
  /// Removes and returns the first element; "" from an empty list.
  SString Shift();

  /// The element at `i`; "" outside of the list.
  [[nodiscard]] const SString& Get(int i) const;
  [[nodiscard]] const SString& operator[](int i) const { return Get(i); }
  /// The element at `i`, to be changed in place; outside of the list an empty
  /// string that belongs to nobody.
  SString& operator[](int i);

  [[nodiscard]] int Count() const;
  [[nodiscard]] bool IsEmpty() const { return Count() == 0; }

  /// Inserts the elements of `list` before position `pos` (clamped).
  void Insert(const SStringList& list, int pos);
  /// Removes `n` elements from position `pos` on, as far as there are any.
  void Splice(int pos, int n);
  /// Removes every element equal to `text`.
  void Delete(const char* text);
  [[nodiscard]] bool Contains(const char* text) const;
  [[nodiscard]] bool Contains(const SString& text) const;
  /// Sorts by bytes, ascending.
  void Sort();
  /// Removes repeated equal elements, keeping the first of each.
  void Unique();
  /// All elements in one string, `separator` between them.
  [[nodiscard]] SString Join() const;
  [[nodiscard]] SString Join(const SString& separator) const;
  /// `SString::Chop` on every element.
  void Chop();
  /// Removes the line end (one "\n") of every element that has one.
  void ChopLineEnds();
  /// Applies `SString::S` to every element.
  void S(const char* re, const SString& replacement, const char* flags = "");
  /// Empties the list; it is then undefined, as a new one is.
  void Reset();

  /// True when the list has elements, or when it was marked as a value that
  /// exists though it is empty (a database key without values).
  [[nodiscard]] bool Defined() const { return defined_ || Count() > 0; }
  /// Marks the list as existing although it may be empty.
  void SetDefined() { defined_ = true; }

  /// The line filter.  `expression` is one of
  ///
  ///     /EXPR/        the elements that match, in order
  ///     !/EXPR/       the elements that do not match
  ///     s/EXPR/TEXT/  the elements that match, the first match of each
  ///                   replaced by TEXT, in which "$1" to "$9" are groups
  ///
  /// and the result a new list; this one stays as it is.  `rest` is not used.
  [[nodiscard]] SStringList Grep(const SString& expression,
                                 SStringList* rest = nullptr) const;

  /// A vector of the elements that ends in a null pointer, for exec calls;
  /// valid until the list changes or dies.
  operator char**() const;

  [[nodiscard]] std::vector<SString>::const_iterator begin() const;
  [[nodiscard]] std::vector<SString>::const_iterator end() const;

  friend bool operator==(const SStringList& a, const SStringList& b);
  friend std::istream& operator>>(std::istream& in, SStringList& lines);

 private:
  using Elements = std::vector<SString>;
  [[nodiscard]] Elements::iterator At(std::size_t position) {
    return elements_.begin() + static_cast<std::ptrdiff_t>(shifted_ + position);
  }

  Elements elements_;
  // Elements in front that `Shift` has taken, so that it need not move the
  // rest.
  std::size_t shifted_ = 0;
  bool defined_ = false;
  mutable std::vector<char*> vector_;
};

/// A new list with every element's ASCII letters in lower case.
[[nodiscard]] SStringList LowerCase(const SStringList& list);

/// Reads every line of the stream to its end, line ends kept.
std::istream& operator>>(std::istream& in, SStringList& lines);
/// Writes every element, each followed by a line end.
std::ostream& operator<<(std::ostream& out, const SStringList& list);
