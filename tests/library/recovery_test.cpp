// Checking, salvage, repair, compaction and the last-error text, as a host
// sees them: every entry is compared byte for byte (data, comment, time)
// against what was written, and every repaired or rewritten library must pass
// the checker afterwards.
#include <map>
#include <set>

#include "helpers.h"

using namespace lmtest;

namespace {

struct Found {
  int32_t code;
  std::string entry, text;
};

int32_t ZBSHR_CALLBACK listNameCb(LMI_ENTRYINFO* i, void* u) {
  static_cast<std::vector<std::string>*>(u)->push_back(i->name);
  return 0;
}

int32_t ZBSHR_CALLBACK countNameCb(LMI_ENTRYINFO* i, void* u) {
  (*static_cast<std::map<std::string, int>*>(u))[i->name]++;
  return 0;
}

void ZBSHR_CALLBACK collectCb(void* ctx, int32_t code, const char* entry, const char* text) {
  static_cast<std::vector<Found>*>(ctx)->push_back({code, entry ? entry : "", text});
}

struct Entry {
  std::string data, comment;
  int32_t time = 0;
};

class Recovery : public LibTest {
 protected:
  std::vector<Found> found;
  int32_t writeThrough = 1;

  // The libraries are built without syncing each write.
  void SetUp() override {
    LibTest::SetUp();
    writeThrough = zbshr_lib_write_through(0);
  }
  void TearDown() override {
    zbshr_lib_write_through(writeThrough);
    LibTest::TearDown();
  }

  // Every entry of a library (read through the public calls).
  std::map<std::string, Entry> contents(const std::string& lib) {
    std::map<std::string, Entry> out;
    LMI_HANDLE h = open(lib, 1);
    EXPECT_NE(h, nullptr);
    if (!h) return out;
    std::vector<std::string> names;
    S pat(".*");
    LMI_ListEntries(h, pat, listNameCb, &names);
    for (const auto& n : names) {
      Entry e;
      int32_t rc;
      e.data = get(h, n, &rc);
      EXPECT_EQ(rc, 0) << n;
      LMI_ENTRYINFOEX x{};
      S sn(n);
      EXPECT_EQ(LMI_EntryInfoExtended(h, sn, &x), 0);
      e.comment = x.comment;
      e.time = x.time;
      EXPECT_TRUE(out.emplace(n, e).second) << "listed twice: " << n;
    }
    LMI_CloseLibrary(h);
    return out;
  }
  // A library of n entries with comments, data of varied length and distinct times.
  std::map<std::string, Entry> fill(const std::string& lib, int n, bool sequential = false) {
    std::map<std::string, Entry> want;
    LMI_HANDLE h = open(lib, 2);
    for (int i = 0; i < n; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, sequential ? "w_%08d" : "e%03d", sequential ? i : (i * 37) % n);
      Entry e{pattern(size_t((i * 131) % 1700), uint32_t(i)),
              i == 1 ? std::string(255, 'c') : i % 3 ? "note " + std::to_string(i) : ""};
      EXPECT_EQ(put(h, name, e.data, e.comment.empty() ? nullptr : e.comment.c_str()), 0);
      want[name] = e;
    }
    LMI_CloseLibrary(h);
    for (auto& [name, e] : contents(lib)) want[name].time = e.time;
    return want;
  }
  static void zero(std::vector<uint8_t>& b, size_t at, size_t n) {
    std::fill(b.begin() + long(at), b.begin() + long(at + n), 0);
  }
  // Names of the records in a node image of the file.
  static std::vector<std::string> namesIn(const std::vector<uint8_t>& b, uint32_t node) {
    std::vector<std::string> out;
    uint32_t end = 32 + 3040 - le16(b, node + 16);
    for (uint32_t p = node + 32; p < node + end; p += 24 + le16(b, p + 22))
      out.emplace_back(reinterpret_cast<const char*>(&b[p + 24]));
    return out;
  }
  static std::vector<std::string> namesUnder(const std::vector<uint8_t>& b, uint32_t node) {
    std::vector<std::string> out;
    std::vector<uint32_t> stack{node};
    while (!stack.empty()) {
      uint32_t n = stack.back();
      stack.pop_back();
      for (auto& s : namesIn(b, n)) out.push_back(s);
      if (le32(b, n + 4)) stack.push_back(le32(b, n + 4));
      if (le32(b, n + 12)) stack.push_back(le32(b, n + 12));
    }
    return out;
  }
  static uint32_t depth(const std::vector<uint8_t>& b, uint32_t node = 1024) {
    uint32_t d = 0;
    for (uint32_t f : {4u, 12u})
      if (uint32_t c = le32(b, node + f)) d = std::max(d, depth(b, c));
    return d + 1;
  }
  static std::string lastError() {
    char t[300];
    zbshr_lib_last_error(t, sizeof t);
    return t;
  }
  int32_t verifyPath(const std::string& lib) {
    found.clear();
    return zbshr_lib_verify(lib.c_str(), collectCb, &found);
  }
};

