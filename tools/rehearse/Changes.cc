// The differences that a rehearsal made to files.
//
// Only what an overlay holds of its own can differ from the host, so a walk
// through those few files finds every path worth a look.  Where the overlay
// hides a whole directory of the host (replaced or moved ones), both sides are
// listed.  A baseline other than the host itself is the state of those paths at
// that moment, with the content of regular files up to a limit.

#include "tools/rehearse/Changes.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <set>

namespace {

constexpr off_t kKeepBytes = 64 << 20;  // larger contents are not kept
constexpr long kTickNanoseconds =
    20'000'000;  // coarser than any clock of files

std::string Relative(const Layer& layer, const std::string& path) {
  const std::string rest = path.substr(layer.mount_point.size());
  return rest.size() < 2 ? "." : rest.substr(1);
}

std::string Join(const std::string& directory, const std::string& name) {
  return directory + "/" + name;
}

// Opens what lies below a directory without following links on the way.
SDescriptor OpenBelow(int directory, const std::string& path, int flags) {
  struct open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC | O_NOFOLLOW);
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_BENEATH | RESOLVE_NO_XDEV;
  return SDescriptor(static_cast<int>(
      syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how)));
}

std::vector<std::string> NamesIn(SDescriptor directory) {
  std::vector<std::string> names;
  const int fd = dup(directory.Get());
  DIR* const stream = fd < 0 ? nullptr : fdopendir(fd);
  if (stream == nullptr) {
    if (fd >= 0) {
      close(fd);
    }
    return names;
  }
  while (const dirent* entry = readdir(stream)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

std::string LinkAt(int directory, const std::string& name) {
  std::array<char, 4096> target;
  const ssize_t n =
      readlinkat(directory, name.c_str(), target.data(), target.size());
  return n < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(n));
}

std::optional<FileState> StateAt(int directory, const std::string& name) {
  FileState state;
  if (fstatat(directory, name.c_str(), &state.status, AT_SYMLINK_NOFOLLOW) !=
      0) {
    return std::nullopt;
  }
  if (S_ISLNK(state.status.st_mode)) {
    state.link = LinkAt(directory, name);
  }
  return state;
}

SDescriptor OpenRegular(const std::string& path) {
  return SDescriptor(open(
      path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
}

bool HasMark(const SDescriptor& file, const char* name) {
  std::array<char, 4096> value;
  // An O_PATH descriptor's attributes are read through its name in /proc.
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
  return getxattr(path.c_str(), name, value.data(), value.size()) > 0;
}

bool IsWhiteout(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(0, 0);
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool Untouched(const FileState& before, const FileState& after) {
  return !before.fresh && before.status.st_dev == after.status.st_dev &&
         before.status.st_ino == after.status.st_ino &&
         before.status.st_size == after.status.st_size &&
         SameTime(before.status.st_ctim, after.status.st_ctim);
}

bool IsFresh(const struct stat& status) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const auto age = (now.tv_sec - status.st_ctim.tv_sec) * 1'000'000'000 +
                   (now.tv_nsec - status.st_ctim.tv_nsec);
  return age < kTickNanoseconds;
}

}  // namespace

const Layer& Changes::LayerOf(const std::string& path) const {
  const Layer* found = &root_.layers.front();
  for (const Layer& layer : root_.layers) {
    const std::string& point = layer.mount_point;
    if (point.size() > found->mount_point.size() && path.starts_with(point) &&
        (path.size() == point.size() || path[point.size()] == '/')) {
      found = &layer;
    }
  }
  return *found;
}

std::optional<FileState> Changes::Host(const std::string& path) const {
  const Layer& layer = LayerOf(path);
  const std::string relative = Relative(layer, path);
  const auto slash = relative.rfind('/');
  const SDescriptor directory =
      OpenBelow(layer.lower.Get(),
                slash == std::string::npos ? "." : relative.substr(0, slash),
                O_PATH | O_DIRECTORY);
  if (!directory.IsOpen()) {
    return std::nullopt;
  }
  return StateAt(directory.Get(), slash == std::string::npos
                                      ? relative
                                      : relative.substr(slash + 1));
}

std::optional<FileState> Changes::Baseline(const std::string& path) const {
  const auto found = marked_.find(path);
  return found == marked_.end() ? Host(path) : found->second;
}

// Everything below a directory whose content the overlay hides or moved.
void Changes::AddWhole(const Layer& layer, const std::string& path,
                       States& states) const {
  std::set<std::string> names;
  for (std::string& name : NamesIn(OpenBelow(
           layer.lower.Get(), Relative(layer, path), O_RDONLY | O_DIRECTORY))) {
    names.insert(std::move(name));
  }
  for (std::string& name : NamesIn(SDescriptor(open(
           path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW)))) {
    names.insert(std::move(name));
  }
  for (const std::string& name : names) {
    const std::string below = Join(path, name);
    if (&LayerOf(below) != &layer) {
      continue;
    }
    states[below] = StateAt(AT_FDCWD, below);
    const std::optional<FileState> host = Host(below);
    if ((states[below] && S_ISDIR(states[below]->status.st_mode)) ||
        (host && S_ISDIR(host->status.st_mode))) {
      AddWhole(layer, below, states);
    }
  }
}

void Changes::AddUpper(const Layer& layer, const std::string& path,
                       States& states) const {
  for (const std::string& name : NamesIn(OpenBelow(
           layer.upper.Get(), Relative(layer, path), O_RDONLY | O_DIRECTORY))) {
    const std::string below = Join(path, name);
    if (&LayerOf(below) != &layer) {
      continue;
    }
    const SDescriptor own =
        OpenBelow(layer.upper.Get(), Relative(layer, below), O_PATH);
    struct stat status = {};
    if (!own.IsOpen() || fstat(own.Get(), &status) != 0) {
      continue;
    }
    const std::optional<FileState> host = Host(below);
    const bool hosts_directory = host && S_ISDIR(host->status.st_mode);
    states[below] =
        IsWhiteout(status) ? std::nullopt : StateAt(AT_FDCWD, below);
    const bool merged = S_ISDIR(status.st_mode) && hosts_directory &&
                        !HasMark(own, "trusted.overlay.opaque") &&
                        !HasMark(own, "trusted.overlay.redirect");
    if (merged) {
      AddUpper(layer, below, states);
    } else if (S_ISDIR(status.st_mode) || hosts_directory) {
      AddWhole(layer, below, states);
    }
  }
}

Changes::States Changes::Touched() const {
  States states;
  for (const Layer& layer : root_.layers) {
    const std::string top = layer.mount_point.empty() ? "/" : layer.mount_point;
    states[top] = StateAt(AT_FDCWD, top);
    AddUpper(layer, layer.mount_point, states);
  }
  return states;
}

void Changes::Mark() {
  States states = Touched();
  for (auto& [path, state] : states) {
    if (!state || !S_ISREG(state->status.st_mode)) {
      continue;
    }
    const auto former = marked_.find(path);
    if (former != marked_.end() && former->second &&
        Untouched(*former->second, *state)) {
      state = former->second;
      continue;
    }
    state->fresh = IsFresh(state->status);
    if (state->status.st_size <= kKeepBytes) {
      const SDescriptor file = OpenRegular(path);
      state->content = std::make_shared<std::string>(
          file.IsOpen() ? ReadAll(file.Get()) : std::string());
    }
  }
  marked_ = std::move(states);
}

std::optional<std::string> Changes::Before(const std::string& path) const {
  const auto found = marked_.find(path);
  if (found != marked_.end()) {
    return found->second && found->second->content
               ? std::optional<std::string>(*found->second->content)
               : std::nullopt;
  }
  const Layer& layer = LayerOf(path);
  const SDescriptor file = OpenBelow(layer.lower.Get(), Relative(layer, path),
                                     O_RDONLY | O_NONBLOCK);
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0 ||
      !S_ISREG(status.st_mode) || status.st_size > kKeepBytes) {
    return std::nullopt;
  }
  return ReadAll(file.Get());
}

bool Changes::SameContent(const std::string& path, const FileState& before,
                          const FileState& after) const {
  if (S_ISLNK(after.status.st_mode)) {
    return before.link == after.link;
  }
  if (S_ISCHR(after.status.st_mode) || S_ISBLK(after.status.st_mode)) {
    return before.status.st_rdev == after.status.st_rdev;
  }
  if (!S_ISREG(after.status.st_mode)) {
    return true;
  }
  if (before.status.st_size != after.status.st_size) {
    return false;
  }
  if (Untouched(before, after)) {
    return true;
  }
  const std::optional<std::string> former = Before(path);
  if (!former) {
    return SameTime(before.status.st_mtim, after.status.st_mtim);
  }
  const SDescriptor file = OpenRegular(path);
  return file.IsOpen() && ReadAll(file.Get()) == *former;
}

std::optional<Change> Changes::CompareOne(
    const std::string& path, const std::optional<FileState>& now) const {
  Change change;
  change.path = path;
  change.before = Baseline(path);
  change.after = now;
  if (!change.before && !change.after) {
    return std::nullopt;
  }
  if (!change.before || !change.after) {
    change.kind =
        change.after ? Change::Kind::kCreated : Change::Kind::kRemoved;
    change.content_changed = true;
    return change;
  }
  const struct stat& a = change.before->status;
  const struct stat& b = change.after->status;
  change.content_changed = (a.st_mode & S_IFMT) != (b.st_mode & S_IFMT) ||
                           !SameContent(path, *change.before, *change.after);
  if (!change.content_changed && a.st_mode == b.st_mode &&
      a.st_uid == b.st_uid && a.st_gid == b.st_gid) {
    return std::nullopt;
  }
  return change;
}

// A file that went from one name to another keeps its content and the time of
// its last change, whether the overlay renamed it or copied it first.  The
// former name may be free now, or something else may have taken its place.
bool Changes::IsMovedFrom(const Change& former, const Change& created) const {
  if (former.kind == Change::Kind::kCreated || !former.before ||
      !former.content_changed || !S_ISREG(former.before->status.st_mode) ||
      !S_ISREG(created.after->status.st_mode) ||
      former.before->status.st_size != created.after->status.st_size ||
      !SameTime(former.before->status.st_mtim, created.after->status.st_mtim)) {
    return false;
  }
  const std::optional<std::string> content = Before(former.path);
  const SDescriptor file = OpenRegular(created.path);
  return content && file.IsOpen() && ReadAll(file.Get()) == *content;
}

void Changes::PairMoves(std::vector<Change>& changes) const {
  std::set<std::string> gone;
  for (Change& created : changes) {
    if (created.kind != Change::Kind::kCreated) {
      continue;
    }
    for (const Change& former : changes) {
      if (!gone.contains(former.path) && IsMovedFrom(former, created)) {
        created.kind = Change::Kind::kMoved;
        created.from = former.path;
        created.before = former.before;
        gone.insert(former.path);
        break;
      }
    }
  }
  std::erase_if(changes, [&gone](const Change& change) {
    return change.kind == Change::Kind::kRemoved && gone.contains(change.path);
  });
}

std::vector<Change> Changes::Compare() const {
  States states = Touched();
  for (const auto& [path, state] : marked_) {
    // What is no longer in the overlay is as it was on the host, or gone.
    if (!states.contains(path)) {
      states[path] = StateAt(AT_FDCWD, path);
    }
  }
  std::vector<Change> changes;
  for (const auto& [path, state] : states) {
    if (std::optional<Change> change = CompareOne(path, state)) {
      changes.push_back(std::move(*change));
    }
  }
  PairMoves(changes);
  return changes;
}
