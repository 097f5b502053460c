// The buffered file object: buffer sizes, flushing rules, reading, sizes,
// closing with and without keeping, and short writes.
#include <vector>

#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

using systest::slurp;
using systest::spill;
namespace fs = std::filesystem;
namespace plat = zbshr::plat;

class BufFile : public systest::ScratchTest {
 protected:
  void TearDown() override {
    plat::clear_faults();
    ScratchTest::TearDown();
  }
  // position and room of the object, as one value for compact checks
  std::pair<int32_t, int32_t> at() const { return {f_.position, f_.room}; }
  using P = std::pair<int32_t, int32_t>;
  OSFILE f_{};
};

TEST_F(BufFile, OpenNewDefaultBufferAndClose) {
  ASSERT_EQ(osFileOpenNew(heap_, 5, &f_, "out.txt", 0), 1);
  EXPECT_EQ(f_.capacity, 16284);
  EXPECT_EQ(at(), P(0, 16284));
  EXPECT_EQ(f_.readMode, 0);
  EXPECT_EQ(f_.pool, 5u);
  EXPECT_EQ(f_.heap, heap_);
  EXPECT_EQ(zbstg_size(heap_, f_.buffer), 16284u);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, f_.buffer), 5u);
  EXPECT_EQ(f_.of.cBytes, 268);
  EXPECT_EQ(fs::path(f_.of.szPathName), fs::current_path() / "out.txt");
  EXPECT_EQ(osFileSize(&f_), 0u);  // always 0 when writing
  EXPECT_EQ(osFileWrite(&f_, "pending", 7), 7u);
  EXPECT_EQ(osFileClose(&f_, 0), 0);  // without keep: pending bytes are dropped
  EXPECT_EQ(fs::file_size("out.txt"), 0u);
  EXPECT_EQ(f_.hFile, 0);
  EXPECT_EQ(f_.buffer, nullptr);
  EXPECT_EQ(at(), P(0, 0));
}

TEST_F(BufFile, FlushingRules) {
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "full.txt", 8), 1);
  EXPECT_EQ(osFileWrite(&f_, "12345678", 8), 8u);
  EXPECT_EQ(at(), P(8, 0));
  EXPECT_EQ(fs::file_size("full.txt"), 0u);  // a full buffer waits for the next write
  EXPECT_EQ(osFileWrite(&f_, "9", 1), 1u);
  EXPECT_EQ(slurp("full.txt"), "12345678");
  EXPECT_EQ(at(), P(1, 7));
  EXPECT_EQ(osFileWrite(&f_, nullptr, 0), 1u);  // flush
  EXPECT_EQ(slurp("full.txt"), "123456789");
  EXPECT_EQ(at(), P(0, 8));
  EXPECT_EQ(osFileWrite(&f_, nullptr, 123), 1u);  // nothing pending
  EXPECT_EQ(osFileWrite(&f_, "abc", 0), 0u);
  // A long write goes out in whole buffers; the rest stays pending.
  EXPECT_EQ(osFileWrite(&f_, "ab", 2), 2u);
  EXPECT_EQ(osFileWrite(&f_, "cdefghijklmnopq", 15), 15u);
  EXPECT_EQ(slurp("full.txt"), "123456789abcdefghijklmnop");
  EXPECT_EQ(at(), P(1, 7));
  EXPECT_EQ(osFileClose(&f_, 7), 7);  // the keep flag comes back as given
  EXPECT_EQ(slurp("full.txt"), "123456789abcdefghijklmnopq");
}

TEST_F(BufFile, ReadDeliversWhatThereIsInOneDirectionOnly) {
  spill("r.txt", "0123456789abcdefghij");
  ASSERT_EQ(osFileOpenRead(heap_, 0, &f_, "r.txt", 6), 1);
  EXPECT_EQ(f_.readMode, 1);
  EXPECT_EQ(osFileSize(&f_), 20u);
  char buf[32] = {};
  EXPECT_EQ(osFileRead(&f_, buf, 4), 4u);
  EXPECT_EQ(std::string(buf, 4), "0123");
  EXPECT_EQ(at(), P(4, 2));
  EXPECT_EQ(osFileSize(&f_), 20u);  // the file offset is restored
  EXPECT_EQ(osFileRead(&f_, buf, 0), 0u);
  EXPECT_EQ(osFileRead(&f_, buf, 10), 10u);
  EXPECT_EQ(std::string(buf, 10), "456789abcd");
  EXPECT_EQ(osFileRead(&f_, buf, 30), 6u);  // end of file
  EXPECT_EQ(std::string(buf, 6), "efghij");
  EXPECT_EQ(osFileRead(&f_, buf, 30), 0u);
  EXPECT_EQ(osFileWrite(&f_, "x", 1), 0u);
  EXPECT_EQ(osFileWrite(&f_, nullptr, 0), 0u);
  EXPECT_EQ(osFileClose(&f_, 1), 1);
  EXPECT_EQ(slurp("r.txt"), "0123456789abcdefghij");
  EXPECT_EQ(osFileRead(&f_, buf, 1), 0u);  // closed
  OSFILE w{};
  ASSERT_EQ(osFileOpenNew(heap_, 0, &w, "w.txt", 0), 1);
  EXPECT_EQ(osFileRead(&w, buf, 4), 0u);
  osFileClose(&w, 1);
  EXPECT_EQ(osFileWrite(&w, "x", 1), 0u);  // closed
}

