// Strings: length-carrying blocks, builders, editing, case, conversions, bulk operations.
#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "heap_testutil.h"
#include "platform/platform.h"
#include "zbshr/memory.h"

namespace {

class StrHeap : public ::testing::Test {
 protected:
  void SetUp() override { heap_ = zbstg_begin(0); }
  void TearDown() override { zbstg_end(heap_); }
  ZBSTG_HEAP heap_ = nullptr;
};

struct CodePage {  // restores the single-byte code page however a test ends
  explicit CodePage(uint32_t cp) { zbshr::plat::set_acp(cp); }
  ~CodePage() { zbshr::plat::set_acp(1252); }
};

TEST_F(StrHeap, AllocStringStrdupAndLengths) {
  // n + 2 bytes asked: a flagged block whose last word is n; past 63,996 a plain block of n + 1.
  const struct { uint32_t n, size; bool flagged; int32_t len; } cases[] = {{10, 12, true, 9}, {0, 4, true, -1}, {63994, 63996, true, 63993}, {63995, 63996, false, 3}};
  for (const auto& c : cases) {
    auto* p = static_cast<char*>(zbstg_allocstring(heap_, c.n, 0));
    std::memcpy(p, "xyz", c.flagged ? std::min<uint32_t>(c.n, 2) : 4);  // read only when plain
    EXPECT_EQ(std::vector<int64_t>({zbstg_size(heap_, p), (heaptest::W(p, -2) & 0x8000) != 0,
                                    c.flagged ? heaptest::W(p, c.size - 2) : c.n, zbstg_allocstringlen(p)}),
              std::vector<int64_t>({c.size, c.flagged, c.n, c.len})) << c.n;
    zbstg_free(heap_, p);
  }
  EXPECT_EQ(zbstg_allocstring(heap_, static_cast<uint32_t>(-1), 0), nullptr);
  // A plain block answers its strlen; pool 0 is the default pool.
  char* p = zbstg_strdup(heap_, "pooled text", 7);
  char* d = zbstg_dbstrdup(heap_, "", 0, "file.c", 12);
  EXPECT_EQ(std::string(p) + "|" + d, "pooled text|");
  EXPECT_EQ(std::vector<uint32_t>({static_cast<uint32_t>(zbstg_allocstringlen(p)), zbstg_get_pointer_subpool(heap_, p),
                                   zbstg_size(heap_, p), zbstg_get_pointer_subpool(heap_, d)}),
            std::vector<uint32_t>({11, 7, 12, 1}));
  EXPECT_EQ(zbstg_strdup(heap_, nullptr, 0), nullptr);
}

// Each row appends to the same builder: (kind, text length, capacity after).
TEST_F(StrHeap, BuildersGrowByTheirRules) {
  const struct { int len; int32_t cap; } steps[] = {
      {10, 522},                            // 10 + 512
      {511, 522},                           // room for the text and its terminator
      {1, 1035},                            // one byte short: 522 + 512 + 1
      {1100, 1035 + 512 + 1100},            // a quarter of 1,035 is under 512
      {1100, 2647 + 2647 * 25 / 100 + 1100},  // past 2,048 the quarter wins
  };
  char* buf = nullptr;
  int32_t cap = 0, used = 0, total = 0;
  for (const auto& s : steps) {  // the contents are the random mix's below
    zbstg_str_build(heap_, 0, &buf, &cap, &used, std::string(s.len, 'a').c_str());
    total += s.len;
    EXPECT_EQ(std::make_pair(cap, used), std::make_pair(s.cap, total));
  }
  zbstg_free(heap_, buf);
  buf = nullptr, cap = 0, used = 0;
  for (int i = 0; i < 502; ++i) {  // grows by 501 when one byte or less is left
    zbstg_str_build_char(heap_, 3, &buf, &cap, &used, 'c');
    EXPECT_EQ(cap, i < 500 ? 501 : 1002) << i;
  }
  EXPECT_EQ(std::make_pair(used, zbstg_get_pointer_subpool(heap_, buf)), std::make_pair(502, 3u));
  zbstg_free(heap_, buf);
  // A null buffer that claims room or text is refused by all three.
  const int32_t claims[][2] = {{100, 0}, {100, 5}, {0, 5}};
  for (const auto& c : claims) {
    buf = nullptr, cap = c[0], used = c[1];
    zbstg_str_build(heap_, 0, &buf, &cap, &used, "x");
    zbstg_str_build_huge(heap_, 0, &buf, &cap, &used, "x");
    zbstg_str_build_char(heap_, 0, &buf, &cap, &used, 'x');
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(cap * 1000 + used, c[0] * 1000 + c[1]);
  }
  // Random mixes across 64,000 bytes, where the builder switches to the huge copy.
  std::mt19937 rng(1234);
  buf = nullptr, cap = 0, used = 0;
  std::string expect;
  while (expect.size() < 150000) {
    const int kind = static_cast<int>(rng() % 3);
    const std::string piece = kind ? std::string(rng() % 3000, static_cast<char>('A' + rng() % 26))
                                   : std::string(1, static_cast<char>('a' + rng() % 26));
    if (kind == 0) zbstg_str_build_char(heap_, 0, &buf, &cap, &used, piece[0]);
    if (kind == 1) zbstg_str_build(heap_, 0, &buf, &cap, &used, piece.c_str());
    if (kind == 2) zbstg_str_build_huge(heap_, 0, &buf, &cap, &used, piece.c_str());
    expect += piece;
    ASSERT_EQ(used, static_cast<int32_t>(expect.size()));
    ASSERT_GT(cap, used);
  }
  EXPECT_EQ(std::string(buf), expect);
  EXPECT_GE(zbstg_size(heap_, buf), static_cast<uint32_t>(cap));
}

TEST(StrEdit, RemoveTrimWordCap) {
  const struct { char op, c; const char* in; const char* out; } cases[] = {  // op: 'r' remove, 't' trim, 'w' wordcap, 'j' wordcap in 932
      {'r', ',', "a,b,,c,", "abc"}, {'r', 'x', "", ""}, {'t', ' ', "abc  ", "abc"},
      {'t', ' ', "  abc", "  abc"}, {'t', 'x', "xxxx", ""},
      {'w', 0, "hello-WORLD foo_bar", "Hello World Foo Bar"},
      {'w', 0, "ONE\ttWO\nthree\rfOUR", "One\tTwo\nThree\rFour"},
      {'w', 0, "\xB1" "abc d\xB1" "EF", "\xB1" "Abc D\xB1" "ef"},  // no letter, no word start
      {'w', 0, "9lives", "9lives"}, {'w', 0, "\xE0" "B", "\xC0" "b"}, {'w', 0, "\x82" "Ab", "\x82" "ab"},
      {'j', 0, "\x82" "Ab", "\x82" "AB"},  // one double-byte character, skipped whole
      {'j', 0, "ab\x82", "Ab\x82"},        // a lead byte at the end stops there
  };
  for (const auto& c : cases) {
    std::string s = c.in;
    char* p = s.data();
    CodePage cp(c.op == 'j' ? 932 : 1252);
    char* r = c.op == 'r' ? zbstg_str_remove_char(p, c.c)
              : c.op == 't' ? zbstg_str_trim_char(p, c.c) : zbstg_str_wordcap(p);
    EXPECT_EQ(r, p) << c.in;
    EXPECT_STREQ(p, c.out) << c.in;
  }
}

// The rows agree with Python's upper() and lower() on the cp1252 text.
TEST(StrChars, CaseAndCollation) {
  const struct { unsigned char in, upper, lower; } cases[] = {{'a', 'A', 'a'}, {'Z', 'Z', 'z'}, {'1', '1', '1'}, {0xE9, 0xC9, 0xE9},
               {0xC9, 0xC9, 0xE9}, {0xF7, 0xF7, 0xF7}, {0xD7, 0xD7, 0xD7}, {0xFF, 0x9F, 0xFF},
               {'`', '`', '`'}, {'{', '{', '{'}, {'@', '@', '@'}, {'[', '[', '['}, {'z', 'Z', 'z'},
               {'A', 'A', 'a'}, {0xDF, 0xDF, 0xDF}, {0xE0, 0xC0, 0xE0}, {0xFE, 0xDE, 0xFE},
               {0xC0, 0xC0, 0xE0}, {0xDE, 0xDE, 0xFE}, {0x9A, 0x8A, 0x9A}, {0x8A, 0x8A, 0x9A},
               {0x9C, 0x8C, 0x9C}, {0x8C, 0x8C, 0x9C}, {0x9E, 0x8E, 0x9E}, {0x8E, 0x8E, 0x9E},
               {0x9F, 0x9F, 0xFF}, {0x9B, 0x9B, 0x9B}, {0x8B, 0x8B, 0x8B}, {0xBF, 0xBF, 0xBF}};
  for (const auto& c : cases) {
    EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper(static_cast<char>(c.in))), c.upper) << int(c.in);
    EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitolower(static_cast<char>(c.in))), c.lower) << int(c.in);
  }
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  EXPECT_EQ(std::vector<int>({sign(zbstg_lchrcmp('a', 'b')), sign(zbstg_lchrcmp('b', 'a')), sign(zbstg_lchrcmp('q', 'q')),
                              zbstg_lchrcmp('a', 'A') != 0, sign(zbstg_lchrcmpi('a', 'A')), sign(zbstg_lchrcmpi('a', 'B'))}),
            std::vector<int>({-1, 1, 0, 1, 0, -1}));
  CodePage cp(932);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper('\xE9')), 0xE9);
  EXPECT_EQ(zbstg_ansitoupper('b'), 'B');
}

