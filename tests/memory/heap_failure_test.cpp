// The out-of-memory loop (with injected allocation and lock failures) and the
// debug image.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>
#if !defined(_WIN32)
#include <sys/wait.h>
#endif
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "heap_testutil.h"
#include "zbshr/system.h"

using namespace heaptest;

namespace {

struct BoxLog {
  int calls = 0;
  int retries = 0;  // answers Retry this many times, then Cancel
  std::vector<std::string> texts;
  std::vector<uint32_t> styles;
  bool caption_null = true;
};
BoxLog g_box;

int32_t ZBSHR_CALL Answer(void*, const char* text, const char* caption, uint32_t style) {
  ++g_box.calls;
  g_box.texts.push_back(text ? text : "(null)");
  g_box.styles.push_back(style);
  if (caption && *caption) g_box.caption_null = false;  // no caption: null or empty
  if (g_box.retries > 0) {
    --g_box.retries;
    return 4;  // Retry
  }
  return 2;  // Cancel
}

class HeapOutOfMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    g_box = BoxLog{};
    zbshr_set_msgbox_handler(Answer, nullptr);
  }
  void TearDown() override {
    zbshr_clear_faults();
    zbshr_set_msgbox_handler(nullptr, nullptr);
  }
};

constexpr int kGlobalAlloc = 0, kGlobalLock = 1, kWrite = 2;

}  // namespace

TEST_F(HeapOutOfMemory, RetryAfterAFailedSubpoolAllocation) {
  ZBSTG_HEAP h = zbstg_begin(0);
  g_box.retries = 1;
  // The first allocation makes the pool's table (1st GlobalAlloc), then the
  // sub-pool (2nd), which fails once.
  zbshr_inject_fault(kGlobalAlloc, 2, 1);
  auto* p = static_cast<uint8_t*>(zbstg_alloc(h, 100, 0));
  ASSERT_NE(p, nullptr);
  std::memset(p, 1, 100);
  EXPECT_EQ(g_box.calls, 1);
  ASSERT_EQ(g_box.texts.size(), 1u);
  EXPECT_EQ(g_box.texts[0], "Out of Memory");
  EXPECT_EQ(g_box.styles[0], 0x2015u);
  EXPECT_TRUE(g_box.caption_null);
  EXPECT_EQ(Stat(h).system_bytes, 4096u + 2424u);
  zbstg_end(h);
}

TEST_F(HeapOutOfMemory, RetryAfterFailedLocksAndLargeBlocks) {
  ZBSTG_HEAP h = zbstg_begin(0);
  zbstg_alloc(h, 8, 0);
  g_box.retries = 3;
  zbshr_inject_fault(kGlobalLock, 1, 2);  // the large block's lock fails twice
  void* big = zbstg_alloc(h, 100000, 0);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(zbstg_size(h, big), 100000u);
  EXPECT_EQ(g_box.calls, 2);
  zbshr_inject_fault(kGlobalAlloc, 1, 1);  // growing the large block fails once
  void* bigger = zbstg_realloc(h, big, 200000, 0);
  ASSERT_NE(bigger, nullptr);
  EXPECT_EQ(zbstg_size(h, bigger), 200000u);
  EXPECT_EQ(g_box.calls, 3);
  zbstg_end(h);
}

TEST_F(HeapOutOfMemory, LargeSubpoolFallsBackToFourKilobytes) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (int i = 0; i < 100000; ++i) zbstg_alloc(h, 4, 0);
  // The next GlobalAlloc is the next new sub-pool (8 KB): it fails, and the
  // heap retries once with 4 KB, without asking.
  zbshr_inject_fault(kGlobalAlloc, 1, 1);
  void* p;
  do p = zbstg_alloc(h, 4, 0);
  while (Offset(p) != 8);
  EXPECT_EQ(FreeList(Subpool(p)).at(0).second + 18, 4096u);
  EXPECT_EQ(g_box.calls, 0);
  do p = zbstg_alloc(h, 4, 0);
  while (Offset(p) != 8);
  EXPECT_EQ(FreeList(Subpool(p)).at(0).second + 18, 8192u);
  zbstg_end(h);
}

// Cancel (answered by the handler, or scripted through ZBSHR_MSGBOX) ends
// the process with a message. Under Windows a death test re-runs the whole
// program, whose exit status the emulated loader does not hand back.
TEST_F(HeapOutOfMemory, CancelEndsTheProcess) {
#if defined(_WIN32)
  GTEST_SKIP() << "death tests need the POSIX process model";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto exits_non_zero = [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; };
  for (bool scripted : {false, true}) {
    EXPECT_EXIT(
        {
          g_box = BoxLog{};
          g_box.retries = 2;
          zbshr_set_msgbox_handler(scripted ? nullptr : Answer, nullptr);
          if (scripted) setenv("ZBSHR_MSGBOX", "retry,retry,cancel", 1);
          ZBSTG_HEAP h = zbstg_begin(0);
          zbshr_inject_fault(kGlobalAlloc, 1, 1000);
          zbstg_alloc(h, 70000, 0);
          std::exit(0);  // not reached
        },
        exits_non_zero, "Insufficient memory to continue\\.");
  }
#endif
}

