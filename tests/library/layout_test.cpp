// On-disk layout of library files: exact bytes of headers, bitmaps, nodes,
// records and data chains, checked by reading the file independently.
#include <functional>

#include "helpers.h"

using namespace lmtest;

namespace {

class Layout : public LibTest {
 protected:
  // Puts the entries ({name, data}) into library p, one handle for all.
  void fill(const std::string& p, std::vector<std::pair<std::string, std::string>> entries, int ra = 0) {
    LMI_HANDLE h = open(p, 2, ra);
    ASSERT_NE(h, nullptr);
    for (auto& [n, d] : entries) ASSERT_EQ(put(h, n, d), 0) << n;
    ASSERT_EQ(LMI_CloseLibrary(h), 0);
  }
  int32_t remove(const std::string& p, const std::string& name) {
    return with(p, [&](LMI_HANDLE h) { return LMI_DeleteEntry(h, S(name)); });
  }
  // Offset of the record named n in the node at `node`.
  static size_t record(const Bytes& b, const std::string& n, size_t node = 1024) {
    for (size_t r = node + 32; r < node + 3072 && r + 25 + n.size() < b.size(); r += 24 + le16(b, r + 22))
      if (str(b, r + 24, n.size() + 1) == n + '\0') return r;
    return 0;
  }
};

TEST_F(Layout, CreateNamesRefusalsAndTheEmptyLibraryOf4096Bytes) {
  std::string p = create("empty.zbl", "a comment");
  Bytes b = slurp(p), want(4096, 0);
  ASSERT_EQ(b.size(), 4096u);
  std::string head = std::string("HDR*Quillbrander\0\0" "0500", 22) + str(b, 22, 4) + std::string(2, 0) + "a comment";
  std::copy(head.begin(), head.end(), want.begin());
  std::memcpy(&want[512], "FRE*", 4);
  want[520] = 0xFF;
  std::memcpy(&want[1024], "NOD*", 4);
  set32(want, 1024 + 16, 3040, 2);
  EXPECT_EQ(b, want);
  EXPECT_NEAR(double(le32(b, 22)), double(std::time(nullptr)), 60.0);
  EXPECT_TRUE(verifyFile(p).empty());
  S noext(path("Proj"));
  EXPECT_EQ(LMI_CreateLibrary(heap, noext, nullptr), 0);
  EXPECT_EQ(noext.get(), path("proj"));  // folded in the caller's buffer
  EXPECT_TRUE(fs::exists(path("proj.zbl")));
  for (auto [name, rc] : {std::pair<const char*, int32_t>{"notes.txt", LMI_E_ARGUMENT}, {"proj.zbl", LMI_E_EXISTS},
                          {"X.ZBD", 0}, {"scratch.TMP", 0}})
    EXPECT_EQ(LMI_CreateLibrary(heap, S(path(name)), nullptr), rc) << name;
  EXPECT_EQ(LMI_CreateLibrary(heap, nullptr, nullptr), LMI_E_ARGUMENT);
  EXPECT_EQ(LMI_CreateLibrary(nullptr, S(path("y.zbl")), nullptr), LMI_E_NULL_HEAP);
  EXPECT_FALSE(fs::exists(path("y.zbl")));
  EXPECT_EQ(str(slurp(create("long.zbl", std::string(400, 'c').c_str())), 28, 256), std::string(255, 'c') + '\0');
}

TEST_F(Layout, EntryRecordsAndChainsOf502And503Bytes) {
  std::string p = create("e.zbl");
  fill(p, {{"Alpha", std::string(502, 'a')}, {"beta", std::string(503, 'b')}});
  Bytes b = slurp(p);
  ASSERT_EQ(b.size(), 4096u + 3 * 512);
  // Root node: records in insertion order, offsets of the smallest and greatest.
  const size_t r = 1024 + 32, r2 = r + 30;
  const std::tuple<size_t, int, uint32_t> fields[] = {  // {offset, width, value}
      {1024 + 20, 2, 2}, {1024 + 16, 2, 3040 - 30 - 29}, {1024 + 22, 2, 32 + 24}, {1024 + 18, 2, 32 + 24 + 6 + 24},
      {r + 8, 4, 4096}, {r + 12, 4, 502}, {r + 20, 2, 0}, {r + 22, 2, 6}, {r2 + 8, 4, 4608}, {r2 + 12, 4, 503},
      {4096 + 4, 4, 0}, {4096 + 8, 2, 502}, {4608 + 4, 4, 5120}, {4608 + 8, 2, 502}, {5120 + 4, 4, 0},
      {5120 + 8, 2, 1}, {520, 1, 0xFF}, {521, 1, 0xE0},  // bitmap: blocks 0..10 in use
  };
  for (auto [at, width, value] : fields) EXPECT_EQ(width == 4 ? le32(b, at) : width == 2 ? le16(b, at) : b[at], value) << at;
  EXPECT_EQ(str(b, r, 8), "ENT*0500");
  EXPECT_EQ(str(b, r + 24, 6), std::string("alpha\0", 6));
  EXPECT_EQ(str(b, 4096, 4), "DAT*");
  EXPECT_EQ(str(b, 5120 + 10, 502), 'b' + std::string(501, 0));
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, CommentAtTheFrontOfTheData) {
  std::string p = create("c.zbl");
  // A null comment keeps the old one; trailing blanks are cut.
  ASSERT_EQ(with(p, [&](LMI_HANDLE h) { return put(h, "obj", pattern(1000, 7), "ten bytes!   ") || put(h, "obj", "xyz"); }), 0);
  EXPECT_EQ(state(p).entries["obj"], (Entry{"xyz", "ten bytes!"}));
  Bytes b = slurp(p);
  EXPECT_EQ(le16(b, 1024 + 32 + 20), 10);  // comment length
  EXPECT_EQ(le32(b, 1024 + 32 + 12), 13u);
  EXPECT_EQ(str(b, 4096 + 10, 13), "ten bytes!xyz");
}

// A hole in the middle stays; the tail goes away, free blocks before it too; a
// chain that does not fit the free blocks is appended whole; a small entry takes the first free block.
TEST_F(Layout, TailReleaseAndReuseOfFreedBlocks) {
  std::string p = create("t.zbl");
  fill(p, {{"a", std::string(2000, 'a')}, {"b", std::string(2000, 'b')}, {"c", std::string(2000, 'c')}});  // 4 blocks each
  auto putIn = [&](const char* n, size_t size) { return with(p, [&](LMI_HANDLE h) { return put(h, n, std::string(size, 'x')); }); };
  // {step, file blocks after the 8 fixed ones, entry put, its first two blocks}
  const std::tuple<std::function<int32_t()>, uint32_t, std::string, uint32_t, uint32_t> steps[] = {
      {[&] { return remove(p, "b"); }, 12, "", 0, 0},
      {[&] { return putIn("d", 2500); }, 17, "d", 12, 13},
      {[&] { return remove(p, "d"); }, 12, "", 0, 0},
      {[&] { return remove(p, "c"); }, 4, "", 0, 0},
      {[&] { return putIn("e", 1); }, 5, "e", 4, 0}};
  for (const auto& [step, blocks, name, first, second] : steps) {
    ASSERT_EQ(step(), 0);
    Bytes b = slurp(p);
    EXPECT_EQ(b.size(), 4096u + blocks * 512);
    EXPECT_TRUE(verifyFile(p).empty());
    if (name.empty()) continue;
    EXPECT_EQ(le32(b, record(b, name) + 8), 4096u + first * 512) << name;
    EXPECT_EQ(le32(b, 4096 + first * 512 + 4), second ? 4096u + second * 512 : 0u) << name;
  }
}

TEST_F(Layout, FullRootGrowsRightAndLeftChildren) {
  std::string p = create("tree.zbl");
  LMI_HANDLE h = open(p, 2);
  for (int i = 0; i == 0 || zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) >= 24 + 46; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "m%03d_%s", i, std::string(40, 'n').c_str());
    ASSERT_EQ(put(h, name, ""), 0);
  }
  const std::string z(45, 'z'), a(45, 'a');
  ASSERT_EQ(put(h, z, "zz"), 0);
  ASSERT_EQ(put(h, a, "aa"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  Bytes b = slurp(p);
  uint32_t left = le32(b, 1024 + 4), right = le32(b, 1024 + 12);
  ASSERT_EQ(right, 4096u);           // the first new node: blocks 8..13
  ASSERT_EQ(left, 4096u + 7 * 512);  // after the first entry's data block
  EXPECT_EQ(str(b, right, 4), "NOD*");
  EXPECT_EQ(le32(b, right + 8), 1024u);
  EXPECT_EQ(le16(b, right + 20), 1);
  EXPECT_EQ(str(b, right + 32 + 24, 46), z + '\0');
  EXPECT_EQ(str(b, left + 32 + 24, 46), a + '\0');
  EXPECT_EQ(b.size(), 4096u + 14 * 512);
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, OldLayoutWith1024ByteNodes) {
  Bytes b(2048, 0);
  std::memcpy(b.data(), "HDR*Quillbrander\0\0" "0100", 22);
  std::memcpy(b.data() + 512, "FRE*", 4);
  b[520] = 0xF0;
  std::memcpy(b.data() + 1024, "NOD*", 4);
  set32(b, 1024 + 16, 992, 2);
  std::string p = path("old.zbl");
  spit(p, b);
  std::vector<std::pair<std::string, std::string>> entries;
  for (int i = 0; i < 60; ++i) entries.emplace_back("entry_" + std::to_string(1000 + i) + std::string(20, 'x'), "data");
  fill(p, entries);
  Bytes a = slurp(p);
  EXPECT_EQ(str(a, 18, 4), "0100");
  EXPECT_LT(le16(a, 1024 + 16), 992);
  uint32_t right = le32(a, 1024 + 12);  // a new node, on a block boundary after the 2048 fixed bytes
  EXPECT_TRUE(right && str(a, right, 4) == "NOD*" && (right - 2048) % 512 == 0) << right;
  EXPECT_TRUE(verifyFile(p).empty());
  EXPECT_EQ(state(p).entries.size(), 60u);
  b[5] = 'X';  // a file whose product name differs is refused
  spit(p, b);
  EXPECT_EQ(open(p, 1), nullptr);
}

// A library appended to an executable, found through the trailer (the file unchanged while read).
TEST_F(Layout, TrailerReadOnlyAndReadWrite) {
  const Bytes exe = exeWith(slurp(create("inner.zbl")));
  const std::string p = path("app.exe");
  spit(p, exe);
  EXPECT_EQ(with(p, [&](LMI_HANDLE g) { return int32_t(zbshr::lm::library_of(g)->base + fs::file_size(p) - exe.size()); }, 1),
            1536);
  LMI_HANDLE h = open(p, 2);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(fs::file_size(p), exe.size() - 512);  // the trailer is off while open
  ASSERT_EQ(put(h, "w_main", std::string(700, 'w')), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  Bytes a = slurp(p);
  ASSERT_EQ(a.size(), exe.size() + 2 * 512);
  EXPECT_EQ(str(a, a.size() - 512, 4), "TRL*");
  EXPECT_EQ(le32(a, a.size() - 508), 1536u);
  EXPECT_EQ(le32(a, 1536 + 1024 + 32 + 8), 1536u + 4096);  // stored offsets are absolute
  EXPECT_TRUE(std::equal(exe.begin(), exe.begin() + 1536, a.begin()));
  EXPECT_EQ(state(p).entries["w_main"].data, std::string(700, 'w'));
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, BitmapChainGrowsPastTwoAndFourMegabytes) {
  int32_t was = zbshr_lib_write_through(0);  // more than 8 MB of held-back writes go out on the way
  std::string p = create("big.zbl"), data = pattern(2 << 20, 3);
  fill(p, {{"big0", data}, {"big1", data}, {"big2", data}, {"big3", data}, {"big4", data}}, 64000);
  Bytes b = slurp(p);
  ASSERT_GT(b.size(), 4u * 2064384);
  ASSERT_EQ(le32(b, 516), 2064384u);
  EXPECT_EQ(str(b, 2064384, 4), "FRE*");
  EXPECT_EQ(b[2064384 + 8] & 0x80, 0x80);  // its own bit
  EXPECT_EQ(le32(b, 2064384 + 4), 2u * 2064384);
  EXPECT_TRUE(verifyFile(p).empty());
  for (auto& [n, e] : state(p).entries) EXPECT_TRUE(e.data == data) << n;
  // Deleting the last entries gives the tail back, bitmaps included.
  for (const char* n : {"big4", "big3", "big2", "big1"}) ASSERT_EQ(remove(p, n), 0);
  // What is left (header, root, "big0") ends inside the second range.
  EXPECT_EQ(fs::file_size(p), 4096u + 4178u * 512 + 512);
  b = slurp(p);
  EXPECT_EQ(le32(b, 516), 2064384u);
  EXPECT_EQ(le32(b, 2064384 + 4), 0u);  // the later bitmaps were dropped
  EXPECT_TRUE(verifyFile(p).empty());
  zbshr_lib_write_through(was);
}

}  // namespace
