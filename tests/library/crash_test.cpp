// Crash consistency. A clean run of each operation counts its changes to files (writes, length changes, syncs); then
// for each change a child runs it again and ends right before it (or after a write torn at a 512-byte boundary), or the
// change fails here. The libraries must pass verify and hold the state before or after; a failed operation, before.
#if defined(_WIN32)
#include <gtest/gtest.h>
TEST(Crash, NeedsPosixProcesses) { GTEST_SKIP() << "the crash tests fork and end child processes (POSIX only)"; }
#else
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "helpers.h"
#include "platform/platform.h"

namespace lmtest {
namespace {

enum class Mode { Count, Kill, Torn, Fail };
int g_count = 0, g_at = 0;
Mode g_mode = Mode::Count;

// At change g_at: exit 77 before it, 78 after a torn write, or fail it.
int64_t hook(char kind, bool, uint64_t off, uint32_t n) {
  if (kind == 'e' && g_mode == Mode::Torn) _exit(78);
  if (kind == 'e' || ++g_count != g_at || g_mode == Mode::Count) return -1;
  if (g_mode == Mode::Kill) _exit(77);
  if (g_mode == Mode::Fail) return 0;
  uint64_t keep = 512 - off % 512;
  if (kind != 'w' || keep >= n) _exit(0);  // nothing to tear: not applicable
  return int64_t(keep);
}
template <class F>
auto hooked(Mode m, int at, F f) {
  g_count = 0, g_at = at, g_mode = m;
  zbshr::lm::io_hook = hook;
  auto r = f();
  zbshr::lm::io_hook = nullptr;
  return r;
}
// The exit status of a child process running f (0 when f returns).
template <class F>
int inChild(F f) {
  pid_t pid = fork();
  if (pid == 0) {
    f();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}


using State = std::map<std::string, LibState>;  // by file name
const char* const kFiles[] = {"a.zbl", "b.zbl", "c.zbl"};

class Crash : public LibTest {
 public:
  // One operation on library f; a failed close leaves the handle open, and a second close must then succeed.
  template <class F>
  int32_t on(const std::string& f, F op, int mode = 2) {
    LMI_HANDLE h = open(path(f), mode);
    int32_t rc = h ? op(h) : -100;
    if (h && LMI_CloseLibrary(h)) {
      EXPECT_EQ(LMI_CloseLibrary(h), 0);
    }
    return rc;
  }
  int32_t putIn(const std::string& f, const std::string& name, const std::string& data, const char* c = nullptr) {
    return on(f, [&](LMI_HANDLE h) { return put(h, name, data, c); });
  }
  int32_t removeFrom(const std::string& f, const char* name) {
    return on(f, [&](LMI_HANDLE h) { return LMI_DeleteEntry(h, S(name)); });
  }
  State all() {
    State s;
    for (const char* f : kFiles) s[f] = state(path(f));
    return s;
  }
  // Every library passes the checker, leaks included; `backwards` checks (and resolves the journal of) the last first.
  void verifyAll(bool backwards) {
    for (int i = 0; i < 3; ++i) {
      std::string f = path(kFiles[backwards ? 2 - i : i]);
      auto fail = [](void*, int32_t code, const char*, const char* text) {
        if (code != ZBSHR_LIB_NOTE_INFO) ADD_FAILURE() << text;
      };
      EXPECT_EQ(fs::exists(f) ? zbshr_lib_verify(f.c_str(), fail, nullptr) : 0, 0) << f;
    }
  }
  // Puts the files back as they were before the operation (removing journals too).
  void restore(const std::map<std::string, Bytes>& base) {
    for (const auto& e : fs::directory_iterator(dir))
      if (!base.count(e.path().filename().string())) fs::remove(e.path());
    for (const auto& [f, bytes] : base) spit(path(f), bytes);
  }
};

struct Operation {
  const char* name;
  void (*setup)(Crash&);
  int32_t (*run)(Crash&);
  void (*change)(Crash&, State&);  // the state after, from the state before
};

// Entries of a mixed library: sizes around the block payload and larger.
const size_t kSizes[] = {0, 10, 502, 503, 1500, 5000, 20000, 700, 64000, 3, 9000, 120000};
std::string entryName(int i) { return (i < 10 ? "e0" : "e") + std::to_string(i); }
std::string longName(int i) { return std::string(178, 'm') + char('a' + i / 26) + char('a' + i % 26); }

void mixed(Crash& t) {
  EXPECT_TRUE(LMI_CreateLibrary(t.heap, S(t.path("a.zbl")), "first") == 0 &&
              LMI_CreateLibrary(t.heap, S(t.path("b.zbl")), "second") == 0);
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(t.putIn("a.zbl", entryName(i), pattern(kSizes[i], uint32_t(i)),
                      i % 3 ? nullptr : ("note " + std::to_string(i)).c_str()), 0);
  EXPECT_TRUE(t.putIn("b.zbl", "b1", pattern(800, 99), "in b") == 0 && t.putIn("b.zbl", "e05", pattern(300, 98)) == 0);
  EXPECT_EQ(t.removeFrom("a.zbl", "e04"), 0);  // free blocks inside the file, for new data to reuse
}
void mixedCheckedOut(Crash& t) {
  mixed(t);
  EXPECT_EQ(LMI_CheckOutEntry(t.heap, S("e02"), S(t.path("a.zbl")), S(t.path("b.zbl")), S("ann")), 0);
  EXPECT_EQ(LMI_CheckRegisterEntry(t.heap, S(t.path("a.zbl")), S("e07")), 0);
}
// A full root (14 records of 203 bytes) and one record in its right child.
void nodes(Crash& t) {
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.path("a.zbl")), nullptr), 0);
  for (int i = 0; i < 28; i += 2) EXPECT_EQ(t.putIn("a.zbl", longName(i), pattern(40, uint32_t(i))), 0);
  EXPECT_EQ(t.putIn("a.zbl", "z", "last"), 0);
}
// A library just short of the range of its first bitmap.
void nearlyFull(Crash& t) {
  EXPECT_EQ(LMI_CreateLibrary(t.heap, S(t.path("a.zbl")), nullptr), 0);
  EXPECT_TRUE(t.putIn("a.zbl", "big", pattern(2040000, 5)) == 0 && t.putIn("a.zbl", "small", pattern(900, 6)) == 0);
}
// Copies or moves from a.zbl (to dst, or within a.zbl when dst is null).
int32_t move(Crash& t, const char* from, const char* to, const char* dst, bool copy) {
  auto call = copy ? LMI_CopyEntry : LMI_MoveEntry;
  return call(t.heap, S(from), S(to), S(t.path("a.zbl")), dst ? (char*)S(t.path(dst)) : nullptr);
}
std::map<std::string, Entry>& A(State& s) { return s["a.zbl"].entries; }
void rename(State& s, const char* from, const char* lib, const char* to) {
  s[lib].entries[to] = A(s)[from];
  A(s).erase(from);
}
int32_t libraryComment(LMI_HANDLE h) {
  LMI_LIBRARYMOD m{0, 0, "renamed"};
  return LMI_ModifyLibrary(h, &m);
}

