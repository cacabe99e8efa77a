// Files that no writer makes: right checksums around wrong contents.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "toolkit/ScratchDirectory.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/Hash.h"

namespace {

using namespace database_format;
using std::string_literals::operator""s;

// A database as its bytes.  Everything added is behind a right checksum.
class Forgery {
 public:
  explicit Forgery(std::uint32_t version = kVersion) : head_(kSectorSize, 0) {
    std::copy(std::begin(kMagic), std::end(kMagic), head_.begin());
    Put32(head_.data() + kHeadVersion, version);
    Put64(head_.data() + kHeadSalt, kSalt);
    chain_ = Seal(&head_);
  }

  Forgery& Add(RecordType type, std::uint32_t id, const std::string& body = "",
               std::uint64_t missing = 0) {
    std::string record;
    AppendBareRecord(type, id, chain_, &record);
    record.resize(kRecordBody);
    record += body;
    FinishRecord(0, &record, 0, missing);
    chain_ = Get32(record.data());
    records_ += record;
    return *this;
  }
  Forgery& AddSection(std::uint32_t id, const SSection& section) {
    std::string body;
    section.AppendBody(&body);
    return Add(RecordType::kSection, id, body);
  }
  // Bytes without any order.
  Forgery& AddBytes(const std::string& bytes) {
    records_ += bytes;
    return *this;
  }
  Forgery& Unchain() {
    ++chain_;
    return *this;
  }

  [[nodiscard]] std::uint64_t End() const {
    return kHeadSize + records_.size();
  }
  [[nodiscard]] std::string Bytes(std::uint64_t synced_end,
                                  std::uint64_t index = 0) const {
    std::string mark(kSectorSize, 0);
    Put64(mark.data() + kMarkNumber, 1);
    Put64(mark.data() + kMarkSyncedEnd, synced_end);
    Put64(mark.data() + kMarkIndex, index);
    Seal(&mark);
    return head_ + mark + mark + records_;
  }
  [[nodiscard]] std::string Bytes() const { return Bytes(End()); }

  static constexpr std::uint64_t kSalt = 4711;

 private:
  static std::uint32_t Seal(std::string* sector) {
    const std::uint32_t checksum = Crc32c({sector->data(), kSectorChecksum});
    Put32(sector->data() + kSectorChecksum, checksum);
    return checksum;
  }

  std::string head_;
  std::string records_;
  std::uint32_t chain_ = 0;
};

SSection Account(const char* path) {
  SSection section{SString(path)};
  section.Set("SMTP-Address", SString("Ann@x.org"));
  return section;
}

class ForgedDatabaseTest : public testing::Test {
 protected:
  // What is wrong with the file; "errno N" when it can't be read.
  [[nodiscard]] std::string Problem() const {
    std::string problem;
    errno = 0;
    const bool sound = CheckDatabase(path_, &problem);
    EXPECT_FALSE(sound && !problem.empty());
    return !sound && problem.empty() ? "errno " + std::to_string(errno)
                                     : problem;
  }
  // The number of sections that a reader finds; -1 when it refuses the file.
  [[nodiscard]] int Sections() const {
    SDatabaseFile file;
    if (file.Open(path_, SDatabaseFile::Access::kRead)) {
      return static_cast<int>(file.LiveSections());
    }
    EXPECT_EQ(EBADMSG, errno);
    return -1;
  }

