// The pattern matcher: a small regular-expression language compiled into a
// caller buffer of opcodes (bytes in the narrow form, 16-bit units in the
// wide form) and a backtracking matcher that counts matches in a text.
//
// Compiled layout, one unit per opcode or operand:
//   1 CHAR c | 2 BOL | 3 EOL | 4 ANY | 5 SET len members | 6 NSET len members
//   7 STAR item END | 8 PLUS item END | 9 QUEST item END | 10 RANGE lo hi (in sets)
//   11 END (closes a closure's item, and the pattern, which then has a 0 unit).
// A set's length unit is 1 + its member units and stays below 256.
//
// Set members compare as unsigned units. Nothing matches at the text's
// terminating zero, so the matcher never reads past it. A member unit of 10
// always reads as RANGE followed by its two bounds (a literal line feed in a
// set therefore takes the next two units as a range).
//
// The matcher backtracks with a stack of its own (one entry per open closure,
// on the heap beyond the first few), so no pattern can exhaust the machine
// stack, whatever its number of closures.
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/platform.h"
#include "zbshr/format.h"

namespace {

enum : uint16_t {
  kChar = 1,
  kBol = 2,
  kEol = 3,
  kAny = 4,
  kSet = 5,
  kNset = 6,
  kStar = 7,
  kPlus = 8,
  kQuest = 9,
  kRange = 10,
  kEnd = 11,
};

constexpr int32_t kErrSmall = 1;
constexpr int32_t kErrSet = 2;
constexpr int32_t kErrSetLong = 3;
constexpr int32_t kErrClosure = 5;

// ------------------------------------------------------------------ compiler

template <typename Unit>
int32_t compile(Unit* buf, const Unit* pat, int32_t size) {
  if (buf == nullptr || pat == nullptr || size <= 0) return kErrSmall;
  const int32_t cap = size;
  int32_t n = 0;          // units written
  int32_t last = -1;      // start of the last item a closure may apply to
  auto room = [&](int32_t k) { return n + k <= cap; };

  const Unit* p = pat;
  while (*p != 0) {
    const uint32_t c = *p;
    if constexpr (sizeof(Unit) == 1) {
      if (zbshr::plat::IsDBCSLeadByte(static_cast<uint8_t>(c)) && p[1] != 0) {
        if (!room(4)) return kErrSmall;
        buf[n++] = kChar;
        buf[n++] = p[0];
        last = n;
        buf[n++] = kChar;
        buf[n++] = p[1];
        p += 2;
        continue;
      }
    }
    switch (c) {
      case '^':
      case '$':
      case '.': {
        if (!room(1)) return kErrSmall;
        if (c == '.') {
          last = n;
          buf[n++] = kAny;
        } else {
          last = -1;
          buf[n++] = c == '^' ? kBol : kEol;
        }
        ++p;
        break;
      }
      case '\\': {
        ++p;
        if constexpr (sizeof(Unit) == 1) {
          // An escaped double-byte character stays two literal bytes.
          if (*p != 0 && p[1] != 0 && zbshr::plat::IsDBCSLeadByte(static_cast<uint8_t>(*p))) {
            if (!room(4)) return kErrSmall;
            buf[n++] = kChar;
            buf[n++] = p[0];
            last = n;
            buf[n++] = kChar;
            buf[n++] = p[1];
            p += 2;
            break;
          }
        }
        Unit lit = '\\';
        if (*p != 0) lit = *p++;  // a '\' ending the pattern is itself literal
        if (!room(2)) return kErrSmall;
        last = n;
        buf[n++] = kChar;
        buf[n++] = lit;
        break;
      }
      case '*':
      case '+':
      case '?': {
        if (last < 0) return kErrClosure;
        if (!room(2)) return kErrSmall;
        // Move the item one unit on, put the closure before it, END after.
        std::memmove(buf + last + 1, buf + last, sizeof(Unit) * static_cast<size_t>(n - last));
        buf[last] = c == '*' ? kStar : c == '+' ? kPlus : kQuest;
        ++n;
        buf[n++] = kEnd;
        last = -1;
        ++p;
        break;
      }
      case '[': {
        ++p;
        Unit op = kSet;
        if (*p == '^') {
          op = kNset;
          ++p;
        }
        if (!room(2)) return kErrSmall;
        const int32_t start = n;
        buf[n++] = op;
        const int32_t len_at = n;
        buf[n++] = 1;
        int32_t prev_member = -1;  // index of a plain member a '-' may extend
        for (;;) {
          Unit m = *p;
          if (m == 0) return kErrSet;
          if (m == ']') {
            ++p;
            break;
          }
          if (m == '-' && prev_member >= 0 && p[1] != ']' && p[1] != 0) {
            // prev '-' next: a range; the character after '-' is taken as is.
            const Unit hi = p[1];
            if (!room(2)) return kErrSmall;
            const Unit lo = buf[prev_member];
            buf[prev_member] = kRange;
            buf[n++] = lo;
            buf[n++] = hi;
            if (n - len_at >= 256) return kErrSetLong;
            p += 2;
            prev_member = -1;
            continue;
          }
          if (m == '-' && p[1] == 0) return kErrSet;
          if constexpr (sizeof(Unit) == 1) {
            // Both bytes of a double-byte character are plain members.
            if (p[1] != 0 && zbshr::plat::IsDBCSLeadByte(static_cast<uint8_t>(m))) {
              if (!room(2)) return kErrSmall;
              buf[n++] = p[0];
              buf[n++] = p[1];
              if (n - len_at >= 256) return kErrSetLong;
              p += 2;
              prev_member = -1;
              continue;
            }
          }
          if (m == '\\') {
            if (p[1] == 0) return kErrSet;
            ++p;
            m = *p;
          }
          if (!room(1)) return kErrSmall;
          prev_member = n;
          buf[n++] = m;
          if (n - len_at >= 256) return kErrSetLong;
          ++p;
        }
        buf[len_at] = static_cast<Unit>(n - len_at);
        last = start;
        break;
      }
      default: {
        if (!room(2)) return kErrSmall;
        last = n;
        buf[n++] = kChar;
        buf[n++] = static_cast<Unit>(c);
        ++p;
        break;
      }
    }
  }
  if (!room(2)) return kErrSmall;
  buf[n++] = kEnd;
  buf[n++] = 0;
  return 0;
}

// ------------------------------------------------------------------ matcher

// One decoded pattern element. Every consuming element (CHAR, ANY, SET, NSET)
// becomes a class; a class never contains the terminating zero.
template <typename Unit>
struct Node {
  uint8_t kind = kEnd;      // kChar, kAny, kSet (covers NSET), kBol, kEol, kEnd
  uint8_t closure = 0;      // 0, kStar, kPlus, kQuest
  bool negate = false;
  Unit ch = 0;
  const Unit* members = nullptr;  // wide sets: members in compiled form
  int32_t member_units = 0;
  uint32_t bits[8] = {};          // narrow: membership of every byte
};

template <typename Unit>
bool set_contains(const Unit* m, int32_t units, uint32_t c) {
  // A RANGE member reads its two bounds even where they lie past the set.
  int32_t i = 0;
  while (i < units) {
    if (m[i] == kRange) {
      if (static_cast<uint32_t>(m[i + 1]) <= c && c <= static_cast<uint32_t>(m[i + 2]))
        return true;
      i += 3;
    } else {
      if (static_cast<uint32_t>(m[i]) == c) return true;
      ++i;
    }
  }
  return false;
}

template <typename Unit>
inline bool test(const Node<Unit>& n, Unit u) {
  if constexpr (sizeof(Unit) == 1) {
    return (n.bits[u >> 5] >> (u & 31)) & 1u;
  } else {
    if (u == 0) return false;
    switch (n.kind) {
      case kChar:
        return u == n.ch;
      case kAny:
        return true;
      default:
        return set_contains(n.members, n.member_units, u) != n.negate;
    }
  }
}

// Decodes one consuming item at c[i]; returns the index after it or -1.
template <typename Unit>
int32_t decode_item(const Unit* c, int32_t i, Node<Unit>& n) {
  switch (c[i]) {
    case kChar:
      n.kind = kChar;
      n.ch = c[i + 1];
      if constexpr (sizeof(Unit) == 1) {
        if (n.ch != 0) n.bits[n.ch >> 5] |= 1u << (n.ch & 31);
      }
      return i + 2;
    case kAny:
      n.kind = kAny;
      if constexpr (sizeof(Unit) == 1) {
        for (auto& w : n.bits) w = 0xFFFFFFFFu;
        n.bits[0] &= ~1u;
      }
      return i + 1;
    case kSet:
    case kNset: {
      const int32_t len = c[i + 1];
      if (len < 1) return -1;
      // Members are never 0: a 0 unit means the length runs past the pattern.
      for (int32_t k = 0; k < len - 1; ++k)
        if (c[i + 2 + k] == 0) return -1;
      n.kind = kSet;
      n.negate = c[i] == kNset;
      n.members = c + i + 2;
      n.member_units = len - 1;
      if constexpr (sizeof(Unit) == 1) {
        for (uint32_t b = 1; b < 256; ++b)
          if (set_contains(n.members, n.member_units, b) != n.negate)
            n.bits[b >> 5] |= 1u << (b & 31);
      }
      return i + 1 + len;
    }
    default:
      return -1;
  }
}

// A sequence that keeps its first N elements inside itself, so that matching
// a short pattern (the usual case, such as listing names) allocates nothing.
template <typename T, size_t N>
class SmallVec {
 public:
  void push_back(const T& v) {
    if (n_ < N) {
      local_[n_++] = v;
      return;
    }
    if (heap_.empty()) heap_.assign(local_, local_ + N);
    heap_.push_back(v);
    ++n_;
  }
  void resize(size_t n) {
    if (n <= N) {
      n_ = n;
      return;
    }
    heap_.assign(local_, local_ + (n_ < N ? n_ : N));
    heap_.resize(n);
    n_ = n;
  }
  T* data() { return n_ <= N ? local_ : heap_.data(); }
  size_t size() const { return n_; }