TEST_F(Recovery, SalvageSavesEveryEntryWhoseRecordSurvives) {
  std::string lib = create("s.zbl", "library comment");
  auto want = fill(lib, 300);
  std::vector<char> a{'e', '0', '0', '7', 0}, b{'e', '2', '9', '9', 0};
  S sp(lib);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, sp, a.data()), 0);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, sp, b.data()), 0);
  auto bytes = slurp(lib);
  ASSERT_NE(le32(bytes, 1024 + 12) | le32(bytes, 1024 + 4), 0u) << "the tree should have children";

  struct Case {
    const char* what;
    size_t at, n;
  } cases[] = {{"whole root node", 1024, 3072}, {"first block of the root", 1024, 512}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::set<std::string> lost;  // records inside the zeroed bytes are gone for good
    for (uint32_t p = 1024 + 32; p < 1024u + 32 + 3040 - le16(bytes, 1024 + 16); p += 24 + le16(bytes, p + 22))
      if (p < c.at + c.n) lost.insert(reinterpret_cast<const char*>(&bytes[p + 24]));
    auto damaged = bytes;
    zero(damaged, c.at, c.n);
    std::string bad = path("bad.zbl"), out = path("out.zbl");
    spit(bad, damaged);
    fs::remove(out);
    found.clear();
    int32_t saved = zbshr_lib_salvage(bad.c_str(), out.c_str(), collectCb, &found);
    ASSERT_EQ(saved, int32_t(want.size() - lost.size()));
    auto got = contents(out);
    EXPECT_EQ(got.size(), want.size() - lost.size());
    for (auto& [name, e] : want) {
      auto it = got.find(name);
      if (lost.count(name)) {
        EXPECT_EQ(it, got.end()) << name;
        continue;
      }
      ASSERT_NE(it, got.end()) << name;
      EXPECT_EQ(it->second.data, e.data) << name;
      EXPECT_EQ(it->second.comment, e.comment) << name;
      EXPECT_EQ(it->second.time, e.time) << name;
    }
    EXPECT_EQ(verifyPath(out), 0);
    EXPECT_TRUE(found.empty()) << found[0].text;
    // Check-out records and the library comment come along.
    LMI_HANDLE h = open(out, 1);
    ASSERT_NE(h, nullptr);
    LMI_LIBRARYINFO li{};
    ASSERT_EQ(LMI_LibraryInformation(h, &li), 0);
    EXPECT_STREQ(li.comment, "library comment");
    EXPECT_EQ(LMI_IsEntryCheckedOut(h, S("e007"), nullptr, nullptr, nullptr), LMI_E_REGISTERED);
    EXPECT_EQ(LMI_IsEntryCheckedOut(h, S("e299"), nullptr, nullptr, nullptr), LMI_E_REGISTERED);
    LMI_CloseLibrary(h);
  }
}