// {what, libraries before, the operation, the change it makes}
const Operation kOps[] = {
    {"put a new entry", mixed, [](Crash& t) { return t.putIn("a.zbl", "new", pattern(3000, 7), "fresh"); },
     [](Crash&, State& s) { A(s)["new"] = {pattern(3000, 7), "fresh"}; }},
    {"rewrite an entry shorter", mixed, [](Crash& t) { return t.putIn("a.zbl", "e06", pattern(700, 8)); },
     [](Crash&, State& s) { A(s)["e06"] = {pattern(700, 8), "note 6"}; }},
    {"rewrite an entry longer", mixed, [](Crash& t) { return t.putIn("a.zbl", "e01", pattern(30000, 9), "longer"); },
     [](Crash&, State& s) { A(s)["e01"] = {pattern(30000, 9), "longer"}; }},
    {"change a comment", mixed, [](Crash& t) { return t.on("a.zbl", [](LMI_HANDLE h) { return LMI_ModifyEntry(h, S("e05"), "remark"); }); },
     [](Crash&, State& s) { A(s)["e05"].comment = "remark"; }},
    {"delete an entry", mixed, [](Crash& t) { return t.removeFrom("a.zbl", "e08"); }, [](Crash&, State& s) { A(s).erase("e08"); }},
    {"delete the last entry and release the tail", mixed, [](Crash& t) { return t.removeFrom("a.zbl", "e11"); },
     [](Crash&, State& s) { A(s).erase("e11"); }},
    {"rename to a new name", mixed, [](Crash& t) { return move(t, "e03", "zz", nullptr, false); },
     [](Crash&, State& s) { rename(s, "e03", "a.zbl", "zz"); }},
    {"rename onto an existing name", mixed, [](Crash& t) { return move(t, "e10", "e07", nullptr, false); },
     [](Crash&, State& s) { rename(s, "e10", "a.zbl", "e07"); }},
    {"copy inside a library", mixed, [](Crash& t) { return move(t, "e05", "c05", nullptr, true); },
     [](Crash&, State& s) { A(s)["c05"] = A(s)["e05"]; }},
    {"copy to another library", mixed, [](Crash& t) { return move(t, "e06", "e06", "b.zbl", true); },
     [](Crash&, State& s) { s["b.zbl"].entries["e06"] = A(s)["e06"]; }},
    {"move to another library", mixed, [](Crash& t) { return move(t, "e09", "moved", "b.zbl", false); },
     [](Crash&, State& s) { rename(s, "e09", "b.zbl", "moved"); }},
    {"move the last entry to another library", mixed, [](Crash& t) { return move(t, "e11", "e11", "b.zbl", false); },
     [](Crash&, State& s) { rename(s, "e11", "b.zbl", "e11"); }},
    {"check out", mixed,
     [](Crash& t) { return LMI_CheckOutEntry(t.heap, S("e01"), S(t.path("a.zbl")), S(t.path("b.zbl")), S("bob")); },
     [](Crash& t, State& s) {
       s["a.zbl"].checkouts.push_back(t.path("b.zbl") + "|e01|bob|d");
       s["b.zbl"].checkouts.push_back(t.path("a.zbl") + "|e01|bob|s");
     }},
    {"check in", mixedCheckedOut, [](Crash& t) { return LMI_CheckInEntry(t.heap, S("e02"), S(t.path("b.zbl")), S("")); },
     [](Crash&, State& s) { s["a.zbl"].checkouts.erase(s["a.zbl"].checkouts.begin()), s["b.zbl"].checkouts.clear(); }},
    {"register", mixed, [](Crash& t) { return LMI_CheckRegisterEntry(t.heap, S(t.path("a.zbl")), S("e09")); },
     [](Crash&, State& s) { s["a.zbl"].checkouts.push_back("|e09||r"); }},
    {"unregister", mixedCheckedOut, [](Crash& t) { return LMI_CheckClearRegEntry(t.heap, S(t.path("a.zbl")), S("e07")); },
     [](Crash&, State& s) { s["a.zbl"].checkouts.pop_back(); }},
    {"change the library comment", mixed, [](Crash& t) { return t.on("a.zbl", libraryComment, 3); },
     [](Crash&, State& s) { s["a.zbl"].comment = "renamed"; }},
    {"insert into a full node", nodes, [](Crash& t) { return t.putIn("a.zbl", longName(13), "middle"); },
     [](Crash&, State& s) { A(s)[longName(13)] = {"middle", ""}; }},
    {"delete the only record of a node", nodes, [](Crash& t) { return t.removeFrom("a.zbl", "z"); },
     [](Crash&, State& s) { A(s).erase("z"); }},
    {"grow past the first bitmap", nearlyFull, [](Crash& t) { return t.putIn("a.zbl", "more", pattern(60000, 10)); },
     [](Crash&, State& s) { A(s)["more"] = {pattern(60000, 10), ""}; }},
    {"create a library", mixed, [](Crash& t) { return LMI_CreateLibrary(t.heap, S(t.path("c.zbl")), "made"); },
     [](Crash&, State& s) { s["c.zbl"] = {true, true, {}, {}, "made"}; }},
};

