// On-disk layout of library files: exact bytes of headers, bitmaps, nodes,
// records and data chains, checked by reading the file independently.
#include "helpers.h"

using namespace lmtest;

namespace {

class Layout : public LibTest {};

TEST_F(Layout, EmptyLibraryIsExactly4096Bytes) {
  std::string p = create("empty.zbl", "a comment");
  auto b = slurp(p);
  ASSERT_EQ(b.size(), 4096u);
  EXPECT_EQ(str(b, 0, 4), "HDR*");
  EXPECT_EQ(str(b, 4, 13), std::string("Quillbrander\0", 13));
  EXPECT_EQ(b[17], 0);
  EXPECT_EQ(str(b, 18, 4), "0500");
  uint32_t t = le32(b, 22);
  EXPECT_NEAR(double(t), double(std::time(nullptr)), 60.0);
  EXPECT_EQ(le16(b, 26), 0);
  EXPECT_EQ(str(b, 28, 10), std::string("a comment\0", 10));
  for (size_t i = 37; i < 512; ++i) ASSERT_EQ(b[i], 0) << i;
  EXPECT_EQ(str(b, 512, 4), "FRE*");
  EXPECT_EQ(le32(b, 516), 0u);
  EXPECT_EQ(b[520], 0xFF);
  for (size_t i = 521; i < 1024; ++i) ASSERT_EQ(b[i], 0) << i;
  EXPECT_EQ(str(b, 1024, 4), "NOD*");
  EXPECT_EQ(le16(b, 1024 + 16), 3040);
  for (size_t i = 1028; i < 4096; ++i)
    if (i != 1040 && i != 1041) {
      ASSERT_EQ(b[i], 0) << i;
    }
  LMI_HANDLE h = open(p, 1);
  ASSERT_NE(h, nullptr);
  EXPECT_TRUE(problems(h).empty());
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
}

TEST_F(Layout, CreateNamesAndRefusals) {
  S noext(path("Proj"));
  EXPECT_EQ(LMI_CreateLibrary(heap, noext, nullptr), 0);
  EXPECT_EQ(noext.get(), path("proj"));  // folded in the caller's buffer
  EXPECT_TRUE(fs::exists(path("proj.zbl")));
  S txt(path("notes.txt"));
  EXPECT_EQ(LMI_CreateLibrary(heap, txt, nullptr), LMI_E_ARGUMENT);
  S again(path("proj.zbl"));
  EXPECT_EQ(LMI_CreateLibrary(heap, again, nullptr), LMI_E_EXISTS);
  S upper(path("X.ZBD"));
  EXPECT_EQ(LMI_CreateLibrary(heap, upper, nullptr), 0);
  S tmp(path("scratch.TMP"));
  EXPECT_EQ(LMI_CreateLibrary(heap, tmp, nullptr), 0);
  EXPECT_EQ(LMI_CreateLibrary(heap, nullptr, nullptr), LMI_E_ARGUMENT);
  S x(path("y.zbl"));
  EXPECT_EQ(LMI_CreateLibrary(nullptr, x, nullptr), LMI_E_NULL_HEAP);
  // A long comment is cut to 255 bytes.
  std::string longc(400, 'c');
  std::string p = create("long.zbl", longc.c_str());
  auto b = slurp(p);
  EXPECT_EQ(str(b, 28, 256), std::string(255, 'c') + '\0');
}

TEST_F(Layout, EntryRecordsAndChainsOf502And503Bytes) {
  std::string p = create("e.zbl");
  LMI_HANDLE h = open(p, 2);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(put(h, "Alpha", std::string(502, 'a')), 0);
  ASSERT_EQ(put(h, "beta", std::string(503, 'b')), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  ASSERT_EQ(b.size(), 4096u + 3 * 512);
  // Root node records in insertion order.
  size_t r = 1024 + 32;
  EXPECT_EQ(le16(b, 1024 + 20), 2);
  EXPECT_EQ(le16(b, 1024 + 16), 3040 - (24 + 6) - (24 + 5));
  EXPECT_EQ(le16(b, 1024 + 22), 32 + 24);            // smallest: alpha
  EXPECT_EQ(le16(b, 1024 + 18), 32 + 24 + 6 + 24);   // greatest: beta
  EXPECT_EQ(str(b, r, 8), "ENT*0500");
  EXPECT_EQ(le32(b, r + 8), 4096u);
  EXPECT_EQ(le32(b, r + 12), 502u);
  EXPECT_EQ(le16(b, r + 20), 0);
  EXPECT_EQ(le16(b, r + 22), 6);
  EXPECT_EQ(str(b, r + 24, 6), std::string("alpha\0", 6));
  size_t r2 = r + 30;
  EXPECT_EQ(le32(b, r2 + 8), 4608u);
  EXPECT_EQ(le32(b, r2 + 12), 503u);
  // Data blocks.
  EXPECT_EQ(str(b, 4096, 4), "DAT*");
  EXPECT_EQ(le32(b, 4096 + 4), 0u);
  EXPECT_EQ(le16(b, 4096 + 8), 502);
  EXPECT_EQ(le32(b, 4608 + 4), 5120u);
  EXPECT_EQ(le16(b, 4608 + 8), 502);
  EXPECT_EQ(le32(b, 5120 + 4), 0u);
  EXPECT_EQ(le16(b, 5120 + 8), 1);
  EXPECT_EQ(b[5120 + 10], 'b');
  for (size_t i = 5120 + 11; i < 5632; ++i) ASSERT_EQ(b[i], 0);
  // Bitmap: blocks 0..10 in use.
  EXPECT_EQ(b[520], 0xFF);
  EXPECT_EQ(b[521], 0xE0);
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, CommentAtTheFrontOfTheData) {
  std::string p = create("c.zbl");
  LMI_HANDLE h = open(p, 2);
  ASSERT_NE(h, nullptr);
  std::string data = pattern(1000, 7);
  ASSERT_EQ(put(h, "obj", data, "ten bytes!   "), 0);
  LMI_ENTRYINFO info;
  S n("obj");
  ASSERT_EQ(LMI_EntryInformation(h, n, &info), 0);
  EXPECT_EQ(info.size, 1000);
  EXPECT_STREQ(info.name, "obj");
  ASSERT_EQ(LMI_OpenEntry(h, n, 1, nullptr), 0);
  std::vector<char> buf(4096);
  EXPECT_EQ(LMI_ReadEntry(h, buf.data(), 4096), 1000);
  EXPECT_EQ(std::string(buf.data(), 1000), data);
  EXPECT_EQ(LMI_CloseEntry(h), 0);
  LMI_ENTRYINFOEX ex;
  ASSERT_EQ(LMI_EntryInfoExtended(h, n, &ex), 0);
  EXPECT_STREQ(ex.comment, "ten bytes!");
  // Rewriting with a null comment keeps the old one.
  ASSERT_EQ(put(h, "obj", "xyz"), 0);
  ASSERT_EQ(LMI_EntryInfoExtended(h, n, &ex), 0);
  EXPECT_STREQ(ex.comment, "ten bytes!");
  EXPECT_EQ(ex.size, 3);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  EXPECT_EQ(le16(b, 1024 + 32 + 20), 10);  // comment length
  EXPECT_EQ(le32(b, 1024 + 32 + 12), 13u);
  EXPECT_EQ(str(b, 4096 + 10, 13), "ten bytes!xyz");
}

TEST_F(Layout, TailReleaseAndReuseOfFreedBlocks) {
  std::string p = create("t.zbl");
  LMI_HANDLE h = open(p, 2);
  ASSERT_EQ(put(h, "a", std::string(2000, 'a')), 0);  // 4 blocks
  ASSERT_EQ(put(h, "b", std::string(2000, 'b')), 0);
  ASSERT_EQ(put(h, "c", std::string(2000, 'c')), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(fs::file_size(p), 4096u + 12 * 512);
  h = open(p, 2);
  S b("b");
  ASSERT_EQ(LMI_DeleteEntry(h, b), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(fs::file_size(p), 4096u + 12 * 512);  // a hole in the middle
  EXPECT_TRUE(verifyFile(p).empty());
  h = open(p, 2);
  S c("c");
  ASSERT_EQ(LMI_DeleteEntry(h, c), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(fs::file_size(p), 4096u + 4 * 512);  // the tail went away
  EXPECT_TRUE(verifyFile(p).empty());
  // The next small entry reuses the first free block.
  h = open(p, 2);
  ASSERT_EQ(put(h, "d", "x"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto bytes = slurp(p);
  EXPECT_EQ(bytes.size(), 4096u + 5 * 512);
}

TEST_F(Layout, TooFewFreeBlocksAppendsAtTheEnd) {
  std::string p = create("s.zbl");
  LMI_HANDLE h = open(p, 2);
  ASSERT_EQ(put(h, "a", std::string(502, 'a')), 0);   // block 8
  ASSERT_EQ(put(h, "b", std::string(1004, 'b')), 0);  // blocks 9, 10
  ASSERT_EQ(put(h, "c", std::string(502, 'c')), 0);   // block 11
  S a("a");
  ASSERT_EQ(LMI_DeleteEntry(h, a), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  h = open(p, 2);
  ASSERT_EQ(put(h, "d", std::string(1500, 'd')), 0);  // 3 blocks, only 1 free
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  ASSERT_EQ(b.size(), 4096u + 7 * 512);
  EXPECT_EQ(b[521] & 0x80, 0);  // block 8 stays free
  size_t d = 1024 + 32;
  while (str(b, d + 24, 2) != std::string("d\0", 2)) d += 24 + le16(b, d + 22);
  EXPECT_EQ(le32(b, d + 8), 4096u + 4 * 512);
  EXPECT_EQ(le32(b, 4096 + 4 * 512 + 4), 4096u + 5 * 512);
  EXPECT_TRUE(verifyFile(p).empty());
}

// Fills the root with names m000..., then adds names above and below them.
TEST_F(Layout, FullRootGrowsRightAndLeftChildren) {
  std::string p = create("tree.zbl");
  LMI_HANDLE h = open(p, 2);
  int i = 0;
  for (;; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "m%03d_%s", i, std::string(40, 'n').c_str());
    ASSERT_EQ(put(h, name, ""), 0);
    auto* root = zbshr::lm::root_img(zbshr::lm::library_of(h));
    if (zbshr::lm::rd16(root + 16) < 24 + 46) break;
  }
  const std::string z = std::string(45, 'z'), a = std::string(45, 'a');
  ASSERT_EQ(put(h, z, "zz"), 0);
  ASSERT_EQ(put(h, a, "aa"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  uint32_t left = le32(b, 1024 + 4), right = le32(b, 1024 + 12);
  ASSERT_EQ(right, 4096u);          // the first new node: blocks 8..13
  ASSERT_EQ(left, 4096u + 7 * 512);  // after the first entry's data block
  EXPECT_EQ(str(b, right, 4), "NOD*");
  EXPECT_EQ(le32(b, right + 8), 1024u);
  EXPECT_EQ(le16(b, right + 20), 1);
  EXPECT_EQ(str(b, right + 32 + 24, 46), z + '\0');
  EXPECT_EQ(str(b, left + 32 + 24, 46), a + '\0');
  EXPECT_EQ(b.size(), 4096u + 12 * 512 + 2 * 512);
  EXPECT_TRUE(verifyFile(p).empty());
  h = open(p, 1);
  EXPECT_EQ(get(h, z), "zz");
  EXPECT_EQ(get(h, a), "aa");
  EXPECT_EQ(get(h, "m005_" + std::string(40, 'n')), "");
  LMI_CloseLibrary(h);
}

// A full node whose range holds the new name makes room (steps a to f).
TEST_F(Layout, InsertionInsideAFullNodeKeepsTheTreeOrdered) {
  std::string p = create("mid.zbl");
  LMI_HANDLE h = open(p, 2);
  std::vector<std::string> names;
  for (int i = 0; i < 400; ++i) {
    char name[80];
    std::snprintf(name, sizeof name, "k%05d%s", (i * 7919) % 400, std::string(30, 'q').c_str());
    names.push_back(name);
    ASSERT_EQ(put(h, name, std::to_string(i)), 0) << i;
  }
  EXPECT_TRUE(problems(h).empty());
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(get(h, names[i]), std::to_string(i));
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, OldLayoutWith1024ByteNodes) {
  std::vector<uint8_t> b(2048, 0);
  std::memcpy(b.data(), "HDR*Quillbrander", 16);
  std::memcpy(b.data() + 18, "0100", 4);
  std::memcpy(b.data() + 512, "FRE*", 4);
  b[520] = 0xF0;
  std::memcpy(b.data() + 1024, "NOD*", 4);
  b[1024 + 16] = 992 & 0xFF;
  b[1024 + 17] = 992 >> 8;
  std::string p = path("old.zbl");
  spit(p, b);
  LMI_HANDLE h = open(p, 2);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(zbshr::lm::library_of(h)->nodeSize, 1024u);
  for (int i = 0; i < 60; ++i)
    ASSERT_EQ(put(h, "entry_" + std::to_string(1000 + i) + std::string(20, 'x'), "data"), 0);
  EXPECT_TRUE(problems(h).empty());
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto a = slurp(p);
  EXPECT_EQ(str(a, 18, 4), "0100");
  EXPECT_EQ(le16(a, 1024 + 16) < 992, true);
  uint32_t right = le32(a, 1024 + 12);
  ASSERT_NE(right, 0u);
  EXPECT_EQ(str(a, right, 4), "NOD*");
  EXPECT_EQ((right - 2048) % 512, 0u);
  EXPECT_TRUE(verifyFile(p).empty());
  // A file whose product name differs is refused.
  b[5] = 'X';
  spit(p, b);
  EXPECT_EQ(open(p, 1), nullptr);
}

// A library appended to an executable, found through the trailer.
TEST_F(Layout, TrailerReadOnlyAndReadWrite) {
  std::string lib = create("inner.zbl");
  auto libBytes = slurp(lib);
  std::vector<uint8_t> exe(1536, 0x90);  // stand-in program bytes
  uint32_t base = uint32_t(exe.size());
  exe.insert(exe.end(), libBytes.begin(), libBytes.end());
  std::vector<uint8_t> tr(512, 0);
  std::memcpy(tr.data(), "TRL*", 4);
  tr[4] = uint8_t(base), tr[5] = uint8_t(base >> 8);
  exe.insert(exe.end(), tr.begin(), tr.end());
  std::string p = path("app.exe");
  spit(p, exe);
  size_t len = exe.size();

  LMI_HANDLE h = open(p, 1);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(zbshr::lm::library_of(h)->base, base);
  EXPECT_EQ(fs::file_size(p), len);
  LMI_CloseLibrary(h);

  h = open(p, 2);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(fs::file_size(p), len - 512);  // the trailer is off while open
  ASSERT_EQ(put(h, "w_main", std::string(700, 'w')), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto a = slurp(p);
  ASSERT_EQ(a.size(), len + 2 * 512);
  EXPECT_EQ(str(a, a.size() - 512, 4), "TRL*");
  EXPECT_EQ(le32(a, a.size() - 508), base);
  // Stored offsets are absolute file offsets.
  EXPECT_EQ(le32(a, base + 1024 + 32 + 8), base + 4096);
  EXPECT_EQ(std::equal(exe.begin(), exe.begin() + base, a.begin()), true);
  h = open(p, 1);
  EXPECT_EQ(get(h, "W_MAIN"), std::string(700, 'w'));
  EXPECT_TRUE(problems(h).empty());
  LMI_CloseLibrary(h);
}

TEST_F(Layout, BitmapChainGrowsPastTwoAndFourMegabytes) {
  // Write-through off: more than 8 MB of held-back writes go out on the way.
  int32_t was = zbshr_lib_write_through(0);
  std::string p = create("big.zbl");
  LMI_HANDLE h = open(p, 2, 64000);
  std::string data = pattern(2 << 20, 3);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(put(h, "big" + std::to_string(i), data), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  ASSERT_GT(b.size(), 4u * 2064384);
  uint32_t second = le32(b, 516);
  ASSERT_EQ(second, 2064384u);
  EXPECT_EQ(str(b, second, 4), "FRE*");
  EXPECT_EQ(b[second + 8] & 0x80, 0x80);  // its own bit
  uint32_t third = le32(b, second + 4);
  EXPECT_EQ(third, 2u * 2064384);
  EXPECT_TRUE(verifyFile(p).empty());
  h = open(p, 2);
  for (int i = 0; i < 5; ++i) {
    std::string back = get(h, "big" + std::to_string(i));
    EXPECT_EQ(back.size(), data.size()) << i;
    EXPECT_TRUE(back == data) << i;
  }
  // Deleting the last entries gives the tail back, bitmaps included.
  for (int i = 4; i >= 1; --i) {
    S n("big" + std::to_string(i));
    ASSERT_EQ(LMI_DeleteEntry(h, n), 0);
  }
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  // What is left (header, root, "big0") ends inside the second range.
  EXPECT_EQ(fs::file_size(p), 4096u + 4178u * 512 + 512);
  b = slurp(p);
  EXPECT_EQ(le32(b, 516), 2064384u);
  EXPECT_EQ(le32(b, 2064384 + 4), 0u);  // the later bitmaps were dropped
  EXPECT_TRUE(verifyFile(p).empty());
  zbshr_lib_write_through(was);
}

}  // namespace
