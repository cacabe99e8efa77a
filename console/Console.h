#pragma once

#include "toolkit/SStringList.h"

// All talk with the administrator.  Output goes to descriptor 1 and is written
// at once, one write a call, so that nothing is lost when the process ends and
// nothing is printed twice after a fork.  Input is read from descriptor 0 in
// whole lines.  A terminal that is gone (write or read error) ends the run with
// status 3, after the step in hand when that one defers interrupts.

/// Prints the text as it stands: status words, lists, lines of their own.
void Print(const SString& text);
/// Prints one word-wrapped paragraph (75 columns, every line ended).
void PrintParagraph(const SString& text);
/// Prints one word-wrapped paragraph and an empty line.
void PrintMessage(const SString& text);

/// An empty line, a rule of 75 "=", a form feed and a line end.
void ClearScreen();
/// A framed box of the given width with the titles centred in it.
void PrintHeader(int width, SStringList titles);

/// Reads one answer.  With `show_default` the default is printed in brackets
/// first.  At the end of the input a line end is printed and the question for
/// input repeated, for ever.  Every answer is followed by a line end.  An empty
/// answer gives `def`, any other is returned as typed.
[[nodiscard]] SString GetInput(const SString& def, int show_default);

/// Prints the question, reads an answer with its default in brackets, and
/// returns its first byte in lower case; NUL for an empty answer to an empty
/// default.
[[nodiscard]] char AskLetter(const SString& question, const SString& def);
/// Prints the question and returns the whole answer, default in brackets.
[[nodiscard]] SString Ask(const SString& question, const SString& def);

/// Asks "Do you want to continue? yes/no/quit ", again after anything that is
/// not yes, no or quit.  True only for yes.
[[nodiscard]] bool AskToContinue();

/// A name or login of a user as it may be shown on a terminal: control
/// characters (below 0x20, 0x7f) as "?".
[[nodiscard]] SString Printable(const SString& text);