// ---------------------------------------------------------------- debug image

namespace {

std::filesystem::path Scratch(const char* name) {
  auto dir = std::filesystem::temp_directory_path() /
             ("zbshr_heap_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  return dir / name;
}

std::vector<uint8_t> ReadAll(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

}  // namespace

TEST(HeapDebugImage, WritesSubpoolsInDirectoryOrder) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (int i = 0; i < 3; ++i) zbstg_alloc(h, 4000, 5);  // three sub-pools
  zbstg_alloc(h, 10, 6);
  void* l = zbstg_alloc(h, 70000, 7);
  std::memset(l, 0xEE, 70000);
  auto file = Scratch("all.img");
  ASSERT_EQ(zbstg_write_debug(h, 0, file.string().c_str()), 1);
  auto img = ReadAll(file);
  ASSERT_EQ(img.size(), 5u * 4076);
  const uint32_t pools[] = {5, 5, 5, 6, 7};
  for (int r = 0; r < 5; ++r) EXPECT_EQ(L(img.data(), r * 4076), pools[r]) << r;
  EXPECT_EQ(W(img.data(), 4 * 4076 + 12), 64001u);
  EXPECT_EQ(img[4 * 4076 + 16], 0xEE);

  ASSERT_EQ(zbstg_write_debug(h, 6, file.string().c_str()), 1);
  img = ReadAll(file);
  ASSERT_EQ(img.size(), 4076u);
  EXPECT_EQ(L(img.data(), 0), 6u);
  EXPECT_EQ(W(img.data(), 8), 16u);  // the block of 10 bytes

  // A freed directory entry is reused by the next new pool.
  zbstg_free_pool(h, 5);
  zbstg_alloc(h, 10, 9);
  ASSERT_EQ(zbstg_write_debug(h, 0, file.string().c_str()), 1);
  img = ReadAll(file);
  ASSERT_EQ(img.size(), 3u * 4076);
  EXPECT_EQ(L(img.data(), 0), 9u);
  EXPECT_EQ(L(img.data(), 4076), 6u);

  EXPECT_EQ(zbstg_write_debug(h, 0, (Scratch("x").string() + "/no/such/dir/f.img").c_str()), 0);
  zbstg_end(h);
  std::filesystem::remove_all(file.parent_path());
}

TEST(HeapDebugImage, ShortWriteStopsThatPool) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (int i = 0; i < 3; ++i) zbstg_alloc(h, 4000, 5);
  zbstg_alloc(h, 10, 6);
  auto file = Scratch("short.img");
  zbshr_inject_fault(kWrite, 2, 1);  // the second record is written by half
  ASSERT_EQ(zbstg_write_debug(h, 0, file.string().c_str()), 1);
  zbshr_clear_faults();
  auto img = ReadAll(file);
  ASSERT_EQ(img.size(), 4076u + 2038u + 4076u);
  EXPECT_EQ(L(img.data(), 4076 + 2038), 6u);
  zbstg_end(h);
  std::filesystem::remove_all(file.parent_path());
}

TEST(HeapDebugImage, ShortSubpoolIsPaddedWithZeros) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 5000, 0);
  a = zbstg_realloc(h, a, 100, 0);  // sole block: its sub-pool shrinks to 112 bytes
  std::memset(a, 0x5A, 100);
  auto file = Scratch("pad.img");
  ASSERT_EQ(zbstg_write_debug(h, 1, file.string().c_str()), 1);
  auto img = ReadAll(file);
  ASSERT_EQ(img.size(), 4076u);
  EXPECT_EQ(img[111], 0x5A);
  for (size_t i = 112; i < img.size(); ++i) ASSERT_EQ(img[i], 0) << i;
  zbstg_end(h);
  std::filesystem::remove_all(file.parent_path());
}

// ---------------------------------------------------------------- shareable memory

TEST(HeapShareable, HandleBeforeTheBlock) {
  auto* p = static_cast<uint8_t*>(zbstg_dde_alloc(100));
  ASSERT_NE(p, nullptr);
  std::memset(p, 7, 100);
  void* handle = zbstg_dde_get_handle(p);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(zbstg_dde_lock(handle), p);
  zbstg_dde_unlock(handle);
  EXPECT_EQ(p[99], 7);
  // A failed lock gives the slot width, not null.
  zbshr_inject_fault(kGlobalLock, 1, 1);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(zbstg_dde_lock(handle)), sizeof(void*));
  zbstg_dde_free(p);
  zbstg_dde_free(nullptr);
  zbshr_inject_fault(kGlobalLock, 1, 1);
  EXPECT_EQ(zbstg_dde_alloc(10), nullptr);
  zbshr_clear_faults();
}
