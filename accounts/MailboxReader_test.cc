#include "accounts/MailboxReader.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

class Collector : public SMailboxReader::Sink {
 public:
  bool BeginMessage() override {
    messages.emplace_back();
    return true;
  }
  bool Write(std::string_view bytes) override {
    longest_write = std::max(longest_write, bytes.size());
    messages.back().append(bytes);
    return true;
  }
  std::vector<std::string> messages;
  std::size_t longest_write = 0;
};

struct Result {
  std::vector<std::string> messages;
  bool is_unrecognized = false;
  bool operator==(const Result&) const = default;
};

Result Read(std::string_view mailbox, std::size_t piece) {
  Collector collector;
  SMailboxReader reader(&collector);
  bool goes_on = true;
  for (; goes_on && !mailbox.empty();
       mailbox.remove_prefix(std::min(piece, mailbox.size()))) {
    goes_on = reader.Take(mailbox.substr(0, piece));
  }
  if (goes_on) {
    static_cast<void>(reader.Finish());
  }
  return {collector.messages, reader.IsUnrecognized()};
}

// The rules once more, line by line and slow.
Result ReadByTheRules(const std::string& mailbox) {
  Result result;
  bool before = true;
  for (std::size_t at = 0; at < mailbox.size();) {
    const std::size_t end = std::min(mailbox.find('\n', at), mailbox.size());
    std::string line = mailbox.substr(at, end - at);
    at = end + 1;
    if (before && line.find_first_not_of(" \t\r\f") == std::string::npos) {
      continue;
    }
    const bool separates = line.substr(0, 5) == "From ";
    if (before && !separates) {
      return {{}, true};
    }
    before = false;
    if (separates) {
      result.messages.emplace_back();
      continue;
    }
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    result.messages.back() += line + "\r\n";
  }
  return result;
}

std::string operator""_s(const char* text, std::size_t size) {
  return {text, size};
}

TEST(MailboxReaderTest, MailboxesBecomeTheseMessages) {
  const struct {
    std::string mailbox;
    std::vector<std::string> messages;
  } kCases[] = {
      {"", {}},
      {"\n \t\r\n\f\n", {}},
      {"  ", {}},
      {"From a\n", {""}},
      {"From ", {""}},
      {"From a\nS: 1\n\nhi\n\nFrom b\nS: 2\n\nho",
       {"S: 1\r\n\r\nhi\r\n\r\n", "S: 2\r\n\r\nho\r\n"}},
      {"From a\r\nS: 1\r\n\r\nhi\r\r\n\r\r\n", {"S: 1\r\n\r\nhi\r\r\n\r\r\n"}},
      {"\n \nFrom a\nmixed\r\nends\nhere\r", {"mixed\r\nends\r\nhere\r\n"}},
      {"From a\na\0b\n\0From c\n"_s, {"a\0b\r\n\0From c\r\n"_s}},
      {"From a\n>From b\nfrom c\nFrom: d\nFromage\n From e\nFrom\n",
       {">From b\r\nfrom c\r\nFrom: d\r\nFromage\r\n From e\r\nFrom\r\n"}},
      {"From a\nbody\nFrom b inside\nmore\n", {"body\r\n", "more\r\n"}},
      {"From a\n\rb\n\r", {"\rb\r\n\r\n"}},
      {"From a\nFro", {"Fro\r\n"}},
  };
  for (const auto& one : kCases) {
    for (std::size_t piece = 1; piece <= one.mailbox.size() + 1; ++piece) {
      const Result result = Read(one.mailbox, piece);
      EXPECT_EQ(one.messages, result.messages)
          << testing::PrintToString(one.mailbox) << " by " << piece;
      EXPECT_FALSE(result.is_unrecognized);
    }
  }
}

TEST(MailboxReaderTest, OtherFormatsAreNotRecognized) {
  for (const char* mailbox :
       {"x", "\n\n x\n", " From a\n", "\tFrom a\n", "from a\n", "From",
        "From\n", "From\ta\n", "MMDF\nFrom a\n", "F", ">From a\n",
        "\v\nFrom a\n", "\n\v", "\r\rFrom a\n"}) {
    for (std::size_t piece = 1; piece < 8; ++piece) {
      const Result result = Read(mailbox, piece);
      EXPECT_TRUE(result.is_unrecognized) << mailbox << " by " << piece;
      EXPECT_TRUE(result.messages.empty());
    }
  }
}

TEST(MailboxReaderTest, RandomMailboxesAreReadByTheRulesInAnyPieces) {
  constexpr const char* kParts[] = {"From ", "From", "F",  "\n", "\n",
                                    "\r\n",  "\r",   "ab", " ",  ">From "};
  std::mt19937 random(4711);
  for (int round = 0; round < 20'000; ++round) {
    std::string mailbox = round % 3 == 0 ? "" : "From x\n";
    for (std::size_t parts = random() % 16; parts > 0; --parts) {
      mailbox += kParts[random() % std::size(kParts)];
    }
    const std::size_t piece = 1 + random() % 9;
    const Result want = ReadByTheRules(mailbox);
    for (const std::size_t size : {piece, mailbox.size() + 1}) {
      ASSERT_EQ(want, Read(mailbox, size))
          << testing::PrintToString(mailbox) << " by " << size;
    }
  }
}