TEST(StrConv, IntegerConversions) {
  // fn: 'u' atou, 'U' atoul, 'i' atoi, 'l' atol, 's' strtol, 'S' strtoul
  const struct { char fn; int base; const char* text; int64_t want; } cases[] = {
      {'u', 0, "  42abc", 42}, {'u', 0, "-5", 0}, {'u', 0, "+5", 0}, {'u', 0, "\t\n\v\f\r 7", 7},
      {'u', 0, "", 0}, {'u', 0, "4294967295", 4294967295}, {'u', 0, "4294967296", 0},
      {'u', 0, "12 34", 12}, {'U', 0, "4294967297x", 1},
      {'U', 0, "12345678901234567890", static_cast<uint32_t>(12345678901234567890ull % 4294967296ull)},
      {'i', 0, " -17x", -17}, {'l', 0, "2147483647", INT32_MAX}, {'l', 0, "2147483648", INT32_MAX},
      {'i', 0, "-99999999999", INT32_MIN}, {'i', 0, "abc", 0}, {'i', 0, "+12", 12},
      {'s', 16, "0x1F", 31}, {'s', 0, "010", 8}, {'s', 0, "0x10", 16}, {'s', 0, "12", 12},
      {'s', 36, "-zz", -1295}, {'s', 10, "99999999999", INT32_MAX}, {'s', 10, "-2147483648", INT32_MIN},
      {'s', 10, "-99999999999", INT32_MIN}, {'S', 10, "4294967295", 4294967295},
      {'S', 10, "4294967296", 4294967295}, {'S', 10, "-1", 4294967295}, {'S', 10, "-4294967295", 1},
      {'S', 10, "-4294967296", 4294967295}, {'S', 16, "  ff", 255}, {'S', 2, "102", 2},
  };
  for (const auto& c : cases) {
    char* const sentinel = reinterpret_cast<char*>(0x1234);
    char* end = sentinel;
    int64_t got = c.fn == 'u' ? zbstg_atou(c.text) : c.fn == 'U' ? zbstg_atoul(c.text)
                  : c.fn == 'i' ? zbstg_atoi(c.text) : c.fn == 'l' ? zbstg_atol(c.text)
                  : c.fn == 's' ? zbstg_strtol(c.text, &end, c.base)
                                : static_cast<int64_t>(zbstg_strtoul(c.text, &end, c.base));
    EXPECT_EQ(got, c.want) << c.fn << " " << c.text;
    EXPECT_EQ(end, sentinel);  // never written
  }
  EXPECT_EQ(zbstg_atou(nullptr), 0u);
  EXPECT_EQ(zbstg_atoi(nullptr), 0);
}

