#include "host/ProcFiles.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(ProcessLine, HasTheFieldsOfAProcessListing) {
  const struct {
    const char* stat;
    const char* line;
  } kCases[] = {
      {"231 (inetd) S 1 231 231 0\n", "231 ? 00:00:00 inetd\n"},
      {"9 (tmux: server) S 1 9\n", "9 ? 00:00:00 tmux: server\n"},
      {"12 ((sd-pam)) S 1 12\n", "12 ? 00:00:00 (sd-pam)\n"},
      {"13 (a) Z (b) R 1 13\n", "13 ? 00:00:00 a) Z (b\n"},
      {"77 (sendmail) Z 1 77\n", "77 ? 00:00:00 sendmail <defunct>\n"},
      {"5 () S 1\n", "5 ? 00:00:00 \n"},
      {"8 (ev\nil\033[2J\x7f\xc3) S 1\n", "8 ? 00:00:00 ev?il?[2J??\n"},
  };
  for (const auto& known : kCases) {
    EXPECT_EQ(ProcessLine(known.stat).Std(), known.line);
  }
}

TEST(ProcessLine, IsEmptyForWhatIsNoStatusOfAProcess) {
  for (const char* stat : {"", "231", "231 (inetd", "231 inetd) S",
                           "231 (inetd)", "231 (inetd) ", ") (", " () "}) {
    EXPECT_EQ(ProcessLine(stat).Std(), "") << stat;
  }
}

TEST(ProcProcessLines, ShowThisProcessAndAscendingIds) {
  int last = 0;
  bool found = false;
  for (const SString& line : ProcProcessLines()) {
    const int id = std::stoi(line.Std());
    EXPECT_GT(id, last);
    last = id;
    found = found || line == SString(static_cast<int>(getpid())) +
                                 " ? 00:00:00 ProcFiles_test\n";
  }
  EXPECT_TRUE(found);
}

TEST(ListeningPorts, AreTheLocalPortsOfListeningSocketsOnly) {
  SStringList sockets =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when\n";
  sockets.Push(
      "   0: 0100007F:0019 00000000:0000 0A 00000000:00000000 00:00000000\n");
  sockets.Push("   1: 0100007F:006E 0100007F:C350 01 00000000:00000000\n");
  sockets.Push("   2: 00000000:006E 00000000:0000 0A 00000000:00000000\n");
  sockets.Push(" 103: 00000000:FFFF 00000000:0000 0A 00000000:00000000\n");
  sockets.Push(
      "   4: 00000000000000000000000000000000:0019 "
      "00000000000000000000000000000000:0000 0A 00000000:00000000\n");
  sockets.Push("   5: 00000000:0016 00000000:0000 0a 0:0\n");
  sockets.Push("   6: 00000000:xyz 00000000:0000 0A 0:0\n");
  sockets.Push("garbage 0A\n");

  EXPECT_EQ(ListeningPorts(sockets).Join(" ").Std(), "25 110 65535 25");
}

}  // namespace