TEST(MailboxReaderTest, LinesOfEveryLengthAboutThatOfItsBufferAreWhole) {
  constexpr std::size_t kBuffer = std::size_t{64} * 1024;
  for (std::size_t length = kBuffer - 5; length < kBuffer + 5; ++length) {
    for (const char* end : {"\n", "\r\n", "\r\r\n"}) {
      const std::string line = std::string(length, 'x') + end;
      const std::string mailbox =
          "From a\n" + line + "\n" + line + line + "From b\nhi\n" + line;
      const Result want = ReadByTheRules(mailbox);
      for (const std::size_t piece :
           {mailbox.size(), length, length + 7, kBuffer, std::size_t{5}}) {
        ASSERT_TRUE(want == Read(mailbox, piece)) << length << " by " << piece;
      }
    }
  }
}

TEST(MailboxReaderTest, LinesOfEveryUsualLengthAreWholeAtEveryPlace) {
  std::mt19937 random(1997);
  std::string mailbox = "From a\n";
  for (int i = 0; i < 20'000; ++i) {
    mailbox += std::string(random() % 90, static_cast<char>('a' + i % 26));
    mailbox += random() % 4 == 0 ? "\r\n" : "\n";
    mailbox += random() % 500 == 0 ? "From b\n" : "";
  }
  const Result want = ReadByTheRules(mailbox);
  for (const std::size_t piece :
       {mailbox.size(), std::size_t{65'536}, std::size_t{79}}) {
    EXPECT_TRUE(want == Read(mailbox, piece)) << piece;
  }
}

TEST(MailboxReaderTest, NothingIsHeldBackAfterAFlush) {
  Collector collector;
  SMailboxReader reader(&collector);
  ASSERT_TRUE(reader.Take("From a\none\ntwo\nthree"));
  ASSERT_TRUE(reader.Flush());
  EXPECT_EQ("one\r\ntwo\r\nthree", collector.messages.at(0));
  ASSERT_TRUE(reader.Flush());
  ASSERT_TRUE(reader.Finish());
  EXPECT_EQ("one\r\ntwo\r\nthree\r\n", collector.messages.at(0));
}

// Takes a number of calls and refuses all others.
class Refuser : public SMailboxReader::Sink {
 public:
  explicit Refuser(int left) : left_(left) {}
  bool BeginMessage() override { return Call(); }
  bool Write(std::string_view /*bytes*/) override { return Call(); }
  int refused = 0;

 private:
  bool Call() {
    if (left_ == 0) {
      ++refused;
      return false;
    }
    --left_;
    return true;
  }
  int left_;
};

// True when all was taken; the reader is not asked again after a refusal.
bool IsTaken(std::string_view mailbox, std::size_t piece,
             SMailboxReader* reader) {
  for (; !mailbox.empty();
       mailbox.remove_prefix(std::min(piece, mailbox.size()))) {
    if (!reader->Take(mailbox.substr(0, piece))) {
      return false;
    }
  }
  return reader->Finish();
}

TEST(MailboxReaderTest, ARefusalIsHandedOnAtOnce) {
  const std::string full(65535, 'x');
  const std::string mailboxes[] = {
      "From a\nhi\nFrom b\nho\n",
      "From a\n" + full + "\nFrom b\nho",
      // The buffer is full where a line end, a kept return, a text follows.
      "From a\n" + full + "\r\n\nho\n",
      "From a\n" + full + "x\rho\n",
      "From a\n" + full + "\r" + full + "\n",
      "From a\nhi\n" + full + full + "\n" + full + "\nho\n",
  };
  for (const std::string& mailbox : mailboxes) {
    for (const std::size_t piece : {1, 7, 65536, 1 << 20}) {
      for (int calls = 0;; ++calls) {
        Refuser refuser(calls);
        SMailboxReader reader(&refuser);
        const bool is_taken = IsTaken(mailbox, piece, &reader);
        ASSERT_EQ(is_taken ? 0 : 1, refuser.refused)
            << calls << " calls, pieces of " << piece;
        EXPECT_FALSE(reader.IsUnrecognized());
        if (is_taken) {
          EXPECT_GE(calls, 2);
          break;
        }
      }
    }
  }
}

TEST(MailboxReaderTest, ALongLineIsNeverHeldAsAWhole) {
  const std::string line(50'000'000, 'x');
  Collector collector;
  SMailboxReader reader(&collector);
  const std::string mailbox = "From a\n" + line + "\r\n";
  for (std::size_t at = 0; at < mailbox.size(); at += 65'536) {
    ASSERT_TRUE(reader.Take(std::string_view(mailbox).substr(at, 65'536)));
  }
  ASSERT_TRUE(reader.Finish());
  ASSERT_EQ(1U, collector.messages.size());
  EXPECT_TRUE(collector.messages[0] == line + "\r\n");
  EXPECT_LE(collector.longest_write, 65'536U);
}

}  // namespace
