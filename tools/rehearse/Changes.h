#pragma once

#include <sys/stat.h>

#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/rehearse/Layers.h"

/// What is known of one path; content only where a baseline had to keep it.
struct FileState {
  struct stat status = {};
  std::string link;                            // where a symbolic link leads
  std::shared_ptr<const std::string> content;  // of a regular file, if kept
  bool fresh = false;  // changed so late that its times prove nothing
};

/// One difference between the baseline and now.
struct Change {
  enum class Kind { kCreated, kChanged, kMoved, kRemoved };
  Kind kind = Kind::kChanged;
  std::string path;
  std::string from;                 // the former path of a moved file
  std::optional<FileState> before;  // none for a created one
  std::optional<FileState> after;   // none for a removed one
  bool content_changed = false;
};

/// Finds out what became of the files of a rehearsal since its baseline.
/// The calling process has the rehearsal's root for its own.
class Changes {
 public:
  explicit Changes(const Root& root) : root_(root) {}

  /// Makes the present state the baseline.
  void Mark();

  /// The differences between the baseline and now, sorted by path.
  [[nodiscard]] std::vector<Change> Compare() const;

  /// The content that a regular file had at the baseline; none where there was
  /// no such file, or where it was too large to keep.
  [[nodiscard]] std::optional<std::string> Before(
      const std::string& path) const;

 private:
  using States = std::map<std::string, std::optional<FileState>>;

  [[nodiscard]] States Touched() const;
  void AddUpper(const Layer& layer, const std::string& path,
                States& states) const;
  void AddWhole(const Layer& layer, const std::string& path,
                States& states) const;
  [[nodiscard]] const Layer& LayerOf(const std::string& path) const;
  [[nodiscard]] std::optional<FileState> Host(const std::string& path) const;
  [[nodiscard]] std::optional<FileState> Baseline(
      const std::string& path) const;
  [[nodiscard]] bool SameContent(const std::string& path,
                                 const FileState& before,
                                 const FileState& after) const;
  [[nodiscard]] std::optional<Change> CompareOne(
      const std::string& path, const std::optional<FileState>& now) const;
  [[nodiscard]] bool IsMovedFrom(const Change& former,
                                 const Change& created) const;
  void PairMoves(std::vector<Change>& changes) const;

  const Root& root_;
  States marked_;
};
