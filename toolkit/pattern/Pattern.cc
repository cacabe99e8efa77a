// Matches with an explicit stack and remembers every failed pair of
// instruction and position, so that time is bounded by their product.

#include "toolkit/pattern/Pattern.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <string>

namespace {

using ByteSet = std::bitset<256>;

struct Node {
  enum class Kind { kEmpty, kSet, kBegin, kEnd, kGroup, kCat, kAlt, kRepeat };
  Kind kind = Kind::kEmpty;
  ByteSet set;
  int group = 0;
  int min = 0;
  int max = -1;
  std::vector<int> children;
};

struct Instruction {
  enum class Op { kSet, kSplit, kJump, kSave, kBegin, kEnd, kMatch };
  Op op = Op::kMatch;
  ByteSet set;
  int a = 0;
  int b = 0;
};

constexpr int kMaxProgram = 20000;

}  // namespace

struct SPattern::Program {
  bool valid = false;
  int groups = 0;
  std::vector<Instruction> code;
};

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  bool Parse(SPattern::Program* program);

 private:
  int Add(Node node) {
    nodes_.push_back(std::move(node));
    return static_cast<int>(nodes_.size()) - 1;
  }
  bool More() const { return at_ < text_.size(); }
  char Peek() const { return text_[at_]; }
  int Alternatives(int depth);
  int Sequence(int depth);
  int Atom(int depth);
  int Repetitions(int atom);
  bool Braces(int* min, int* max);
  ByteSet Bracket();
  ByteSet Escape();
  void Emit(int node, SPattern::Program* program);

  std::string_view text_;
  std::size_t at_ = 0;
  bool good_ = true;
  int groups_ = 0;
  std::vector<Node> nodes_;
};

ByteSet ClassOf(char c) {
  ByteSet set;
  for (unsigned i = 0; i < 256; ++i) {
    const bool digit = i >= '0' && i <= '9';
    const bool word =
        digit || i == '_' || (i >= 'a' && i <= 'z') || (i >= 'A' && i <= 'Z');
    const bool space = i == ' ' || (i >= '\t' && i <= '\r');
    switch (c) {
      case 'd':
      case 'D':
        set[i] = digit;
        break;
      case 'w':
      case 'W':
        set[i] = word;
        break;
      default:
        set[i] = space;
    }
  }
  return c == 'D' || c == 'W' || c == 'S' ? ~set : set;
}

