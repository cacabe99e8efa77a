#include "toolkit/database/CheckDatabase.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "toolkit/ScratchDirectory.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Section.h"
#include "toolkit/database/TextForm.h"

namespace {

using database_format::RecordType;

class CheckDatabaseTest : public testing::Test {
 protected:
  // A database with the section "/a".
  void Make() const {
    SDatabaseFile file;
    const SSection section("/a");
    std::uint32_t id = SDatabaseFile::kNone;
    ASSERT_TRUE(file.Begin(path_) && file.Store(section, &id) &&
                file.Install(nullptr) && file.Close());
  }
  // Accounts enough for an index in the file; some have had other addresses, one
  // has gone.
  static constexpr std::uint32_t kAccounts = 6000;
  void MakeWithIndex() const {
    SDatabaseFile file;
    ASSERT_TRUE(file.Begin(path_));
    for (std::uint32_t i = 0; i < kAccounts; ++i) {
      SSection section(SString("/User-") + SString(static_cast<int>(i)));
      std::uint32_t id = SDatabaseFile::kNone;
      if (i % 100 == 0) {
        section.Set("SMTP-Address", SString("old@") + section.Path());
        ASSERT_TRUE(file.Store(section, &id));
      }
      SStringList addresses(SString("Ann@") + section.Path());
      addresses.Push(SString("bob@") + section.Path());
      section.Set("SMTP-Address", addresses);
      ASSERT_TRUE(file.Store(section, &id));
    }
    ASSERT_TRUE(file.Remove(7) && file.Install(nullptr) && file.Close());
  }
  // Changes words of the index under right checksums; `slots` tells how many
  // there are, `change` gets each with its number.
  enum class Words { kPlaces, kSlots };
  void ChangeIndex(
      Words words,
      const std::function<void(std::uint64_t, std::uint64_t*)>& change) const {
    std::string bytes = ReadFile(path_);
    using namespace database_format;
    std::size_t at = kHeadSize;
    while (Get32(bytes.data() + at + kRecordType) !=
           static_cast<std::uint32_t>(RecordType::kIndex)) {
      at += Get32(bytes.data() + at + kRecordSize);
      ASSERT_LT(at, bytes.size());
    }
    const char* head = bytes.data() + at;
    const std::uint64_t places =
        (Get64(head + kIndexSections) + kWordsInBlock - 1) / kWordsInBlock;
    const std::uint64_t count =
        Get64(head + (words == Words::kSlots ? kIndexSlots : kIndexSections));
    const std::uint64_t first = words == Words::kSlots ? places : 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t block = first + i / kWordsInBlock;
      char* start = bytes.data() + at + kIndexHeadSize + block * kBlockSize;
      std::uint64_t word = Get64(start + i % kWordsInBlock * 8);
      change(i, &word);
      Put64(start + i % kWordsInBlock * 8, word);
      Put64(start + kBlockSize - 8,
            Crc32c({start, kBlockSize - 8},
                   Get32(head) + static_cast<std::uint32_t>(block)));
    }
    WriteFile(path_, bytes);
  }
  // Adds a record with right checksums behind what is known to be on disk.
  void AppendRecord(RecordType type, std::uint32_t id,
                    std::string_view body) const {
    std::string bytes = ReadFile(path_);
    std::size_t last = database_format::kHeadSize;
    std::size_t end = last;
    while (end < bytes.size() && Get32(bytes.data() + end + 4) != 0) {
      last = end;
      end += Get32(bytes.data() + end + database_format::kRecordSize);
    }
    bytes.resize(end);
    std::string record;
    AppendBareRecord(type, id, Get32(bytes.data() + last), &record);
    record.resize(database_format::kRecordBody);
    record += body;
    FinishRecord(0, &record);
    WriteFile(path_, bytes + record);
  }
  [[nodiscard]] std::string Problem() const {
    std::string problem;
    const bool sound = CheckDatabase(path_, &problem);
    EXPECT_EQ(sound, problem.empty());
    return problem;
  }

