// Checking, salvage, repair, compaction and the last-error text: entries are
// compared whole (data, comment, time) and every rewritten library must pass the checker.
#include <bit>
#include <functional>

#include "helpers.h"
#include "platform/platform.h"
#include "zbshr/system.h"

using namespace lmtest;

namespace {

struct Found {
  int32_t code;
  std::string entry, text;
};
using Entries = std::map<std::string, Entry>;

void ZBSHR_CALLBACK collectCb(void* ctx, int32_t code, const char* entry, const char* text) {
  static_cast<std::vector<Found>*>(ctx)->push_back({code, entry ? entry : "", text});
}

class Recovery : public LibTest {
 protected:
  std::vector<Found> found;
  int32_t writeThrough = zbshr_lib_write_through(0);  // no sync of each write while building
  void TearDown() override {
    zbshr_lib_write_through(writeThrough);
    LibTest::TearDown();
  }
  // A library of n entries with comments, data of varied length and distinct times.
  Entries fill(const std::string& lib, int n) {
    LMI_HANDLE h = open(lib, 2);
    for (int i = 0; i < n; ++i) {
      const std::string name = "e" + std::to_string(1000 + (i * 37) % n).substr(1);
      const std::string c = i == 1 ? std::string(255, 'c') : i % 3 ? "note " + std::to_string(i) : "";
      EXPECT_EQ(put(h, name, pattern(size_t((i * 131) % 1700), uint32_t(i)), c.empty() ? nullptr : c.c_str()), 0);
    }
    LMI_CloseLibrary(h);
    return state(lib, true).entries;
  }
  // Offsets of the records in the node at `node` of the file image.
  static std::vector<uint32_t> records(const Bytes& b, uint32_t node) {
    std::vector<uint32_t> out;
    for (uint32_t p = node + 32; p < node + 32 + 3040 - le16(b, node + 16); p += 24 + le16(b, p + 22)) out.push_back(p);
    return out;
  }
  // Records of the subtree under `node`, and its depth.
  static uint32_t walk(const Bytes& b, uint32_t node, std::vector<uint32_t>* recs = nullptr) {
    uint32_t d = 0;
    if (recs) for (uint32_t r : records(b, node)) recs->push_back(r);
    for (uint32_t f : {4u, 12u})
      if (uint32_t c = le32(b, node + f)) d = std::max(d, walk(b, c, recs));
    return d + 1;
  }
  static std::string name(const Bytes& b, uint32_t rec) { return reinterpret_cast<const char*>(&b[rec + 24]); }
  int32_t verifyPath(const std::string& lib) {
    found.clear();
    return zbshr_lib_verify(lib.c_str(), collectCb, &found);
  }
  // No problem, and not even a note.
  bool clean(const std::string& lib) { return verifyPath(lib) == 0 && found.empty(); }
  std::string lastError(int32_t code) {
    char t[300];
    EXPECT_EQ(zbshr_lib_last_error(t, sizeof t), code);
    return t;
  }
};

TEST_F(Recovery, SalvageSavesEveryEntryWhoseRecordSurvives) {
  std::string lib = create("s.zbl", "library comment");
  Entries want = fill(lib, 300);
  for (const char* n : {"e007", "e299"}) ASSERT_EQ(LMI_CheckRegisterEntry(heap, S(lib), S(n)), 0);
  Bytes bytes = slurp(lib);
  ASSERT_NE(le32(bytes, 1024 + 12) | le32(bytes, 1024 + 4), 0u) << "the tree should have children";
  for (size_t n : {3072, 512}) {  // the whole root node, or its first block
    Entries kept = want;  // records inside the zeroed bytes are gone for good
    for (uint32_t r : records(bytes, 1024))
      if (r < 1024 + n) kept.erase(name(bytes, r));
    Bytes damaged = bytes;
    std::fill(damaged.begin() + 1024, damaged.begin() + long(1024 + n), 0);
    std::string bad = path("bad.zbl"), out = path("out.zbl");
    spit(bad, damaged);
    fs::remove(out);
    ASSERT_EQ(zbshr_lib_salvage(bad.c_str(), out.c_str(), collectCb, &found), int32_t(kept.size())) << n;
    // Check-out records and the library comment come along.
    EXPECT_EQ(state(out, true), (LibState{true, true, kept, {"|e007||r", "|e299||r"}, "library comment"})) << n;
    EXPECT_TRUE(clean(out)) << n;
  }
}

TEST_F(Recovery, SalvageReportsBrokenEntriesAndRefusesAnExistingTarget) {
  std::string lib = create("s.zbl"), out = path("out.zbl");
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) {
              return put(h, "good", pattern(900, 1), "kept") || put(h, "broken", pattern(1200, 2)) ||
                     put(h, "gone", pattern(100, 3)) || LMI_DeleteEntry(h, S("gone"));
            }), 0);
  Bytes bytes = slurp(lib);
  const uint32_t rec = 1024 + 32 + 24 + 5;  // "broken": its second block is overwritten
  ASSERT_EQ(name(bytes, rec), "broken");
  const uint32_t second = le32(bytes, le32(bytes, rec + 8) + 4);
  std::fill(bytes.begin() + second, bytes.begin() + second + 512, 0);
  spit(lib, bytes);
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), out.c_str(), collectCb, &found), 1);
  EXPECT_TRUE(std::any_of(found.begin(), found.end(), [](const Found& f) { return f.code < 0 && f.entry == "broken"; }));
  EXPECT_TRUE(std::any_of(found.begin(), found.end(), [](const Found& f) { return f.text == "saved 'good' (900 bytes)"; }));
  const Entries good{{"good", {pattern(900, 1), "kept"}}};
  EXPECT_EQ(state(out).entries, good);
  LMI_HANDLE w = open(lib, 2);  // salvage let go of the source
  EXPECT_NE(w, nullptr);
  LMI_CloseLibrary(w);
  // Without its header the entries are still found; the header's loss is reported. A record whose name
  // could not fit in a node is no entry, wherever it lies.
  std::fill(bytes.begin(), bytes.begin() + 512, 0);
  Bytes junk(4096, 'L');
  std::memcpy(junk.data(), "ENT*0000", 8);
  std::fill(junk.begin() + 8, junk.begin() + 24, 0);
  set32(junk, 22, 3100, 2);
  junk[24 + 3099] = 0;
  bytes.insert(bytes.end(), junk.begin(), junk.end());
  spit(lib, bytes);
  found.clear();
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), path("out2.zbl").c_str(), collectCb, &found), 1);
  EXPECT_EQ(state(path("out2.zbl")).entries, good);
  EXPECT_TRUE(!found.empty() && found[0].text.find("header") != std::string::npos);
  EXPECT_TRUE(std::none_of(found.begin(), found.end(), [](const Found& f) { return f.entry.size() > 8; }));
  // The target must be a new file; a missing source is an open error.
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), out.c_str(), nullptr, nullptr), LMI_E_EXISTS);
  EXPECT_TRUE(zbshr_lib_salvage(path("none.zbl").c_str(), path("o2.zbl").c_str(), nullptr, nullptr) == LMI_E_IO &&
              !fs::exists(path("o2.zbl")));
}

