// The buffered file object: buffer sizes, flushing rules, reading, sizes,
// closing with and without keeping, and short writes.
#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

namespace plat = zbshr::plat;

class BufFile : public systest::ScratchTest {
 protected:
  void TearDown() override {
    plat::clear_faults();
    ScratchTest::TearDown();
  }
  // Position and room of the object, and the file's bytes so far.
  std::string at(const char* file) const {
    return std::to_string(f_.position) + "/" + std::to_string(f_.room) + " " + slurp(file);
  }
  uint32_t write(const char* s) { return osFileWrite(&f_, s, s ? uint32_t(std::strlen(s)) : 0); }
  OSFILE f_{};
};

TEST_F(BufFile, FlushingRules) {
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "full.txt", 8), 1);
  // {bytes written (null: a flush), length, result, position/room and file after}
  const std::tuple<const char*, uint32_t, uint32_t, const char*> steps[] = {
      {"12345678", 8, 8, "8/0 "},  // a full buffer waits for the next write
      {"9", 1, 1, "1/7 12345678"},
      {nullptr, 0, 1, "0/8 123456789"},
      {nullptr, 123, 1, "0/8 123456789"},  // nothing pending
      {"abc", 0, 0, "0/8 123456789"},
      {"ab", 2, 2, "2/6 123456789"},
      {"cdefghijklmnopq", 15, 15, "1/7 123456789abcdefghijklmnop"},  // whole buffers go out
  };
  for (auto [data, n, result, after] : steps) {
    EXPECT_EQ(osFileWrite(&f_, data, n), result) << after;
    EXPECT_EQ(at("full.txt"), after);
  }
  EXPECT_EQ(osFileClose(&f_, 7), 7);  // the keep flag comes back as given
  EXPECT_EQ(slurp("full.txt"), "123456789abcdefghijklmnopq");
  // The default buffer, from the caller's pool; closing without keep drops what is pending.
  ASSERT_EQ(osFileOpenNew(heap_, 5, &f_, "out.txt", 0), 1);
  EXPECT_EQ(at("out.txt"), "0/16284 ");
  EXPECT_EQ(std::to_string(f_.capacity) + "/" + std::to_string(f_.readMode), "16284/0");
  EXPECT_TRUE(zbstg_size(heap_, f_.buffer) == 16284u && zbstg_get_pointer_subpool(heap_, f_.buffer) == 5u);
  EXPECT_EQ(write("pending"), 7u);
  EXPECT_EQ(osFileSize(&f_), 0u);  // always 0 when writing
  EXPECT_EQ(osFileClose(&f_, 0), 0);
  EXPECT_EQ(at("out.txt"), "0/0 ");
  EXPECT_TRUE(f_.hFile == 0 && f_.buffer == nullptr);
}

// Random pieces written and read back through buffers of several sizes, the
// object kept at a 4-byte aligned place inside a heap block (as the export
// state keeps it); a file is read or written, never both.
TEST_F(BufFile, ReadBackInRandomPieces) {
  std::mt19937 rng(99);
  std::string data(100000, '\0');
  for (auto& c : data) c = static_cast<char>(rng());
  auto* block = static_cast<unsigned char*>(zbstg_alloc(heap_, sizeof(OSFILE) + 8, 0));
  auto* f = reinterpret_cast<OSFILE*>(block + (reinterpret_cast<uintptr_t>(block) % 8 ? 0 : 4));
  for (uint32_t bufsize : {1u, 7u, 4096u, 0u}) {
    std::memset(static_cast<void*>(f), 0, sizeof(OSFILE));
    ASSERT_EQ(osFileOpenNew(heap_, 3, f, "rt.bin", bufsize), 1);
    for (size_t pos = 0, n; pos < data.size(); pos += n) {
      n = std::min<size_t>(rng() % 5000, data.size() - pos);
      ASSERT_EQ(osFileWrite(f, data.data() + pos, static_cast<uint32_t>(n)), n);
    }
    ASSERT_EQ(osFileClose(f, 1), 1);
    ASSERT_EQ(slurp("rt.bin"), data) << bufsize;
    ASSERT_EQ(osFileOpenRead(heap_, 3, f, "rt.bin", bufsize), 1);
    EXPECT_EQ(osFileSize(f), data.size());
    std::string back;
    std::vector<char> piece(6000);
    for (uint32_t want = 1, got = 1; got == want; back.append(piece.data(), got))
      got = osFileRead(f, piece.data(), want = static_cast<uint32_t>(rng() % 6000));
    EXPECT_EQ(back, data) << bufsize;
    EXPECT_EQ(osFileSize(f), data.size());  // the file offset is restored
    EXPECT_EQ(osFileWrite(f, "x", 1) + osFileWrite(f, nullptr, 0), 0u);  // reading only
    EXPECT_TRUE(osFileClose(f, 0) == 0 && osFileRead(f, piece.data(), 1) == 0u);  // reading a closed file gives nothing
  }
  zbstg_free(heap_, block);
  ASSERT_EQ(osFileOpenRead(heap_, 0, &f_, "rt.bin", 6), 1);
  char buf[8];
  EXPECT_EQ(osFileRead(&f_, buf, 4), 4u);
  EXPECT_EQ(at("rt.bin").substr(0, 4) + std::to_string(f_.readMode), "4/2 1");
  osFileClose(&f_, 0);
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "w.txt", 0), 1);
  EXPECT_EQ(osFileRead(&f_, buf, 4), 0u);  // writing only
  EXPECT_TRUE(osFileClose(&f_, 1) == 1 && write("x") == 0u);  // closed
}

TEST_F(BufFile, FailuresReportTheErrorAndChangeNothing) {
  EXPECT_EQ(osFileOpenRead(heap_, 0, &f_, "missing.txt", 0), 0);
  EXPECT_TRUE(f_.of.nErrCode == plat::ERROR_FILE_NOT_FOUND && f_.buffer == nullptr);
  EXPECT_TRUE(osFileOpenNew(heap_, 0, &f_, "no-such-folder/x.txt", 0) == 0 && f_.of.nErrCode != 0);
  EXPECT_EQ((std::vector<int32_t>{osFileOpenNew(heap_, 0, nullptr, "x.txt", 0), osFileOpenNew(heap_, 0, &f_, nullptr, 0),
                                  osFileClose(nullptr, 1), int32_t(osFileSize(nullptr))}), std::vector<int32_t>(4, 0));
  EXPECT_TRUE(osFileOpenNew(heap_, 0, &f_, "big.txt", 0x80000000u) == 0 && !fs::exists("big.txt"));
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "short.txt", 8), 1);
  EXPECT_EQ(write("ABCDEFGH"), 8u);
  // A failed write or flush changes nothing; partway through a long write
  // the bytes taken so far stay in the full buffer.
  const OSFILE before = f_;
  for (const char* s : {"I", static_cast<const char*>(nullptr)}) {
    plat::inject_fault(plat::Fault::Write, 1, 1);
    EXPECT_EQ(write(s), 0u);
    EXPECT_TRUE(std::memcmp(&before, &f_, sizeof f_) == 0 && std::string(f_.buffer, 8) == "ABCDEFGH");
  }
  EXPECT_EQ(write(nullptr), 1u);
  EXPECT_EQ(write("12345"), 5u);
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(write("6789xyz"), 0u);
  EXPECT_EQ(at("short.txt").substr(0, 4) + std::string(f_.buffer, 8), "8/0 12345678");
  // A failing final flush makes close answer 0, and the object is closed.
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(osFileClose(&f_, 1), 0);
  EXPECT_TRUE(f_.hFile == 0 && f_.buffer == nullptr);
}

}  // namespace
