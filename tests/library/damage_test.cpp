// Damaged and hostile files give LMI_E_DAMAGED or LMI_E_IO, never a crash or a hang,
// and the undamaged entries stay readable. Disk errors go through the retry dialog.
#include <functional>

#include "helpers.h"
#include "platform/platform.h"
#include "zbshr/system.h"

using namespace lmtest;

namespace {

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
    ASSERT_EQ(put(h, "a", pattern(1300, 1)), 0);
    ASSERT_EQ(put(h, "b", pattern(600, 2)), 0);
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
    return call([&](LMI_HANDLE h) { int32_t rc; get(h, n, &rc); return rc; });
  }
};

// Damage in the record or chain of "a": reading and deleting "a" fail, a
// failed delete frees nothing, and "b" stays readable.
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
    if (at != kA + 20) {
      EXPECT_EQ(call([](LMI_HANDLE h) { return LMI_DeleteEntry(h, S("a")); }, 2), LMI_E_DAMAGED) << what;
      EXPECT_EQ(slurp(lib), bytes) << what;
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
    SCOPED_TRACE(what);
    build(extra);
    ASSERT_TRUE(!extra || le32(bytes, 1024 + 12));
    damage(*this);
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_EntryExists(h, S(name)); }), exists_);
    EXPECT_TRUE(exists_ || readRc("b") == 0);  // reading needs no bitmap
    EXPECT_EQ(call([&](LMI_HANDLE h) { return put(h, "zz", "new"); }, 2), write);
    std::vector<std::string> names;
    EXPECT_EQ(call([&](LMI_HANDLE h) { return LMI_ListEntries(h, S(".*"), collectName, &names); }), list);
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

// ---------------------------------------------------------------- disk errors

int g_answer, g_asked;
int32_t ZBSHR_CALL answer(void*, const char*, const char*, uint32_t style) {
  EXPECT_EQ(style & 0x1F, 0x15u);  // Retry and Cancel, stop icon
  ++g_asked;
  return g_answer;
}

TEST_F(Damage, ShortWriteRetriedOrCancelled) {
  namespace plat = zbshr::plat;
  int32_t was = zbshr_lib_write_through(1);  // every write goes to the disk at once
  lib = create("io.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  zbshr_set_msgbox_handler(answer, nullptr);
  // The dialog's answer (4 Retry, 2 Cancel) to a fault in the first write or
  // read of the action, and how often it was asked.
  auto fault = [&](plat::Fault f, int a, auto action) {
    g_asked = 0, g_answer = a;
    plat::inject_fault(f, 1, 1);
    int32_t rc = action();
    plat::clear_faults();
    EXPECT_EQ(g_asked, 1);
    return rc;
  };
  EXPECT_EQ(fault(plat::Fault::Write, 4, [&] { return put(h, "x", pattern(5000, 4)); }), 0);
  ASSERT_EQ(LMI_OpenEntry(h, S("y"), 3, nullptr), 0);
  ASSERT_EQ(LMI_WriteEntry(h, "abc", 3), 3);
  EXPECT_EQ(fault(plat::Fault::Write, 2, [&] { return LMI_CloseEntry(h); }), LMI_E_DISK_FULL);
  EXPECT_EQ(fault(plat::Fault::Read, 2, [&] { int32_t rc; get(h, "x", &rc); return rc; }), LMI_E_IO);
  EXPECT_EQ(get(h, "x"), pattern(5000, 4));
  EXPECT_TRUE(problems(h).empty());
  zbshr_set_msgbox_handler(nullptr, nullptr);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  zbshr_lib_write_through(was);
}

}  // namespace