// An old node left in freed blocks, whose record still reads whole, is not salvaged.
TEST_F(Recovery, SalvageDoesNotBringBackRecordsLeftInFreeSpaceOrData) {
  std::string lib = create("g.zbl");
  // "a" in blocks 8 to 10, "b" in 11 and 12.
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "a", pattern(1300, 1)) || put(h, "b", pattern(600, 2)); }), 0);
  ASSERT_EQ(with(lib, [](LMI_HANDLE h) { return LMI_DeleteEntry(h, S("a")); }), 0);
  Bytes bytes = slurp(lib);
  ASSERT_EQ(name(bytes, 1024 + 32), "b");
  // Nor a record of "x" sharing b's data that is only bytes inside c's data.
  Bytes old(bytes.begin() + 1024, bytes.begin() + 1024 + 512), fake(bytes.begin() + 1024 + 32, bytes.begin() + 1024 + 58);
  fake[24] = 'x';
  const std::string c = std::string(100, '.') + str(fake, 0, fake.size()) + std::string(100, '.');
  ASSERT_EQ(with(lib, [&](LMI_HANDLE g) { return put(g, "c", c); }), 0);  // block 8
  bytes = slurp(lib);
  std::memcpy(&old[32 + 24], "ghost", 6);
  old[32 + 22] = 6;
  old[18] = old[22] = 32 + 24;
  std::copy(old.begin(), old.end(), bytes.begin() + 10 * 512);  // the last free block
  spit(lib, bytes);
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), path("out.zbl").c_str(), collectCb, &found), 2);
  EXPECT_EQ(state(path("out.zbl")).entries, (Entries{{"b", {pattern(600, 2), ""}}, {"c", {c, ""}}}));
  EXPECT_TRUE(std::any_of(found.begin(), found.end(),
                          [](const Found& f) { return f.entry == "ghost" && f.code == ZBSHR_LIB_NOTE_INFO; }));
}