ByteSet One(char c) {
  ByteSet set;
  set.set(static_cast<unsigned char>(c));
  return set;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

ByteSet Parser::Escape() {
  ++at_;
  if (!More()) {
    good_ = false;
    return {};
  }
  const char c = text_[at_++];
  switch (c) {
    case 'd':
    case 'D':
    case 'w':
    case 'W':
    case 's':
    case 'S':
      return ClassOf(c);
    case 't':
      return One('\t');
    case 'n':
      return One('\n');
    case 'r':
      return One('\r');
    case 'f':
      return One('\f');
    default:
      if (IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
        good_ = false;
      }
      return One(c);
  }
}

ByteSet Parser::Bracket() {
  ByteSet set;
  ++at_;
  const bool negated = More() && Peek() == '^';
  at_ += negated ? 1 : 0;
  bool first = true;
  while (good_ && More() && (first || Peek() != ']')) {
    first = false;
    const bool escaped = Peek() == '\\';
    const ByteSet low = escaped ? Escape() : One(text_[at_++]);
    const bool range = at_ + 1 < text_.size() && Peek() == '-' &&
                       text_[at_ + 1] != ']' && low.count() == 1;
    if (!range) {
      set |= low;
      continue;
    }
    ++at_;
    const ByteSet high = Peek() == '\\' ? Escape() : One(text_[at_++]);
    if (high.count() != 1 || high._Find_first() < low._Find_first()) {
      good_ = false;
      break;
    }
    for (std::size_t i = low._Find_first(); i <= high._Find_first(); ++i) {
      set.set(i);
    }
  }
  good_ = good_ && More();
  ++at_;
  return negated ? ~set : set;
}

bool Parser::Braces(int* min, int* max) {
  std::size_t i = at_ + 1;
  const auto number = [&](int* value) {
    const std::size_t begin = i;
    *value = 0;
    while (i < text_.size() && IsDigit(text_[i]) && *value < kMaxProgram) {
      *value = *value * 10 + (text_[i++] - '0');
    }
    return i > begin;
  };
  if (!number(min)) {
    return false;
  }
  *max = *min;
  if (i < text_.size() && text_[i] == ',') {
    ++i;
    if (!number(max)) {
      *max = -1;
    }
  }
  if (i >= text_.size() || text_[i] != '}') {
    return false;
  }
  good_ = good_ && (*max < 0 || *max >= *min) && *min <= 1000 && *max <= 1000;
  at_ = i + 1;
  return true;
}

int Parser::Repetitions(int atom) {
  if (!More()) {
    return atom;
  }
  Node node;
  node.kind = Node::Kind::kRepeat;
  switch (Peek()) {
    case '*':
      ++at_;
      break;
    case '+':
      node.min = 1;
      ++at_;
      break;
    case '?':
      node.max = 1;
      ++at_;
      break;
    case '{':
      if (!Braces(&node.min, &node.max)) {
        return atom;
      }
      break;
    default:
      return atom;
  }
  int ignored[2];
  if (More() && (Peek() == '*' || Peek() == '+' || Peek() == '?' ||
                 (Peek() == '{' && Braces(&ignored[0], &ignored[1])))) {
    good_ = false;
  }
  node.children.push_back(atom);
  return Add(std::move(node));
}

int Parser::Atom(int depth) {
  Node node;
  node.kind = Node::Kind::kSet;
  int ignored[2];
  switch (Peek()) {
    case '(': {
      ++at_;
      if (depth > 250 || (More() && Peek() == '?')) {
        good_ = false;
        return Add(Node());
      }
      node.kind = Node::Kind::kGroup;
      node.group = ++groups_;
      node.children.push_back(Alternatives(depth + 1));
      good_ = good_ && More() && Peek() == ')';
      ++at_;
      break;
    }
    case '[':
      node.set = Bracket();
      break;
    case '.':
      ++at_;
      node.set.set();
      break;
    case '\\':
      node.set = Escape();
      break;
    case '^':
      ++at_;
      node.kind = Node::Kind::kBegin;
      break;
    case '$':
      ++at_;
      node.kind = Node::Kind::kEnd;
      break;
    case '*':
    case '+':
    case '?':
      good_ = false;
      break;
    case '{':
      if (Braces(&ignored[0], &ignored[1])) {
        good_ = false;
        break;
      }
      [[fallthrough]];
    default:
      node.set = One(text_[at_++]);
  }
  return Add(std::move(node));
}

int Parser::Sequence(int depth) {
  Node node;
  node.kind = Node::Kind::kCat;
  while (good_ && More() && Peek() != '|' && Peek() != ')') {
    const int atom = Atom(depth);
    if (good_) {
      node.children.push_back(Repetitions(atom));
    }
  }
  return Add(std::move(node));
}

int Parser::Alternatives(int depth) {
  Node node;
  node.kind = Node::Kind::kAlt;
  node.children.push_back(Sequence(depth));
  while (good_ && More() && Peek() == '|') {
    ++at_;
    node.children.push_back(Sequence(depth));
  }
  return Add(std::move(node));
}

void Parser::Emit(int index, SPattern::Program* program) {
  using Op = Instruction::Op;
  const Node& node = nodes_[static_cast<std::size_t>(index)];
  std::vector<Instruction>& code = program->code;
  const auto here = [&code] { return static_cast<int>(code.size()); };
  const auto add = [&](Op op, int a = 0, int b = 0) {
    code.push_back({op, {}, a, b});
    return code.size() - 1;
  };
  if (here() > kMaxProgram) {
    good_ = false;
    return;
  }
  switch (node.kind) {
    case Node::Kind::kEmpty:
      break;
    case Node::Kind::kSet:
      code[add(Op::kSet)].set = node.set;
      break;
    case Node::Kind::kBegin:
      add(Op::kBegin);
      break;
    case Node::Kind::kEnd:
      add(Op::kEnd);
      break;
    case Node::Kind::kGroup:
      add(Op::kSave, 2 * node.group);
      Emit(node.children[0], program);
      add(Op::kSave, 2 * node.group + 1);
      break;
    case Node::Kind::kCat:
      for (const int child : node.children) {
        Emit(child, program);
      }
      break;
    case Node::Kind::kAlt: {
      std::vector<std::size_t> jumps;
      for (std::size_t i = 0; i + 1 < node.children.size(); ++i) {
        const std::size_t split = add(Op::kSplit, here() + 1);
        Emit(node.children[i], program);
        jumps.push_back(add(Op::kJump));
        code[split].b = here();
      }
      Emit(node.children.back(), program);
      for (const std::size_t jump : jumps) {
        code[jump].a = here();
      }
      break;
    }
    case Node::Kind::kRepeat: {
      for (int i = 0; i < node.min; ++i) {
        Emit(node.children[0], program);
      }
      if (node.max < 0) {
        const std::size_t split = add(Op::kSplit, here() + 1);
        Emit(node.children[0], program);
        add(Op::kJump, static_cast<int>(split));
        code[split].b = here();
        break;
      }
      std::vector<std::size_t> splits;
      for (int i = node.min; i < node.max; ++i) {
        splits.push_back(add(Op::kSplit, here() + 1));
        Emit(node.children[0], program);
      }
      for (const std::size_t split : splits) {
        code[split].b = here();
      }
      break;
    }
  }
}

bool Parser::Parse(SPattern::Program* program) {
  const int root = Alternatives(0);
  if (!good_ || More()) {
    return false;
  }
  Emit(root, program);
  program->code.push_back({});
  program->groups = groups_;
  return good_;
}

}  // namespace

