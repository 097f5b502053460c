// Pattern compiler (exact compiled bytes, errors) and matcher (counts).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "zbshr/format.h"
#include "zbshr/system.h"

namespace {

using Bytes = std::vector<int>;

// The compiled units up to and including the final END and zero.
Bytes compiled(const char* pattern) {
  unsigned char buf[1024];
  std::memset(buf, 0xEE, sizeof buf);
  EXPECT_EQ(shregExprCmpl(buf, pattern, sizeof buf), 0) << pattern;
  Bytes out;
  for (size_t i = 0; i + 1 < sizeof buf; ++i) {
    out.push_back(buf[i]);
    if (i > 0 && buf[i - 1] == 11 && buf[i] == 0 && buf[i + 1] == 0xEE) break;
  }
  return out;
}

int32_t count(const char* pattern, const char* text) {
  unsigned char buf[1024];
  EXPECT_EQ(shregExprCmpl(buf, pattern, sizeof buf), 0) << pattern;
  return shregExprMatch(text, buf);
}

TEST(FormatPatternCompile, ExactBytes) {
  const struct {
    uint32_t codepage;
    const char* pattern;
    Bytes want;
  } rows[] = {
      {1252, "ab", {1, 'a', 1, 'b', 11, 0}}, {1252, "^a.$", {2, 1, 'a', 4, 3, 11, 0}},
      {1252, "a*", {7, 1, 'a', 11, 11, 0}}, {1252, "x.+y?", {1, 'x', 8, 4, 11, 9, 1, 'y', 11, 11, 0}},
      {1252, "[a-c]+", {8, 5, 4, 10, 'a', 'c', 11, 11, 0}}, {1252, "[^xy]", {6, 3, 'x', 'y', 11, 0}},
      {1252, "[]", {5, 1, 11, 0}}, {1252, "[^]", {6, 1, 11, 0}},
      {1252, "a^b$c", {1, 'a', 2, 1, 'b', 3, 1, 'c', 11, 0}},  // '^' and '$' compile wherever they stand
      {1252, "\\*a\\", {1, '*', 1, 'a', 1, '\\', 11, 0}},   // a trailing backslash stands for itself
      {1252, "ab*c", {1, 'a', 7, 1, 'b', 11, 1, 'c', 11, 0}},  // the closure takes the last item only
      // '-' first, after a completed range and before ']' is a plain member
      {1252, "[-a]", {5, 3, '-', 'a', 11, 0}}, {1252, "[a-c-e]", {5, 6, 10, 'a', 'c', '-', 'e', 11, 0}},
      {1252, "[a-]", {5, 3, 'a', '-', 11, 0}},
      // escapes inside a set; the character after a range's '-' is taken as is
      {1252, "[\\]\\\\]", {5, 3, ']', '\\', 11, 0}}, {1252, "[!-\\]", {5, 4, 10, '!', '\\', 11, 0}},
      {1252, "[\\--0]", {5, 4, 10, '-', '0', 11, 0}}, {1252, "[\xE0-\xFF]", {5, 4, 10, 0xE0, 0xFF, 11, 0}},
      {1252, "\x82*", {7, 1, 0x82, 11, 11, 0}},  // single-byte: the '*' after 0x82 is a closure
      // double-byte: two CHARs even when the trail byte is a metacharacter; a closure takes the trail byte
      {932, "\x82\x2A", {1, 0x82, 1, 0x2A, 11, 0}}, {932, "\xB1", {1, 0xB1, 11, 0}},
      {932, "\x82\xA0*", {1, 0x82, 7, 1, 0xA0, 11, 11, 0}},
      {932, "\\\x82\x2A", {1, 0x82, 1, 0x2A, 11, 0}},  // escaped or inside a set both bytes stay together
      {932, "[\x82\x5D]", {5, 3, 0x82, 0x5D, 11, 0}}, {932, "[\x82-a]", {5, 4, 0x82, '-', 'a', 11, 0}},
  };
  for (const auto& r : rows) {
    const uint32_t old = zbshr_set_codepage(r.codepage);
    EXPECT_EQ(compiled(r.pattern), r.want) << r.pattern;
    zbshr_set_codepage(old);
  }
}

TEST(FormatPatternCompile, ErrorsAndExactBufferSizes) {
  std::string ranges;
  for (int i = 0; i < 85; ++i) ranges += "a-z";  // three units each
  const struct {
    std::string pattern;
    int32_t size, code;
  } rows[] = {
      {"*a", 1024, 5}, {"+", 1024, 5}, {"^*", 1024, 5}, {"a$?", 1024, 5}, {"a**", 1024, 5},
      {"[abc", 1024, 2}, {"[^", 1024, 2}, {"[ab\\", 1024, 2}, {"[a-", 1024, 2},
      {"[]]", 1024, 0},  // "[]" then a literal ']'
      {"[" + std::string(254, 'x') + "]", 1024, 0}, {"[" + std::string(255, 'x') + "]", 1024, 3},
      {"[" + ranges + "]", 1024, 3}, {"[" + ranges.substr(3) + "]", 1024, 0},
      {"a", 4, 0}, {"a", 3, 1}, {"ab", 6, 0}, {"ab", 5, 1}, {"a*", 6, 0}, {"a*", 5, 1},
      {"[ab]", 6, 0}, {"[ab]", 5, 1}, {"a\\b", 6, 0}, {"a\\b", 3, 1}, {"", 2, 0}, {"", 1, 1}, {"", 0, 1},
  };
  for (const auto& r : rows) {
    std::vector<unsigned char> buf(static_cast<size_t>(r.size) + 8, 0xEE);
    EXPECT_EQ(shregExprCmpl(buf.data(), r.pattern.c_str(), r.size), r.code) << r.pattern << " " << r.size;
    for (size_t i = static_cast<size_t>(r.size); i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xEE) << "past the size";
  }
  unsigned char buf[16];
  ASSERT_EQ(shregExprCmpl(buf, "a", sizeof buf), 0);
  EXPECT_TRUE(shregExprMatch(nullptr, buf) == 0 && shregExprMatch("a", nullptr) == 0);
  EXPECT_EQ(shregExprCmpl(nullptr, "a", 16), 1);
}

// The common cases are compared with a plain backtracking matcher on random patterns below; these are the
// ones it does not draw.
TEST(FormatPatternMatch, Counts) {
  const char after_nul[] = {'a', '\0', 'a', 'a', '\0'};  // the terminator is never consumed
  // One stack frame per character would overflow; a plain search would take polynomial time over closures.
  const std::string big(2 << 20, 'a'), ab = big + "b", as(1 << 20, 'a');
  const struct {
    const char *pattern, *text;
    int32_t count;
  } rows[] = {
      {"a*", "bbb", 1},  // the empty match at the start, then stop
      {"[a-c]+", "xabcx", 1}, {"x.*y", "axbyxcyd", 1}, {"x.*y", "xbx", 0},
      {"$", "abc", 0},  // no start position at the end
      {"[]", "abc", 0}, {"[^]", "abc", 3}, {"a+a", "a", 1},  // PLUS may give back its one match
      {"abcdefghijklmnopqrst", "xxabcdefghijklmnopqrstabcdefghijklmnopqrs", 1},
      {"a*b*c*d*e*f*g*h*i*j*k*l*m*n*x", "abcdefghijklmnx--ax", 2},
      {"[\x80-\xFF]", "a\x80\xC3\xFFz", 3}, {"[a-\xFF]+", "AB\x7F\x90q", 1},  // unsigned bytes
      {"[^\x80-\xFF]", "a\x80\xC3\xFFz", 2},
      {"[\n]", "a\nb", 0},  // one member of value 10 reads as RANGE END..0: nothing
      {"[\nab]", "abc", 2},  // RANGE a..b
      {"a", after_nul, 1}, {".", after_nul, 1}, {"[^b]", after_nul, 1}, {"a.", after_nul, 0}, {"a[^x]", after_nul, 0},
      {"a*", big.c_str(), 1}, {".*b", big.c_str(), 0}, {"a+b", ab.c_str(), 1}, {".*b", ab.c_str(), 1},
      {"a?b", ab.c_str(), 1}, {"a*a*a*a*a*a*a*b", as.c_str(), 0}, {".*.*.*.*x", as.c_str(), 0},
      {"a+a+a+a+b", as.c_str(), 0}, {"[ab]*a*[ab]*c", as.c_str(), 0}, {"a*a*a*", as.c_str(), 1},
  };
  for (const auto& r : rows) EXPECT_EQ(count(r.pattern, r.text), r.count) << r.pattern;
  // Hundreds of thousands of closures: the depth of a pattern costs heap, not machine stack.
  for (const char* closure : {"a?", "a*"}) {
    std::string pat;
    for (int k = 0; k < 200000; ++k) pat += closure;
    pat += 'b';
    std::vector<unsigned char> buf(pat.size() * 2 + 8);
    ASSERT_EQ(shregExprCmpl(buf.data(), pat.c_str(), static_cast<int32_t>(buf.size())), 0);
    for (auto [text, n] : {std::pair{"aaab", 1}, {"aaaa", 0}, {"xbab", 2}}) EXPECT_EQ(shregExprMatch(text, buf.data()), n);
  }
}

TEST(FormatPatternWide, CompileAndMatch) {
  auto w = [](const char16_t* s) { return reinterpret_cast<const uint16_t*>(s); };
  uint16_t buf[64];
  ASSERT_EQ(shregExprCmplW(buf, w(u"[\u0100-\uFFFF]+x"), 64), 0);
  const uint16_t expect[] = {8, 5, 4, 10, 0x100, 0xFFFF, 11, 1, 'x', 11, 0};
  EXPECT_TRUE(std::equal(std::begin(expect), std::end(expect), buf));
  EXPECT_EQ(shregExprMatchW(w(u"\u3042\u3044x ax \u0101x"), buf), 2);
  // The size counts units; the set limit is 255 units as in the narrow form.
  EXPECT_EQ(shregExprCmplW(buf, w(u"ab"), 6), 0);
  EXPECT_EQ(shregExprCmplW(buf, w(u"ab"), 5), 1);
  const std::u16string big = u"[" + std::u16string(255, u'q') + u"]";
  std::vector<uint16_t> wbuf(600);
  EXPECT_EQ(shregExprCmplW(wbuf.data(), w(big.c_str()), 600), 3);
}

}  // namespace