// Past the first bitmap's range too: a node image left in a freed block is not brought back.
TEST_F(Recovery, SalvageReadsTheFreeBitsOfEveryBitmap) {
  std::string lib = create("m.zbl");
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "big", pattern(2100000, 7)) || put(h, "mid", "m") || put(h, "end", "e"); }), 0);
  Bytes bytes = slurp(lib);
  const uint32_t rec = records(bytes, 1024)[1], mid = le32(bytes, rec + 8);  // the block after the last of "big"
  ASSERT_TRUE(name(bytes, rec) == "mid" && mid > 2064384u);
  ASSERT_EQ(with(lib, [](LMI_HANDLE h) { return LMI_DeleteEntry(h, S("mid")); }), 0);
  bytes = slurp(lib);
  Bytes old(bytes.begin() + 1024, bytes.begin() + 1024 + 512);
  std::memcpy(&old[32 + 24], "ghost", 6);
  old[32 + 22] = 6;
  old[18] = old[22] = 32 + 24;
  std::copy(old.begin(), old.end(), bytes.begin() + mid);
  for (bool badTag : {false, true}) {  // a bitmap with a wrong tag is not read, even at its right place
    bytes[2064384] = badTag ? 'X' : 'F';
    spit(lib, bytes);
    fs::remove(path("out.zbl"));
    zbshr_lib_salvage(lib.c_str(), path("out.zbl").c_str(), nullptr, nullptr);
    const auto got = state(path("out.zbl")).entries;
    EXPECT_TRUE(got.size() == 2u + badTag && got.count("ghost") == badTag && got.at("big").data == pattern(2100000, 7) &&
                got.at("end").data == "e") << badTag;
  }
}

TEST_F(Recovery, VerifyListingAndCompactionStopAtADirectoryCycle) {
  std::string lib = create("c.zbl");
  Entries want = fill(lib, 300);
  Bytes bytes = slurp(lib);
  uint32_t child = le32(bytes, 1024 + 4) ? le32(bytes, 1024 + 4) : le32(bytes, 1024 + 12);
  ASSERT_NE(child, 0u);
  std::vector<uint32_t> under;
  walk(bytes, child, &under);
  for (uint32_t r : under) want.erase(name(bytes, r));
  set32(bytes, le32(bytes, 1024 + 4) ? 1024 + 4 : 1024 + 12, 1024);  // the root's first child points back at it
  spit(lib, bytes);
  // Compaction refuses it and leaves it as it was.
  EXPECT_EQ(zbshr_lib_compact(lib.c_str(), nullptr, nullptr), LMI_E_DAMAGED);
  EXPECT_TRUE(slurp(lib) == bytes && !fs::exists(lib + ".compacting"));
  EXPECT_NE(lastError(LMI_E_DAMAGED).find("salvage"), std::string::npos);
  EXPECT_EQ(verifyPath(lib), 1);
  ASSERT_EQ(found.size(), 2u);  // the cycle, and the blocks of the cut-off subtree
  EXPECT_TRUE(found[0].text.find("cycle") != std::string::npos && found[0].code == LMI_E_DAMAGED &&
              found[1].code == ZBSHR_LIB_NOTE_LEAK);
  std::vector<std::string> seen;
  EXPECT_EQ(with(lib, [&](LMI_HANDLE h) { return LMI_ListEntries(h, S(".*"), collectName, &seen); }, 1), LMI_E_DAMAGED);
  Entries listed;
  for (auto& n : seen) listed[n] = want.count(n) ? want.at(n) : Entry{"<not expected>", "", 0};
  EXPECT_TRUE(listed == want && seen.size() == want.size());  // each once
  // Repair cuts the cycle and frees the subtree's blocks; what is reachable is unchanged, and checks clean.
  found.clear();
  EXPECT_TRUE(zbshr_lib_repair(lib.c_str(), collectCb, &found) == 2 && clean(lib));
  EXPECT_EQ(state(lib, true).entries, want);
}