SPattern::SPattern(std::string_view expression) {
  auto program = std::make_unique<Program>();
  program->valid = Parser(expression).Parse(program.get());
  program_ = std::move(program);
}

SPattern::~SPattern() = default;

std::shared_ptr<const SPattern> SPattern::Get(std::string_view expression) {
  struct Entry {
    std::string text;
    std::shared_ptr<const SPattern> pattern;
  };
  static std::array<Entry, 32> cache;
  static std::size_t next = 0;
  for (const Entry& entry : cache) {
    if (entry.pattern != nullptr && entry.text == expression) {
      return entry.pattern;
    }
  }
  Entry& entry = cache[next++ % cache.size()];
  entry.text = expression;
  entry.pattern.reset(new SPattern(expression));
  return entry.pattern;
}

bool SPattern::IsValid() const {
  return program_->valid;
}

int SPattern::GroupCount() const {
  return program_->groups;
}

bool SPattern::Matches(std::string_view text) const {
  SMatch match;
  return Search(text, 0, &match);
}

bool SPattern::Search(std::string_view text, std::size_t from,
                      SMatch* match) const {
  using Op = Instruction::Op;
  if (!program_->valid) {
    return false;
  }
  struct Job {
    int pc;
    std::size_t at;
    int slot;
  };
  const std::vector<Instruction>& code = program_->code;
  std::vector<bool> visited(code.size() * (text.size() + 1 - from));
  std::vector<std::size_t> slots;
  std::vector<Job> stack;
  for (std::size_t start = from; start <= text.size(); ++start) {
    slots.assign(2 * static_cast<std::size_t>(program_->groups) + 2,
                 SMatch::Span::kNone);
    stack.assign(1, {0, start, -1});
    while (!stack.empty()) {
      Job job = stack.back();
      stack.pop_back();
      if (job.slot >= 0) {
        slots[static_cast<std::size_t>(job.slot)] = job.at;
        continue;
      }
      while (true) {
        const auto pc = static_cast<std::size_t>(job.pc);
        const std::size_t mark = pc * (text.size() + 1 - from) + job.at - from;
        if (visited[mark]) {
          break;
        }
        visited[mark] = true;
        const Instruction& i = code[pc];
        if (i.op == Op::kMatch) {
          slots[0] = start;
          slots[1] = job.at;
          match->spans.resize(slots.size() / 2);
          for (std::size_t g = 0; g < match->spans.size(); ++g) {
            match->spans[g] = {slots[2 * g], slots[2 * g + 1]};
          }
          return true;
        }
        if (i.op == Op::kSet) {
          if (job.at >= text.size() ||
              !i.set[static_cast<unsigned char>(text[job.at])]) {
            break;
          }
          ++job.at;
          ++job.pc;
        } else if (i.op == Op::kSplit) {
          stack.push_back({i.b, job.at, -1});
          job.pc = i.a;
        } else if (i.op == Op::kJump) {
          job.pc = i.a;
        } else if (i.op == Op::kSave) {
          const auto slot = static_cast<std::size_t>(i.a);
          stack.push_back({0, slots[slot], i.a});
          slots[slot] = job.at;
          ++job.pc;
        } else if (i.op == Op::kBegin
                       ? job.at == 0
                       : job.at == text.size() || (job.at + 1 == text.size() &&
                                                   text[job.at] == '\n')) {
          ++job.pc;
        } else {
          break;
        }
      }
    }
  }
  return false;
}
