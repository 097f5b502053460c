// Damaged and hostile files give LMI_E_DAMAGED or LMI_E_IO, never a crash or
// a hang, and the undamaged entries stay readable. Disk errors go through the
// retry dialog.
#include "helpers.h"
#include "platform/platform.h"
#include "zbshr/system.h"

using namespace lmtest;

namespace {

class Damage : public LibTest {
 protected:
  std::string lib;
  std::vector<uint8_t> bytes;
  uint32_t recA = 0, recB = 0;  // record offsets of "a" and "b" in the root

  void build() {
    fs::remove(path("d.zbl"));
    lib = create("d.zbl");
    LMI_HANDLE h = open(lib, 2);
    ASSERT_EQ(put(h, "a", pattern(1300, 1)), 0);  // blocks 8, 9, 10
    ASSERT_EQ(put(h, "b", pattern(600, 2)), 0);   // blocks 11, 12
    ASSERT_EQ(LMI_CloseLibrary(h), 0);
    bytes = slurp(lib);
    recA = 1024 + 32;
    recB = recA + 24 + 2;
  }
  void patch32(size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = uint8_t(v >> (8 * i));
    spit(lib, bytes);
  }
  void patch16(size_t at, uint16_t v) {
    bytes[at] = uint8_t(v);
    bytes[at + 1] = uint8_t(v >> 8);
    spit(lib, bytes);
  }
  int32_t readA() {
    LMI_HANDLE h = open(lib, 1);
    if (!h) return -1000;
    int32_t rc;
    get(h, "a", &rc);
    LMI_CloseLibrary(h);
    return rc;
  }
  void expectBReadable() {
    LMI_HANDLE h = open(lib, 1);
    ASSERT_NE(h, nullptr);
    int32_t rc;
    EXPECT_EQ(get(h, "b", &rc), pattern(600, 2));
    EXPECT_EQ(rc, 0);
    LMI_CloseLibrary(h);
  }
  int32_t deleteA() {
    LMI_HANDLE h = open(lib, 2);
    if (!h) return -1000;
    S n("a");
    int32_t rc = LMI_DeleteEntry(h, n);
    LMI_CloseLibrary(h);
    return rc;
  }
};

// Damage in the record or chain of "a": reading and deleting "a" fail, a
// failed delete frees nothing, and "b" stays readable.
TEST_F(Damage, BrokenChainsAreRefusedAndNothingIsFreed) {
  constexpr size_t kA = 1024 + 32;  // the record of "a"
  const struct {
    const char* what;
    size_t at;
    uint32_t value;
    int width;
  } cases[] = {
      {"data chain cycle: block 9 back to 8", 4096 + 512 + 4, 4096, 4},
      {"first block far outside the file", kA + 8, 0x7FFFFE00u, 4},
      {"first block inside the fixed area", kA + 8, 1024, 4},
      {"first block not on a block boundary", kA + 8, 4096 + 100, 4},
      {"first block at the end of the file", kA + 8, 0, 4},
      {"length larger than the file", kA + 12, 0x7FFFFFF0u, 4},
      {"comment longer than the data", kA + 20, 2000, 2},
      {"blocks in use marked free", 521, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    build();
    const uint32_t v = c.value ? c.value : uint32_t(bytes.size());
    for (int i = 0; i < c.width; ++i) bytes[c.at + size_t(i)] = uint8_t(v >> (8 * i));
    spit(lib, bytes);
    if (c.at != 521) {
      EXPECT_EQ(readA(), LMI_E_DAMAGED);  // those blocks still read
    }
    if (c.at != kA + 20) {
      EXPECT_EQ(deleteA(), LMI_E_DAMAGED);
      EXPECT_EQ(slurp(lib), bytes);
    }
    expectBReadable();
  }
}

TEST_F(Damage, RecordRunningPastItsNode) {
  build();
  patch16(recB + 22, 4000);
  LMI_HANDLE h = open(lib, 1);
  ASSERT_NE(h, nullptr);
  S a("a");
  EXPECT_EQ(LMI_EntryExists(h, a), LMI_E_DAMAGED);
  LMI_CloseLibrary(h);
}

TEST_F(Damage, CyclesInTheNodeTree) {
  build();
  // A child pointer to the root (inside the fixed area) and one to itself.
  patch32(1024 + 12, 1024);
  LMI_HANDLE h = open(lib, 1);
  S z("zzz");
  EXPECT_EQ(LMI_EntryExists(h, z), LMI_E_DAMAGED);
  S a("a");
  EXPECT_EQ(LMI_EntryExists(h, a), 0);  // found before the bad pointer is followed
  LMI_CloseLibrary(h);
  // A real child node whose right pointer is itself.
  build();
  h = open(lib, 2);
  for (int i = 0; i < 80; ++i) ASSERT_EQ(put(h, std::string("n").append(std::to_string(100 + i)).append(30, 'x'), ""), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  bytes = slurp(lib);
  uint32_t right = le32(bytes, 1024 + 12);
  ASSERT_NE(right, 0u);
  patch32(right + 12, right);
  h = open(lib, 1);
  S far("zzzz");
  EXPECT_EQ(LMI_EntryExists(h, far), LMI_E_DAMAGED);
  struct Count {
    static int32_t ZBSHR_CALL cb(LMI_ENTRYINFO*, void* ud) {
      ++*static_cast<int*>(ud);
      return 0;
    }
  };
  int n = 0;
  S all(".*");
  EXPECT_EQ(LMI_ListEntries(h, all, Count::cb, &n), LMI_E_DAMAGED);
  LMI_CloseLibrary(h);
}

TEST_F(Damage, CycleInTheBitmapChain) {
  build();
  patch32(512 + 4, 4096 + 5 * 512);  // points at a data block, not a bitmap
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(get(h, "b"), pattern(600, 2));  // reading needs no bitmap
  EXPECT_EQ(put(h, "c", "new"), LMI_E_DAMAGED);
  LMI_CloseLibrary(h);
  build();
  patch32(512 + 4, 512);  // the first bitmap names itself
  h = open(lib, 2);
  EXPECT_EQ(put(h, "c", "new"), LMI_E_DAMAGED);
  LMI_CloseLibrary(h);
}

TEST_F(Damage, TruncatedAndForeignFilesDoNotOpen) {
  build();
  for (size_t n : {size_t(0), size_t(100), size_t(2047), size_t(3000)}) {
    spit(lib, std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(n)));
    EXPECT_EQ(open(lib, 1), nullptr) << n;
  }
  // Cut inside the data: the entries that lie there fail, nothing crashes.
  spit(lib, std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4096 + 512));
  EXPECT_EQ(readA(), LMI_E_DAMAGED);
}

// ---------------------------------------------------------------- disk errors

int g_answers[8];
int g_asked;
int32_t ZBSHR_CALL answer(void*, const char*, const char*, uint32_t style) {
  EXPECT_EQ(style & 0xF, 5u);      // Retry and Cancel
  EXPECT_EQ(style & 0x10, 0x10u);  // stop icon
  return g_answers[g_asked++];
}

TEST_F(Damage, ShortWriteRetriedOrCancelled) {
  int32_t was = zbshr_lib_write_through(1);  // every write goes to the disk at once
  lib = create("io.zbl");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  zbshr_set_msgbox_handler(answer, nullptr);
  g_asked = 0;
  g_answers[0] = 4;  // Retry
  zbshr::plat::inject_fault(zbshr::plat::Fault::Write, 1, 1);
  EXPECT_EQ(put(h, "x", pattern(5000, 4)), 0);
  EXPECT_EQ(g_asked, 1);
  EXPECT_EQ(get(h, "x"), pattern(5000, 4));
  EXPECT_TRUE(problems(h).empty());
  g_asked = 0;
  g_answers[0] = 2;  // Cancel
  S n("y");
  ASSERT_EQ(LMI_OpenEntry(h, n, 3, nullptr), 0);
  ASSERT_EQ(LMI_WriteEntry(h, "abc", 3), 3);
  zbshr::plat::inject_fault(zbshr::plat::Fault::Write, 1, 1);
  EXPECT_EQ(LMI_CloseEntry(h), LMI_E_DISK_FULL);
  EXPECT_EQ(g_asked, 1);
  zbshr::plat::clear_faults();
  g_asked = 0;
  g_answers[0] = 2;
  zbshr::plat::inject_fault(zbshr::plat::Fault::Read, 1, 1);
  int32_t rc;
  get(h, "x", &rc);
  EXPECT_EQ(rc, LMI_E_IO);
  zbshr::plat::clear_faults();
  EXPECT_EQ(get(h, "x"), pattern(5000, 4));
  zbshr_set_msgbox_handler(nullptr, nullptr);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  zbshr_lib_write_through(was);
}

}  // namespace