TEST_F(Recovery, RepairRebuildsBitmapsAndDropsAnUnreadableList) {
  std::string lib = create("r.zbl");
  Entries want = fill(lib, 40);
  // Replacing the raw list leaves the old chain in use: leaked blocks.
  const char rec1[] = "x\0e001\0u\0d";
  for (int i = 0; i < 2; ++i) ASSERT_EQ(LMI_SetCheckOutEntries(heap, S(lib), rec1, sizeof rec1 - 1), 0);
  Bytes bytes = slurp(lib);
  // A block in use marked free: the first data block of an entry in the root.
  uint32_t first = 0;
  for (uint32_t r : records(bytes, 1024)) first = first ? first : le32(bytes, r + 8);
  ASSERT_GE(first, 4096u);
  bytes[512 + 8 + first / 512 / 8] &= uint8_t(~(0x80 >> (first / 512 % 8)));
  bytes[512 + 8] &= 0x7F;  // and the header's own block
  spit(lib, bytes);
  ASSERT_EQ(verifyPath(lib), 1);
  EXPECT_TRUE(found.size() == 2 && found[1].text == "2 blocks in use are marked free (first at block 0)");
  const uint32_t other = records(bytes, 1024).back();  // an entry with data, in the root
  ASSERT_TRUE(le32(bytes, other + 12) > 0 && le32(bytes, other + 8) != first);
  for (int damage : {0, 1, 2}) {  // none; the list's tag and a data tag; the list's last record
    Bytes b = bytes;
    Entries w = want;
    // The list's block is then neither readable nor leaked: the old leak stays, the bit is fixed, the list dropped.
    // A data block whose tag is wrong in its last byte empties its entry.
    if (damage == 1) {
      b[le32(b, 284)] = 'X';
      b[le32(b, other + 8) + 3] = '!';
      w[name(b, other)] = {"", "", w[name(b, other)].time};
    }
    const auto list = b.begin() + le32(b, 284), rec = std::search(list, list + 512, rec1, rec1 + sizeof rec1 - 1);
    ASSERT_NE(rec, list + 512);
    if (damage == 2) rec[sizeof rec1 - 2] = 'q';  // no such kind: a sound chain of damaged records
    spit(lib, b);
    verifyPath(lib);
    EXPECT_EQ(std::count_if(found.begin(), found.end(), [](auto& f) { return f.text == "check-out list: its records are damaged"; }),
              damage == 2);
    found.clear();
    EXPECT_TRUE(zbshr_lib_repair(lib.c_str(), collectCb, &found) == (damage == 1 ? 4 : damage == 2 ? 3 : 2) && clean(lib)) << damage;
    EXPECT_EQ(state(lib, true).entries, w) << damage;
    EXPECT_EQ(state(lib).checkouts.size(), damage ? 0u : 1u);
  }
}

