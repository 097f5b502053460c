// The operations the crash tests interrupt, each with the libraries it starts
// from and the contents it must leave.
#if !defined(_WIN32)
#include "crash_harness.h"

namespace lmtest {
namespace {

using E = std::pair<std::string, std::string>;

// Entries of a mixed library: sizes around the block payload and larger.
const size_t kSizes[] = {0, 10, 502, 503, 1500, 5000, 20000, 700, 64000, 3, 9000, 120000};

std::string entryName(int i) { return "e" + std::string(i < 10 ? "0" : "") + std::to_string(i); }
std::string longName(int i) { return std::string(178, 'm') + char('a' + i / 26) + char('a' + i % 26); }

void mixed(CrashTest& t) {
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.lib("a.zbl")), "first"), 0);
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.lib("b.zbl")), "second"), 0);
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(t.putIn("a.zbl", entryName(i), pattern(kSizes[i], uint32_t(i)),
                      i % 3 ? nullptr : ("note " + std::to_string(i)).c_str()),
              0);
  EXPECT_EQ(t.putIn("b.zbl", "b1", pattern(800, 99), "in b"), 0);
  EXPECT_EQ(t.putIn("b.zbl", "e05", pattern(300, 98)), 0);
  // Free blocks inside the file, so that new data reuses them.
  EXPECT_EQ(t.removeFrom("a.zbl", entryName(4)), 0);
}

void mixedCheckedOut(CrashTest& t) {
  mixed(t);
  EXPECT_EQ(LMI_CheckOutEntry(t.heap, S("e02"), S(t.lib("a.zbl")), S(t.lib("b.zbl")), S("ann")), 0);
  EXPECT_EQ(LMI_CheckRegisterEntry(t.heap, S(t.lib("a.zbl")), S("e07")), 0);
}

// A full root (14 records of 203 bytes) and one record in its right child.
void nodes(CrashTest& t) {
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.lib("a.zbl")), nullptr), 0);
  for (int i = 0; i < 28; i += 2) EXPECT_EQ(t.putIn("a.zbl", longName(i), pattern(40, uint32_t(i))), 0);
  EXPECT_EQ(t.putIn("a.zbl", "z", "last"), 0);
}

// A library just short of the range of its first bitmap.
void nearlyFull(CrashTest& t) {
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.lib("a.zbl")), nullptr), 0);
  EXPECT_EQ(t.putIn("a.zbl", "big", pattern(2040000, 5)), 0);
  EXPECT_EQ(t.putIn("a.zbl", "small", pattern(900, 6)), 0);
}

int32_t move(CrashTest& t, const char* from, const char* to, const char* dst, bool copy) {
  S a(from), b(to), src(t.lib("a.zbl"));
  if (!dst) return copy ? LMI_CopyEntry(t.heap, a, b, src, nullptr) : LMI_MoveEntry(t.heap, a, b, src, nullptr);
  S d(t.lib(dst));
  return copy ? LMI_CopyEntry(t.heap, a, b, src, d) : LMI_MoveEntry(t.heap, a, b, src, d);
}

