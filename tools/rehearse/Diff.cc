// The shortest way from one list of lines to another, found by ever longer
// ways along the diagonals (E. Myers, "An O(ND) Difference Algorithm and Its
// Variations", 1986, the greedy variant).  Beyond a limit, everything between
// the common beginning and the common end is replaced.

#include "tools/rehearse/Diff.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int kMostChanges = 1000;
constexpr int kContext = 3;

using Lines = std::vector<std::string_view>;

std::size_t Index(int i) {
  return static_cast<std::size_t>(i);
}

// With their line ends: a last line without one differs from one with it.
Lines LinesOf(std::string_view text) {
  Lines lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1);
    lines.push_back(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
  }
  return lines;
}

// One line of the way: kept, or only in one of the texts.
struct Step {
  char sign;   // ' ', '-' or '+'
  int before;  // lines passed in either text before it
  int after;
};

class Way {
 public:
  Way(const Lines& before, const Lines& after)
      : before_(before), after_(after) {}

  std::vector<Step> Find();

 private:
  // Where a way enters a diagonal, and by which change.
  struct Entry {
    int x;
    bool removes;
  };

  void SkipCommonEnds();
  bool Search();
  void GoBack();
  [[nodiscard]] int Reached(int changes, int diagonal) const;
  [[nodiscard]] Entry EntryOf(int changes, int diagonal) const;
  [[nodiscard]] bool SameLine(int x, int y) const {
    return before_[Index(start_ + x)] == after_[Index(start_ + y)];
  }

  const Lines& before_;
  const Lines& after_;
  int start_ = 0;  // common lines at the beginning
  int width_ = 0;  // lines between those and the common ones at the end
  int height_ = 0;
  // How far one gets with so many changes, by diagonal (x - y + changes); -1
  // where there is no way.
  std::vector<std::vector<int>> reached_;
  std::vector<Step> middle_;
};

void Way::SkipCommonEnds() {
  width_ = static_cast<int>(before_.size());
  height_ = static_cast<int>(after_.size());
  while (width_ > 0 && height_ > 0 && SameLine(0, 0)) {
    ++start_;
    --width_;
    --height_;
  }
  while (width_ > 0 && height_ > 0 && SameLine(width_ - 1, height_ - 1)) {
    --width_;
    --height_;
  }
}

int Way::Reached(int changes, int diagonal) const {
  return std::abs(diagonal) > changes
             ? -1
             : reached_[Index(changes)][Index(diagonal + changes)];
}

Way::Entry Way::EntryOf(int changes, int diagonal) const {
  if (changes == 0) {
    return {0, false};
  }
  const int added = Reached(changes - 1, diagonal + 1);
  const int removed = Reached(changes - 1, diagonal - 1);
  const bool can_add = added >= 0 && added - diagonal <= height_;
  const bool can_remove = removed >= 0 && removed < width_;
  if (can_remove && (!can_add || removed + 1 > added)) {
    return {removed + 1, true};
  }
  return {can_add ? added : -1, false};
}

bool Way::Search() {
  for (int changes = 0; changes <= std::min(kMostChanges, width_ + height_);
       ++changes) {
    std::vector<int> reached(Index(2 * changes + 1), -1);
    bool arrived = false;
    for (int diagonal = -changes; diagonal <= changes; diagonal += 2) {
      int x = EntryOf(changes, diagonal).x;
      while (x >= 0 && x < width_ && x - diagonal < height_ &&
             SameLine(x, x - diagonal)) {
        ++x;
      }
      reached[Index(diagonal + changes)] = x;
      arrived |= x == width_ && x - diagonal == height_;
    }
    reached_.push_back(std::move(reached));
    if (arrived) {
      return true;
    }
  }
  return false;
}

void Way::GoBack() {
  int x = width_;
  int y = height_;
  for (int changes = static_cast<int>(reached_.size()) - 1; changes >= 0;
       --changes) {
    const Entry entry = EntryOf(changes, x - y);
    while (x > entry.x) {
      --x;
      --y;
      middle_.push_back({' ', start_ + x, start_ + y});
    }
    if (changes > 0) {
      (entry.removes ? x : y) -= 1;
      middle_.push_back({entry.removes ? '-' : '+', start_ + x, start_ + y});
    }
  }
  std::reverse(middle_.begin(), middle_.end());
}

std::vector<Step> Way::Find() {
  SkipCommonEnds();
  if (Search()) {
    GoBack();
  } else {
    for (int x = 0; x < width_; ++x) {
      middle_.push_back({'-', start_ + x, start_});
    }
    for (int y = 0; y < height_; ++y) {
      middle_.push_back({'+', start_ + width_, start_ + y});
    }
  }
  std::vector<Step> steps;
  steps.reserve(before_.size() + middle_.size());
  for (int i = 0; i < start_; ++i) {
    steps.push_back({' ', i, i});
  }
  steps.insert(steps.end(), middle_.begin(), middle_.end());
  for (int i = start_ + width_; i < static_cast<int>(before_.size()); ++i) {
    steps.push_back({' ', i, i - width_ + height_});
  }
  return steps;
}

// "12,3"; an empty range stands behind the line before it.
std::string Range(int first, int count) {
  std::string range = std::to_string(count == 0 ? first : first + 1);
  if (count != 1) {
    range += ',';
    range += std::to_string(count);
  }
  return range;
}

std::string HeadingAbove(const Lines& before, int line, char heading) {
  std::string text;
  while (heading != 0 && --line >= 0) {
    const std::string_view above = before[Index(line)];
    if (above.front() == heading) {
      text = ' ';
      text += above.substr(0, above.find('\n'));
      break;
    }
  }
  return text;
}

std::string LineOf(const Step& step, const Lines& before, const Lines& after) {
  const std::string_view line =
      step.sign == '+' ? after[Index(step.after)] : before[Index(step.before)];
  std::string text(1, step.sign);
  text += line;
  if (!line.ends_with('\n')) {
    text += "\n\\ No newline at end of file\n";
  }
  return text;
}

}  // namespace

std::string UnifiedDiff(const std::string& before, const std::string& after,
                        const DiffStyle& style) {
  if (before == after) {
    return "";
  }
  const Lines old_lines = LinesOf(before);
  const Lines new_lines = LinesOf(after);
  const std::vector<Step> steps = Way(old_lines, new_lines).Find();
  const int count = static_cast<int>(steps.size());
  const auto is_change = [&steps](int i) {
    return steps[Index(i)].sign != ' ';
  };
  std::string text =
      "--- " + style.before_name + "\n+++ " + style.after_name + "\n";
  for (int i = 0; i < count; ++i) {
    if (!is_change(i)) {
      continue;
    }
    const int first = std::max(0, i - kContext);
    int last = i;  // the last change whose context touches the one before
    for (int k = i; k < count && k <= last + 2 * kContext + 1; ++k) {
      last = is_change(k) ? k : last;
    }
    const int end = std::min(count, last + kContext + 1);
    std::string lines;
    int removed = 0;
    int added = 0;
    for (int k = first; k < end; ++k) {
      const Step& step = steps[Index(k)];
      lines += LineOf(step, old_lines, new_lines);
      removed += step.sign != '+' ? 1 : 0;
      added += step.sign != '-' ? 1 : 0;
    }
    const Step& start = steps[Index(first)];
    text += "@@ -" + Range(start.before, removed) + " +" +
            Range(start.after, added) + " @@" +
            HeadingAbove(old_lines, start.before, style.heading) + "\n" + lines;
    i = end - 1;
  }
  return text;
}