#if defined(__SANITIZE_ADDRESS__)
constexpr int kEvery = 3;  // sanitizers are slow: one change in three is tried
#else
constexpr int kEvery = 1;
#endif

TEST_F(Crash, EveryChangeOfEveryOperationIsAtomic) {
  int points = 0;
  const auto descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), {});
  for (bool wt : {true, false}) {
    for (const Operation& op : kOps) {
      SCOPED_TRACE(std::string(op.name) + (wt ? " (write-through)" : " (write-through off)"));
      restore({});
      zbshr_lib_write_through(0);
      op.setup(*this);
      zbshr_lib_write_through(wt ? 1 : 0);
      std::map<std::string, Bytes> base;
      for (const char* f : kFiles)
        if (fs::exists(path(f))) base[f] = slurp(path(f));
      State before = all(), expected = before;
      op.change(*this, expected);
      // The clean run gives the state after and the number of changes.
      ASSERT_EQ(hooked(Mode::Count, 0, [&] { return op.run(*this); }), 0);
      const int changes = g_count;
      const State after = all();
      ASSERT_EQ(after, expected);
      for (int k = kEvery / 2 + 1; k <= changes; k += kEvery) {
        for (Mode m : {Mode::Kill, Mode::Torn, Mode::Fail}) {
          restore(base);
          int32_t res = 0;
          if (m == Mode::Fail) {
            res = hooked(m, k, [&] { return op.run(*this); });
          } else if (int st = inChild([&] { hooked(m, k, [&] { return op.run(*this); }); }); st == 0) {
            continue;  // not applicable (a torn write within one block)
          } else {
            EXPECT_TRUE(st == 77 || st == 78) << "exit status " << st;
          }
          ++points;
          SCOPED_TRACE("change " + std::to_string(k) + " mode " + std::to_string(int(m)));
          verifyAll(k % 2 == 1);  // either library may be opened first
          const State now = all();
          EXPECT_TRUE(now == before || (now == after && !(m == Mode::Fail && res != 0))) << "failed with " << res;
          EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), descriptors);
        }
      }
    }
  }
  zbshr_lib_write_through(1);
  EXPECT_GT(points, 300 / kEvery);
}

