// Pattern compiler (exact compiled bytes, errors) and matcher (counts).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zbshr/format.h"
#include "zbshr/system.h"

namespace {

using Bytes = std::vector<int>;

// Compiles into a generous buffer and returns the units up to and including
// the final END and zero.
Bytes compiled(const char* pattern) {
  unsigned char buf[1024];
  std::memset(buf, 0xEE, sizeof buf);
  EXPECT_EQ(shregExprCmpl(buf, pattern, sizeof buf), 0) << pattern;
  Bytes out;
  for (size_t i = 0; i + 1 < sizeof buf; ++i) {
    out.push_back(buf[i]);
    if (buf[i] == 11 && buf[i + 1] == 0 && buf[i + 2] == 0xEE) {
      out.push_back(0);
      break;
    }
  }
  return out;
}

int32_t count(const char* pattern, const char* text) {
  unsigned char buf[1024];
  EXPECT_EQ(shregExprCmpl(buf, pattern, sizeof buf), 0) << pattern;
  return shregExprMatch(text, buf);
}

int32_t cmpl_error(const char* pattern, int32_t size = 1024) {
  std::vector<unsigned char> buf(size > 0 ? size : 1);
  return shregExprCmpl(buf.data(), pattern, size);
}

TEST(FormatPatternCompile, OpcodesAndOperands) {
  EXPECT_EQ(compiled("ab"), (Bytes{1, 'a', 1, 'b', 11, 0}));
  EXPECT_EQ(compiled("^a.$"), (Bytes{2, 1, 'a', 4, 3, 11, 0}));
  EXPECT_EQ(compiled("a*"), (Bytes{7, 1, 'a', 11, 11, 0}));
  EXPECT_EQ(compiled("x.+y?"), (Bytes{1, 'x', 8, 4, 11, 9, 1, 'y', 11, 11, 0}));
  EXPECT_EQ(compiled("[a-c]+"), (Bytes{8, 5, 4, 10, 'a', 'c', 11, 11, 0}));
  EXPECT_EQ(compiled("[^xy]"), (Bytes{6, 3, 'x', 'y', 11, 0}));
  EXPECT_EQ(compiled("[]"), (Bytes{5, 1, 11, 0}));
  EXPECT_EQ(compiled("[^]"), (Bytes{6, 1, 11, 0}));
  // '^' and '$' compile wherever they stand.
  EXPECT_EQ(compiled("a^b$c"), (Bytes{1, 'a', 2, 1, 'b', 3, 1, 'c', 11, 0}));
  // Escapes: a literal star, and a trailing backslash stands for itself.
  EXPECT_EQ(compiled("\\*a\\"), (Bytes{1, '*', 1, 'a', 1, '\\', 11, 0}));
  // The closure applies only to the last item.
  EXPECT_EQ(compiled("ab*c"), (Bytes{1, 'a', 7, 1, 'b', 11, 1, 'c', 11, 0}));
}

TEST(FormatPatternCompile, SetMembers) {
  // '-' first, after a completed range and before ']' is a plain member.
  EXPECT_EQ(compiled("[-a]"), (Bytes{5, 3, '-', 'a', 11, 0}));
  EXPECT_EQ(compiled("[a-c-e]"), (Bytes{5, 6, 10, 'a', 'c', '-', 'e', 11, 0}));
  EXPECT_EQ(compiled("[a-]"), (Bytes{5, 3, 'a', '-', 11, 0}));
  // Escapes inside a set; the character after a range's '-' is taken as is.
  EXPECT_EQ(compiled("[\\]\\\\]"), (Bytes{5, 3, ']', '\\', 11, 0}));
  EXPECT_EQ(compiled("[!-\\]"), (Bytes{5, 4, 10, '!', '\\', 11, 0}));
  EXPECT_EQ(compiled("[\\--0]"), (Bytes{5, 4, 10, '-', '0', 11, 0}));
  // High bytes are stored as they are.
  EXPECT_EQ(compiled("[\xE0-\xFF]"), (Bytes{5, 4, 10, 0xE0, 0xFF, 11, 0}));
}

TEST(FormatPatternCompile, DoubleByteCharacters) {
  uint32_t old = zbshr_set_codepage(932);
  // Lead byte and trail byte: two CHARs, even when the trail byte is a
  // metacharacter; a half-width character is one CHAR.
  EXPECT_EQ(compiled("\x82\x2A"), (Bytes{1, 0x82, 1, 0x2A, 11, 0}));
  EXPECT_EQ(compiled("\xB1"), (Bytes{1, 0xB1, 11, 0}));
  // A closure after a double-byte character applies to its trail byte.
  EXPECT_EQ(compiled("\x82\xA0*"), (Bytes{1, 0x82, 7, 1, 0xA0, 11, 11, 0}));
  // Escaped, or inside a set, both bytes stay together.
  EXPECT_EQ(compiled("\\\x82\x2A"), (Bytes{1, 0x82, 1, 0x2A, 11, 0}));
  EXPECT_EQ(compiled("[\x82\x5D]"), (Bytes{5, 3, 0x82, 0x5D, 11, 0}));
  EXPECT_EQ(compiled("[\x82-a]"), (Bytes{5, 4, 0x82, '-', 'a', 11, 0}));
  zbshr_set_codepage(1252);
  // In a single-byte code page the '*' after 0x82 is a closure.
  EXPECT_EQ(compiled("\x82*"), (Bytes{7, 1, 0x82, 11, 11, 0}));
  zbshr_set_codepage(old);
}

TEST(FormatPatternCompile, Errors) {
  EXPECT_EQ(cmpl_error("*a"), 5);
  EXPECT_EQ(cmpl_error("+"), 5);
  EXPECT_EQ(cmpl_error("^*"), 5);
  EXPECT_EQ(cmpl_error("a$?"), 5);
  EXPECT_EQ(cmpl_error("a**"), 5);
  EXPECT_EQ(cmpl_error("[abc"), 2);
  EXPECT_EQ(cmpl_error("[^"), 2);
  EXPECT_EQ(cmpl_error("[ab\\"), 2);
  EXPECT_EQ(cmpl_error("[a-"), 2);
  EXPECT_EQ(cmpl_error("[]]"), 0);  // "[]" then a literal ']'
  // A set of 254 members is the longest (length unit 255).
  std::string ok = "[" + std::string(254, 'x') + "]";
  EXPECT_EQ(cmpl_error(ok.c_str()), 0);
  std::string too_long = "[" + std::string(255, 'x') + "]";
  EXPECT_EQ(cmpl_error(too_long.c_str()), 3);
  // Ranges count three units each.
  std::string ranges;
  for (int i = 0; i < 85; ++i) ranges += "a-z";
  EXPECT_EQ(cmpl_error(("[" + ranges + "]").c_str()), 3);
  EXPECT_EQ(cmpl_error(("[" + ranges.substr(3) + "]").c_str()), 0);
}

TEST(FormatPatternCompile, BufferSizeIsExact) {
  // "a" needs CHAR a END 0: four bytes.
  EXPECT_EQ(cmpl_error("a", 4), 0);
  EXPECT_EQ(cmpl_error("a", 3), 1);
  EXPECT_EQ(cmpl_error("ab", 6), 0);
  EXPECT_EQ(cmpl_error("ab", 5), 1);
  EXPECT_EQ(cmpl_error("a*", 6), 0);
  EXPECT_EQ(cmpl_error("a*", 5), 1);
  EXPECT_EQ(cmpl_error("[ab]", 6), 0);
  EXPECT_EQ(cmpl_error("[ab]", 5), 1);
  EXPECT_EQ(cmpl_error("", 2), 0);
  EXPECT_EQ(cmpl_error("", 1), 1);
  EXPECT_EQ(cmpl_error("", 0), 1);
  // Nothing is written past the size given.
  unsigned char buf[16];
  std::memset(buf, 0xEE, sizeof buf);
  EXPECT_EQ(shregExprCmpl(buf, "abcdef", 8), 1);
  for (int i = 8; i < 16; ++i) EXPECT_EQ(buf[i], 0xEE);
}

// The common cases are compared with a plain backtracking matcher on random
// patterns below; these are the ones it does not draw.
TEST(FormatPatternMatch, Counts) {
  EXPECT_EQ(count("a*", "bbb"), 1);  // the empty match at the start, then stop
  EXPECT_EQ(count("[a-c]+", "xabcx"), 1);
  EXPECT_EQ(count("x.*y", "axbyxcyd"), 1);   // greedy to the last y
  EXPECT_EQ(count("x.*y", "xbx"), 0);
  EXPECT_EQ(count("$", "abc"), 0);         // no start position at the end
  EXPECT_EQ(count("[]", "abc"), 0);        // an empty set never matches
  EXPECT_EQ(count("[^]", "abc"), 3);       // an empty negated set always does
  EXPECT_EQ(count("a+a", "a"), 1);         // PLUS may give back its one match
  EXPECT_EQ(count("abcdefghijklmnopqrst", "xxabcdefghijklmnopqrstabcdefghijklmnopqrs"), 1);
  EXPECT_EQ(count("a*b*c*d*e*f*g*h*i*j*k*l*m*n*x", "abcdefghijklmnx--ax"), 2);
}

TEST(FormatPatternMatch, HighBytesCompareUnsigned) {
  EXPECT_EQ(count("[\x80-\xFF]", "a\x80\xC3\xFFz"), 3);
  EXPECT_EQ(count("[a-\xFF]+", "AB\x7F\x90q"), 1);
  EXPECT_EQ(count("[^\x80-\xFF]", "a\x80\xC3\xFFz"), 2);
}

TEST(FormatPatternMatch, LineFeedInSetReadsAsRange) {
  // [\n] holds one member of value 10, read as RANGE END..0: matches nothing.
  EXPECT_EQ(count("[\n]", "a\nb"), 0);
  // [\nab]: RANGE a..b.
  EXPECT_EQ(count("[\nab]", "abc"), 2);
}

TEST(FormatPatternMatch, TerminatorIsNeverConsumed) {
  // A text whose terminator is followed by bytes that would match.
  const char text[] = {'a', '\0', 'a', 'a', '\0'};
  EXPECT_EQ(count("a", text), 1);
  EXPECT_EQ(count(".", text), 1);
  EXPECT_EQ(count("[^b]", text), 1);
  EXPECT_EQ(count("a.", text), 0);
  EXPECT_EQ(count("a[^x]", text), 0);
}

TEST(FormatPatternMatch, LongTextsAndDeepPatternsDoNotExhaustTheStack) {
  std::string big(2 << 20, 'a');  // one stack frame per character would overflow
  EXPECT_EQ(count("a*", big.c_str()), 1);
  EXPECT_EQ(count(".*b", big.c_str()), 0);
  big.back() = 'b';
  EXPECT_EQ(count("a+b", big.c_str()), 1);
  EXPECT_EQ(count(".*b", big.c_str()), 1);
  EXPECT_EQ(count("a?b", big.c_str()), 1);
  // Chains of closures that a plain backtracking search would take
  // polynomial time over.
  std::string as(1 << 20, 'a');
  EXPECT_EQ(count("a*a*a*a*a*a*a*b", as.c_str()), 0);
  EXPECT_EQ(count(".*.*.*.*x", as.c_str()), 0);
  EXPECT_EQ(count("a+a+a+a+b", as.c_str()), 0);
  EXPECT_EQ(count("[ab]*a*[ab]*c", as.c_str()), 0);
  EXPECT_EQ(count("a*a*a*", as.c_str()), 1);

  // Hundreds of thousands of closures: the depth of a pattern costs heap, not
  // machine stack (one level per closure would overflow an 8 MB stack).
  for (const char* closure : {"a?", "a*"}) {
    std::string pat;
    for (int k = 0; k < 200000; ++k) pat += closure;
    pat += 'b';
    std::vector<unsigned char> buf(pat.size() * 2 + 8);
    ASSERT_EQ(shregExprCmpl(buf.data(), pat.c_str(), static_cast<int32_t>(buf.size())), 0);
    EXPECT_EQ(shregExprMatch("aaab", buf.data()), 1) << closure;
    EXPECT_EQ(shregExprMatch("aaaa", buf.data()), 0) << closure;
    EXPECT_EQ(shregExprMatch("xbab", buf.data()), 2) << closure;
  }
}

TEST(FormatPatternMatch, NullArguments) {
  unsigned char buf[16];
  ASSERT_EQ(shregExprCmpl(buf, "a", sizeof buf), 0);
  EXPECT_EQ(shregExprMatch(nullptr, buf), 0);
  EXPECT_EQ(shregExprMatch("a", nullptr), 0);
  EXPECT_EQ(shregExprCmpl(nullptr, "a", 16), 1);
}

TEST(FormatPatternWide, CompileAndMatch) {
  uint16_t buf[64];
  const std::u16string pat = u"[\u0100-\uFFFF]+x";
  ASSERT_EQ(shregExprCmplW(buf, reinterpret_cast<const uint16_t*>(pat.c_str()), 64), 0);
  const uint16_t expect[] = {8, 5, 4, 10, 0x100, 0xFFFF, 11, 1, 'x', 11, 0};
  for (size_t i = 0; i < sizeof expect / sizeof expect[0]; ++i) EXPECT_EQ(buf[i], expect[i]) << i;
  const std::u16string text = u"\u3042\u3044x ax \u0101x";
  EXPECT_EQ(shregExprMatchW(reinterpret_cast<const uint16_t*>(text.c_str()), buf), 2);

  // The size counts units; the set limit is 255 units as in the narrow form.
  const std::u16string ab = u"ab";
  EXPECT_EQ(shregExprCmplW(buf, reinterpret_cast<const uint16_t*>(ab.c_str()), 6), 0);
  EXPECT_EQ(shregExprCmplW(buf, reinterpret_cast<const uint16_t*>(ab.c_str()), 5), 1);
  std::u16string big = u"[" + std::u16string(255, u'q') + u"]";
  std::vector<uint16_t> wbuf(600);
  EXPECT_EQ(shregExprCmplW(wbuf.data(), reinterpret_cast<const uint16_t*>(big.c_str()), 600), 3);
}

}  // namespace