TEST_F(Recovery, SalvageReportsBrokenEntriesAndRefusesAnExistingTarget) {
  std::string lib = create("s.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_EQ(put(h, "good", pattern(900, 1), "kept"), 0);
  ASSERT_EQ(put(h, "broken", pattern(1200, 2)), 0);
  ASSERT_EQ(put(h, "gone", pattern(100, 3)), 0);
  S gone("gone");
  ASSERT_EQ(LMI_DeleteEntry(h, gone), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto bytes = slurp(lib);
  // The second block of "broken" is overwritten.
  uint32_t rec = 1024 + 32 + 24 + 5;
  ASSERT_EQ(str(bytes, rec + 24, 6), "broken");
  uint32_t second = le32(bytes, le32(bytes, rec + 8) + 4);
  zero(bytes, second, 512);
  spit(lib, bytes);
  std::string out = path("out.zbl");
  std::map<int32_t, int> codes;
  found.clear();
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), out.c_str(), collectCb, &found), 1);
  bool reported = false;
  for (auto& f : found) reported |= f.code < 0 && f.entry == "broken";
  EXPECT_TRUE(reported);
  auto got = contents(out);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got["good"].data, pattern(900, 1));
  EXPECT_EQ(got["good"].comment, "kept");
  // Without its header the entries are still found; the header's loss is reported.
  auto nohdr = slurp(lib);
  zero(nohdr, 0, 512);
  spit(lib, nohdr);
  found.clear();
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), path("out2.zbl").c_str(), collectCb, &found), 1);
  EXPECT_EQ(contents(path("out2.zbl"))["good"].data, pattern(900, 1));
  ASSERT_FALSE(found.empty());
  EXPECT_NE(found[0].text.find("header"), std::string::npos) << found[0].text;
  // The target must be a new file; a missing source is an open error.
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), out.c_str(), nullptr, nullptr), LMI_E_EXISTS);
  EXPECT_EQ(zbshr_lib_salvage(path("none.zbl").c_str(), path("o2.zbl").c_str(), nullptr, nullptr),
            LMI_E_IO);
  EXPECT_FALSE(fs::exists(path("o2.zbl")));
}

TEST_F(Recovery, VerifyAndListingStopAtADirectoryCycle) {
  std::string lib = create("c.zbl");
  auto want = fill(lib, 300);
  auto bytes = slurp(lib);
  uint32_t left = le32(bytes, 1024 + 4), right = le32(bytes, 1024 + 12);
  ASSERT_TRUE(left || right);
  uint32_t field = left ? 1024 + 4 : 1024 + 12;
  auto under = namesUnder(bytes, left ? left : right);
  for (int i = 0; i < 4; ++i) bytes[field + i] = uint8_t(1024 >> (8 * i));
  spit(lib, bytes);

  EXPECT_EQ(verifyPath(lib), 1);
  ASSERT_EQ(found.size(), 2u);  // the cycle, and the blocks of the cut-off subtree
  EXPECT_NE(found[0].text.find("cycle"), std::string::npos) << found[0].text;
  EXPECT_EQ(found[0].code, LMI_E_DAMAGED);
  EXPECT_EQ(found[1].code, ZBSHR_LIB_NOTE_LEAK) << found[1].text;

  LMI_HANDLE h = open(lib, 1);
  std::map<std::string, int> seen;
  S pat(".*");
  EXPECT_EQ(LMI_ListEntries(h, pat, countNameCb, &seen), LMI_E_DAMAGED);
  LMI_CloseLibrary(h);
  EXPECT_EQ(seen.size(), want.size() - under.size());
  for (auto& [name, n] : seen) EXPECT_EQ(n, 1) << name;

  // Repair cuts the cycle and frees the subtree's blocks; what is still
  // reachable is unchanged, and the library checks clean.
  found.clear();
  EXPECT_EQ(zbshr_lib_repair(lib.c_str(), collectCb, &found), 2);
  EXPECT_EQ(verifyPath(lib), 0);
  EXPECT_TRUE(found.empty()) << found[0].text;
  auto got = contents(lib);
  EXPECT_EQ(got.size(), want.size() - under.size());
  for (auto& [name, e] : got) {
    EXPECT_EQ(e.data, want[name].data) << name;
    EXPECT_EQ(e.comment, want[name].comment) << name;
    EXPECT_EQ(e.time, want[name].time) << name;
  }
}

