#include "tools/rehearse/Diff.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace {

const DiffStyle kStyle = {"a", "b", 0};

std::string Diff(const std::string& before, const std::string& after) {
  return UnifiedDiff(before, after, kStyle);
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadBack(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(Diff, EqualTextsHaveNoDifferences) {
  EXPECT_EQ(Diff("", ""), "");
  EXPECT_EQ(Diff("a\nb\n", "a\nb\n"), "");
}

TEST(Diff, AChangedLineStandsInThreeLinesOfContext) {
  EXPECT_EQ(Diff("1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n2\n3\n4\nV\n6\n7\n8\n9\n"),
            "--- a\n+++ b\n@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+V\n 6\n 7\n 8\n");
}

TEST(Diff, FilesThatComeOrGoHaveEmptyRanges) {
  EXPECT_EQ(Diff("", "x\ny\n"), "--- a\n+++ b\n@@ -0,0 +1,2 @@\n+x\n+y\n");
  EXPECT_EQ(Diff("x\n", ""), "--- a\n+++ b\n@@ -1 +0,0 @@\n-x\n");
}

TEST(Diff, ALastLineWithoutEndIsTold) {
  EXPECT_EQ(Diff("x", "x\n"),
            "--- a\n+++ b\n@@ -1 +1 @@\n-x\n\\ No newline at end of file\n"
            "+x\n");
}

TEST(Diff, DistantChangesArePartsOfTheirOwn) {
  const std::string before = "A\n1\n2\n3\n4\n5\n6\n7\nB\n";
  const std::string after = "X\n1\n2\n3\n4\n5\n6\n7\nY\n";
  EXPECT_EQ(Diff(before, after),
            "--- a\n+++ b\n@@ -1,4 +1,4 @@\n-A\n+X\n 1\n 2\n 3\n"
            "@@ -6,4 +6,4 @@\n 5\n 6\n 7\n-B\n+Y\n");
}

TEST(Diff, AHeadingNamesTheSectionAbove) {
  EXPECT_EQ(
      UnifiedDiff("/One\na\nb\nc\nd\n", "/One\na\nb\nc\ne\n", {"a", "b", '/'}),
      "--- a\n+++ b\n@@ -2,4 +2,4 @@ /One\n a\n b\n c\n-d\n+e\n");
}

// patch(1) judges: what it makes of the old text is the new one.
TEST(Diff, PatchMakesTheNewTextOfTheOldOne) {
  const std::string directory = ::testing::TempDir();
  std::mt19937 random(7);
  for (int round = 0; round < 150; ++round) {
    std::string before;
    std::string after;
    const auto lines = 1 + random() % 40;
    for (std::size_t i = 0; i < lines; ++i) {
      const std::string line = std::to_string(random() % 6) + "\n";
      before += random() % 5 == 0 ? "" : line;
      after += random() % 5 == 0 ? "" : line;
    }
    before += round % 7 == 0 ? "end" : "";
    const std::string diff = Diff(before, after);
    if (diff.empty()) {
      EXPECT_EQ(before, after);
      continue;
    }
    WriteFile(directory + "/old", before);
    WriteFile(directory + "/diff", diff);
    const std::string command = "patch -s -u -o '" + directory + "/new' '" +
                                directory + "/old' '" + directory + "/diff'";
    ASSERT_EQ(std::system(command.c_str()), 0) << diff;
    EXPECT_EQ(ReadBack(directory + "/new"), after) << diff;
  }
}

TEST(Diff, BeyondTheLimitEverythingBetweenTheCommonEndsIsReplaced) {
  std::string before = "first\n";
  std::string after = "first\n";
  for (int i = 0; i < 3000; ++i) {
    before += "old " + std::to_string(i) + "\n";
    after += "new " + std::to_string(i) + "\n";
  }
  const std::string diff = Diff(before + "last\n", after + "last\n");
  EXPECT_TRUE(
      diff.starts_with("--- a\n+++ b\n@@ -1,3002 +1,3002 @@\n first\n"
                       "-old 0\n"));
  EXPECT_TRUE(diff.ends_with("+new 2999\n last\n"));
}

}  // namespace
