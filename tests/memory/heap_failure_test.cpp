// The out-of-memory loop under injected failures, and the debug image.
#include <gtest/gtest.h>

#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <unistd.h>
#if !defined(_WIN32)
#include <sys/wait.h>
#endif
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "heap_testutil.h"
#include "zbshr/system.h"

using namespace heaptest;

namespace {

int g_retries = 0;   // answers Retry this many times, then Cancel
std::string g_seen;  // "text|caption|style;" of each box, caption null or empty

int32_t ZBSHR_CALL Answer(void*, const char* text, const char* caption, uint32_t style) {
  g_seen += std::string(text ? text : "(null)") + "|" + (caption ? caption : "") + "|" + std::to_string(style) + ";";
  return g_retries-- > 0 ? 4 : 2;  // Retry : Cancel
}

class HeapOutOfMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    g_seen.clear();
    zbshr_set_msgbox_handler(Answer, nullptr);
  }
  void TearDown() override {
    zbshr_clear_faults();
    zbshr_set_msgbox_handler(nullptr, nullptr);
  }
};

constexpr int kGlobalAlloc = 0, kGlobalLock = 1, kWrite = 2;

}  // namespace

// Each row arms a fault and answers Retry `retries` times: the call succeeds after the boxes asked.
TEST_F(HeapOutOfMemory, RetryAfterFailedAllocationsAndLocks) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* big = nullptr;
  const struct { int fault, at, count, retries; std::function<void*()> call; uint32_t size, boxes; } rows[] = {
      // The first allocation makes the pool's table (1st GlobalAlloc), then the sub-pool (2nd).
      {kGlobalAlloc, 2, 1, 1, [&] { return zbstg_alloc(h, 100, 0); }, 100, 1},
      {kGlobalLock, 1, 2, 3, [&] { return big = zbstg_alloc(h, 100000, 0); }, 100000, 2},  // a large block's lock
      {kGlobalAlloc, 1, 1, 3, [&] { return zbstg_realloc(h, big, 200000, 0); }, 200000, 1},  // growing it
  };
  for (const auto& r : rows) {
    g_retries = r.retries;
    g_seen.clear();
    zbshr_inject_fault(r.fault, r.at, r.count);
    void* p = r.call();
    ASSERT_NE(p, nullptr);
    std::memset(p, 1, r.size);
    EXPECT_EQ(zbstg_size(h, p), r.size);
    std::string want;
    for (uint32_t i = 0; i < r.boxes; ++i) want += "Out of Memory||8213;";  // MB_SYSTEMMODAL | MB_ICONHAND | MB_RETRYCANCEL
    EXPECT_EQ(g_seen, want);
    EXPECT_TRUE(r.size != 100 || Stat(h).system_bytes == 4096u + 2424u);
  }
  zbstg_end(h);
}

TEST_F(HeapOutOfMemory, LargeSubpoolFallsBackToFourKilobytes) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (int i = 0; i < 100000; ++i) zbstg_alloc(h, 4, 0);
  // The next new sub-pool (8 KB) fails: the heap retries once with 4 KB, without asking.
  zbshr_inject_fault(kGlobalAlloc, 1, 1);
  for (uint32_t size : {4096u, 8192u}) {
    void* p;
    do p = zbstg_alloc(h, 4, 0);
    while (Offset(p) != 8);
    EXPECT_EQ(FreeList(Subpool(p)).at(0).second + 18, size);
  }
  EXPECT_EQ(g_seen, "");
  zbstg_end(h);
}

// Cancel ends the process (scripted answers are the message box tests'). Under
// Windows a death test re-runs the program, whose exit status the emulated loader loses.
TEST_F(HeapOutOfMemory, CancelEndsTheProcess) {
#if defined(_WIN32)
  GTEST_SKIP() << "death tests need the POSIX process model";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto exits_non_zero = [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; };
  EXPECT_EXIT(
      {
        g_retries = 2;
        ZBSTG_HEAP h = zbstg_begin(0);
        zbshr_inject_fault(kGlobalAlloc, 1, 1000);
        zbstg_alloc(h, 70000, 0);
        std::exit(0);  // not reached
      },
      exits_non_zero, "Insufficient memory to continue\\.");
#endif
}

namespace {

std::vector<uint8_t> WriteImage(ZBSTG_HEAP h, uint32_t pool, bool* ok) {
  const auto file = std::filesystem::temp_directory_path() / ("zbshr_heap_" + std::to_string(::getpid()) + ".img");
  *ok = zbstg_write_debug(h, pool, file.string().c_str()) == 1;
  std::ifstream f(file, std::ios::binary);
  std::vector<uint8_t> img{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
  f.close();
  std::filesystem::remove(file);
  return img;
}

}  // namespace

// The image is one record of 4,076 bytes per sub-pool, in directory order.
TEST(HeapDebugImage, WritesSubpoolsInDirectoryOrder) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (int i = 0; i < 3; ++i) zbstg_alloc(h, 4000, 5);  // three sub-pools
  zbstg_alloc(h, 10, 6);
  std::memset(zbstg_alloc(h, 70000, 7), 0xEE, 70000);
  const struct { uint32_t pool, write_fault; std::vector<uint32_t> pools; size_t size; } rows[] = {
      {0, 0, {5, 5, 5, 6, 7}, 5 * 4076},
      {6, 0, {6}, 4076},
      {0, 2, {5, 5, 6, 7}, 4 * 4076 - 2038},  // the second record is written by half and its pool stops
  };
  bool ok = false;
  for (const auto& r : rows) {
    if (r.write_fault) zbshr_inject_fault(kWrite, r.write_fault, 1);
    auto img = WriteImage(h, r.pool, &ok);
    zbshr_clear_faults();
    EXPECT_TRUE(ok);
    ASSERT_EQ(img.size(), r.size) << r.pool;
    for (size_t i = 0, at = 0; i < r.pools.size(); at += i == 1 && r.write_fault ? 2038 : 4076, ++i)
      EXPECT_EQ(L(img.data(), at), r.pools[i]) << r.pool << " record " << i;
    EXPECT_TRUE(r.pool != 6 || W(img.data(), 8) == 16u);  // the block of 10 bytes
  }
  auto img = WriteImage(h, 0, &ok);
  EXPECT_EQ(W(img.data(), 4 * 4076 + 12), 64001u);  // the large block's record
  EXPECT_EQ(img.at(4 * 4076 + 16), 0xEE);
  // A freed directory entry is reused by the next new pool.
  zbstg_free_pool(h, 5);
  zbstg_alloc(h, 10, 9);
  img = WriteImage(h, 0, &ok);
  ASSERT_EQ(img.size(), 3u * 4076);
  EXPECT_EQ(std::make_pair(L(img.data(), 0), L(img.data(), 4076)), std::make_pair(9u, 6u));
  EXPECT_EQ(zbstg_write_debug(h, 0, "/nonexistent-zbshr/no/such/dir/f.img"), 0);
  zbstg_end(h);
  // A sub-pool shorter than a record is padded with zeros.
  h = zbstg_begin(0);
  void* a = zbstg_realloc(h, zbstg_alloc(h, 5000, 0), 100, 0);  // sole block: its sub-pool shrinks to 112 bytes
  std::memset(a, 0x5A, 100);
  img = WriteImage(h, 1, &ok);
  ASSERT_EQ(img.size(), 4076u);
  EXPECT_EQ(img[111], 0x5A);
  EXPECT_EQ(std::count(img.begin() + 112, img.end(), 0), 4076 - 112);
  zbstg_end(h);
}

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