// ---------------------------------------------------------------------------
// A plain reading of the matching rules over the compiled bytes, without the
// skips and memos of the library, to check them on random patterns and texts.
namespace ref {

const unsigned char* item_end(const unsigned char* c) {
  switch (*c) {
    case 1: return c + 2;
    case 4: return c + 1;
    default: return c + 1 + c[1];  // SET / NSET
  }
}

bool item_test(const unsigned char* c, unsigned char t) {
  if (t == 0) return false;
  if (*c == 1) return c[1] == t;
  if (*c == 4) return true;
  int len = c[1];
  bool in = false;
  for (int i = 2; i < len + 1;) {
    if (c[i] == 10) {
      if (c[i + 1] <= t && t <= c[i + 2]) in = true;
      i += 3;
    } else {
      if (c[i] == t) in = true;
      ++i;
    }
  }
  return *c == 5 ? in : !in;
}

const unsigned char* at(const unsigned char* c, const unsigned char* begin, const unsigned char* p) {
  for (;;) {
    switch (*c) {
      case 11: return p;
      case 2: if (p != begin) return nullptr; ++c; continue;
      case 3: if (*p) return nullptr; ++c; continue;
      case 7: case 8: case 9: {
        const unsigned char* item = c + 1;
        const unsigned char* rest = item_end(item) + 1;
        const unsigned char* q = p;
        if (*c == 8 && !item_test(item, *q)) return nullptr;
        if (*c == 9) { if (item_test(item, *q)) ++q; }
        else while (item_test(item, *q)) ++q;
        for (;;) {
          if (const unsigned char* r = at(rest, begin, q)) return r;
          if (q == p) return nullptr;
          --q;
        }
      }
      default:
        if (!item_test(c, *p)) return nullptr;
        ++p;
        c = item_end(c);
    }
  }
}

int count(const unsigned char* c, const char* text) {
  auto* b = reinterpret_cast<const unsigned char*>(text);
  int n = 0;
  for (const unsigned char* p = b; *p;) {
    const unsigned char* r = at(c, b, p);
    if (r) { ++n; if (r == p) break; p = r; } else ++p;
  }
  return n;
}

}  // namespace ref