// The expected values are the compiler's correctly rounded literals.
TEST(StrConv, StrtodAndAtof) {
  const double inf = HUGE_VAL;
  const std::string many = "1" + std::string(400, '0'), tiny = "0." + std::string(400, '0') + "1";
  const struct { std::string text; double want; int end; bool erange; } cases[] = {
      {"3.75rest", 3.75, 4, false}, {"  \t\n-2.5e3xyz", -2500, 10, false}, {"+.5", 0.5, 3, false},
      {"5.", 5, 2, false}, {".", 0, 0, false}, {"-", 0, 0, false}, {"+-1", 0, 0, false},
      {"--5", 0, 0, false}, {"e5", 0, 0, false}, {"1e", 1, 1, false}, {"1e+", 1, 1, false},
      {"1.5E-3", 1.5E-3, 6, false}, {"0x1.8p3", 12, 7, false}, {"0X1P-2z", 0.25, 6, false},
      {"0x", 0, 1, false}, {"0xg", 0, 1, false}, {"0x-1", 0, 1, false}, {"-0x10", -16, 5, false},
      {"inf", inf, 3, false}, {"-Infinity", -inf, 9, false}, {"1e400", inf, 5, true},
      {"-1e400", -inf, 6, true}, {"1e-400", 0, 6, true}, {"0.0000001e-400", 0, 14, true},
      {"1e-310", 1e-310, 6, false}, {"123456789012345678901234567890", 123456789012345678901234567890.0, 30, false},
      {"0.1234567890123456789012345", 0.1234567890123456789012345, 27, false}, {"1,5", 1, 1, false},
      {"", 0, 0, false}, {"   ", 0, 0, false}, {"1e99999999999999999999", inf, 22, true},
      {"0e999999", 0, 8, false}, {many, inf, 401, true}, {tiny, 0, 403, true},
      {"2.2250738585072011e-308", 2.2250738585072011e-308, 23, false},
      {"9007199254740993", 9007199254740993.0, 16, false}, {"0.1", 0.1, 3, false},
  };
  for (const auto& c : cases) {
    char* end = nullptr;
    errno = 0;
    const double got = zbstg_strtod(c.text.c_str(), &end);
    EXPECT_EQ(std::memcmp(&got, &c.want, sizeof got), 0) << c.text << ": " << got;
    EXPECT_EQ(end - c.text.c_str(), c.end) << c.text;
    EXPECT_TRUE(!c.erange || errno == ERANGE) << c.text;
    const double a = zbstg_atof(c.text.c_str());
    EXPECT_EQ(std::memcmp(&a, &c.want, sizeof a), 0) << c.text;
  }
  char* end = nullptr;
  EXPECT_TRUE(std::isnan(zbstg_strtod("nanx", &end)));
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(std::signbit(zbstg_strtod("-0", &end)), true);
}

