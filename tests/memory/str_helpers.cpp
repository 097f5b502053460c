// String helpers that allocate: length-carrying blocks, duplicates, the
// string builder, in-place editing and character case.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "platform/platform.h"
#include "zbshr/memory.h"

namespace {

class StrHeap : public ::testing::Test {
 protected:
  void SetUp() override { heap_ = zbstg_begin(0); }
  void TearDown() override { zbstg_end(heap_); }
  ZBSTG_HEAP heap_ = nullptr;
};

uint16_t word_at(const void* p) {
  auto* b = static_cast<const unsigned char*>(p);
  return static_cast<uint16_t>(b[0] | (b[1] << 8));
}

// Restores the single-byte code page however a test ends.
struct CodePage {
  explicit CodePage(uint32_t cp) { zbshr::plat::SetACP(cp); }
  ~CodePage() { zbshr::plat::SetACP(1252); }
};

TEST_F(StrHeap, AllocStringKeepsLengthInTrailer) {
  auto* p = static_cast<unsigned char*>(zbstg_allocstring(heap_, 10, 0));
  ASSERT_NE(p, nullptr);
  // 12 bytes asked: a 16-byte block whose last word is 10, and bit 15 of the
  // back-offset word set.
  EXPECT_EQ(zbstg_size(heap_, p), 12u);
  EXPECT_EQ(word_at(p + 10), 10);
  EXPECT_TRUE(word_at(p - 2) & 0x8000);
  EXPECT_EQ(zbstg_allocstringlen(p), 9);
  // The string's contents do not matter for a flagged block.
  std::memcpy(p, "ab", 3);
  EXPECT_EQ(zbstg_allocstringlen(p), 9);
  zbstg_free(heap_, p);

  // Length 0: the trailer holds 0, so the length reads -1.
  void* z = zbstg_allocstring(heap_, 0, 0);
  EXPECT_EQ(zbstg_allocstringlen(z), -1);
  zbstg_free(heap_, z);

  // A plain block answers its strlen.
  char* q = static_cast<char*>(zbstg_alloc(heap_, 20, 0));
  std::strcpy(q, "hello");
  EXPECT_EQ(zbstg_allocstringlen(q), 5);
  zbstg_free(heap_, q);
}

TEST_F(StrHeap, AllocStringAtTheLargeBlockLimit) {
  // n + 2 = 63,996 still gets the trailer; 63,997 becomes a plain block of n.
  auto* small = static_cast<unsigned char*>(zbstg_allocstring(heap_, 63994, 0));
  EXPECT_TRUE(word_at(small - 2) & 0x8000);
  EXPECT_EQ(zbstg_allocstringlen(small), 63993);
  auto* big = static_cast<char*>(zbstg_allocstring(heap_, 63995, 0));
  EXPECT_FALSE(word_at(big - 2) & 0x8000);
  EXPECT_EQ(zbstg_size(heap_, big), 63996u);
  std::memcpy(big, "xyz", 4);
  EXPECT_EQ(zbstg_allocstringlen(big), 3);
  zbstg_free(heap_, small);
  zbstg_free(heap_, big);
  EXPECT_EQ(zbstg_allocstring(heap_, static_cast<uint32_t>(-1), 0), nullptr);
}

TEST_F(StrHeap, StrdupCopiesIntoThePool) {
  char* p = zbstg_strdup(heap_, "pooled text", 7);
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(p, "pooled text");
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, p), 7u);
  EXPECT_EQ(zbstg_size(heap_, p), 12u);
  char* d = zbstg_dbstrdup(heap_, "", 0, "file.c", 12);
  EXPECT_STREQ(d, "");
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, d), 1u);  // the default pool
  EXPECT_EQ(zbstg_strdup(heap_, nullptr, 0), nullptr);
}

