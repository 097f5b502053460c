// Randomized operations applied both to a library and to an in-memory model;
// after every step the library must hold exactly the model's entries and
// pass the checker.
#include <map>

#include "helpers.h"

using namespace lmtest;

namespace {

struct Entry {
  std::string data, comment;
};
using Model = std::map<std::string, Entry>;

struct Listed {
  std::map<std::string, std::pair<int32_t, std::string>> got;
};
int32_t ZBSHR_CALL collectEx(LMI_ENTRYINFOEX* i, void* ud) {
  static_cast<Listed*>(ud)->got[i->name] = {i->size, i->comment};
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

  uint32_t rnd(uint32_t n) { return uint32_t(rng() % n); }

  void makePool(int n) {
    for (int i = 0; i < n; ++i) {
      size_t len = 1 + rnd(rnd(4) == 0 ? 180 : 24);
      std::string s;
      for (size_t k = 0; k < len; ++k) s += char('a' + rnd(26));
      if (rnd(3) == 0) s[0] = char('0' + rnd(10));
      pool.push_back(s);
    }
  }
  std::string anyName() { return pool[rnd(uint32_t(pool.size()))]; }
  std::string existing() {
    auto it = model.begin();
    std::advance(it, rnd(uint32_t(model.size())));
    return it->first;
  }

  void reopen() {
    if (h) {
      ASSERT_EQ(LMI_CloseLibrary(h), 0);
    }
    int ra = rnd(3) == 0 ? 512 + int(rnd(63488)) : 0;
    h = open(lib, 2, ra);
    ASSERT_NE(h, nullptr);
  }
  void closeLib() {
    if (h) {
      ASSERT_EQ(LMI_CloseLibrary(h), 0);
    }
    h = nullptr;
  }

  void check(bool bytes, int step, const char* what) {
    SCOPED_TRACE(std::string("step ") + std::to_string(step) + " " + what);
    bool own = !h;
    if (own) h = open(lib, 1);
    ASSERT_NE(h, nullptr);
    auto probs = problems(h);
    ASSERT_TRUE(probs.empty()) << probs[0];
    Listed l;
    S all(".*");
    ASSERT_EQ(LMI_ListEntriesExtended(h, all, collectEx, &l), 0);
    ASSERT_EQ(l.got.size(), model.size());
    for (auto& [name, e] : model) {
      auto it = l.got.find(name);
      ASSERT_NE(it, l.got.end()) << name;
      ASSERT_EQ(it->second.first, int32_t(e.data.size())) << name;
      ASSERT_EQ(it->second.second, e.comment) << name;
      if (bytes) {
        int32_t rc;
        ASSERT_EQ(get(h, name, &rc), e.data) << name;
        ASSERT_EQ(rc, 0);
      }
    }
    if (own) closeLib();
    maxSize = std::max<uint64_t>(maxSize, fs::file_size(lib));
  }

  int bigShare = 1;  // out of 10 writes
  size_t randomSize(size_t big) {
    uint32_t r = rnd(10);
    if (r < uint32_t(bigShare)) return rnd(uint32_t(big));
    switch (r % 3) {
      case 0: return rnd(8) == 0 ? 0 : rnd(3000);
      case 1: return 502 * (1 + rnd(6)) + rnd(3) - 1;
      default: return rnd(3000);
    }
  }

  void run(int steps, size_t big, int fullEvery, uint64_t minBytes) {
    lib = create("model.zbl");
    std::string other = create("other.zbl");
    Model otherModel;
    reopen();
    for (int step = 0; step < steps; ++step) {
      uint32_t op = rnd(100);
      const char* what = "";
      if (op < 45 || model.empty()) {
        what = "write";
        std::string name = anyName();
        std::string data = pattern(randomSize(big), uint32_t(step));
        const char* comments[] = {nullptr, "", "  ", "a comment   ", "x", "longer comment text"};
        const char* c = comments[rnd(6)];
        ASSERT_EQ(put(h, name, data, c), 0) << name;
        Entry& e = model[name];
        e.data = data;
        if (c && *c) {
          std::string t = c;
          while (!t.empty() && t.back() == ' ') t.pop_back();
          e.comment = t;
        }
      } else if (op < 65) {
        what = "delete";
        std::string name = existing();
        S n(name);
        ASSERT_EQ(LMI_DeleteEntry(h, n), 0);
        model.erase(name);
      } else if (op < 75) {
        what = "rename";
        std::string from = existing(), to = anyName();
        if (from == to) continue;
        closeLib();
        S f(from), t(to), p(lib);
        ASSERT_EQ(LMI_MoveEntry(heap, f, t, p, nullptr), 0);
        model[to] = model[from];
        model.erase(from);
        reopen();
      } else if (op < 85) {
        what = "copy";
        std::string from = existing(), to = anyName();
        if (from == to) continue;
        closeLib();
        S f(from), t(to), p(lib);
        ASSERT_EQ(LMI_CopyEntry(heap, f, t, p, nullptr), 0);
        Entry e = model[from];
        if (e.comment.empty() && model.count(to)) e.comment = model[to].comment;
        model[to] = e;
        reopen();
      } else if (op < 90) {
        what = "copy out and back";
        std::string from = existing();
        closeLib();
        S f(from), p(lib), o(other);
        ASSERT_EQ(LMI_CopyEntry(heap, f, nullptr, p, o), 0);
        S f2(from), t2(from + "_back"), p2(lib), o2(other);
        if (std::strlen(t2) + 25 <= 3040) {
          ASSERT_EQ(LMI_MoveEntry(heap, f2, t2, o2, p2), 0);
          Entry e = model[from];
          std::string to = from + "_back";
          if (e.comment.empty() && model.count(to)) e.comment = model[to].comment;
          model[to] = e;
        }
        reopen();
      } else if (op < 95) {
        what = "reopen";
        reopen();
      } else {
        what = "delete several";
        for (int k = 0; k < 5 && !model.empty(); ++k) {
          std::string name = existing();
          S n(name);
          ASSERT_EQ(LMI_DeleteEntry(h, n), 0);
          model.erase(name);
        }
      }
      check(step % fullEvery == 0, step, what);
      if (HasFatalFailure()) return;
    }
    closeLib();
    check(true, steps, "final");
    EXPECT_TRUE(verifyFile(other).empty());
    if (minBytes) {
      // The run is meant to exercise more than one bitmap block.
      EXPECT_GE(maxSize, minBytes);
    }
  }
};

TEST_F(Model_, ThousandsOfSmallOperations) {
  // Write-through off: the handle holds writes back and joins them.
  int32_t was = zbshr_lib_write_through(0);
  makePool(400);
  run(1500, 6000, 1, 0);
  zbshr_lib_write_through(was);
}

TEST_F(Model_, LargeLibrariesWithSeveralBitmaps) {
  zbshr_lib_write_through(1);
  rng.seed(777);
  makePool(60);
  // Grow the library past 4 MB first, then churn.
  lib = "";
  std::string data = pattern(1100000, 5);
  {
    std::string p = create("grow.zbl");
    LMI_HANDLE g = open(p, 2, 64000);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(put(g, "seed" + std::to_string(i), data), 0);
    ASSERT_EQ(LMI_CloseLibrary(g), 0);
    EXPECT_GT(fs::file_size(p), 2u * 2064384);
    // Delete in an order that frees the middle first, then the end.
    g = open(p, 2);
    for (int i : {1, 3, 2}) {
      S n("seed" + std::to_string(i));
      ASSERT_EQ(LMI_DeleteEntry(g, n), 0);
      auto pr = problems(g);
      ASSERT_TRUE(pr.empty()) << pr[0];
    }
    ASSERT_EQ(LMI_CloseLibrary(g), 0);
    EXPECT_TRUE(verifyFile(p).empty());
    EXPECT_LT(fs::file_size(p), 2064384u);
  }
  bigShare = 4;
  run(300, 900000, 10, 2u * 2064384 + 1);
}

}  // namespace
