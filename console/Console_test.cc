#include "console/Console.h"

#include "driver/Interrupts.h"
#include "tests/TestChild.h"

namespace {

using Input = TestChild::Input;

// Shows an answer so that a test can tell its first and last byte.
void Show(const SString& answer) {
  Print("<" + answer + ">");
}

// The whole output of a dialogue with these lines typed.
std::string Talk(const std::string& typed, const std::function<void()>& run) {
  TestChild child(run);
  child.TypeInBackground(typed);
  const std::string output = child.ReadUntil("<end>", 10);
  return output.substr(0, output.find("<end>"));
}

std::string AnswerTo(const std::string& typed, const SString& def) {
  return Talk(typed, [&def] {
    Show(GetInput(def, 0));
    Print("<end>");
  });
}

TEST(GetInputTest, AnAnswerIsReturnedAsTyped) {
  EXPECT_EQ("\n<Yes please>", AnswerTo("Yes please\n", "no"));
  EXPECT_EQ("\n<  >", AnswerTo("  \n", "no"));
  EXPECT_EQ("\n<\tx >", AnswerTo("\tx \n", "no"));
  EXPECT_EQ("\n<\xff\x80>", AnswerTo("\xff\x80\n", "no"));
}

TEST(GetInputTest, AnEmptyAnswerGivesTheDefaultShownOrNot) {
  EXPECT_EQ("\n<no>", AnswerTo("\n", "no"));
  EXPECT_EQ("\n<>", AnswerTo("\n", ""));
  EXPECT_EQ("[no] \n<no>", Talk("\n", [] {
              Show(GetInput("no", 1));
              Print("<end>");
            }));
}

TEST(GetInputTest, OnlyTheLineEndIsRemoved) {
  EXPECT_EQ("\n<yes\r>", AnswerTo("yes\r\n", "no"));
  EXPECT_EQ("\n<\r>", AnswerTo("\r\n", "no"));
}

TEST(GetInputTest, ALastLineWithoutLineEndIsAnAnswer) {
  EXPECT_EQ("\n<last>", AnswerTo("last", "no"));
}

TEST(GetInputTest, AnAnswerEndsAtItsFirstNulByte) {
  EXPECT_EQ("\n<ab>", AnswerTo(std::string("ab\0cd\n", 6), "no"));
  EXPECT_EQ("\n<no>", AnswerTo(std::string("\0cd\n", 4), "no"));
}

TEST(GetInputTest, LinesTypedAheadAnswerTheFollowingQuestions) {
  EXPECT_EQ("\n<one>\n<def>\n<three>\n<four>", Talk("one\n\nthree\nfour", [] {
              for (int i = 0; i < 4; ++i) {
                Show(GetInput("def", 0));
              }
              Print("<end>");
            }));
}

TEST(GetInputTest, ALineOfAnyLengthIsOneAnswer) {
  const std::string line(3'000'000, 'x');
  EXPECT_EQ("\n<3000000>\n<next>", Talk(line + "\nnext\n", [] {
              Show(SString(GetInput("", 0).Length()));
              Show(GetInput("", 0));
              Print("<end>");
            }));
}

TEST(GetInputTest, AnAnswerInSeveralPiecesIsReadToItsEnd) {
  TestChild child([] { Show(GetInput("", 1)); });
  EXPECT_EQ("[] ", child.ReadUntil("[] "));
  child.Type("he");
  EXPECT_EQ("", child.ReadFor(0.1));
  child.Type("llo\n");
  EXPECT_EQ("\n<hello>", child.ReadToEnd());
}

TEST(GetInputTest, TheEndOfAPipeRepeatsTheDefaultWithPausesFromTheSecondOn) {
  TestChild child([] { Show(GetInput("yes", 1)); });
  child.EndInput();
  EXPECT_EQ("[yes] \n[yes] \n", child.ReadFor(0.6));
  EXPECT_EQ("[yes] \n", child.ReadFor(0.9));
  EXPECT_EQ("[yes] \n", child.ReadFor(1.0));
  // It goes on for as long as somebody reads.
  child.CloseOutput();
  EXPECT_EQ(3, child.Wait());
}

TEST(GetInputTest, TheNullDeviceIsAnEndlessEndOfInput) {
  TestChild child([] { Show(GetInput("yes", 0)); }, Input::kNull);
  EXPECT_EQ("\n\n", child.ReadFor(0.6));
  child.Signal(SIGKILL);
  EXPECT_EQ(-SIGKILL, child.Wait());
}

TEST(GetInputTest, AnAnswerStartsThePausesAnew) {
  TestChild child([] {
    Show(GetInput("a", 1));
    Show(GetInput("b", 1));
  });
  child.Type("last");
  child.EndInput();
  EXPECT_EQ("[a] \n<last>[b] \n[b] \n", child.ReadFor(0.6));
}

TEST(GetInputTest, TheEndOfInputOnATerminalIsFollowedByItsNextAnswer) {
  TestChild child([] { Show(GetInput("yes", 1)); }, Input::kTerminal);
  EXPECT_EQ("[yes] ", child.ReadUntil("[yes] "));
  for (int i = 0; i < 5; ++i) {
    child.Type("\x04");
    EXPECT_EQ("\n[yes] ", child.ReadUntil("[yes] ", 0.9)) << i;
  }
  child.Type("no\n");
  EXPECT_EQ("\n<no>", child.ReadToEnd());
  EXPECT_EQ(0, child.Wait());
}

TEST(GetInputTest, ALineCutOffByTheEndOfInputOnATerminalIsAnAnswer) {
  TestChild child([] { Show(GetInput("yes", 0)); }, Input::kTerminal);
  child.Type("no\x04\x04");
  EXPECT_EQ("\n<no>", child.ReadToEnd());
}

TEST(GetInputTest, AReadErrorEndsTheRun) {
  TestChild child([] { Show(GetInput("yes", 1)); }, Input::kClosed);
  EXPECT_EQ("[yes] ", child.ReadToEnd());
  EXPECT_EQ(3, child.Wait());
}

TEST(GetInputTest, ATerminalThatHangsUpEndsTheRun) {
  TestChild child([] { Show(GetInput("yes", 1)); }, Input::kTerminal);
  EXPECT_EQ("[yes] ", child.ReadUntil("[yes] "));
  child.EndInput();
  EXPECT_EQ("", child.ReadToEnd());
  EXPECT_EQ(3, child.Wait());
}

TEST(GetInputTest, AReadErrorIsNoAnswerInAStepThatDefersInterruptsEither) {
  TestChild child(
      [] {
        const SDeferInterrupts defer;
        Show(GetInput("yes", 1));
      },
      Input::kClosed);
  EXPECT_EQ("[yes] ", child.ReadToEnd());
  EXPECT_EQ(3, child.Wait());
}

TEST(GetInputTest, ANonBlockingInputIsWaitedFor) {
  TestChild child([] {
    fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
    Show(GetInput("yes", 1));
  });
  EXPECT_EQ("[yes] ", child.ReadFor(0.2));
  child.Type("no\n");
  EXPECT_EQ("\n<no>", child.ReadToEnd());
}

TEST(GetInputTest, ACaughtSignalDoesNotDisturbAnAnswer) {
  TestChild child([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    Show(GetInput("yes", 1));
  });
  EXPECT_EQ("[yes] ", child.ReadUntil("[yes] "));
  for (int i = 0; i < 20; ++i) {
    child.Signal(SIGUSR1);
    child.Type("x");
  }
  child.Type("\n");
  EXPECT_EQ("\n<xxxxxxxxxxxxxxxxxxxx>", child.ReadToEnd());
}

TEST(PrintTest, ANonBlockingOutputTakesEverything) {
  TestChild child([] {
    fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
    Print(SString('x', 1'000'000));
  });
  EXPECT_EQ("", child.ReadFor(0));
  EXPECT_EQ(std::string(1'000'000, 'x'), child.ReadToEnd());
  EXPECT_EQ(0, child.Wait());
}

TEST(PrintTest, AReaderThatIsGoneEndsTheRunAsAHangUpDoes) {
  TestChild child([] {
    Show(GetInput("", 0));
    Print("nobody");
    Print("reads");
  });
  child.CloseOutput();
  child.Type("x\n");
  EXPECT_EQ(3, child.Wait());
}

TEST(PrintTest, AFullDiskEndsTheRun) {
  TestChild child([] {
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
    Print("no room");
  });
  EXPECT_EQ(3, child.Wait());
}

TEST(PrintTest, AStepThatDefersInterruptsIsFinishedWithoutItsConsole) {
  int finished[2];
  ASSERT_EQ(0, pipe(finished));
  TestChild child([&finished] {
    close(STDOUT_FILENO);
    {
      const SDeferInterrupts defer;
      Print("nobody reads");
      Print("this");
      EXPECT_EQ(4, write(finished[1], "done", 4));
    }
    EXPECT_EQ(5, write(finished[1], "later", 5));
  });
  EXPECT_EQ(3, child.Wait());
  close(finished[1]);
  char bytes[16] = {};
  EXPECT_EQ(4, read(finished[0], bytes, sizeof bytes));
  EXPECT_STREQ("done", bytes);
  close(finished[0]);
}

TEST(PrintTest, NothingIsPrintedTwiceAfterAFork) {
  // What the test program itself has not written yet is not meant.
  fflush(stdout);
  EXPECT_EQ("before;after;", Talk("", [] {
              Print("before;");
              const pid_t child = fork();
              if (child == 0) {
                exit(0);
              }
              waitpid(child, nullptr, 0);
              Print("after;<end>");
            }));
}

TEST(PrintTest, ParagraphsAreWrappedAt75Columns) {
  const std::string word(37, 'w');
  EXPECT_EQ(word + " " + word + "\n" + word + "\n" + "next\n\nraw  text",
            Talk("", [&word] {
              PrintParagraph(
                  SString(std::string_view(word + "  " + word + " " + word)));
              PrintMessage("next");
              Print("raw  text<end>");
            }));
}

TEST(PrintTest, AnEmptyTextPrintsNothing) {
  EXPECT_EQ("\n", Talk("", [] {
              Print("");
              PrintParagraph(" ");
              PrintMessage("");
              Print("<end>");
            }));
}

TEST(ScreenTest, TheSeparatorIsARuleAndAFormFeed) {
  const std::string rule(75, '=');
  EXPECT_EQ("\n" + rule + "\n\f\n", Talk("", [] {
              ClearScreen();
              Print("<end>");
            }));
}

std::string Header(int width, const SStringList& titles) {
  return Talk("", [width, &titles] {
    PrintHeader(width, titles);
    Print("<end>");
  });
}

std::string Box(const std::string& rows) {
  const std::string rule(75, '=');
  const std::string blanks(73, ' ');
  const std::string empty = "=" + blanks + "=\n";
  return "\n" + rule + "\n" + empty + rows + empty + rule + "\n\n";
}

std::string Row(std::size_t left, const std::string& title, std::size_t right) {
  const std::string before(left, ' ');
  const std::string after(right, ' ');
  return "=" + before + title + after + "=\n";
}

TEST(ScreenTest, ATitleIsCentredInItsBox) {
  EXPECT_EQ(Box(Row(28, "Vellumcraft Setup", 28)),
            Header(75, "Vellumcraft Setup"));
}

TEST(ScreenTest, AnOddBlankStandsAtTheRight) {
  EXPECT_EQ(Box(Row(27, "123456789012345678", 28)),
            Header(75, "123456789012345678"));
}

TEST(ScreenTest, EveryTitleHasItsRow) {
  SStringList titles = "one";
  titles.Push("");
  titles.Push(SString('x', 73));
  EXPECT_EQ(Box(Row(35, "one", 35) + Row(36, "", 37) +
                Row(0, std::string(73, 'x'), 0)),
            Header(75, titles));
  EXPECT_EQ(Box(""), Header(75, SStringList()));
}

TEST(ScreenTest, ATitleThatIsTooLongStandsUncut) {
  EXPECT_EQ("\n====\n=  =\n=abcdef=\n=  =\n====\n\n", Header(4, "abcdef"));
}

std::string Continue(const std::string& typed) {
  return Talk(typed, [] {
    Show(AskToContinue() ? "on" : "stop");
    Print("<end>");
  });
}

TEST(AskToContinueTest, TheFirstLetterDecides) {
  const std::string question = "Do you want to continue? yes/no/quit [yes] \n";
  for (const char* yes : {"\n", "y\n", "Y\n", "yes\n", "Yellow\n", "y"}) {
    EXPECT_EQ(question + "<on>", Continue(yes)) << yes;
  }
  for (const char* no : {"n\n", "N\n", "no\n", "q\n", "Q\n", "quit\n"}) {
    EXPECT_EQ(question + "<stop>", Continue(no)) << no;
  }
}

TEST(AskToContinueTest, AnythingElseIsAskedAgain) {
  const std::string again = "Please enter 'yes', 'no', or 'quit': [yes] \n";
  EXPECT_EQ("Do you want to continue? yes/no/quit [yes] \n" + again + again +
                again + "<stop>",
            Continue("maybe\n yes\n\xd9\nno\n"));
}

TEST(AskToContinueTest, TheEndOfInputDoesNotRepeatTheQuestion) {
  TestChild child([] { Show(AskToContinue() ? "on" : "stop"); },
                  Input::kTerminal);
  child.Type("\x04\x04");
  EXPECT_EQ("Do you want to continue? yes/no/quit [yes] \n[yes] \n[yes] ",
            child.ReadFor(0.5));
  child.Type("\n");
  EXPECT_EQ("\n<on>", child.ReadToEnd());
}

TEST(AskTest, TheQuestionAndItsDefaultComeInOnePiece) {
  EXPECT_EQ("Port? [80] \n<8080>", Talk("8080\n", [] {
              Show(Ask("Port? ", "80"));
              Print("<end>");
            }));
}

TEST(AskTest, ALetterIsLowerCasedAndNoneIsNul) {
  EXPECT_EQ("a [x] \nb [] \nc [No] \n<q,0,n>", Talk("Quit\n\n\n", [] {
              const char a = AskLetter("a ", "x");
              const char b = AskLetter("b ", "");
              const char c = AskLetter("c ", "No");
              SString shown;
              shown += a;
              shown += "," + SString(static_cast<int>(b)) + ",";
              shown += c;
              Show(shown);
              Print("<end>");
            }));
}

TEST(PrintableTest, ControlCharactersBecomeQuestionMarks) {
  EXPECT_EQ("a?b??c~ \x80\xff", Printable("a\x1b"
                                          "b\n\x7f"
                                          "c~ \x80\xff")
                                    .Std());
  EXPECT_EQ("", Printable("").Std());
}

}  // namespace