  const ScratchDirectory directory_;
  const std::string path_ = directory_.Path("database");
};

TEST_F(ForgedDatabaseTest, WhatIsWrongAndWhereIsTold) {
  const auto with_a = [] { return Forgery().AddSection(0, Account("/a")); };
  const std::string sound = with_a().Bytes();
  const std::uint64_t end = with_a().End();
  const std::string at_end = " at byte " + std::to_string(end);
  std::string bad_head = sound;
  bad_head[kHeadVersion + 1] = 1;
  std::string bad_record = sound;
  bad_record.back() = 1;
  const struct {
    std::string bytes;
    std::string problem;
    int sections;
  } kFiles[] = {
      {sound, "", 1},
      {Forgery().AddSection(0, Account("/a/b")).Bytes(), "", 1},
      {with_a().Add(RecordType::kRemoved, 0).Bytes(), "", 0},
      {with_a().Add(RecordType::kReplaced, 0).Bytes(), "", 1},
      {sound.substr(0, 1000), "cut short in its head", -1},
      {"other bytes" + sound, "no database: wrong first bytes", -1},
      {bad_head, "wrong checksum of the head at byte 0", -1},
      {Forgery(2).Bytes(), "version 2", -1},
      {with_a().Bytes(end + 8),
       "cut short" + at_end + " of " + std::to_string(end + 8), -1},
      {with_a().AddBytes(std::string(8, 0)).Bytes(), "cut short" + at_end, -1},
      {with_a().AddBytes(std::string(24, 0)).Bytes(),
       "impossible size of a record" + at_end, -1},
      {bad_record, "wrong checksum of a record at byte 1536", -1},
      {with_a().Unchain().AddSection(1, Account("/b")).Bytes(),
       "record that doesn't follow the one before" + at_end, -1},
      {with_a().AddSection(2, Account("/b")).Bytes(),
       "record that holds no section" + at_end, -1},
      {with_a().Add(RecordType::kRemoved, 1).Bytes(),
       "removal of nothing" + at_end, -1},
      {with_a().Add(static_cast<RecordType>(9), 0).Bytes(),
       "record of an unknown kind" + at_end, -1},
      {with_a().Add(RecordType::kIndex, 0).Bytes(),
       "impossible size of an index" + at_end, -1},
      {with_a().AddSection(1, Account("/a")).Bytes(),
       "section 1 isn't found by its path", 2},
  };
  for (const auto& file : kFiles) {
    WriteFile(path_, file.bytes);
    EXPECT_EQ(file.problem, Problem());
    EXPECT_EQ(file.sections, Sections()) << file.problem;
  }
}

TEST_F(ForgedDatabaseTest, BodiesThatAreNoSectionsAreFoundAndNeverRead) {
  const struct {
    const char* what;
    std::string body;
    int sections;  // those whose beginning already is wrong are refused
  } kBodies[] = {
      {"a path that is longer than the body", "\x7f/b"s, -1},
      {"a length without end", "\xff\xff\xff\xff\xff\xff\x01"s, -1},
      {"a length beyond 32 bits", "\xff\xff\xff\xff\x7f"s, -1},
      {"fewer keys than it says", "\2/b\2\1k\0"s, 1},
      {"fewer values than it says", "\2/b\1\1k\xff\x7f"s, 1},
      {"a key that is longer than the body", "\2/b\1\x7fk"s, 1},
      {"keys that aren't sorted", "\2/b\2\1k\0\1a\0"s, 1},
      {"a key twice", "\2/b\2\1k\0\1k\0"s, 1},
      {"bytes behind the keys", "\2/b\0garbage"s, 1},
  };
  for (const auto& body : kBodies) {
    WriteFile(path_, Forgery().Add(RecordType::kSection, 0, body.body).Bytes());
    EXPECT_EQ("record that holds no section at byte 1536", Problem())
        << body.what;
    EXPECT_EQ(body.sections, Sections()) << body.what;
    SDatabaseFile file;
    SSection section;
    if (file.Open(path_, SDatabaseFile::Access::kRead)) {
      EXPECT_FALSE(file.Read(0, &section)) << body.what;
      EXPECT_EQ(EBADMSG, errno) << body.what;
      EXPECT_EQ(SDatabaseFile::kNone, file.Find("/b", &section)) << body.what;
      EXPECT_EQ(EBADMSG, errno) << body.what;
    }
  }
}

TEST_F(ForgedDatabaseTest, WhatStandsBehindTheSyncedEndEndsAtTheFirstWrong) {
  const auto begin = [] { return Forgery().AddSection(0, Account("/a")); };
  const std::uint64_t synced = begin().End();
  const Forgery kWrong[] = {
      begin().AddSection(2, Account("/c")),
      begin().Add(RecordType::kRemoved, 1),
      begin().Add(static_cast<RecordType>(9), 0),
      begin().Unchain(),
  };
  for (Forgery wrong : kWrong) {
    WriteFile(path_, wrong.AddSection(1, Account("/b")).Bytes(synced));
    EXPECT_EQ(1, Sections());
    EXPECT_EQ("", Problem());
  }
}

TEST_F(ForgedDatabaseTest, AnIndexCountsWhenAllOfItIsThere) {
  Forgery forgery = Forgery().AddSection(0, Account("/a"));
  const std::uint64_t synced = forgery.End();
  const std::string head(kIndexHeadSize - kRecordBody, '\0');
  forgery.Add(RecordType::kIndex, 0, head, kBlockSize);
  WriteFile(path_, forgery.Bytes(synced));
  SDatabaseFile reader;
  ASSERT_TRUE(reader.Open(path_, SDatabaseFile::Access::kRead));
  const std::uint64_t before = reader.Generation();
  ASSERT_TRUE(reader.Follow());
  EXPECT_EQ(before, reader.Generation());
  const std::uint32_t seed = Get32(forgery.Bytes(synced).data() + synced);
  std::string block(kBlockSize, '\0');
  Put64(block.data() + kBlockSize - 8,
        Crc32c({block.data(), kBlockSize - 8}, seed));
  forgery.AddBytes(block);
  WriteFile(path_, forgery.AddSection(1, Account("/b")).Bytes(synced));
  ASSERT_TRUE(reader.Follow());
  EXPECT_EQ(1U, reader.Find("/b")) << "it stands behind the index";
}

TEST_F(ForgedDatabaseTest, AMarkThatNamesNoIndexIsRefused) {
  Forgery forgery = Forgery().AddSection(0, Account("/a"));
  for (const std::uint64_t index : {kHeadSize + 0UL, 1UL, 1UL << 40}) {
    WriteFile(path_, forgery.Bytes(forgery.End(), index));
    EXPECT_EQ(-1, Sections()) << index;
    EXPECT_EQ("errno " + std::to_string(EBADMSG), Problem()) << index;
  }
  // Its head is sound, its numbers are not.
  const std::uint64_t index = forgery.End();
  const std::string head(kIndexHeadSize - kRecordBody, '\0');
  forgery.Add(RecordType::kIndex, 0, head, kBlockSize);
  forgery.AddBytes(std::string(kBlockSize, '\0'));
  WriteFile(path_, forgery.Bytes(forgery.End(), index));
  EXPECT_EQ(-1, Sections());
}

TEST_F(ForgedDatabaseTest, AnIndexHiddenInAValueDoesNotHideAnAddress) {
  Forgery forgery = Forgery().AddSection(0, Account("/a"));
  SDatabaseIndex index;
  index.SetPlace(0, {kHeadSize, forgery.End() - kHeadSize});
  index.Insert(HashOfText("/a", Forgery::kSalt), 0);
  const std::string hidden = index.Record(0);
  // The path fills the record, so that nothing comes behind the value.
  for (int fill = 0; fill < 8; ++fill) {
    SSection section("/b" + SString(std::string(fill, 'b')));
    section.Set("Key", SString(hidden));
    std::string body;
    section.AppendBody(&body);
    if ((kRecordBody + body.size()) % kRecordAlignment == 0) {
      forgery.AddSection(1, section);
    }
  }
  WriteFile(path_, forgery.Bytes(forgery.End(), forgery.End() - hidden.size()));
  EXPECT_EQ(1, Sections()) << "a reader takes it for the index";
  EXPECT_EQ("section 0 isn't found by its address Ann@x.org", Problem());
}

TEST_F(ForgedDatabaseTest, WhatIsNoFileIsNoDatabase) {
  EXPECT_EQ("errno " + std::to_string(ENOENT), Problem());
  std::filesystem::create_directory(path_);
  EXPECT_EQ("no regular file", Problem());
}

}  // namespace