TEST_F(Recovery, RepairRelinksABitmapLostFromTheChain) {
  // Past 4032 blocks the second bitmap sits at 2,064,384; cut its link.
  std::string lib = create("b.zbl");
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "big", pattern(2200000, 7), "large") || put(h, "small", "tail"); }), 0);
  Bytes bytes = slurp(lib);
  ASSERT_EQ(le32(bytes, 512 + 4), 2064384u);
  set32(bytes, 512 + 4, 0);
  spit(lib, bytes);
  ASSERT_EQ(verifyPath(lib), 1);
  EXPECT_NE(found[0].text.find("cover fewer blocks"), std::string::npos) << found[0].text;
  EXPECT_TRUE(zbshr_lib_repair(lib.c_str(), collectCb, &found) == 1 && verifyPath(lib) == 0);
  EXPECT_EQ(state(lib, true).entries["big"].data, pattern(2200000, 7));
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "more", pattern(600000, 8)); }), 0);  // growth works again
  EXPECT_EQ(verifyPath(lib), 0);
  // A bitmap whose mark is lost is not trusted by a change, and repair writes it anew.
  Bytes lost = slurp(lib);
  std::memset(&lost[2064384], 0, 4);
  spit(lib, lost);
  EXPECT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "more2", "x"); }), LMI_E_DAMAGED);
  EXPECT_EQ(slurp(lib), lost);
  found.clear();
  int used = -1;  // the blocks the lost bitmap marked, less its own
  for (size_t i = 2064384 + 8; i < 2064384 + 512; ++i) used += std::popcount(lost[i]);
  EXPECT_EQ(zbshr_lib_repair(lib.c_str(), collectCb, &found), 2);
  EXPECT_TRUE(found.size() == 2 && found[1].text == "marked in use " + std::to_string(used) + " blocks that were marked free")
      << found.back().text;
  EXPECT_EQ(verifyPath(lib), 0);
  EXPECT_EQ(state(lib, true).entries["more"].data, pattern(600000, 8));
  // When the bitmap's block holds something else, the checker says so, and repair refuses and changes nothing.
  std::memcpy(&bytes[2064384], "DAT*", 4);
  set32(bytes, 512 + 4, 2064384);
  spit(lib, bytes);
  ASSERT_GE(verifyPath(lib), 1);
  EXPECT_NE(found[0].text.find("bitmap 1 at 2064384 cannot be read"), std::string::npos) << found[0].text;
  EXPECT_EQ(zbshr_lib_repair(lib.c_str(), nullptr, nullptr), LMI_E_NO_SPACE);
  EXPECT_EQ(slurp(lib), bytes);
}

// A new directory node that would reach past the end of a bitmap's range starts after it, in one piece.
TEST_F(Recovery, ANodeAppendedAtABitmapBoundaryStaysWhole) {
  const std::string first = create("m.zbl");
  ASSERT_EQ(with(first, [&](LMI_HANDLE h) { return put(h, "probe", pattern(2000000, 1)); }), 0);
  const int64_t blocks = int64_t(fs::file_size(first) / 512);
  for (int pad = 1; pad <= 6; ++pad) {  // the library ends `pad` blocks before the second bitmap's range
    std::string lib = create("n" + std::to_string(pad) + ".zbl");
    ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "probe", pattern(size_t(2000000 + (4032 - pad - blocks) * 502), 1)); }), 0);
    for (int i = 0; i < 16; ++i)  // empty entries of long names: the root fills and splits, no data blocks come between
      ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, std::string(178, 'n') + char('a' + i), ""); }), 0);
    EXPECT_TRUE(clean(lib)) << pad;
    EXPECT_EQ(state(lib).entries.size(), 17u) << pad;
  }
}

TEST_F(Recovery, CompactBalancesASequentialDirectoryAndLeavesNoFreeBlocks) {
  std::string lib = create("k.zbl", "big one");
  const int n = 5000;
  LMI_HANDLE h = open(lib, 2);
  auto nm = [](int i) { return "w_" + std::to_string(100000000 + i).substr(1); };
  for (int i = 0; i < n; ++i)
    ASSERT_EQ(put(h, nm(i), i % 1000 ? std::string(1, char(i)) : pattern(size_t(i % 3000), uint32_t(i)), i % 7 ? nullptr : "c"), 0);
  for (int i = 100; i < 200; ++i) ASSERT_EQ(LMI_DeleteEntry(h, S(nm(i))), 0);  // free space in the middle
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, S(lib), S("w_00000001")), 0);
  LibState before = state(lib, true);
  Bytes b0 = slurp(lib);
  uint32_t d0 = walk(b0, 1024);
  EXPECT_GT(d0, uint32_t(n / 100));
  EXPECT_EQ(zbshr_lib_compact(lib.c_str(), collectCb, &found), n - 100);
  Bytes b1 = slurp(lib);
  uint32_t d1 = walk(b1, 1024);
  EXPECT_LE(d1, 12u) << "depth " << d0 << " -> " << d1;
  ASSERT_TRUE(found.size() == 1u && found[0].code == ZBSHR_LIB_NOTE_INFO);
  EXPECT_NE(found[0].text.find("depth " + std::to_string(d0) + " -> " + std::to_string(d1)), std::string::npos) << found[0].text;
  EXPECT_TRUE(b1.size() < b0.size() && !fs::exists(lib + ".compacting"));
  auto freeBlocks = [](LMI_HANDLE g) {  // -1 when not sound
    auto r = zbshr::lm::verify(zbshr::lm::library_of(g));
    return r.ok() ? int32_t(r.freeBlocks) : -1;
  };
  EXPECT_EQ(with(lib, freeBlocks, 1), 0);
  EXPECT_TRUE(state(lib, true) == before);  // entries, comment, check-out records
  // New entries still go in, and the library stays sound.
  ASSERT_EQ(with(lib, [&](LMI_HANDLE g) { return put(g, "w_00000150", "back") || put(g, "zzz", "last"); }), 0);
  EXPECT_EQ(verifyPath(lib), 0);
}

