// Number conversions and the bulk memory and string operations.
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <iterator>
#include <vector>

#include "zbshr/memory.h"

namespace {

TEST(StrConv, AtouSkipsSpaceAndWraps) {
  EXPECT_EQ(zbstg_atou("  42abc"), 42u);
  EXPECT_EQ(zbstg_atou("-5"), 0u);
  EXPECT_EQ(zbstg_atou("+5"), 0u);
  EXPECT_EQ(zbstg_atou("\t\n\v\f\r 7"), 7u);
  EXPECT_EQ(zbstg_atou(""), 0u);
  EXPECT_EQ(zbstg_atou("4294967295"), 4294967295u);
  EXPECT_EQ(zbstg_atou("4294967296"), 0u);
  EXPECT_EQ(zbstg_atoul("4294967297x"), 1u);
  // 12345678901234567890 mod 2^32.
  EXPECT_EQ(zbstg_atoul("12345678901234567890"),
            static_cast<uint32_t>(12345678901234567890ull % 4294967296ull));
  EXPECT_EQ(zbstg_atou("12 34"), 12u);
}

TEST(StrConv, SignedConversionsSaturateAt32Bits) {
  EXPECT_EQ(zbstg_atoi(" -17x"), -17);
  EXPECT_EQ(zbstg_atol("2147483647"), INT32_MAX);
  EXPECT_EQ(zbstg_atol("2147483648"), INT32_MAX);
  EXPECT_EQ(zbstg_atoi("-99999999999"), INT32_MIN);
  EXPECT_EQ(zbstg_atoi("abc"), 0);

  char* sentinel = reinterpret_cast<char*>(0x1234);
  char* end = sentinel;
  EXPECT_EQ(zbstg_strtol("0x1F", &end, 16), 31);
  EXPECT_EQ(zbstg_strtol("010", &end, 0), 8);
  EXPECT_EQ(zbstg_strtol("-zz", &end, 36), -1295);
  EXPECT_EQ(zbstg_strtol("99999999999", &end, 10), INT32_MAX);
  EXPECT_EQ(end, sentinel);  // never written

  EXPECT_EQ(zbstg_strtoul("4294967295", &end, 10), 4294967295u);
  EXPECT_EQ(zbstg_strtoul("4294967296", &end, 10), 4294967295u);
  EXPECT_EQ(zbstg_strtoul("-1", &end, 10), 4294967295u);
  EXPECT_EQ(zbstg_strtoul("-4294967295", &end, 10), 1u);
  EXPECT_EQ(zbstg_strtoul("-4294967296", &end, 10), 4294967295u);
  EXPECT_EQ(zbstg_strtoul("  ff", &end, 16), 255u);
  EXPECT_EQ(end, sentinel);

}

// zbstg_strtod reads like the C run-time's strtod in the "C" locale: the test
// process is in that locale, so the run-time's own strtod is the reference
// (value bits, end pointer and ERANGE).
TEST(StrConv, StrtodMatchesTheCRuntimeInTheCLocale) {
  const char* texts[] = {
      "3.75rest", "  \t\n-2.5e3xyz", "+.5", "5.", ".", "-", "+-1", "--5", "e5", "1e", "1e+",
      "1.5E-3", "0x1.8p3", "0X1P-2z", "0x", "0xg", "0x-1", "-0x10", "inf", "-Infinity", "nanx",
      "1e400", "-1e400", "1e-400", "0.0000001e-400", "1e-310", "123456789012345678901234567890",
      "0.1234567890123456789012345", "1,5", "", "   ", "1e99999999999999999999", "0e999999"};
  // Out of range without an exponent: 400 digits, and 400 zeros after the point.
  const std::string many = "1" + std::string(400, '0'), tiny = "0." + std::string(400, '0') + "1";
  std::vector<const char*> all(std::begin(texts), std::end(texts));
  all.push_back(many.c_str());
  all.push_back(tiny.c_str());
  for (const char* t : all) {
    char* want_end = nullptr;
    char* got_end = nullptr;
    errno = 0;
    const double want = std::strtod(t, &want_end);
    const bool want_range = errno == ERANGE && (want == 0.0 || std::isinf(want));
    errno = 0;
    const double got = zbstg_strtod(t, &got_end);
    const bool got_range = errno == ERANGE;
    EXPECT_EQ(got_end - t, want_end - t) << t;
    if (std::isnan(want)) {
      EXPECT_TRUE(std::isnan(got)) << t;
    } else {
      EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << t << ": " << got << " vs " << want;
    }
    if (want_range) {
      EXPECT_TRUE(got_range) << t;
    }
    const double atof_value = zbstg_atof(t);
    if (!std::isnan(want)) {
      EXPECT_EQ(std::memcmp(&atof_value, &want, sizeof want), 0) << t;
    }
  }
}

// A host that switches its numeric locale to one with a decimal comma must
// not change what the parsers read. The locale is built in the scratch folder
// when the system has none installed.
TEST(StrConv, StrtodIgnoresTheHostLocale) {
  const char* home = std::getenv("ZBSHR_HOME");
  std::string dir = std::string(home ? home : "/tmp") + "/locale";
  const char* name = "de_DE.UTF-8";
  if (std::setlocale(LC_NUMERIC, name) == nullptr) {
    setenv("LOCPATH", dir.c_str(), 1);  // built by an earlier run?
    if (std::setlocale(LC_NUMERIC, name) == nullptr) unsetenv("LOCPATH");
  }
  if (std::setlocale(LC_NUMERIC, name) == nullptr) {
    std::string cmd = "mkdir -p '" + dir + "' && localedef -i de_DE -f UTF-8 '" + dir + "/" +
                      name + "' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) == 0) {
      setenv("LOCPATH", dir.c_str(), 1);
      if (std::setlocale(LC_NUMERIC, name) == nullptr) unsetenv("LOCPATH");
    }
  }
  if (std::strcmp(std::setlocale(LC_NUMERIC, nullptr), name) != 0)
    GTEST_SKIP() << "no decimal-comma locale could be set or built";
  ASSERT_EQ(std::localeconv()->decimal_point[0], ',');
  char* end = nullptr;
  const double a = zbstg_atof("1.5"), b = zbstg_strtod("3.25x", &end), c = zbstg_atof("1,5");
  std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(a, 1.5);
  EXPECT_EQ(b, 3.25);
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(c, 1.0);
}

