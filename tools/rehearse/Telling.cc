#include "tools/rehearse/Telling.h"

#include <fcntl.h>

#include "tools/rehearse/Diff.h"
#include "tools/rehearse/FileText.h"

namespace {

std::string ContentNow(const std::string& path) {
  const SDescriptor file(open(
      path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return file.IsOpen() ? ReadAll(file.Get()) : "";
}

class Teller {
 public:
  Teller(const std::vector<std::string>& program,
         const std::vector<Change>& files, const Changes& changes)
      : files_(files), changes_(changes), grouping_(program) {}

  Told Tell();

 private:
  Entry TellOne(const Change& change);
  void Compare(Entry& entry);
  [[nodiscard]] std::string FormerTwin(const Change& created,
                                       const std::string& content) const;

  const std::vector<Change>& files_;
  const Changes& changes_;
  const Grouping grouping_;
  Secrets secrets_;
  std::vector<AccountChange> accounts_;
};

Told Teller::Tell() {
  Told told;
  for (const Change& change : files_) {
    told.entries.push_back(TellOne(change));
  }
  told.accounts = std::move(accounts_);
  told.queued = ListQueued(files_, grouping_);
  return told;
}

Entry Teller::TellOne(const Change& change) {
  Entry entry;
  entry.change = &change;
  entry.group = grouping_.Of(change);
  const bool has_content = IsRegular(change.after) && change.content_changed &&
                           change.kind != Change::Kind::kMoved;
  // Mail is private.
  if (has_content && entry.group != Group::kMail) {
    Compare(entry);
  }
  return entry;
}

void Teller::Compare(Entry& entry) {
  const Change& change = *entry.change;
  const std::string content = ContentNow(change.path);
  if (change.kind == Change::Kind::kCreated) {
    entry.copy_of = FormerTwin(change, content);
    if (!entry.copy_of.empty()) {
      return;
    }
  }
  std::optional<FileText> before = FileText();
  if (IsRegular(change.before)) {
    const std::optional<std::string> former = changes_.Before(change.path);
    before = former ? TextOf(*former) : std::nullopt;
  }
  const std::optional<FileText> after = TextOf(content);
  if (!before || !after) {
    entry.note = "no text, " + std::to_string(content.size()) + " bytes";
    return;
  }
  const std::string old_text = secrets_.Mask(change.path, *before);
  const std::string new_text = secrets_.Mask(change.path, *after);
  const bool created = change.kind == Change::Kind::kCreated;
  entry.diff = UnifiedDiff(old_text, new_text,
                           {created ? "/dev/null" : change.path, change.path,
                            after->is_database ? '/' : '\0'});
  if (entry.group == Group::kAccounts) {
    accounts_ = CompareAccounts(old_text, new_text);
  }
}

std::string Teller::FormerTwin(const Change& created,
                               const std::string& content) const {
  if (content.empty()) {
    return "";
  }
  for (const Change& other : files_) {
    if (&other != &created && IsRegular(other.before) &&
        other.before->status.st_size == static_cast<off_t>(content.size()) &&
        changes_.Before(other.path) == content) {
      return other.path;
    }
  }
  return "";
}

}  // namespace

bool IsRegular(const std::optional<FileState>& state) {
  return state && S_ISREG(state->status.st_mode);
}

Told Tell(const std::vector<std::string>& program,
          const std::vector<Change>& files, const Changes& changes) {
  return Teller(program, files, changes).Tell();
}
