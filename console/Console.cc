// The talk with the administrator on descriptors 0 and 1.
//
// Neither direction uses the language's streams: a text is with the terminal
// when its call returns, and a signal may end the process between any two.

#include "console/Console.h"

#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <string>

#include "console/Format.h"
#include "driver/Interrupts.h"

namespace {

constexpr const char* pz_Continue = "Do you want to continue? yes/no/quit ";
constexpr const char* pz_Correction = "Please enter 'yes', 'no', or 'quit': ";

// Waits until a descriptor that somebody else made non-blocking is ready.
void WaitUntilReady(int fd, short events) {
  pollfd ready = {fd, events, 0};
  static_cast<void>(poll(&ready, 1, -1));
}

bool WouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

// Input that was read but not asked for yet, such as further lines of a pipe.
std::string pending_input;

// A terminal that hung up gives ends of input, as if its user had typed them.
bool HasHungUp(int fd) {
  return !isatty(fd) && errno == EIO;
}

[[noreturn]] void EndWithoutAnswer() {
  EndWithoutConsole();
  // A step that can't be cut asks nothing; were it to, a default that nobody
  // chose would be worse than its end.
  _exit(3);
}

// Adds what the input has to `pending_input`; false at its end.
bool ReadMore() {
  while (true) {
    char bytes[4096];
    const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
    if (n > 0) {
      pending_input.append(bytes, static_cast<std::size_t>(n));
      return true;
    }
    if (n == 0 && !HasHungUp(STDIN_FILENO)) {
      return false;
    }
    if (n < 0 && WouldBlock()) {
      WaitUntilReady(STDIN_FILENO, POLLIN);
    } else if (n == 0 || errno != EINTR) {
      EndWithoutAnswer();
    }
  }
}

// Takes the next line, less its line end, from the input; a last line may have
// none.  False at the end of the input.
bool TakeLine(SString* line) {
  std::size_t searched = 0;
  std::size_t end = pending_input.find('\n');
  while (end == std::string::npos) {
    searched = pending_input.size();
    if (!ReadMore()) {
      *line = SString(std::move(pending_input));
      pending_input.clear();
      return searched > 0;
    }
    end = pending_input.find('\n', searched);
  }
  *line = SString(std::string_view(pending_input).substr(0, end));
  pending_input.erase(0, end + 1);
  return true;
}

// At the end of the input the same question comes again at once; a terminal
// waits there for its user, but a file or a closed pipe would spin.
void PauseBeforeRepetition(int repetition) {
  if (repetition > 1 && !isatty(STDIN_FILENO)) {
    WaitSeconds(1);
  }
}

SString ReadAnswer(const SString& question, const SString& def,
                   bool show_default) {
  const SString shown_default = show_default ? "[" + def + "] " : SString();
  Print(question + shown_default);
  SString answer;
  for (int repetition = 1; !TakeLine(&answer); ++repetition) {
    Print("\n");
    PauseBeforeRepetition(repetition);
    Print(shown_default);
  }
  Print("\n");
  answer = SString(static_cast<const char*>(answer));  // up to the first NUL
  return answer.IsEmpty() ? def : answer;
}

SString Blanks(int n) {
  return SString(' ', n);
}

}  // namespace

void Print(const SString& text) {
  std::string_view rest = text.View();
  while (!rest.empty()) {
    const ssize_t n = WriteWithoutSignal(STDOUT_FILENO, rest);
    if (n >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(n));
    } else if (WouldBlock()) {
      WaitUntilReady(STDOUT_FILENO, POLLOUT);
    } else if (errno != EINTR) {
      EndWithoutConsole();
      return;
    }
  }
}

void PrintParagraph(const SString& text) {
  Print(Format(text, kScreenWidth, 0, "\n"));
}

void PrintMessage(const SString& text) {
  Print(Format(text, kScreenWidth, 0, "\n") + "\n");
}

void ClearScreen() {
  Print("\n" + SString('=', kScreenWidth) + "\n\f\n");
}

void PrintHeader(int width, SStringList titles) {
  const SString rule = SString('=', width) + "\n";
  const SString empty_row = "=" + Blanks(width - 2) + "=\n";
  SString box = "\n" + rule + empty_row;
  while (!titles.IsEmpty()) {
    const SString title = titles.Shift();
    const int left = (width - title.Length() - 2) / 2;
    const int right = width - title.Length() - left - 2;
    box += "=" + Blanks(left) + title + Blanks(right) + "=\n";
  }
  box += empty_row + rule + "\n";
  Print(box);
}

SString GetInput(const SString& def, int show_default) {
  return ReadAnswer("", def, show_default != 0);
}

SString Ask(const SString& question, const SString& def) {
  return ReadAnswer(question, def, true);
}

char AskLetter(const SString& question, const SString& def) {
  return Ask(question, def).LowerCase()[0];
}

bool AskToContinue() {
  char letter = AskLetter(pz_Continue, "yes");
  while (letter != 'y' && letter != 'n' && letter != 'q') {
    letter = AskLetter(pz_Correction, "yes");
  }
  return letter == 'y';
}

SString Printable(const SString& text) {
  std::string shown = text.Std();
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      c = '?';
    }
  }
  return SString(std::move(shown));
}