TEST_F(BufFile, OpenFailuresReportTheError) {
  EXPECT_EQ(osFileOpenRead(heap_, 0, &f_, "missing.txt", 0), 0);
  EXPECT_EQ(f_.of.nErrCode, plat::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(f_.buffer, nullptr);
  EXPECT_EQ(osFileOpenNew(heap_, 0, &f_, "no-such-folder/x.txt", 0), 0);
  EXPECT_NE(f_.of.nErrCode, 0);
  EXPECT_EQ(osFileOpenNew(heap_, 0, nullptr, "x.txt", 0), 0);
  EXPECT_EQ(osFileOpenNew(heap_, 0, &f_, nullptr, 0), 0);
  EXPECT_EQ(osFileOpenNew(heap_, 0, &f_, "big.txt", 0x80000000u), 0);
  EXPECT_FALSE(fs::exists("big.txt"));
  EXPECT_EQ(osFileClose(nullptr, 1), 0);
  EXPECT_EQ(osFileSize(nullptr), 0u);
}

// Random pieces written and read back through buffers of several sizes, the
// object kept at a 4-byte aligned place inside a heap block (as the export
// state keeps it).
TEST_F(BufFile, RoundTripInRandomPieces) {
  std::mt19937 rng(99);
  std::string data(100000, '\0');
  for (auto& c : data) c = static_cast<char>(rng());
  auto* block = static_cast<unsigned char*>(zbstg_alloc(heap_, 2 * sizeof(OSFILE) + 8, 0));
  auto* w = reinterpret_cast<OSFILE*>(block + (reinterpret_cast<uintptr_t>(block) % 8 ? 0 : 4));
  OSFILE* r = w + 1;
  for (uint32_t bufsize : {1u, 7u, 4096u, 0u}) {
    std::memset(static_cast<void*>(w), 0, 2 * sizeof(OSFILE));
    ASSERT_EQ(osFileOpenNew(heap_, 3, w, "rt.bin", bufsize), 1);
    for (size_t pos = 0, n; pos < data.size(); pos += n) {
      n = std::min<size_t>(rng() % 5000, data.size() - pos);
      ASSERT_EQ(osFileWrite(w, data.data() + pos, static_cast<uint32_t>(n)), n);
    }
    ASSERT_EQ(osFileClose(w, 1), 1);
    ASSERT_EQ(slurp("rt.bin"), data) << bufsize;
    ASSERT_EQ(osFileOpenRead(heap_, 3, r, "rt.bin", bufsize), 1);
    EXPECT_EQ(osFileSize(r), data.size());
    std::string back;
    std::vector<char> piece(6000);
    for (uint32_t want = 1, got = 1; got == want;) {
      want = static_cast<uint32_t>(rng() % 6000);
      got = osFileRead(r, piece.data(), want);
      back.append(piece.data(), got);
    }
    EXPECT_EQ(back, data) << bufsize;
    EXPECT_EQ(osFileClose(r, 0), 0);
  }
  zbstg_free(heap_, block);
}

TEST_F(BufFile, ShortWriteLeavesTheObjectUnchanged) {
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "short.txt", 8), 1);
  EXPECT_EQ(osFileWrite(&f_, "ABCDEFGH", 8), 8u);
  OSFILE before = f_;
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(osFileWrite(&f_, "I", 1), 0u);
  EXPECT_EQ(std::memcmp(&before, &f_, sizeof f_), 0);
  EXPECT_EQ(std::memcmp(f_.buffer, "ABCDEFGH", 8), 0);
  plat::inject_fault(plat::Fault::Write, 1, 1);  // a flush that falls short
  EXPECT_EQ(osFileWrite(&f_, nullptr, 0), 0u);
  EXPECT_EQ(std::memcmp(&before, &f_, sizeof f_), 0);
  // Partway through a long write: the bytes taken so far stay in the full
  // buffer, exactly as before the failed flush.
  EXPECT_EQ(osFileWrite(&f_, nullptr, 0), 1u);
  EXPECT_EQ(osFileWrite(&f_, "12345", 5), 5u);
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(osFileWrite(&f_, "6789xyz", 7), 0u);
  EXPECT_EQ(at(), P(8, 0));
  EXPECT_EQ(std::memcmp(f_.buffer, "12345678", 8), 0);
  // A failing final flush makes close answer 0, and the object is closed.
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(osFileClose(&f_, 1), 0);
  EXPECT_EQ(f_.hFile, 0);
  EXPECT_EQ(f_.buffer, nullptr);
}

}  // namespace