// After a failed write, later calls on the same handle publish none of it, and the handle goes on working.
TEST_F(Crash, AFailedOperationLeavesNothingForLaterCallsToPublish) {
  for (int at : {1, 2, 3}) {
    restore({});
    std::string lib = create("a.zbl");
    ASSERT_EQ(putIn("a.zbl", "x", pattern(5000, 1), "kept"), 0);
    LMI_HANDLE h = open(lib, 2);
    EXPECT_NE(hooked(Mode::Fail, at, [&] { return put(h, "x", pattern(3, 2)); }), 0);
    EXPECT_EQ(readEntry(h, "x"), pattern(5000, 1)) << at;
    EXPECT_TRUE(put(h, "y", pattern(700, 3)) == 0 && LMI_CloseLibrary(h) == 0);
    EXPECT_EQ(state(lib).entries, (std::map<std::string, Entry>{{"x", {pattern(5000, 1), "kept"}}, {"y", {pattern(700, 3), ""}}}));
    EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0);
  }
}

// A journal left by a killed writer is rolled back by the next reader, or refused by one that cannot write the file.
TEST_F(Crash, AReaderRollsBackAHotJournalOrRefuses) {
  std::string lib = create("h.zbl");
  ASSERT_EQ(putIn("h.zbl", "x", pattern(9000, 4)), 0);
  LibState before = state(lib);
  Bytes bytesBefore = slurp(lib);
  // Ends the writer right after its first write to the library (the journal is complete).
  ASSERT_EQ(inChild([&] {
              zbshr::lm::io_hook = [](char kind, bool journal, uint64_t, uint32_t) -> int64_t {
                static bool wrote = false;
                if (kind == 's' && !journal && wrote) _exit(77);
                wrote |= kind == 'w' && !journal;
                return -1;
              };
              putIn("h.zbl", "x", pattern(100, 5));
            }), 77);
  ASSERT_TRUE(fs::exists(lib + "-journal") && slurp(lib) != bytesBefore);  // written in place, not yet rolled back
  namespace plat = zbshr::plat;  // another reader holds the file, sharing it with readers only
  plat::HFILE other = plat::CreateFileA(lib.c_str(), plat::GENERIC_READ, plat::FILE_SHARE_READ, plat::OPEN_EXISTING,
                                        plat::FILE_ATTRIBUTE_NORMAL);
  ASSERT_NE(other, plat::INVALID_HANDLE);
  EXPECT_TRUE(open(lib, 1) == nullptr && fs::exists(lib + "-journal"));
  plat::CloseHandle(other);
  EXPECT_TRUE(state(lib) == before && !fs::exists(lib + "-journal"));
}