TEST(StrHuge, BulkOperations) {
  const unsigned char a[] = {1, 2, 0x80}, b[] = {1, 2, 0x01}, c[] = {0x01}, d[] = {0xFF};
  EXPECT_EQ(std::vector<int>({zbstg_huge_memcmp(a, b, 3), zbstg_huge_memcmp(b, a, 3), zbstg_huge_memcmp(c, d, 1),
                              zbstg_huge_memcmp(a, b, 2), zbstg_huge_memcmp(a, b, 0)}),
            std::vector<int>({-129, 129, 2, 0, 0}));  // signed char differences
  const struct { char op; int dst, src, n; std::string want; } cases[] = {  // op: memcpy, memmove, memset, strncpy
      {'c', 1, 0, 5, "aaaaaa"}, {'c', 0, 2, 4, "cdefef"}, {'m', 1, 0, 5, "aabcde"},
      {'m', 0, 1, 5, "bcdeff"}, {'s', 2, 0x17A, 3, "abzzzf"}, {'n', 0, 0, 3, std::string("abc\0ef", 6)},
      {'n', 0, 0, 0, std::string("\0bcdef", 6)}, {'n', 0, 4, 5, std::string("ef\0\0\0f", 6)},
  };
  for (const auto& t : cases) {
    char buf[8] = "abcdef";
    char* dst = buf + t.dst;
    void* r = t.op == 'c' ? zbstg_huge_memcpy(dst, buf + t.src, t.n)
              : t.op == 'm' ? zbstg_huge_memmove(dst, buf + t.src, t.n)
              : t.op == 's' ? zbstg_huge_memset(dst, t.src, t.n)
                            : zbstg_huge_strncpy(dst, t.src ? "ef" : "abcdef", t.n);
    EXPECT_EQ(r, dst) << t.op << t.n;
    EXPECT_EQ(std::string(buf, 6), t.want) << t.op << t.n;
  }
  // Past 64 KB: a copy cut short would differ first at 65,536.
  std::vector<unsigned char> src(200000, 0x5A), dst(200000, 0);
  zbstg_huge_memcpy(dst.data(), src.data(), 200000);
  dst[150000] = 1;
  EXPECT_EQ(zbstg_huge_memcmp(dst.data(), src.data(), 200000), 1 - 0x5A);
  const char* s = "hello world";
  auto at = [&](const char* p) { return p ? static_cast<long>(p - s) : -1L; };
  EXPECT_EQ(std::vector<long>({at(zbstg_huge_strstr(s, "")), at(zbstg_huge_strstr(s, "o w")), at(zbstg_huge_strstr(s, "worlds")),
                               at(zbstg_huge_strstr(s, "d")), at(zbstg_huge_strchr(s, 'o')), at(zbstg_huge_strchr(s, 'd')),
                               at(zbstg_huge_strchr(s, 0)), at(zbstg_huge_strchr(s, 'z')), long(zbstg_huge_strlen(s))}),
            std::vector<long>({0, 4, -1, 10, 4, 10, -1, -1, 11}));
  char copy[16];
  EXPECT_EQ(zbstg_huge_strcpy(copy, s), copy);
  EXPECT_STREQ(copy, s);
  EXPECT_EQ(zbstg_huge_strlen(nullptr), 0u);
  EXPECT_EQ(zbstg_huge_strchr(nullptr, 'a'), nullptr);
  EXPECT_EQ(zbstg_huge_strstr(nullptr, "a"), nullptr);
  EXPECT_EQ(zbstg_str_wordcap(nullptr), nullptr);
  EXPECT_EQ(zbstg_remove(nullptr), -1);
  EXPECT_EQ(zbstg_remove("/nonexistent-folder-zbshr/none.txt"), -1);
}

}  // namespace