  const ScratchDirectory directory_;
  const std::string path_ = directory_.Path("database");
};

TEST_F(CheckDatabaseTest, ASoundRecordBehindTheSyncedEndIsSound) {
  Make();
  AppendRecord(RecordType::kSection, 1, {"\2/b\0", 4});
  EXPECT_EQ("", Problem());
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kRead));
  EXPECT_EQ(2U, file.LiveSections());
}

TEST_F(CheckDatabaseTest, ARecordBehindTheSyncedEndMustHoldASection) {
  Make();
  AppendRecord(RecordType::kSection, 1, {"\2/b\0garbage", 11});
  EXPECT_EQ("section 1 can't be read", Problem());
  SDatabaseFile file;
  std::string text;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kRead));
  EXPECT_FALSE(DatabaseAsText(&file, &text));
}

TEST_F(CheckDatabaseTest, AnIndexWithOutdatedSlotsIsSound) {
  MakeWithIndex();
  EXPECT_EQ("", Problem());
}

TEST_F(CheckDatabaseTest, AReaderFollowsAWriterThatSavesAnIndex) {
  MakeWithIndex();
  SDatabaseFile reader;
  ASSERT_TRUE(reader.Open(path_, SDatabaseFile::Access::kRead));
  SDatabaseFile writer;
  ASSERT_TRUE(writer.Open(path_, SDatabaseFile::Access::kWrite));
  SSection section("/Big");
  section.Set("Key", SString('x', 100000));
  std::uint32_t id = SDatabaseFile::kNone;
  ASSERT_TRUE(writer.Store(section, &id) && writer.Close());
  ASSERT_TRUE(writer.Open(path_, SDatabaseFile::Access::kWrite));
  id = SDatabaseFile::kNone;
  ASSERT_TRUE(writer.Store(SSection("/Behind"), &id) && writer.Close());
  ASSERT_TRUE(reader.Follow());
  EXPECT_EQ(kAccounts, reader.Find("/Big"));
  EXPECT_EQ(kAccounts + 1, reader.Find("/Behind")) << "the index's record";
  EXPECT_EQ("", Problem());
}

TEST_F(CheckDatabaseTest, AWrongWordUnderARightChecksumOfTheIndexIsFound) {
  const struct {
    Words words;
    std::function<void(std::uint64_t, std::uint64_t*)> change;
    const char* problem;
  } kWrong[] = {
      {Words::kSlots,
       [left = 1](std::uint64_t, std::uint64_t* slot) mutable {
         *slot = *slot != 0 && left-- > 0 ? *slot + 1 : *slot;
       },
       " in an index"},
      {Words::kSlots,
       [left = 1](std::uint64_t, std::uint64_t* slot) mutable {
         *slot = *slot != 0 && left-- > 0 ? 0 : *slot;
       },
       "slot of section "},
      {Words::kSlots,
       [left = 1](std::uint64_t i, std::uint64_t* slot) mutable {
         *slot = *slot == 0 && left-- > 0 ? i << 47 | 1 : *slot;
       },
       "slot"},
      {Words::kSlots,
       [free = 0](std::uint64_t i, std::uint64_t* slot) mutable {
         // Its place is the first of all.
         free = *slot == 0 ? free + 1 : 0;
         *slot = i > 1 && free == 2 ? 1 : *slot;
       },
       "unreachable slot of section 0 in an index"},
      {Words::kSlots,
       [](std::uint64_t, std::uint64_t* slot) {
         *slot = *slot == 0 ? 1 : *slot;
       },
       "no free slot in an index"},
      {Words::kPlaces,
       [](std::uint64_t id, std::uint64_t* place) {
         *place = id == 700 ? *place + 3 : *place;
       },
       "wrong place of section 700 in an index"},
      {Words::kPlaces,
       [](std::uint64_t id, std::uint64_t* place) {
         *place = id == 700 ? 0 : *place;
       },
       "wrong place of section 700 in an index"},
  };
  for (const auto& wrong : kWrong) {
    std::filesystem::remove(path_);
    MakeWithIndex();
    ChangeIndex(wrong.words, wrong.change);
    EXPECT_NE(std::string::npos, Problem().find(wrong.problem))
        << "want " << wrong.problem << ", got " << Problem();
  }
}