std::vector<Operation> build() {
  std::vector<Operation> ops;
  auto add = [&](std::string name, std::function<void(CrashTest&)> setup,
                 std::function<int32_t(CrashTest&)> run,
                 std::function<void(CrashTest&, State&)> change) {
    Operation op;
    op.name = std::move(name);
    op.setup = std::move(setup);
    op.run = std::move(run);
    op.expect = [change](CrashTest& t, State s) {
      change(t, s);
      return s;
    };
    ops.push_back(std::move(op));
  };
  static const std::string A = "a.zbl", B = "b.zbl";
  add("put a new entry", mixed,
      [](CrashTest& t) { return t.putIn("a.zbl", "new", pattern(3000, 7), "fresh"); },
      [](CrashTest&, State& s) { s[A].entries["new"] = E(pattern(3000, 7), "fresh"); });
  add("rewrite an entry shorter", mixed,
      [](CrashTest& t) { return t.putIn("a.zbl", "e06", pattern(700, 8)); },
      [](CrashTest&, State& s) { s[A].entries["e06"] = E(pattern(700, 8), "note 6"); });
  add("rewrite an entry longer", mixed,
      [](CrashTest& t) { return t.putIn("a.zbl", "e01", pattern(30000, 9), "longer"); },
      [](CrashTest&, State& s) { s[A].entries["e01"] = E(pattern(30000, 9), "longer"); });
  add("change a comment", mixed,
      [](CrashTest& t) {
        LMI_HANDLE h = t.open(t.lib("a.zbl"), 2);
        int32_t rc = LMI_ModifyEntry(h, S("e05"), "remark");
        t.closeTwice(h);
        return rc;
      },
      [](CrashTest&, State& s) { s[A].entries["e05"].second = "remark"; });
  add("delete an entry", mixed, [](CrashTest& t) { return t.removeFrom("a.zbl", "e08"); },
      [](CrashTest&, State& s) { s[A].entries.erase("e08"); });
  add("delete the last entry and release the tail", mixed,
      [](CrashTest& t) { return t.removeFrom("a.zbl", "e11"); },
      [](CrashTest&, State& s) { s[A].entries.erase("e11"); });
  add("rename to a new name", mixed, [](CrashTest& t) { return move(t, "e03", "zz", nullptr, false); },
      [](CrashTest&, State& s) {
        s[A].entries["zz"] = s[A].entries["e03"];
        s[A].entries.erase("e03");
      });
  add("rename onto an existing name", mixed,
      [](CrashTest& t) { return move(t, "e10", "e07", nullptr, false); },
      [](CrashTest&, State& s) {
        s[A].entries["e07"] = s[A].entries["e10"];
        s[A].entries.erase("e10");
      });
  add("copy inside a library", mixed, [](CrashTest& t) { return move(t, "e05", "c05", nullptr, true); },
      [](CrashTest&, State& s) { s[A].entries["c05"] = s[A].entries["e05"]; });
  add("copy to another library", mixed, [](CrashTest& t) { return move(t, "e06", "e06", "b.zbl", true); },
      [](CrashTest&, State& s) { s[B].entries["e06"] = s[A].entries["e06"]; });
  add("move to another library", mixed,
      [](CrashTest& t) { return move(t, "e09", "moved", "b.zbl", false); },
      [](CrashTest&, State& s) {
        s[B].entries["moved"] = s[A].entries["e09"];
        s[A].entries.erase("e09");
      });
  add("move the last entry to another library", mixed,
      [](CrashTest& t) { return move(t, "e11", "e11", "b.zbl", false); },
      [](CrashTest&, State& s) {
        s[B].entries["e11"] = s[A].entries["e11"];
        s[A].entries.erase("e11");
      });
  add("check out", mixed,
      [](CrashTest& t) {
        return LMI_CheckOutEntry(t.heap, S("e01"), S(t.lib("a.zbl")), S(t.lib("b.zbl")), S("bob"));
      },
      [](CrashTest& t, State& s) {
        s[A].checkouts.push_back(t.lib("b.zbl") + "|e01|bob|d");
        s[B].checkouts.push_back(t.lib("a.zbl") + "|e01|bob|s");
      });
  add("check in", mixedCheckedOut,
      [](CrashTest& t) {
        std::vector<char> src(1024, 0);
        return LMI_CheckInEntry(t.heap, S("e02"), S(t.lib("b.zbl")), src.data());
      },
      [](CrashTest&, State& s) {
        s[A].checkouts.erase(s[A].checkouts.begin());
        s[B].checkouts.clear();
      });
  add("register", mixed, [](CrashTest& t) { return LMI_CheckRegisterEntry(t.heap, S(t.lib("a.zbl")), S("e09")); },
      [](CrashTest&, State& s) { s[A].checkouts.push_back("|e09||r"); });
  add("unregister", mixedCheckedOut,
      [](CrashTest& t) { return LMI_CheckClearRegEntry(t.heap, S(t.lib("a.zbl")), S("e07")); },
      [](CrashTest&, State& s) { s[A].checkouts.pop_back(); });
  add("change the library comment", mixed,
      [](CrashTest& t) {
        LMI_HANDLE h = t.open(t.lib("a.zbl"), 3);
        LMI_LIBRARYMOD m{0, 0, "renamed"};
        int32_t rc = LMI_ModifyLibrary(h, &m);
        t.closeTwice(h);
        return rc;
      },
      [](CrashTest&, State& s) { s[A].comment = "renamed"; });
  add("insert into a full node", nodes,
      [](CrashTest& t) { return t.putIn("a.zbl", longName(13), "middle"); },
      [](CrashTest&, State& s) { s[A].entries[longName(13)] = E("middle", ""); });
  add("delete the only record of a node", nodes, [](CrashTest& t) { return t.removeFrom("a.zbl", "z"); },
      [](CrashTest&, State& s) { s[A].entries.erase("z"); });
  add("grow past the first bitmap", nearlyFull,
      [](CrashTest& t) { return t.putIn("a.zbl", "more", pattern(60000, 10)); },
      [](CrashTest&, State& s) { s[A].entries["more"] = E(pattern(60000, 10), ""); });
  add("create a library", mixed,
      [](CrashTest& t) { return LMI_CreateLibrary(t.heap, S(t.lib("c.zbl")), "made"); },
      [](CrashTest&, State& s) {
        s["c.zbl"].exists = s["c.zbl"].opens = true;
        s["c.zbl"].comment = "made";
      });
  return ops;
}

}  // namespace

const std::vector<Operation>& operations() {
  static const std::vector<Operation> ops = build();
  return ops;
}

}  // namespace lmtest
#endif
