#include "toolkit/database/CheckDatabase.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Section.h"
#include "toolkit/database/TextForm.h"

namespace {

using database_format::RecordType;

class CheckDatabaseTest : public testing::Test {
 protected:
  CheckDatabaseTest() : directory_(testing::TempDir() + "/checkXXXXXX") {
    EXPECT_NE(nullptr, mkdtemp(directory_.data()));
    path_ = directory_ + "/database";
  }
  ~CheckDatabaseTest() override { std::filesystem::remove_all(directory_); }
  CheckDatabaseTest(const CheckDatabaseTest&) = delete;
  CheckDatabaseTest& operator=(const CheckDatabaseTest&) = delete;

  // A database with the section "/a".
  void Make() const {
    SDatabaseFile file;
    const SSection section("/a");
    std::uint32_t id = SDatabaseFile::kNone;
    ASSERT_TRUE(file.Begin(path_) && file.Store(section, &id) &&
                file.Install(nullptr) && file.Close());
  }
  // Adds a record with right checksums behind what is known to be on disk.
  void AppendRecord(RecordType type, std::uint32_t id,
                    std::string_view body) const {
    std::ifstream in(path_, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
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
    std::ofstream(path_, std::ios::binary) << bytes << record;
  }
  [[nodiscard]] std::string Problem() const {
    std::string problem;
    const bool sound = CheckDatabase(path_, &problem);
    EXPECT_EQ(sound, problem.empty());
    return problem;
  }

  std::string directory_;
  std::string path_;
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

}  // namespace