// Where no journal can be made (its name leads into a missing folder), a change fails, changes nothing and says why.
TEST_F(Crash, AChangeWithoutAJournalFailsAndSaysWhy) {
  std::string lib = create("ro.zbl");
  ASSERT_EQ(putIn("ro.zbl", "x", pattern(2000, 1)), 0);
  LibState before = state(lib);
  fs::create_symlink(path("no-such-folder") + "/j", lib + "-journal");
  LMI_HANDLE h = open(lib, 2);
  EXPECT_EQ(put(h, "x", pattern(10, 2)), LMI_E_IO);
  char why[512];
  EXPECT_TRUE(zbshr_lib_last_error(why, sizeof why) == LMI_E_IO && std::string(why).find("rollback journal") != std::string::npos);
  EXPECT_EQ(readEntry(h, "x"), pattern(2000, 1));
  LMI_CloseLibrary(h);
  fs::remove(lib + "-journal");
  EXPECT_EQ(state(lib), before);
}

// An executable's trailer is off the file while open for writing; after a killed writer the next open puts it back.
TEST_F(Crash, AnExecutableKilledWhileOpenForWritingGetsItsTrailerBack) {
  std::string p = path("app.exe");
  spit(p, exeWith(slurp(create("inner.zbl"))));
  ASSERT_EQ(inChild([&] {
              LMI_HANDLE h = open(p, 2);
              _exit(h && put(h, "w_main", pattern(900, 3)) == 0 ? 77 : 1);  // no close
            }), 77);
  Bytes left = slurp(p), keeper = slurp(p + "-trailer");
  ASSERT_NE(str(left, left.size() - 512, 4), "TRL*");
  for (int mode : {1, 2}) {
    spit(p, left);
    spit(p + "-trailer", keeper);
    EXPECT_EQ(with(p, [&](LMI_HANDLE h) { return readEntry(h, "w_main") == pattern(900, 3); }, mode), 1) << mode;
    Bytes now = slurp(p);
    EXPECT_TRUE(now.size() == left.size() + 512 && str(now, now.size() - 512, 4) == "TRL*") << mode;
    EXPECT_TRUE(le32(now, now.size() - 508) == 1536u && !fs::exists(p + "-trailer")) << mode;
    EXPECT_EQ(zbshr_lib_verify(p.c_str(), nullptr, nullptr), 0);
  }
}

// A deterministic random operation on library f: step i depends only on the seed and i.
void randomStep(Crash& t, const std::string& f, uint32_t seed, int i) {
  std::mt19937 g(seed * 7919u + uint32_t(i));
  const int kind = int(g() % 5);
  const std::string name = "n" + std::to_string(g() % 10), other = "n" + std::to_string(g() % 10);
  const size_t size = g() % 3 == 0 ? g() % 40000 : g() % 1200;
  const std::string data = pattern(size, g()), comment = g() % 2 ? "c" + std::to_string(g() % 1000) : "m";
  const char* c = comment == "m" && kind != 4 ? nullptr : comment.c_str();
  if (kind == 3) {
    LMI_MoveEntry(t.heap, S(name), S(other), S(t.path(f)), nullptr);
  } else {
    t.on(f, [&](LMI_HANDLE h) {
      return kind == 2 ? LMI_DeleteEntry(h, S(name)) : kind == 4 ? LMI_ModifyEntry(h, S(name), c) : t.put(h, name, data, c);
    });
  }
}

// A child doing random operations is killed at a random moment; the library must hold the state after its last finished
// operation or the next one (as replayed on another library). ZBSHR_CRASH_ROUNDS makes a longer soak.
TEST_F(Crash, RandomKillsLeaveAStateTheOperationsPassedThrough) {
  const char* env = std::getenv("ZBSHR_CRASH_ROUNDS");
  for (int round = 0, rounds = env ? std::atoi(env) : 12; round < rounds; ++round) {
    restore({});
    std::string lib = create("r.zbl"), ref = create("ref.zbl");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const uint32_t seed = 1000u + uint32_t(round);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    for (int i = 0; pid == 0; ++i) {
      randomStep(*this, "r.zbl", seed, i);
      if (write(fds[1], "", 1) != 1) _exit(2);
    }
    close(fds[1]);
    usleep(useconds_t(2000 + (uint32_t(round) * 7919u) % 40000u));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    int finished = 0;
    for (char b; read(fds[0], &b, 1) == 1;) ++finished;
    close(fds[0]);
    EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0) << "round " << round << " after " << finished;
    for (int i = 0; i < finished; ++i) randomStep(*this, "ref.zbl", seed, i);
    LibState now = state(lib), done = state(ref);
    randomStep(*this, "ref.zbl", seed, finished);
    EXPECT_TRUE(now == done || now == state(ref)) << "round " << round << " after " << finished << " operations";
  }
}

}  // namespace
}  // namespace lmtest
#endif