// A comment length is checked against 255 and the entry's length, each at its boundary; each signature byte counts.
TEST_F(Recovery, VerifyChecksRecordFieldsAndKeeps200Problems) {
  std::string lib = create("v.zbl");
  ASSERT_EQ(with(lib, [&](LMI_HANDLE h) { return put(h, "e", std::string(300, 'd'), "c") || put(h, "f", "12345", "c"); }), 0);
  const Bytes bytes = slurp(lib);
  const uint32_t recE = 1024 + 32, recF = recE + 24 + 2, lenF = le32(bytes, recF + 12);
  ASSERT_EQ(name(bytes, recF), "f");
  const std::tuple<uint32_t, uint32_t, int, int32_t, std::string> cases[] = {  // {offset, value, width, problems, text}
      {recE + 20, 255, 2, 0, ""}, {recE + 20, 256, 2, 1, "comment length 256"}, {recF + 20, lenF, 2, 0, ""},
      {recF + 20, lenF + 1, 2, 1, "comment length " + std::to_string(lenF + 1)}, {recF + 3, '?', 1, 1, ""}};
  for (const auto& [at, value, width, problems, says] : cases) {
    Bytes b = bytes;
    set32(b, at, value, width);
    spit(lib, b);
    EXPECT_EQ(verifyPath(lib), problems) << at << " " << value;
    EXPECT_TRUE(!problems || found[0].text.find(says) != std::string::npos) << found[0].text;
  }
  // The checker keeps the first 200 problem texts of a badly damaged library.
  std::string many = create("m.zbl");
  fill(many, 260);
  Bytes m = slurp(many);
  std::vector<uint32_t> recs;
  walk(m, 1024, &recs);
  for (uint32_t r : recs) m[r + 21] = 0x7F;  // an impossible comment length
  spit(many, m);
  EXPECT_TRUE(recs.size() == 260u && verifyFile(many).size() == 200u && verifyPath(many) >= 260);
}


TEST_F(Recovery, LastErrorTellsWhyACallFailed) {
  std::string lib = create("e.zbl");
  spit(path("text.zbl"), Bytes(4096, 'x'));
  LMI_HANDLE w = open(lib, 2);
  // A library held for writing by another handle is in use.
  for (auto [file, says] : {std::pair<std::string, const char*>{"missing.zbl", "does not exist"},
                            {"text.zbl", "not a library"}, {"e.zbl", "in use by another program"}}) {
    EXPECT_EQ(open(path(file), 1), nullptr);
    EXPECT_NE(lastError(LMI_E_IO).find(says), std::string::npos) << file;
  }
  // The format's size limit keeps code -17 but says what it is.
  ASSERT_EQ(LMI_OpenEntry(w, S("big"), 3, "a comment"), 0);
  char one = 0;
  EXPECT_TRUE(LMI_WriteEntry(w, &one, 0x7FFFFFFF) == LMI_E_DISK_FULL &&
              lastError(LMI_E_DISK_FULL).find("2 GiB") != std::string::npos);
  LMI_CloseEntry(w);
  // A call that succeeds clears it; the text is cut to the buffer.
  EXPECT_TRUE(LMI_CloseLibrary(w) == 0 && lastError(0).empty());
  EXPECT_EQ(open(path("missing.zbl"), 1), nullptr);
  char small[5];
  EXPECT_TRUE(zbshr_lib_last_error(small, sizeof small) == LMI_E_IO && std::strlen(small) == 4u);
}