TEST_F(StrHeap, BuilderGrowsByAQuarterAtLeast512) {
  char* buf = nullptr;
  int32_t cap = 0, used = 0;
  zbstg_str_build(heap_, 0, &buf, &cap, &used, "0123456789");
  EXPECT_EQ(cap, 522);
  EXPECT_EQ(used, 10);
  EXPECT_STREQ(buf, "0123456789");

  // Room for the text and its terminator: no growth.
  std::string tail(522 - 10 - 1, 'x');
  zbstg_str_build(heap_, 0, &buf, &cap, &used, tail.c_str());
  EXPECT_EQ(cap, 522);
  EXPECT_EQ(used, 521);
  // One byte too many for the terminator: 522 + 512 + 1.
  zbstg_str_build(heap_, 0, &buf, &cap, &used, "y");
  EXPECT_EQ(cap, 1035);
  EXPECT_EQ(used, 522);
  EXPECT_EQ(std::strlen(buf), 522u);

  // Past 2048 the quarter wins over 512.
  zbstg_str_build(heap_, 0, &buf, &cap, &used, std::string(1100, 'z').c_str());
  EXPECT_EQ(cap, 1035 + 512 + 1100);
  zbstg_str_build(heap_, 0, &buf, &cap, &used, std::string(1100, 'w').c_str());
  EXPECT_EQ(cap, 2647 + 2647 * 25 / 100 + 1100);
  EXPECT_EQ(used, 522 + 2200);
  zbstg_free(heap_, buf);
}

TEST_F(StrHeap, BuilderCharGrowsBy501) {
  char* buf = nullptr;
  int32_t cap = 0, used = 0;
  zbstg_str_build_char(heap_, 3, &buf, &cap, &used, 'a');
  EXPECT_EQ(cap, 501);
  EXPECT_EQ(used, 1);
  EXPECT_STREQ(buf, "a");
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, buf), 3u);
  for (int i = 0; i < 498; ++i) zbstg_str_build_char(heap_, 3, &buf, &cap, &used, 'b');
  EXPECT_EQ(used, 499);
  EXPECT_EQ(cap, 501);  // two bytes left: still enough
  zbstg_str_build_char(heap_, 3, &buf, &cap, &used, 'c');
  EXPECT_EQ(cap, 501);
  zbstg_str_build_char(heap_, 3, &buf, &cap, &used, 'd');  // one byte left: grow
  EXPECT_EQ(cap, 1002);
  EXPECT_EQ(used, 501);
  EXPECT_EQ(buf[499], 'c');
  EXPECT_EQ(buf[500], 'd');
  EXPECT_EQ(buf[501], '\0');
  zbstg_free(heap_, buf);
}

// A builder whose buffer is null but that claims room or text is refused by
// all three appenders, with nothing allocated or changed.
TEST_F(StrHeap, BuilderRefusesANullBufferThatClaimsRoom) {
  const struct { int32_t cap, used; } cases[] = {{100, 0}, {100, 5}, {0, 5}};
  for (const auto& c : cases) {
    char* buf = nullptr;
    int32_t cap = c.cap, used = c.used;
    zbstg_str_build(heap_, 0, &buf, &cap, &used, "x");
    zbstg_str_build_huge(heap_, 0, &buf, &cap, &used, "x");
    zbstg_str_build_char(heap_, 0, &buf, &cap, &used, 'x');
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(cap, c.cap);
    EXPECT_EQ(used, c.used);
  }
}

TEST_F(StrHeap, BuildersMatchPlainConcatenation) {
  std::mt19937 rng(1234);
  char* buf = nullptr;
  int32_t cap = 0, used = 0;
  std::string expect;
  // Crosses 64,000 bytes, where the builder switches to the huge copy.
  while (expect.size() < 150000) {
    int kind = static_cast<int>(rng() % 3);
    if (kind == 0) {
      char c = static_cast<char>('a' + rng() % 26);
      zbstg_str_build_char(heap_, 0, &buf, &cap, &used, c);
      expect += c;
    } else {
      std::string piece(rng() % 3000, static_cast<char>('A' + rng() % 26));
      if (kind == 1)
        zbstg_str_build(heap_, 0, &buf, &cap, &used, piece.c_str());
      else
        zbstg_str_build_huge(heap_, 0, &buf, &cap, &used, piece.c_str());
      expect += piece;
    }
    ASSERT_EQ(used, static_cast<int32_t>(expect.size()));
    ASSERT_GT(cap, used);
  }
  EXPECT_EQ(std::string(buf), expect);
  EXPECT_GE(zbstg_size(heap_, buf), static_cast<uint32_t>(cap));
  zbstg_free(heap_, buf);
}