TEST(StrHuge, MemcmpIsSignedCharDifference) {
  const unsigned char a[] = {1, 2, 0x80};
  const unsigned char b[] = {1, 2, 0x01};
  EXPECT_EQ(zbstg_huge_memcmp(a, b, 3), -129);
  EXPECT_EQ(zbstg_huge_memcmp(b, a, 3), 129);
  const unsigned char c[] = {0x01}, d[] = {0xFF};
  EXPECT_EQ(zbstg_huge_memcmp(c, d, 1), 2);  // 1 - (-1)
  EXPECT_EQ(zbstg_huge_memcmp(a, b, 2), 0);
  EXPECT_EQ(zbstg_huge_memcmp(a, b, 0), 0);
}

TEST(StrHuge, MemcpyIsAForwardByteCopy) {
  char buf[] = "abcdef";
  EXPECT_EQ(zbstg_huge_memcpy(buf + 1, buf, 5), buf + 1);
  EXPECT_STREQ(buf, "aaaaaa");
  char buf2[] = "abcdef";
  zbstg_huge_memcpy(buf2, buf2 + 2, 4);
  EXPECT_STREQ(buf2, "cdefef");
  char m1[] = "abcdef";
  EXPECT_EQ(zbstg_huge_memmove(m1 + 1, m1, 5), m1 + 1);
  EXPECT_STREQ(m1, "aabcde");
  char m2[] = "abcdef";
  zbstg_huge_memmove(m2, m2 + 1, 5);
  EXPECT_STREQ(m2, "bcdeff");
  char s[8] = "1234567";
  EXPECT_EQ(zbstg_huge_memset(s + 2, 0x17A, 3), s + 2);  // only the low byte counts
  EXPECT_STREQ(s, "12zzz67");
}

TEST(StrHuge, LargeCopiesMatch) {
  std::vector<unsigned char> src(200000), dst(200000, 0);
  std::mt19937 rng(7);
  for (auto& b : src) b = static_cast<unsigned char>(rng());
  zbstg_huge_memcpy(dst.data(), src.data(), static_cast<uint32_t>(src.size()));
  EXPECT_EQ(zbstg_huge_memcmp(dst.data(), src.data(), static_cast<uint32_t>(src.size())), 0);
  dst[150000] ^= 0x01;
  int expect = static_cast<signed char>(dst[150000]) - static_cast<signed char>(src[150000]);
  EXPECT_EQ(zbstg_huge_memcmp(dst.data(), src.data(), static_cast<uint32_t>(src.size())), expect);
}

TEST(StrHuge, StrncpyTerminatesPastTheCount) {
  char dst[8];
  std::memset(dst, 'X', sizeof dst);
  EXPECT_EQ(zbstg_huge_strncpy(dst, "abcdef", 3), dst);
  EXPECT_EQ(std::string(dst, 5), std::string("abc\0X", 5));

  std::memset(dst, 'X', sizeof dst);
  zbstg_huge_strncpy(dst, "ab", 5);
  EXPECT_EQ(std::string(dst, 6), std::string("ab\0\0\0X", 6));

  std::memset(dst, 'X', sizeof dst);
  zbstg_huge_strncpy(dst, "abc", 0);  // nothing copied: only the terminator
  EXPECT_EQ(std::string(dst, 2), std::string("\0X", 2));
}

TEST(StrHuge, StringSearches) {
  const char* s = "hello world";
  EXPECT_EQ(zbstg_huge_strstr(s, ""), s);
  EXPECT_EQ(zbstg_huge_strstr(s, "o w"), s + 4);
  EXPECT_EQ(zbstg_huge_strstr(s, "worlds"), nullptr);
  EXPECT_EQ(zbstg_huge_strchr(s, 'o'), s + 4);
  EXPECT_EQ(zbstg_huge_strchr(s, 0), nullptr);
  EXPECT_EQ(zbstg_huge_strchr(s, 'z'), nullptr);
  EXPECT_EQ(zbstg_huge_strlen(s), 11u);
  char d[16];
  EXPECT_EQ(zbstg_huge_strcpy(d, s), d);
  EXPECT_STREQ(d, s);
}

TEST(StrHuge, NullArgumentsDoNotCrash) {
  EXPECT_EQ(zbstg_huge_strlen(nullptr), 0u);
  EXPECT_EQ(zbstg_huge_strchr(nullptr, 'a'), nullptr);
  EXPECT_EQ(zbstg_huge_strstr(nullptr, "a"), nullptr);
  EXPECT_EQ(zbstg_atou(nullptr), 0u);
  EXPECT_EQ(zbstg_atoi(nullptr), 0);
  EXPECT_EQ(zbstg_str_wordcap(nullptr), nullptr);
  EXPECT_EQ(zbstg_remove(nullptr), -1);
  EXPECT_EQ(zbstg_remove("/nonexistent-folder-zbshr/none.txt"), -1);
}

}  // namespace
