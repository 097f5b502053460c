// The fixed-size block store: its temporary file, the records written at the
// file's start, positions from a running counter, copies read back.
#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

using systest::slurp;
namespace fs = std::filesystem;

// The store's file, found by watching the temporary folder (any case: some
// systems give temporary names in lower case).
std::vector<fs::path> temp_files() {
  char dir[300];
  zbshr::plat::GetTempPathA(sizeof dir, dir);
  std::vector<fs::path> out;
  for (auto& e : fs::directory_iterator(dir)) {
    std::string n = e.path().filename().string();
    for (auto& c : n) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (n.rfind("ZBT", 0) == 0 && n.size() > 4 && n.substr(n.size() - 4) == ".TMP") out.push_back(e.path());
  }
  return out;
}
std::string le32(uint32_t v) {
  return {char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char(v >> 24)};
}
std::string copy_of(ZBSTG_HEAP heap, ZBFSTG st, int32_t pos, size_t n) {
  void* p = zbfstg_get(st, pos);
  if (!p) return "<none>";
  std::string s(static_cast<char*>(p), n);
  zbstg_free(heap, p);
  return s;
}

using BlockStore = systest::ScratchTest;

TEST_F(BlockStore, RecordsLandAtTheFileStart) {
  auto before = temp_files();
  ZBFSTG st = zbfstg_begin(heap_, 4);
  ASSERT_NE(st, nullptr);
  std::vector<fs::path> fresh;
  for (auto& p : temp_files())
    if (std::find(before.begin(), before.end(), p) == before.end()) fresh.push_back(p);
  ASSERT_EQ(fresh.size(), 1u);
  const fs::path file = fresh[0];
  EXPECT_EQ(fs::file_size(file), 0u);
  EXPECT_EQ(zbfstg_get(st, 0), nullptr);  // empty file

  EXPECT_EQ(zbfstg_alloc(st, "hello", 5), 0);  // the first position is 0
  EXPECT_EQ(slurp(file), le32(5) + "hello");
  void* copy = zbfstg_get(st, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(zbstg_size(heap_, copy), 8u);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, copy), 4u);
  zbstg_free(heap_, copy);
  EXPECT_EQ(zbfstg_alloc(st, "xy", 2), 9);  // 0 + 5 + 4
  EXPECT_EQ(slurp(file), le32(2) + "xy" + "llo");  // overwritten in place
  EXPECT_EQ(copy_of(heap_, st, 0, 2), "xy");
  EXPECT_EQ(zbfstg_get(st, 9), nullptr);  // nothing stored there
  EXPECT_EQ(zbfstg_alloc(st, "", 0), 15);
  EXPECT_EQ(zbfstg_alloc(st, "q", 1), 19);
  std::string bytes = slurp(file);
  EXPECT_EQ(zbfstg_free(st, 0), 1);  // freeing changes nothing
  EXPECT_EQ(zbfstg_free(st, 19), 1);
  EXPECT_EQ(slurp(file), bytes);
  EXPECT_EQ(zbfstg_end(st), 1);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(BlockStore, BadArgumentsShortWritesAndForeignBytes) {
  ZBFSTG st = zbfstg_begin(heap_, 0);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(zbfstg_get(st, -4), nullptr);
  EXPECT_EQ(zbfstg_alloc(st, nullptr, 3), 0);
  EXPECT_EQ(zbfstg_alloc(st, "abc", -1), 0);
  // A record holding a length: read from inside it, the length is trusted
  // while it stays within the file.
  EXPECT_EQ(zbfstg_alloc(st, (le32(3) + "xyz").data(), 7), 0);
  EXPECT_EQ(copy_of(heap_, st, 4, 3), "xyz");
  EXPECT_EQ(zbfstg_alloc(st, (le32(4) + "xyz").data(), 7), 11);
  EXPECT_EQ(zbfstg_get(st, 4), nullptr);
  std::string big(70000, 'k');
  EXPECT_EQ(zbfstg_alloc(st, big.data(), static_cast<int32_t>(big.size())), 22);
  void* copy = zbfstg_get(st, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(zbstg_size(heap_, copy), 70000u);  // a large block
  EXPECT_EQ(std::memcmp(copy, big.data(), big.size()), 0);
  zbstg_free(heap_, copy);
  // Position 1 reads a length made of record bytes: far beyond the file.
  EXPECT_EQ(zbfstg_get(st, 1), nullptr);
  EXPECT_EQ(zbfstg_get(st, 1 << 30), nullptr);
  EXPECT_EQ(zbfstg_alloc(st, "abcd", 4), 70026);  // written at the start again
  EXPECT_EQ(copy_of(heap_, st, 0, 4), "abcd");
  EXPECT_EQ(zbfstg_get(st, 70004), nullptr);  // the end of the file
  zbshr::plat::inject_fault(zbshr::plat::Fault::Write, 2, 1);  // the data write
  EXPECT_EQ(zbfstg_alloc(st, "efgh", 4), 0);
  zbshr::plat::clear_faults();
  EXPECT_EQ(zbfstg_alloc(st, "ijkl", 4), 70034);  // the counter did not move
  EXPECT_EQ(copy_of(heap_, st, 0, 4), "ijkl");
  EXPECT_EQ(zbfstg_end(st), 1);

  EXPECT_EQ(zbfstg_alloc(nullptr, "a", 1), 0);
  EXPECT_EQ(zbfstg_get(nullptr, 0), nullptr);
  EXPECT_EQ(zbfstg_end(nullptr), 0);
  EXPECT_EQ(zbfstg_begin(nullptr, 0), nullptr);
}

}  // namespace