TEST_F(CheckDatabaseTest, AFlippedBitInTheIndexIsDamageAndNotAMiss) {
  MakeWithIndex();
  std::string bytes = ReadFile(path_);
  // All blocks of slots lie at the end of the file.
  for (std::size_t at = bytes.size() - 20 * database_format::kBlockSize;
       at < bytes.size(); at += database_format::kBlockSize) {
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
  }
  WriteFile(path_, bytes);
  EXPECT_NE(std::string::npos, Problem().find("wrong checksum"));
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kWrite));
  int damaged = 0;
  for (int i = 0; i < 100; ++i) {
    const SString path = SString("/User-") + SString(i);
    if (file.Find(path.View()) == SDatabaseFile::kNone && i != 7) {
      EXPECT_EQ(EBADMSG, errno);
      ++damaged;
    }
  }
  EXPECT_LT(0, damaged);
  std::uint32_t id = SDatabaseFile::kNone;
  EXPECT_FALSE(file.Store(SSection("/New"), &id));
  EXPECT_FALSE(file.Compact()) << "what isn't found would be lost";
  EXPECT_EQ(EBADMSG, errno);
  EXPECT_FALSE(file.Close());
}

TEST_F(CheckDatabaseTest, ClosingSaysThatDamageWasFoundAndKeepsWhatWasStored) {
  MakeWithIndex();
  std::string bytes = ReadFile(path_);
  bytes[bytes.find("Ann@/User-77")] = '!';
  WriteFile(path_, bytes);
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kWrite));
  std::uint32_t id = SDatabaseFile::kNone;
  ASSERT_TRUE(file.Store(SSection("/New"), &id));
  SSection section;
  ASSERT_TRUE(file.Read(76, &section));
  ASSERT_FALSE(file.Read(77, &section));
  EXPECT_EQ(EBADMSG, errno);
  errno = 0;
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(EBADMSG, errno);
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kRead));
  EXPECT_NE(SDatabaseFile::kNone, file.Find("/New"));
}

TEST_F(CheckDatabaseTest, ARecordDamagedMeanwhileIsNotCompactedAway) {
  Make();
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kWrite));
  std::string bytes = ReadFile(path_);
  bytes[bytes.find("/a")] = '!';
  WriteFile(path_, bytes);
  EXPECT_FALSE(file.Compact());
  EXPECT_EQ(EBADMSG, errno);
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(
      1, std::distance(
             std::filesystem::directory_iterator(directory_.Directory()), {}));
}

TEST_F(CheckDatabaseTest, ARecordThatIsTooBigIsRefused) {
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kCreate));
  SSection section("/a");
  section.Set("Key", SString('x', 64 << 20));
  std::uint32_t id = SDatabaseFile::kNone;
  EXPECT_FALSE(file.Store(section, &id));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_TRUE(file.Store(SSection("/b"), &id));
  EXPECT_TRUE(file.Close());
  EXPECT_EQ("", Problem());
}

TEST_F(CheckDatabaseTest, AReaderHasNothingToSyncAndStoresNothing) {
  Make();
  SDatabaseFile file;
  ASSERT_TRUE(file.Open(path_, SDatabaseFile::Access::kRead));
  EXPECT_TRUE(file.Sync());
  std::uint32_t id = SDatabaseFile::kNone;
  EXPECT_FALSE(file.Store(SSection("/b"), &id));
  EXPECT_EQ(EBADF, errno);
  EXPECT_FALSE(file.Remove(0));
  EXPECT_TRUE(file.Close());
  EXPECT_EQ("", Problem());
}

}  // namespace