TEST_F(Recovery, RepairRebuildsBitmapsAndDropsAnUnreadableList) {
  std::string lib = create("r.zbl");
  auto want = fill(lib, 40);
  S sp(lib);
  // Replacing the raw list leaves the old chain in use: leaked blocks.
  std::vector<uint8_t> rec1{'x', 0, 'e', '0', '0', '1', 0, 'u', 0, 'd'};
  ASSERT_EQ(LMI_SetCheckOutEntries(heap, sp, rec1.data(), int32_t(rec1.size())), 0);
  ASSERT_EQ(LMI_SetCheckOutEntries(heap, sp, rec1.data(), int32_t(rec1.size())), 0);
  auto bytes = slurp(lib);
  // A block in use marked free: the first data block of an entry in the root.
  uint32_t first = 0;
  for (uint32_t p = 1024 + 32; !first; p += 24 + le16(bytes, p + 22)) first = le32(bytes, p + 8);
  ASSERT_GE(first, 4096u);
  uint32_t bit = first / 512;
  bytes[512 + 8 + bit / 8] &= uint8_t(~(0x80 >> (bit % 8)));
  spit(lib, bytes);
  ASSERT_EQ(verifyPath(lib), 1);

  struct Case {
    const char* what;
    bool breakList;
    int32_t fixes;
  } cases[] = {{"leak and wrong bit", false, 2}, {"unreadable check-out list", true, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    spit(lib, bytes);
    if (c.breakList) {
      auto b = bytes;
      uint32_t lf = le32(b, 284);
      b[lf] = 'X';  // not a data block any more
      // The list's own block is then neither readable nor leaked data: the
      // old leak stays, the wrong bit is fixed and the list dropped.
      spit(lib, b);
    }
    found.clear();
    int32_t fixes = zbshr_lib_repair(lib.c_str(), collectCb, &found);
    EXPECT_EQ(fixes, c.fixes + (c.breakList ? 1 : 0));
    EXPECT_EQ(verifyPath(lib), 0);
    EXPECT_TRUE(found.empty()) << found[0].text;
    auto got = contents(lib);
    ASSERT_EQ(got.size(), want.size());
    for (auto& [name, e] : want) {
      EXPECT_EQ(got[name].data, e.data) << name;
      EXPECT_EQ(got[name].comment, e.comment) << name;
    }
    LMI_HANDLE h = open(lib, 1);
    LMI_LIBRARYINFO li{};
    LMI_LibraryInformation(h, &li);
    EXPECT_EQ(li.checkOutLength, c.breakList ? 0 : int32_t(rec1.size()));
    LMI_CloseLibrary(h);
  }
}

TEST_F(Recovery, RepairRelinksABitmapLostFromTheChain) {
  // Past 4032 blocks the second bitmap sits at 2,064,384; cut its link.
  std::string lib = create("b.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_EQ(put(h, "big", pattern(2200000, 7), "large"), 0);
  ASSERT_EQ(put(h, "small", "tail"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto bytes = slurp(lib);
  ASSERT_EQ(le32(bytes, 512 + 4), 2064384u);
  zero(bytes, 512 + 4, 4);
  spit(lib, bytes);
  ASSERT_EQ(verifyPath(lib), 1);
  EXPECT_NE(found[0].text.find("cover fewer blocks"), std::string::npos) << found[0].text;
  found.clear();
  EXPECT_EQ(zbshr_lib_repair(lib.c_str(), collectCb, &found), 1);
  EXPECT_EQ(verifyPath(lib), 0);
  auto got = contents(lib);
  EXPECT_EQ(got["big"].data, pattern(2200000, 7));
  EXPECT_EQ(got["big"].comment, "large");
  h = open(lib, 2);
  ASSERT_EQ(put(h, "more", pattern(600000, 8)), 0);  // growth works again
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(verifyPath(lib), 0);

  // When the bitmap's block holds something else, the checker says so, and
  // repair refuses and changes nothing.
  std::memcpy(&bytes[2064384], "DAT*", 4);
  bytes[512 + 6] = 0x1F;  // the link again: 2,064,384 = 0x1F8000
  bytes[512 + 5] = 0x80;
  spit(lib, bytes);
  ASSERT_GE(verifyPath(lib), 1);
  EXPECT_NE(found[0].text.find("bitmap 1 at 2064384 cannot be read"), std::string::npos)
      << found[0].text;
  EXPECT_EQ(zbshr_lib_repair(lib.c_str(), nullptr, nullptr), LMI_E_NO_SPACE);
  EXPECT_EQ(slurp(lib), bytes);
}

TEST_F(Recovery, SalvageDoesNotBringBackRecordsLeftInFreeSpace) {
  std::string lib = create("g.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_EQ(put(h, "a", pattern(1300, 1)), 0);  // blocks 8 to 10
  ASSERT_EQ(put(h, "b", pattern(600, 2)), 0);   // blocks 11 and 12
  S a("a");
  ASSERT_EQ(LMI_DeleteEntry(h, a), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  // An old node left in the freed blocks, whose record still reads whole.
  auto bytes = slurp(lib);
  uint32_t recB = 1024 + 32;
  ASSERT_EQ(str(bytes, recB + 24, 2), std::string("b\0", 2));
  std::vector<uint8_t> old(bytes.begin() + 1024, bytes.begin() + 1024 + 512);
  std::memcpy(&old[32 + 24], "ghost", 6);
  old[32 + 22] = 6;
  old[18] = old[22] = 32 + 24;
  std::copy(old.begin(), old.end(), bytes.begin() + 10 * 512);  // the last free block
  spit(lib, bytes);
  std::string out = path("out.zbl");
  found.clear();
  EXPECT_EQ(zbshr_lib_salvage(lib.c_str(), out.c_str(), collectCb, &found), 1);
  auto got = contents(out);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got["b"].data, pattern(600, 2));
  bool noted = false;
  for (auto& f : found) noted |= f.entry == "ghost" && f.code == ZBSHR_LIB_NOTE_INFO;
  EXPECT_TRUE(noted);
}

TEST_F(Recovery, CompactBalancesASequentialDirectoryAndLeavesNoFreeBlocks) {
  std::string lib = create("k.zbl", "big one");
  const int n = 5000;
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  for (int i = 0; i < n; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "w_%08d", i);
    std::string data = i % 1000 ? std::string(1, char(i)) : pattern(size_t(i % 3000), uint32_t(i));
    ASSERT_EQ(put(h, name, data, i % 7 ? nullptr : "c"), 0);
  }
  // Free space in the middle, and a check-out record.
  for (int i = 100; i < 200; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "w_%08d", i);
    S s(name);
    ASSERT_EQ(LMI_DeleteEntry(h, s), 0);
  }
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  S sp(lib);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, sp, S("w_00000001")), 0);
  auto before = contents(lib);
  auto b0 = slurp(lib);
  uint32_t d0 = depth(b0);
  EXPECT_GT(d0, uint32_t(n / 100));

  found.clear();
  EXPECT_EQ(zbshr_lib_compact(lib.c_str(), collectCb, &found), n - 100) << lastError();
  auto b1 = slurp(lib);
  uint32_t d1 = depth(b1);
  EXPECT_LE(d1, 12u) << "depth " << d0 << " -> " << d1;
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].code, ZBSHR_LIB_NOTE_INFO);
  EXPECT_NE(found[0].text.find("depth " + std::to_string(d0) + " -> " + std::to_string(d1)),
            std::string::npos) << found[0].text;
  EXPECT_LT(b1.size(), b0.size());
  EXPECT_FALSE(fs::exists(lib + ".compacting"));
  h = open(lib, 1);
  ASSERT_NE(h, nullptr);
  auto rep = zbshr::lm::verify(zbshr::lm::library_of(h));
  EXPECT_TRUE(rep.ok()) << rep.problems[0];
  EXPECT_EQ(rep.freeBlocks, 0u);
  EXPECT_EQ(LMI_IsEntryCheckedOut(h, S("w_00000001"), nullptr, nullptr, nullptr), LMI_E_REGISTERED);
  LMI_LIBRARYINFO li{};
  LMI_LibraryInformation(h, &li);
  EXPECT_STREQ(li.comment, "big one");
  LMI_CloseLibrary(h);
  auto after = contents(lib);
  ASSERT_EQ(after.size(), before.size());
  for (auto& [name, e] : before) {
    const Entry& a = after[name];
    ASSERT_TRUE(a.data == e.data && a.comment == e.comment && a.time == e.time) << name;
  }
  // New entries still go in, and the library stays sound.
  h = open(lib, 2);
  ASSERT_EQ(put(h, "w_00000150", "back"), 0);
  ASSERT_EQ(put(h, "zzz", "last"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(verifyPath(lib), 0);
}

TEST_F(Recovery, CompactRefusesADamagedLibraryAndLeavesItAsItWas) {
  std::string lib = create("d.zbl");
  fill(lib, 300);
  auto bytes = slurp(lib);
  uint32_t field = le32(bytes, 1024 + 4) ? 1024 + 4 : 1024 + 12;
  for (int i = 0; i < 4; ++i) bytes[field + i] = uint8_t(1024 >> (8 * i));
  spit(lib, bytes);
  EXPECT_EQ(zbshr_lib_compact(lib.c_str(), nullptr, nullptr), LMI_E_DAMAGED);
  EXPECT_EQ(slurp(lib), bytes);
  EXPECT_FALSE(fs::exists(lib + ".compacting"));
  char text[200];
  EXPECT_EQ(zbshr_lib_last_error(text, sizeof text), LMI_E_DAMAGED);
  EXPECT_NE(std::string(text).find("salvage"), std::string::npos) << text;
}

// A comment length is checked against both the 255-byte limit and the
// entry's own length, each at its boundary.
TEST_F(Recovery, VerifyChecksTheCommentLength) {
  std::string lib = create("v.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_EQ(put(h, "e", std::string(300, 'd'), "c"), 0);
  ASSERT_EQ(put(h, "f", "12345", "c"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  const auto bytes = slurp(lib);
  const uint32_t recE = 1024 + 32, recF = recE + 24 + 2;
  ASSERT_EQ(str(bytes, recF + 24, 2), std::string("f\0", 2));
  const uint32_t lenF = le32(bytes, recF + 12);
  // {record, comment length, problems}
  const struct {
    uint32_t rec, clen;
    int32_t problems;
  } cases[] = {{recE, 255, 0}, {recE, 256, 1}, {recF, lenF, 0}, {recF, lenF + 1, 1}};
  for (const auto& c : cases) {
    auto b = bytes;
    b[c.rec + 20] = uint8_t(c.clen);
    b[c.rec + 21] = uint8_t(c.clen >> 8);
    spit(lib, b);
    EXPECT_EQ(verifyPath(lib), c.problems) << c.rec << " " << c.clen;
    if (c.problems) {
      EXPECT_NE(found[0].text.find("comment length " + std::to_string(c.clen)), std::string::npos) << found[0].text;
    }
  }
  auto b = bytes;  // each byte of a record's signature counts
  ASSERT_EQ(str(b, recF, 4), "ENT*");
  b[recF + 3] = '?';
  spit(lib, b);
  EXPECT_GE(verifyPath(lib), 1);
}

// The checker keeps the first 200 problem texts of a badly damaged library.
TEST_F(Recovery, VerifyKeepsAtMost200Problems) {
  std::string lib = create("m.zbl");
  fill(lib, 260);
  auto bytes = slurp(lib);
  std::vector<uint32_t> nodes{1024};
  int damaged = 0;
  while (!nodes.empty()) {  // every record gets an impossible comment length
    uint32_t n = nodes.back();
    nodes.pop_back();
    for (uint32_t p = n + 32; p < n + 32 + 3040 - le16(bytes, n + 16); p += 24 + le16(bytes, p + 22), ++damaged)
      bytes[p + 21] = 0x7F;
    for (uint32_t f : {4u, 12u})
      if (le32(bytes, n + f)) nodes.push_back(le32(bytes, n + f));
  }
  ASSERT_EQ(damaged, 260);
  spit(lib, bytes);
  EXPECT_EQ(verifyFile(lib).size(), 200u);
  EXPECT_GE(verifyPath(lib), 260);
}

TEST_F(Recovery, LastErrorTellsWhyACallFailed) {
  std::string lib = create("e.zbl");
  spit(path("text.zbl"), std::vector<uint8_t>(4096, 'x'));
  char text[300];
  struct Case {
    std::string path;
    int mode;
    const char* says;
  } cases[] = {{path("missing.zbl"), 1, "does not exist"}, {path("text.zbl"), 1, "not a library"}};
  for (const Case& c : cases) {
    EXPECT_EQ(open(c.path, c.mode), nullptr);
    EXPECT_EQ(zbshr_lib_last_error(text, sizeof text), LMI_E_IO);
    EXPECT_NE(std::string(text).find(c.says), std::string::npos) << text;
  }
  // A library held for writing by another handle is in use.
  LMI_HANDLE w = open(lib, 2);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(open(lib, 1), nullptr);
  EXPECT_EQ(zbshr_lib_last_error(text, sizeof text), LMI_E_IO);
  EXPECT_NE(std::string(text).find("in use by another program"), std::string::npos) << text;
  // The format's size limit keeps code -17 but says what it is.
  S name("big");
  ASSERT_EQ(LMI_OpenEntry(w, name, 3, "a comment"), 0);
  char one = 0;
  EXPECT_EQ(LMI_WriteEntry(w, &one, 0x7FFFFFFF), LMI_E_DISK_FULL);
  EXPECT_EQ(zbshr_lib_last_error(text, sizeof text), LMI_E_DISK_FULL);
  EXPECT_NE(std::string(text).find("2 GiB"), std::string::npos) << text;
  LMI_CloseEntry(w);
  // A call that succeeds clears it; the text is cut to the buffer.
  EXPECT_EQ(LMI_CloseLibrary(w), 0);
  EXPECT_EQ(zbshr_lib_last_error(text, sizeof text), 0);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(open(path("missing.zbl"), 1), nullptr);
  char small[5];
  EXPECT_EQ(zbshr_lib_last_error(small, sizeof small), LMI_E_IO);
  EXPECT_EQ(std::strlen(small), 4u);
}

}  // namespace