 private:
  T local_[N];
  std::vector<T> heap_;
  size_t n_ = 0;
};

template <typename Unit>
using NodeList = SmallVec<Node<Unit>, 12>;

template <typename Unit>
bool decode(const Unit* c, NodeList<Unit>& out) {
  int32_t i = 0;
  for (;;) {
    Node<Unit> n;
    const Unit op = c[i];
    if (op == kEnd) {
      out.push_back(n);
      return true;
    }
    if (op == kBol || op == kEol) {
      n.kind = static_cast<uint8_t>(op);
      ++i;
    } else if (op == kStar || op == kPlus || op == kQuest) {
      n.closure = static_cast<uint8_t>(op);
      i = decode_item(c, i + 1, n);
      if (i < 0 || c[i] != kEnd) return false;
      ++i;
    } else {
      i = decode_item(c, i, n);
      if (i < 0) return false;
    }
    out.push_back(n);
  }
}

// Positions from which the rest of the pattern after a closure is known to
// fail. at() depends only on the node and the position, so a failure found
// once holds for every later start: remembering it keeps a closure such as
// ".*b" over a long text without "b" linear instead of quadratic.
// The same holds for the run of characters a closure's item matches: a start
// inside a run already measured ends at the same place.
template <typename Unit>
struct FailSpan {
  const Unit* lo = nullptr;
  const Unit* hi = nullptr;        // empty when lo is null
  const Unit* run_lo = nullptr;    // the item matches every unit in
  const Unit* run_end = nullptr;   // [run_lo, run_end) and fails at run_end
};

// A closure being backed off: node i matched [start, furthest), and q is the
// end position tried (or to be tried) for the rest of the pattern.
template <typename Unit>
struct Frame {
  size_t i;
  const Unit* start;
  const Unit* furthest;
  const Unit* q;
  bool tried;  // q has been tried and failed
};

// The open closures, innermost last: the first few in place, the rest on the
// heap, so that the depth of a pattern costs memory, never machine stack.
template <typename Unit>
class FrameStack {
 public:
  void push(const Frame<Unit>& f) {
    if (n_ < kLocal) {
      local_[n_] = f;
    } else if (more_.size() > n_ - kLocal) {
      more_[n_ - kLocal] = f;
    } else {
      more_.push_back(f);
    }
    ++n_;
  }
  Frame<Unit>& back() { return n_ <= kLocal ? local_[n_ - 1] : more_[n_ - 1 - kLocal]; }
  void pop() { --n_; }
  bool empty() const { return n_ == 0; }
  void clear() { n_ = 0; }