// Damaged files give LMI_E_DAMAGED or LMI_E_IO, never a crash or a hang, and the undamaged entries stay readable.

constexpr size_t kA = 1024 + 32, kB = kA + 26;  // the records of "a" and "b" in the root

class Damage : public LibTest {
 public:
  std::string lib;
  Bytes bytes;
  // "a" in blocks 8 to 10, "b" in 11 and 12; then `extra` more entries.
  void build(int extra = 0) {
    fs::remove(path("d.zbl"));
    lib = create("d.zbl");
    LMI_HANDLE h = open(lib, 2);
    ASSERT_TRUE(put(h, "a", pattern(1300, 1)) == 0 && put(h, "b", pattern(600, 2)) == 0);
    for (int i = 0; i < extra; ++i) ASSERT_EQ(put(h, std::string("n").append(std::to_string(100 + i)).append(30, 'x'), ""), 0);
    ASSERT_EQ(LMI_CloseLibrary(h), 0);
    bytes = slurp(lib);
  }
  void patch(size_t at, uint32_t v, int width = 4) {
    set32(bytes, at, v, width);
    spit(lib, bytes);
  }
  int32_t call(std::function<int32_t(LMI_HANDLE)> f, int mode = 1) { return with(lib, f, mode); }
  int32_t readRc(const char* n) {
    return call([&](LMI_HANDLE h) { int32_t rc; readEntry(h, n, &rc); return rc; });
  }
};

// Damage in the record or chain of "a": reading and deleting "a" fail, freeing nothing, and "b" stays readable.
TEST_F(Damage, BrokenChainsAreRefusedAndNothingIsFreed) {
  const std::tuple<const char*, size_t, uint32_t, int> cases[] = {  // {what, offset, value (0: the file size), width}
      {"data chain cycle: block 9 back to 8", 4096 + 512 + 4, 4096, 4},
      {"first block far outside the file", kA + 8, 0x7FFFFE00u, 4},
      {"first block inside the fixed area", kA + 8, 1024, 4},
      {"first block not on a block boundary", kA + 8, 4096 + 100, 4},
      {"first block at the end of the file", kA + 8, 0, 4},
      {"length larger than the file", kA + 12, 0x7FFFFFF0u, 4},
      {"comment longer than the data", kA + 20, 2000, 2},
      {"blocks in use marked free", 521, 0, 1},
  };
  for (auto [what, at, value, width] : cases) {
    build();
    patch(at, value ? value : uint32_t(bytes.size()), width);
    EXPECT_EQ(readRc("a"), at == 521 ? 0 : LMI_E_DAMAGED) << what;  // blocks marked free still read
    // Without a comment the information needs no data block.
    LMI_ENTRYINFOEX ex;
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_EntryInfoExtended(h, S("a"), &ex); }), at == kA + 20 ? LMI_E_DAMAGED : 0) << what;
    if (at != kA + 20) {
      EXPECT_TRUE(call([](LMI_HANDLE h) { return LMI_DeleteEntry(h, S("a")); }, 2) == LMI_E_DAMAGED && slurp(lib) == bytes) << what;
    }
    EXPECT_EQ(state(lib).entries["b"].data, pattern(600, 2)) << what;
  }
}

