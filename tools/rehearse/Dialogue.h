#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/rehearse/Problem.h"
#include "tools/rehearse/ReadFile.h"

/// Types the answers of a file where a program asks, on a terminal of its own,
/// and shows the whole dialogue as that terminal does.
///
/// The file has a line for each kind of question: a part of it, a tab, and what
/// to type.  The part that stands last before the program waits is the one
/// that counts; where none does, an empty line is typed.  Lines that begin with
/// "#" and empty ones are comments.
class Dialogue {
 public:
  /// Reads the file of answers; before the root directory changes.
  [[nodiscard]] Problem ReadAnswers(const std::string& file);

  /// Makes the terminal; in the rehearsal.
  [[nodiscard]] Problem OpenTerminal();

  /// In the process that becomes the program: makes this its terminal.
  [[nodiscard]] bool UseTerminal() const;

  /// Ready for reading when there is something to show; -1 without a terminal.
  [[nodiscard]] int Fd() const { return terminal_.Get(); }

  /// Shows what the program wrote since the last call on standard output.
  void Show();

  /// Types the answer if the program, or one that it runs, waits for it.
  void AnswerIfAsked();

 private:
  [[nodiscard]] bool IsAsked();
  [[nodiscard]] std::string AnswerTo(const std::string& question) const;

  std::vector<std::pair<std::string, std::string>> answers_;
  SDescriptor terminal_;
  std::string terminal_name_;
  std::string question_;  // shown since the last answer
  std::string sleeps_;    // who took it, and how often that had slept
};
