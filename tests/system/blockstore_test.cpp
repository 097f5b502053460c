// The fixed-size block store: its temporary file, the records written at the
// file's start, positions from a running counter, copies read back.
#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

// The store's temporary files, ZBT*.TMP in any case (some systems give temporary names in lower case).
std::vector<fs::path> temp_files() {
  char dir[300];
  zbshr::plat::GetTempPathA(sizeof dir, dir);
  std::vector<fs::path> out;
  for (auto& e : fs::directory_iterator(dir)) {
    std::string n = e.path().filename().string();
    for (auto& c : n) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (n.rfind("ZBT", 0) == 0 && n.size() > 4 && n.ends_with(".TMP")) out.push_back(e.path());
  }
  return out;
}
std::string le32(uint32_t v) { return {char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char(v >> 24)}; }

using BlockStore = systest::ScratchTest;

TEST_F(BlockStore, RecordsAtTheFileStartAndCopiesReadBack) {
  auto before = temp_files();
  ZBFSTG st = zbfstg_begin(heap_, 4);
  ASSERT_NE(st, nullptr);
  auto fresh = temp_files();
  std::erase_if(fresh, [&](const fs::path& p) { return std::count(before.begin(), before.end(), p) > 0; });
  ASSERT_EQ(fresh.size(), 1u);
  const fs::path file = fresh[0];
  // The n bytes of the copy read at `pos` (in the store's pool), or "<none>".
  auto copy = [&](int32_t pos, size_t n) -> std::string {
    void* p = zbfstg_get(st, pos);
    if (!p) return "<none>";
    EXPECT_GE(zbstg_size(heap_, p), n);
    EXPECT_EQ(zbstg_get_pointer_subpool(heap_, p), 4u);
    std::string s(static_cast<char*>(p), n);
    zbstg_free(heap_, p);
    return s;
  };
  EXPECT_EQ(copy(0, 0), "<none>");  // the empty file
  // {record, its position, the file after, where to read, what is read}: each
  // record overwrites the start, the position counter runs on, and a read
  // trusts a length only while it stays within the file.
  const std::string big(70000, 'k');
  const std::tuple<std::string, int32_t, std::string, int32_t, std::string> steps[] = {
      {"hello", 0, le32(5) + "hello", 0, "hello"},
      {"xy", 9, le32(2) + "xyllo", 0, "xy"},
      {"", 15, le32(0) + "xyllo", 9, "<none>"},
      {le32(3) + "xyz", 19, le32(7) + le32(3) + "xyz", 4, "xyz"},
      {le32(4) + "xyz", 30, le32(7) + le32(4) + "xyz", 4, "<none>"},
      {big, 41, le32(70000) + big, 0, big},
      {"abcd", 70045, le32(4) + "abcd" + big.substr(4), 1, "<none>"},  // a length made of record bytes
  };
  for (const auto& [data, pos, bytes, at, read] : steps) {
    EXPECT_EQ(zbfstg_alloc(st, data.data(), int32_t(data.size())), pos);
    EXPECT_EQ(slurp(file), bytes) << pos;
    EXPECT_EQ(copy(at, read == "<none>" ? 0 : read.size()), read) << pos;
  }
  EXPECT_EQ(copy(1 << 30, 1) + copy(-4, 1) + copy(70004, 1), "<none><none><none>");
  zbshr::plat::inject_fault(zbshr::plat::Fault::Write, 2, 1);  // the data write
  EXPECT_EQ(zbfstg_alloc(st, "efgh", 4), 0);
  zbshr::plat::clear_faults();
  EXPECT_EQ(zbfstg_alloc(st, "ijkl", 4), 70053);  // the counter did not move
  EXPECT_EQ(copy(0, 4), "ijkl");
  std::string bytes = slurp(file);
  EXPECT_EQ(zbfstg_free(st, 0), 1);  // freeing changes nothing
  EXPECT_EQ(slurp(file), bytes);
  EXPECT_EQ((std::vector<int32_t>{zbfstg_alloc(st, nullptr, 3), zbfstg_alloc(st, "abc", -1), zbfstg_alloc(nullptr, "a", 1),
                                  zbfstg_end(nullptr)}), std::vector<int32_t>(4, 0));
  EXPECT_EQ(zbfstg_end(st), 1);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(zbfstg_get(nullptr, 0), nullptr);
  EXPECT_EQ(zbfstg_begin(nullptr, 0), nullptr);
}

}  // namespace
