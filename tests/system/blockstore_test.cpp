// The fixed-size block store: its temporary file, the records written at the
// file's start, positions from a running counter, copies read back.
#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

using systest::ScratchTest;
using systest::slurp;
namespace fs = std::filesystem;

// The store keeps its file name as its third field; the file name is found
// here by watching the temporary folder instead of peeking into the store.
std::vector<fs::path> temp_files() {
  char dir[300];
  zbshr::plat::GetTempPathA(sizeof dir, dir);
  std::vector<fs::path> out;
  for (auto& e : fs::directory_iterator(dir)) {
    std::string n = e.path().filename().string();
    if (n.rfind("ZBT", 0) == 0 && n.size() > 4 && n.substr(n.size() - 4) == ".TMP")
      out.push_back(e.path());
  }
  return out;
}

std::string le32(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  return s;
}

using BlockStore = ScratchTest;

TEST_F(BlockStore, RecordsLandAtTheFileStart) {
  auto before = temp_files();
  ZBFSTG st = zbfstg_begin(heap_, 4);
  ASSERT_NE(st, nullptr);
  auto after = temp_files();
  std::vector<fs::path> fresh;
  for (auto& p : after)
    if (std::find(before.begin(), before.end(), p) == before.end()) fresh.push_back(p);
  ASSERT_EQ(fresh.size(), 1u);
  fs::path file = fresh[0];
  EXPECT_EQ(fs::file_size(file), 0u);

  EXPECT_EQ(zbfstg_alloc(st, "hello", 5), 0);  // the first position is 0
  EXPECT_EQ(slurp(file), le32(5) + "hello");
  void* copy = zbfstg_get(st, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(copy), 5), "hello");
  EXPECT_EQ(zbstg_size(heap_, copy), 8u);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, copy), 4u);
  zbstg_free(heap_, copy);

  EXPECT_EQ(zbfstg_alloc(st, "xy", 2), 9);  // 0 + 5 + 4
  // Overwritten in place: the old record's tail remains behind it.
  EXPECT_EQ(slurp(file), le32(2) + "xy" + "llo");
  copy = zbfstg_get(st, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(copy), 2), "xy");
  zbstg_free(heap_, copy);
  EXPECT_EQ(zbfstg_get(st, 9), nullptr);  // nothing stored there

  EXPECT_EQ(zbfstg_alloc(st, "", 0), 15);
  EXPECT_EQ(zbfstg_alloc(st, "q", 1), 19);

  std::string bytes = slurp(file);
  EXPECT_EQ(zbfstg_free(st, 0), 1);
  EXPECT_EQ(zbfstg_free(st, 19), 1);
  EXPECT_EQ(slurp(file), bytes);

  EXPECT_EQ(zbfstg_end(st), 1);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(BlockStore, BadArgumentsAndForeignBytes) {
  ZBFSTG st = zbfstg_begin(heap_, 0);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(zbfstg_get(st, 0), nullptr);  // empty file
  EXPECT_EQ(zbfstg_get(st, -4), nullptr);
  EXPECT_EQ(zbfstg_alloc(st, nullptr, 3), 0);
  EXPECT_EQ(zbfstg_alloc(st, "abc", -1), 0);
  std::string big(70000, 'k');
  EXPECT_EQ(zbfstg_alloc(st, big.data(), static_cast<int32_t>(big.size())), 0);
  void* copy = zbfstg_get(st, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(zbstg_size(heap_, copy), 70000u);  // a large block
  EXPECT_EQ(std::memcmp(copy, big.data(), big.size()), 0);
  zbstg_free(heap_, copy);
  // Position 1 reads a length made of record bytes: far beyond the file.
  EXPECT_EQ(zbfstg_get(st, 1), nullptr);
  EXPECT_EQ(zbfstg_get(st, 1 << 30), nullptr);
  EXPECT_EQ(zbfstg_end(st), 1);

  EXPECT_EQ(zbfstg_alloc(nullptr, "a", 1), 0);
  EXPECT_EQ(zbfstg_get(nullptr, 0), nullptr);
  EXPECT_EQ(zbfstg_end(nullptr), 0);
  EXPECT_EQ(zbfstg_begin(nullptr, 0), nullptr);
}

TEST_F(BlockStore, ShortWriteFailsWithoutAdvancing) {
  ZBFSTG st = zbfstg_begin(heap_, 0);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(zbfstg_alloc(st, "abcd", 4), 0);
  zbshr::plat::InjectFault(zbshr::plat::Fault::Write, 2, 1);  // the data write
  EXPECT_EQ(zbfstg_alloc(st, "efgh", 4), 0);
  zbshr::plat::ClearFaults();
  EXPECT_EQ(zbfstg_alloc(st, "ijkl", 4), 8);  // the counter did not move
  zbfstg_end(st);
}

}  // namespace