TEST(StrEdit, RemoveAndTrim) {
  char a[] = "a,b,,c,";
  EXPECT_EQ(zbstg_str_remove_char(a, ','), a);
  EXPECT_STREQ(a, "abc");
  char b[] = "abc  ";
  EXPECT_STREQ(zbstg_str_trim_char(b, ' '), "abc");
  char c[] = "  abc";
  EXPECT_STREQ(zbstg_str_trim_char(c, ' '), "  abc");
  char d[] = "xxxx";
  EXPECT_STREQ(zbstg_str_trim_char(d, 'x'), "");
  char e[] = "";
  EXPECT_STREQ(zbstg_str_remove_char(e, 'x'), "");
}

TEST(StrEdit, WordCap) {
  char a[] = "hello-WORLD foo_bar";
  EXPECT_STREQ(zbstg_str_wordcap(a), "Hello World Foo Bar");
  char b[] = "ONE\ttWO\nthree\rfOUR";
  EXPECT_STREQ(zbstg_str_wordcap(b), "One\tTwo\nThree\rFour");
  // A katakana byte is skipped and leaves the word-start flag as it was.
  char c[] = "\xB1" "abc d\xB1" "EF";
  EXPECT_STREQ(zbstg_str_wordcap(c), "\xB1" "Abc D\xB1" "ef");
  char d[] = "9lives";
  EXPECT_STREQ(zbstg_str_wordcap(d), "9lives");
}

TEST(StrEdit, WordCapSkipsDoubleByteCharacters) {
  {
    CodePage cp(932);
    // 0x82 0x41 is one character: skipped whole, so 'b' still starts the word.
    char a[] = "\x82" "Ab";
    EXPECT_STREQ(zbstg_str_wordcap(a), "\x82" "AB");
    // A lead byte at the very end does not run past the terminator.
    char b[] = "ab\x82";
    EXPECT_STREQ(zbstg_str_wordcap(b), "Ab\x82");
  }
  // The same bytes in the single-byte page: 0x82 is a letterless character.
  char a[] = "\x82" "Ab";
  EXPECT_STREQ(zbstg_str_wordcap(a), "\x82" "ab");
}

TEST(StrChars, CaseInTheAnsiCodePage) {
  EXPECT_EQ(zbstg_ansitoupper('a'), 'A');
  EXPECT_EQ(zbstg_ansitoupper('Z'), 'Z');
  EXPECT_EQ(zbstg_ansitolower('Q'), 'q');
  EXPECT_EQ(zbstg_ansitoupper('1'), '1');
  // Western letters: e acute and its capital, the division sign unchanged.
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper('\xE9')), 0xC9);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitolower('\xC9')), 0xE9);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper('\xF7')), 0xF7);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitolower('\xD7')), 0xD7);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper('\xFF')), 0x9F);
  CodePage cp(932);
  EXPECT_EQ(static_cast<unsigned char>(zbstg_ansitoupper('\xE9')), 0xE9);
  EXPECT_EQ(zbstg_ansitoupper('b'), 'B');
}

TEST(StrChars, OneCharacterCollation) {
  EXPECT_LT(zbstg_lchrcmp('a', 'b'), 0);
  EXPECT_GT(zbstg_lchrcmp('b', 'a'), 0);
  EXPECT_EQ(zbstg_lchrcmp('q', 'q'), 0);
  EXPECT_NE(zbstg_lchrcmp('a', 'A'), 0);
  EXPECT_EQ(zbstg_lchrcmpi('a', 'A'), 0);
  EXPECT_LT(zbstg_lchrcmpi('a', 'B'), 0);
}

}  // namespace
