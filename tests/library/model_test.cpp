// Random operations applied both to a library and to an in-memory model;
// after every step the library must list exactly the model's entries (and,
// every fullEvery steps, hold their bytes) and pass the checker.
#include "helpers.h"

using namespace lmtest;

namespace {

using Model = std::map<std::string, Entry>;

int32_t ZBSHR_CALL collectEx(LMI_ENTRYINFOEX* i, void* ud) {
  (*static_cast<Model*>(ud))[i->name] = {std::to_string(i->size), i->comment};
  return 0;
}

class Model_ : public LibTest {
 protected:
  std::mt19937 rng{12345};
  std::vector<std::string> pool;
  Model model;
  std::string lib;
  LMI_HANDLE h = nullptr;
  uint64_t maxSize = 0;
  int bigShare = 1;  // out of 10 writes

  uint32_t rnd(uint32_t n) { return uint32_t(rng() % n); }
  void makePool(int n) {
    for (int i = 0; i < n; ++i) {
      std::string s;
      for (size_t k = 0, len = 1 + rnd(rnd(4) == 0 ? 180 : 24); k < len; ++k) s += char('a' + rnd(26));
      if (rnd(3) == 0) s[0] = char('0' + rnd(10));
      pool.push_back(s);
    }
  }
  std::string anyName() { return pool[rnd(uint32_t(pool.size()))]; }
  std::string existing() { return std::next(model.begin(), rnd(uint32_t(model.size())))->first; }
  // Closes the library (as a host does before a move or copy) and opens it again unless `only`.
  void reopen(bool only = false) {
    if (h) {
      ASSERT_EQ(LMI_CloseLibrary(h), 0);
    }
    h = only ? nullptr : open(lib, 2, rnd(3) == 0 ? 512 + int(rnd(63488)) : 0);
  }
  // The entry `from` copied to `to` in the model: a copy without a comment keeps the target's.
  void copyInModel(const std::string& from, const std::string& to) {
    Entry e = model[from];
    if (e.comment.empty() && model.count(to)) e.comment = model[to].comment;
    model[to] = e;
  }
  void check(bool bytes) {
    ASSERT_NE(h, nullptr);
    auto probs = problems(h);
    ASSERT_TRUE(probs.empty()) << probs[0];
    Model listed, want;
    ASSERT_EQ(LMI_ListEntriesExtended(h, S(".*"), collectEx, &listed), 0);
    for (auto& [name, e] : model) want[name] = {std::to_string(e.data.size()), e.comment};
    ASSERT_EQ(listed, want);
    for (auto& [name, e] : model) ASSERT_TRUE(!bytes || get(h, name) == e.data) << name;
    maxSize = std::max<uint64_t>(maxSize, fs::file_size(lib));
  }
  size_t randomSize(size_t big) {
    uint32_t r = rnd(10);
    if (r < uint32_t(bigShare)) return rnd(uint32_t(big));
    if (r % 3 == 1) return 502 * (1 + rnd(6)) + rnd(3) - 1;
    return r % 3 == 0 && rnd(8) == 0 ? 0 : rnd(3000);
  }

  void run(int steps, size_t big, int fullEvery, uint64_t minBytes) {
    lib = create("model.zbl");
    std::string other = create("other.zbl");
    auto transfer = [&](bool copy, const std::string& from, const std::string& to, const std::string& src, const char* dst) {
      reopen(true);
      return (copy ? LMI_CopyEntry : LMI_MoveEntry)(heap, S(from), to.empty() ? nullptr : (char*)S(to), S(src),
                                                   dst ? (char*)S(dst) : nullptr);
    };
    reopen();
    for (int step = 0; step < steps; ++step) {
      uint32_t op = rnd(100);
      SCOPED_TRACE("step " + std::to_string(step) + " operation " + std::to_string(op));
      if (op < 45 || model.empty()) {
        std::string name = anyName(), data = pattern(randomSize(big), uint32_t(step));
        const char* comments[] = {nullptr, "", "  ", "a comment   ", "x", "longer comment text"};
        const char* c = comments[rnd(6)];
        ASSERT_EQ(put(h, name, data, c), 0) << name;
        model[name].data = data;
        std::string t = c ? c : "";
        if (!t.empty()) model[name].comment = t.erase(t.find_last_not_of(' ') + 1);
      } else if (op < 65 || op >= 95) {  // delete one, or several
        for (int k = 0; k < (op < 65 ? 1 : 5) && !model.empty(); ++k) {
          std::string name = existing();
          ASSERT_EQ(LMI_DeleteEntry(h, S(name)), 0);
          model.erase(name);
        }
      } else if (op < 85) {  // rename or copy within the library
        std::string from = existing(), to = anyName();
        if (from == to) continue;
        ASSERT_EQ(transfer(op >= 75, from, to, lib, nullptr), 0);
        if (op < 75) {
          model[to] = model[from];
          model.erase(from);
        } else {
          copyInModel(from, to);
        }
      } else if (op < 90) {  // copy out and move back under another name
        std::string from = existing(), to = from + "_back";
        ASSERT_EQ(transfer(true, from, "", lib, other.c_str()), 0);
        if (to.size() + 25 <= 3040) {
          ASSERT_EQ(transfer(false, from, to, other, lib.c_str()), 0);
          copyInModel(from, to);
        }
      } else {
        reopen();
      }
      if (!h) reopen();  // after a move or copy
      check(step % fullEvery == 0);
      if (HasFatalFailure()) return;
    }
    reopen();  // everything must have reached the file
    check(true);
    reopen(true);
    EXPECT_TRUE(verifyFile(other).empty());
    EXPECT_GE(maxSize, minBytes);  // how far the run grew the library
  }
};

TEST_F(Model_, ThousandsOfSmallOperations) {
  int32_t was = zbshr_lib_write_through(0);  // the handle holds writes back and joins them
  makePool(400);
  run(1500, 6000, 1, 0);
  zbshr_lib_write_through(was);
}

TEST_F(Model_, LargeLibrariesWithSeveralBitmaps) {
  zbshr_lib_write_through(1);
  rng.seed(777);
  makePool(60);
  bigShare = 4;
  run(300, 900000, 10, 2u * 2064384 + 1);
}

}  // namespace