 private:
  static constexpr size_t kLocal = 16;
  Frame<Unit> local_[kLocal];
  std::vector<Frame<Unit>> more_;
  size_t n_ = 0;
};

template <typename Unit>
struct Matcher {
  const Node<Unit>* nodes;
  const Unit* begin;
  FailSpan<Unit>* fails;  // one per node
  FrameStack<Unit> open;

  // Matches the pattern from node i at p; returns the end of the match or null.
  // Each closure tries its furthest end first and backs off one unit at a
  // time; the closures waiting to back off are kept in `open`.
  const Unit* at(size_t i, const Unit* p) {
    open.clear();
    for (;;) {
      // Forward: match elements until the pattern ends, one fails, or a
      // closure opens.
      for (;;) {
        const Node<Unit>& n = nodes[i];
        if (n.kind == kEnd) return p;
        if (n.kind == kBol || n.kind == kEol) {
          if (n.kind == kBol ? p != begin : *p != 0) break;
          ++i;
          continue;
        }
        if (n.closure == 0) {
          if (!test(n, *p)) break;
          ++p;
          ++i;
          continue;
        }
        const Unit* q = p;
        FailSpan<Unit>& known = fails[i];
        if (n.closure == kQuest) {
          if (test(n, *q)) ++q;
        } else {
          if (known.run_lo != nullptr && p >= known.run_lo && p <= known.run_end) {
            q = known.run_end;
          } else {
            // A run that reaches the start of the measured one ends where it does.
            while (test(n, *q)) {
              ++q;
              if (q == known.run_lo) {
                q = known.run_end;
                break;
              }
            }
            known.run_lo = p;
            known.run_end = q;
          }
          if (n.closure == kPlus && q == p) break;  // needs one match
        }
        if (nodes[i + 1].kind == kEnd) return q;  // the furthest try succeeds
        open.push({i, p, q, q, false});
        break;
      }
      // Backward: the innermost open closure with an end left to try goes
      // on from there; a closure with none left records that every end in
      // [start, furthest] fails.
      bool resumed = false;
      while (!resumed && !open.empty()) {
        Frame<Unit>& f = open.back();
        FailSpan<Unit>& known = fails[f.i];
        bool left = true;
        if (f.tried) {
          if (f.q == f.start) {
            left = false;
          } else {
            --f.q;
            f.tried = false;
          }
        }
        while (left && known.lo != nullptr && f.q >= known.lo && f.q <= known.hi) {
          if (known.lo <= f.start) {
            left = false;
          } else {
            f.q = known.lo - 1;
          }
        }
        if (left) {
          f.tried = true;
          i = f.i + 1;
          p = f.q;
          resumed = true;
          break;
        }
        if (known.lo != nullptr && known.lo <= f.furthest + 1 && f.start <= known.hi + 1) {
          if (f.start < known.lo) known.lo = f.start;
          if (f.furthest > known.hi) known.hi = f.furthest;
        } else {
          known.lo = f.start;
          known.hi = f.furthest;
        }
        open.pop();
      }
      if (!resumed) return nullptr;
    }
  }
};

template <typename Unit>
int32_t count_matches(const Unit* text, const Unit* compiled) {
  if (text == nullptr || compiled == nullptr || *text == 0) return 0;
  NodeList<Unit> nodes;
  if (!decode(compiled, nodes)) return 0;
  SmallVec<FailSpan<Unit>, 12> fails;
  fails.resize(nodes.size());
  Matcher<Unit> m{nodes.data(), text, fails.data(), {}};
  const Node<Unit>& first = nodes.data()[0];

  if (first.kind == kBol) return m.at(0, text) ? 1 : 0;  // no later start can match

  // A first element that must consume a character lets the scan skip
  // positions where no match can start.
  const bool must_consume =
      (first.kind == kChar || first.kind == kAny || first.kind == kSet) &&
      (first.closure == 0 || first.closure == kPlus);
  int32_t count = 0;
  const Unit* p = text;
  while (*p != 0) {
    if (must_consume) {
      if constexpr (sizeof(Unit) == 1) {
        if (first.kind == kChar) {
          const char* f = std::strchr(reinterpret_cast<const char*>(p), static_cast<char>(first.ch));
          if (f == nullptr) break;
          p = reinterpret_cast<const Unit*>(f);
        } else {
          while (*p != 0 && !test(first, *p)) ++p;
        }
      } else {
        while (*p != 0 && !test(first, *p)) ++p;
      }
      if (*p == 0) break;
    }
    const Unit* r = m.at(0, p);
    if (r != nullptr) {
      ++count;
      if (r == p) break;  // an empty match ends the count
      p = r;
    } else {
      ++p;
    }
  }
  return count;
}

}  // namespace

ZBSHR_API(int32_t) shregExprCmpl(unsigned char* buffer, const char* pattern, int32_t size) {
  return compile<uint8_t>(buffer, reinterpret_cast<const uint8_t*>(pattern), size);
}

ZBSHR_API(int32_t) shregExprCmplW(uint16_t* buffer, const uint16_t* pattern, int32_t size) {
  return compile<uint16_t>(buffer, pattern, size);
}

ZBSHR_API(int32_t) shregExprMatch(const char* text, const unsigned char* compiled) {
  try {
    return count_matches<uint8_t>(reinterpret_cast<const uint8_t*>(text), compiled);
  } catch (...) {
    return 0;
  }
}

ZBSHR_API(int32_t) shregExprMatchW(const uint16_t* text, const uint16_t* compiled) {
  try {
    return count_matches<uint16_t>(text, compiled);
  } catch (...) {
    return 0;
  }
}
