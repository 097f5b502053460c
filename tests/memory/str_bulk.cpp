// Number conversions and the bulk memory and string operations.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
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
  EXPECT_DOUBLE_EQ(zbstg_atof("2.5e3xyz"), 2500.0);

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

  const char* text = "3.75rest";
  char* dend = nullptr;
  EXPECT_DOUBLE_EQ(zbstg_strtod(text, &dend), 3.75);
  EXPECT_EQ(dend, text + 4);
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