// A plain reading of the matching rules over the compiled bytes, without the skips and memos of the library.
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

// Random patterns and texts: the matcher against the plain reading above, and the wide form against the
// narrow one (the same units, the same counts).
TEST(FormatPatternMatch, AgreesWithPlainBacktrackingAndTheWideForm) {
  const char* atoms[] = {"a", "b", "c", ".", "[ab]", "[^a]", "[b-c]", "^", "$", "\\.", "\\*", "[\\]-]"};
  const char* closures[] = {"", "", "*", "+", "?"};
  uint32_t seed = 12345;
  auto rnd = [&](uint32_t n) {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) % n;
  };
  for (int iter = 0; iter < 20000; ++iter) {
    std::string pat, text;
    for (int k = 0, n = 1 + rnd(iter % 10 == 0 ? 18 : 4); k < n; ++k) {  // some longer than 12 elements
      const char* a = atoms[rnd(12)];
      pat += a;
      if (a[0] != '^' && a[0] != '$') pat += closures[rnd(5)];
    }
    for (int k = 0, n = rnd(12); k < n; ++k) text += "abc.]-*"[rnd(7)];
    unsigned char buf[256];
    uint16_t wb[256];
    const std::u16string wpat(pat.begin(), pat.end()), wtext(text.begin(), text.end());
    ASSERT_EQ(shregExprCmpl(buf, pat.c_str(), sizeof buf), 0) << pat;
    ASSERT_EQ(shregExprCmplW(wb, reinterpret_cast<const uint16_t*>(wpat.c_str()), 256), 0) << pat;
    for (size_t i = 0; i == 0 || buf[i - 1] != 0; ++i) ASSERT_EQ(buf[i], wb[i]) << pat;
    const int32_t n = shregExprMatch(text.c_str(), buf);
    ASSERT_EQ(n, ref::count(buf, text.c_str())) << "pattern " << pat << " text " << text;
    ASSERT_EQ(n, shregExprMatchW(reinterpret_cast<const uint16_t*>(wtext.c_str()), wb)) << pat << " / " << text;
  }
}