TEST(FormatPatternMatch, AgreesWithPlainBacktrackingOnRandomInput) {
  const char* atoms[] = {"a", "b", "c", ".", "[ab]", "[^a]", "[b-c]", "^", "$", "\\."};
  const char* closures[] = {"", "", "*", "+", "?"};
  uint32_t seed = 12345;
  auto rnd = [&](uint32_t n) {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) % n;
  };
  for (int iter = 0; iter < 20000; ++iter) {
    std::string pat;
    int len = 1 + rnd(iter % 10 == 0 ? 18 : 4);  // some longer than 12 elements
    for (int k = 0; k < len; ++k) {
      const char* a = atoms[rnd(10)];
      pat += a;
      if (a[0] != '^' && a[0] != '$') pat += closures[rnd(5)];
    }
    std::string text;
    int tl = rnd(12);
    for (int k = 0; k < tl; ++k) text += "abc."[rnd(4)];
    unsigned char buf[256];
    ASSERT_EQ(shregExprCmpl(buf, pat.c_str(), sizeof buf), 0) << pat;
    ASSERT_EQ(shregExprMatch(text.c_str(), buf), ref::count(buf, text.c_str()))
        << "pattern " << pat << " text " << text;
  }
}

TEST(FormatPatternWide, AgreesWithNarrowOnAsciiInput) {
  const char* atoms[] = {"a", "b", ".", "[ab]", "[^a]", "[a-b]", "^", "$", "\\*", "[\\]-]"};
  const char* closures[] = {"", "*", "+", "?"};
  uint32_t seed = 99;
  auto rnd = [&](uint32_t n) {
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 16) % n;
  };
  for (int iter = 0; iter < 5000; ++iter) {
    std::string pat;
    for (int k = 0, n = 1 + rnd(5); k < n; ++k) {
      const char* a = atoms[rnd(10)];
      pat += a;
      if (a[0] != '^' && a[0] != '$') pat += closures[rnd(4)];
    }
    std::string text;
    for (int k = 0, n = rnd(20); k < n; ++k) text += "ab]-*"[rnd(5)];
    unsigned char nb[128];
    uint16_t wb[128];
    const std::u16string wpat(pat.begin(), pat.end()), wtext(text.begin(), text.end());
    const int32_t en = shregExprCmpl(nb, pat.c_str(), sizeof nb);
    const int32_t ew = shregExprCmplW(wb, reinterpret_cast<const uint16_t*>(wpat.c_str()), 128);
    ASSERT_EQ(en, ew) << pat;
    if (en != 0) continue;
    for (size_t i = 0; i == 0 || nb[i - 1] != 0; ++i) ASSERT_EQ(nb[i], wb[i]) << pat;
    ASSERT_EQ(shregExprMatch(text.c_str(), nb),
              shregExprMatchW(reinterpret_cast<const uint16_t*>(wtext.c_str()), wb))
        << pat << " / " << text;
  }
}