// Pointers of the directory and the bitmap chain into the wrong places.
TEST_F(Damage, BadLinksAreRefused) {
  const auto bitmapTo = [](uint32_t at) { return [at](Damage& t) { t.patch(512 + 4, at); }; };
  // {what, extra entries, damage, name looked up, exists, write, list}
  const std::tuple<const char*, int, std::function<void(Damage&)>, const char*, int32_t, int32_t, int32_t> cases[] = {
      {"record running past its node", 0, [](Damage& t) { t.patch(kB + 22, 4000, 2); }, "a", LMI_E_DAMAGED, LMI_E_DAMAGED, LMI_E_DAMAGED},
      // found before the bad pointer is followed
      {"child pointer to the root", 0, [](Damage& t) { t.patch(1024 + 12, 1024); }, "a", 0, LMI_E_DAMAGED, LMI_E_DAMAGED},
      {"child pointer to the root, searched", 0, [](Damage& t) { t.patch(1024 + 12, 1024); }, "zzz", LMI_E_DAMAGED, LMI_E_DAMAGED, LMI_E_DAMAGED},
      {"child pointing at itself", 80, [](Damage& t) { t.patch(le32(t.bytes, 1024 + 12) + 12, le32(t.bytes, 1024 + 12)); },
       "zzzz", LMI_E_DAMAGED, LMI_E_DAMAGED, LMI_E_DAMAGED},
      {"bitmap link to a data block", 0, bitmapTo(4096 + 5 * 512), "b", 0, LMI_E_DAMAGED, 0},
      {"bitmap naming itself", 0, bitmapTo(512), "b", 0, LMI_E_DAMAGED, 0},
  };
  for (const auto& [what, extra, damage, name, exists_, write, list] : cases) {
    build(extra);
    ASSERT_TRUE(!extra || le32(bytes, 1024 + 12));
    damage(*this);
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_EntryExists(h, S(name)); }), exists_) << what;
    EXPECT_TRUE(exists_ || readRc("b") == 0) << what;  // reading needs no bitmap
    EXPECT_EQ(call([&](LMI_HANDLE h) { return put(h, "zz", "new"); }, 2), write) << what;
    std::vector<std::string> names;
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_ListEntries(h, S(".*"), collectName, &names); }), list) << what;
  }
}

TEST_F(Damage, TruncatedAndForeignFilesDoNotOpen) {
  build();
  for (size_t n : {0, 100, 2047, 3000}) {
    spit(lib, Bytes(bytes.begin(), bytes.begin() + long(n)));
    EXPECT_EQ(open(lib, 1), nullptr) << n;
  }
  // Cut inside the data: the entries that lie there fail, nothing crashes.
  spit(lib, Bytes(bytes.begin(), bytes.begin() + 4096 + 512));
  EXPECT_EQ(readRc("a"), LMI_E_DAMAGED);
}

int g_answer, g_asked;
int32_t ZBSHR_CALL answer(void*, const char*, const char*, uint32_t style) {
  EXPECT_EQ(style & 0x1F, 0x15u);  // Retry and Cancel, stop icon
  ++g_asked;
  return g_answer;
}


// Disk errors go through the retry dialog. Whichever write of a change comes out short (the header's, at offset 0,
// too), Retry writes it again in its place; Cancel fails the call and leaves the handle working.
TEST_F(Damage, ShortWritesRetriedOrCancelled) {
  namespace plat = zbshr::plat;
  const int32_t was = zbshr_lib_write_through(1);  // every write goes to the disk at once
  zbshr_set_msgbox_handler(answer, nullptr);
  LMI_LIBRARYMOD mod{0, 0, "renamed"};
  const LibState want{true, true, {{"a", {pattern(1300, 1), "", 0}}, {"b", {pattern(600, 2), "", 0}}}, {}, "renamed"};
  for (int nth = 1, asked = 1; asked && nth < 50; ++nth, asked = g_asked) {
    build();
    g_asked = 0, g_answer = 4;
    plat::inject_fault(plat::Fault::Write, nth, 1);
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_ModifyLibrary(h, &mod); }, 3), 0) << nth;
    plat::clear_faults();
    EXPECT_TRUE(state(lib) == want && verifyFile(lib).empty()) << nth;
  }
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  auto cancel = [&](plat::Fault f, auto action) {  // a fault in the action's first write or read, answered Cancel
    g_asked = 0, g_answer = 2;
    plat::inject_fault(f, 1, 1);
    int32_t rc = action();
    plat::clear_faults();
    EXPECT_EQ(g_asked, 1);
    return rc;
  };
  ASSERT_TRUE(LMI_OpenEntry(h, S("y"), 3, nullptr) == 0 && LMI_WriteEntry(h, "abc", 3) == 3);
  EXPECT_EQ(cancel(plat::Fault::Write, [&] { return LMI_CloseEntry(h); }), LMI_E_DISK_FULL);
  EXPECT_EQ(cancel(plat::Fault::Read, [&] { int32_t rc; readEntry(h, "a", &rc); return rc; }), LMI_E_IO);
  EXPECT_TRUE(readEntry(h, "a") == pattern(1300, 1) && problems(h).empty());
  zbshr_set_msgbox_handler(nullptr, nullptr);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  zbshr_lib_write_through(was);
}

}  // namespace
