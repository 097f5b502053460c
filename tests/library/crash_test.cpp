// Crash consistency of library files. Each operation is run once cleanly to
// count the changes it makes to files (writes, length changes and syncs, of
// the library and of its journal); then, for every one of those changes, a
// child process runs it again and ends right before that change (or after a
// torn write that persisted only up to a 512-byte file boundary), or the
// change fails in this process. Afterwards the libraries must pass verify,
// and their whole contents (every entry's bytes and comment, the check-out
// records, the library comment) must be exactly the state before or the state
// after the operation; a failed operation must leave the state before.
#if defined(_WIN32)
#include <gtest/gtest.h>
TEST(Crash, NeedsPosixProcesses) { GTEST_SKIP() << "the crash tests fork and end child processes (POSIX only)"; }
#else
#include "crash_harness.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lmtest {
namespace {

class Crash : public CrashTest {};

// Under sanitizers (slow) one change in kEvery is tried.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kEvery = 3;
#else
constexpr int kEvery = 1;
#endif
bool sampled(int k) { return k % kEvery == kEvery / 2; }

TEST_F(Crash, EveryChangeOfEveryOperationIsAtomic) {
  Totals t;
  for (bool wt : {true, false}) {
    zbshr_lib_write_through(wt ? 1 : 0);
    for (const Operation& op : operations()) {
      SCOPED_TRACE(op.name + (wt ? " (write-through)" : " (write-through off)"));
      if (!wt && !op.alsoWithoutWriteThrough) continue;
      Files base = prepare(op);
      State before = snapshotAll(op);
      // The clean run gives the state after and the number of changes.
      g_count = 0;
      g_mode = Mode::Count;
      zbshr::lm::io_hook = hook;
      int32_t rc = op.run(*this);
      zbshr::lm::io_hook = nullptr;
      ASSERT_EQ(rc, 0);
      int changes = g_count;
      ASSERT_GT(changes, 0);
      State after = snapshotAll(op);
      ASSERT_EQ(after, op.expect(*this, before));
      for (int k = 1; k <= changes; ++k) {
        if (!sampled(k)) continue;
        for (Mode m : {Mode::Kill, Mode::Torn, Mode::Fail}) {
          restore(base);
          g_count = 0;
          g_at = k;
          g_mode = m;
          g_tornApplied = false;
          int32_t res = 0;
          if (m == Mode::Fail) {
            zbshr::lm::io_hook = hook;
            res = op.run(*this);
            zbshr::lm::io_hook = nullptr;
          } else {
            pid_t pid = fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
              zbshr::lm::io_hook = hook;
              op.run(*this);
              _exit(0);  // the point was never reached
            }
            int status = 0;
            waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFEXITED(status));
            if (WEXITSTATUS(status) == 0) continue;  // not applicable (a torn write within one block)
          }
          ++t.points;
          int damaged = verifyAll(op, k % 2 == 1);  // either library may be opened first
          t.damaged += damaged;
          State now = snapshotAll(op);
          bool asBefore = now == before, asAfter = now == after;
          if (m == Mode::Fail && res != 0) {
            if (!asBefore) ++t.failedNotBefore;
            EXPECT_TRUE(asBefore) << "change " << k << " failed, result " << res;
          } else {
            if (!asBefore && !asAfter) ++t.mixed;
            EXPECT_TRUE(asBefore || asAfter)
                << "change " << k << " mode " << int(m) << ": neither before nor after";
          }
          EXPECT_EQ(damaged, 0) << "change " << k << " mode " << int(m);
          EXPECT_EQ(openDescriptors(), t.descriptors0);
        }
      }
    }
  }
  zbshr_lib_write_through(1);
  std::printf(
      "crash points %d: damaged %d, neither before nor after %d, failed but changed %d\n",
      t.points, t.damaged, t.mixed, t.failedNotBefore);
  EXPECT_GT(t.points, 300 / kEvery);
}

// After a failed write, later calls on the same handle publish none of it,
// and the handle goes on working.
TEST_F(Crash, AFailedOperationLeavesNothingForLaterCallsToPublish) {
  for (int at : {1, 2, 3}) {
    SCOPED_TRACE(at);
    std::string lib = path("f.zbl");
    fs::remove(lib);
    S p(lib);
    ASSERT_EQ(LMI_CreateLibrary(heap, p, nullptr), 0);
    ASSERT_EQ(putIn("f.zbl", "x", pattern(5000, 1), "kept"), 0);
    LMI_HANDLE h = open(lib, 2);
    ASSERT_NE(h, nullptr);
    g_count = 0;
    g_at = at;
    g_mode = Mode::Fail;
    zbshr::lm::io_hook = hook;
    EXPECT_NE(put(h, "x", pattern(3, 2)), 0);
    zbshr::lm::io_hook = nullptr;
    EXPECT_EQ(get(h, "x"), pattern(5000, 1));
    EXPECT_EQ(put(h, "y", pattern(700, 3)), 0);
    EXPECT_EQ(LMI_CloseLibrary(h), 0);
    LibState st = snapshot(lib);
    EXPECT_EQ(st.entries.size(), 2u);
    EXPECT_EQ(st.entries["x"], std::make_pair(pattern(5000, 1), std::string("kept")));
    EXPECT_EQ(st.entries["y"].first, pattern(700, 3));
    EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0);
  }
}

// A journal left by a killed writer is rolled back by the next reader; a
// reader that cannot write the file refuses to open it instead.
TEST_F(Crash, AReaderRollsBackAHotJournalOrRefuses) {
  std::string lib = path("h.zbl");
  S p(lib);
  ASSERT_EQ(LMI_CreateLibrary(heap, p, nullptr), 0);
  ASSERT_EQ(putIn("h.zbl", "x", pattern(9000, 4)), 0);
  LibState before = snapshot(lib);
  std::vector<uint8_t> bytesBefore = slurp(lib);
  // Ends the writer right after its first write to the library (the journal is complete).
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    zbshr::lm::io_hook = [](char kind, bool journal, uint64_t, uint32_t) -> int64_t {
      static bool wrote = false;
      if (kind == 's' && !journal && wrote) _exit(77);
      if (kind == 'w' && !journal) wrote = true;
      return -1;
    };
    putIn("h.zbl", "x", pattern(100, 5));
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(WEXITSTATUS(status), 77);
  ASSERT_TRUE(fs::exists(lib + "-journal"));
  EXPECT_NE(slurp(lib), bytesBefore);  // written in place, not yet rolled back
  {
    // Another reader holds the file, sharing it with readers only.
    namespace plat = zbshr::plat;
    plat::HFILE other = plat::CreateFileA(lib.c_str(), plat::GENERIC_READ, plat::FILE_SHARE_READ,
                                          plat::OPEN_EXISTING, plat::FILE_ATTRIBUTE_NORMAL);
    ASSERT_NE(other, plat::INVALID_HANDLE);
    EXPECT_EQ(open(lib, 1), nullptr);
    EXPECT_TRUE(fs::exists(lib + "-journal"));
    plat::CloseHandle(other);
  }
  EXPECT_EQ(snapshot(lib), before);
  EXPECT_FALSE(fs::exists(lib + "-journal"));
  EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0);
}

// Where no journal can be made beside the library (a read-only folder; here
// the journal's name leads into a folder that does not exist), a change
// fails, changes nothing and says why.
TEST_F(Crash, AChangeWithoutAJournalFailsAndSaysWhy) {
  std::string lib = path("ro.zbl");
  S p(lib);
  ASSERT_EQ(LMI_CreateLibrary(heap, p, nullptr), 0);
  ASSERT_EQ(putIn("ro.zbl", "x", pattern(2000, 1)), 0);
  LibState before = snapshot(lib);
  fs::create_symlink(path("no-such-folder") + "/j", lib + "-journal");
  LMI_HANDLE h = open(lib, 2);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(put(h, "x", pattern(10, 2)), LMI_E_IO);
  char why[512];
  EXPECT_EQ(zbshr_lib_last_error(why, sizeof why), LMI_E_IO);
  EXPECT_NE(std::string(why).find("rollback journal"), std::string::npos) << why;
  EXPECT_EQ(get(h, "x"), pattern(2000, 1));
  LMI_CloseLibrary(h);
  fs::remove(lib + "-journal");
  EXPECT_EQ(snapshot(lib), before);
  EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0);
}

// A library inside an executable has its trailer off the file while open for
// writing; a writer killed then leaves it to the next open to put back.
TEST_F(Crash, AnExecutableKilledWhileOpenForWritingGetsItsTrailerBack) {
  std::vector<uint8_t> exe(1536, 0x90), lib = slurp(create("inner.zbl"));
  uint32_t base = uint32_t(exe.size());
  exe.insert(exe.end(), lib.begin(), lib.end());
  std::vector<uint8_t> tr(512, 0);
  std::memcpy(tr.data(), "TRL*", 4);
  tr[4] = uint8_t(base), tr[5] = uint8_t(base >> 8);
  exe.insert(exe.end(), tr.begin(), tr.end());
  std::string p = path("app.exe");
  spit(p, exe);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    LMI_HANDLE h = open(p, 2);
    if (!h || put(h, "w_main", pattern(900, 3)) != 0) _exit(1);
    _exit(77);  // no close
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(WEXITSTATUS(status), 77);
  std::vector<uint8_t> left = slurp(p);
  ASSERT_NE(std::string(left.end() - 512, left.end() - 508), "TRL*");
  std::vector<uint8_t> keeper = slurp(p + "-trailer");
  for (int mode : {1, 2}) {  // a reader puts it back as well as a writer
    SCOPED_TRACE(mode);
    spit(p, left);
    spit(p + "-trailer", keeper);
    LMI_HANDLE h = open(p, mode);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(get(h, "w_main"), pattern(900, 3));
    EXPECT_EQ(LMI_CloseLibrary(h), 0);
    std::vector<uint8_t> now = slurp(p);
    ASSERT_EQ(now.size(), left.size() + 512);
    EXPECT_EQ(std::string(now.end() - 512, now.end() - 508), "TRL*");
    EXPECT_EQ(le32(now, now.size() - 508), base);
    EXPECT_FALSE(fs::exists(p + "-trailer"));
    EXPECT_EQ(zbshr_lib_verify(p.c_str(), nullptr, nullptr), 0);
  }
}

// A child process does random operations and is killed at a random moment;
// the library must then hold the state after the last operation it finished
// or the one after that.
TEST_F(Crash, RandomKillsLeaveAStateTheOperationsPassedThrough) {
  std::string lib = path("r.zbl");
  // ZBSHR_CRASH_ROUNDS makes a longer soak (bench/library_soak.sh).
  const char* env = std::getenv("ZBSHR_CRASH_ROUNDS");
  const int rounds = env ? std::atoi(env) : 12;
  for (int round = 0; round < rounds; ++round) {
    std::remove(lib.c_str());
    fs::remove(lib + "-journal");
    S p(lib);
    ASSERT_EQ(LMI_CreateLibrary(heap, p, nullptr), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    uint32_t seed = 1000u + uint32_t(round);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      RandomOps ops(seed);
      for (int i = 0;; ++i) {
        ops.apply(heap, lib, i);
        uint8_t done = 1;
        if (write(fds[1], &done, 1) != 1) _exit(2);
      }
    }
    close(fds[1]);
    usleep(useconds_t(2000 + (uint32_t(round) * 7919u) % 40000u));
    kill(pid, SIGKILL);
    int status;
    waitpid(pid, &status, 0);
    int finished = 0;
    uint8_t b;
    while (read(fds[0], &b, 1) == 1) ++finished;
    close(fds[0]);
    EXPECT_EQ(zbshr_lib_verify(lib.c_str(), nullptr, nullptr), 0) << "round " << round;
    LibState now = snapshot(lib);
    RandomOps model(seed);
    LibState atDone = model.stateAfter(finished), atNext = model.stateAfter(finished + 1);
    EXPECT_TRUE(now == atDone || now == atNext)
        << "round " << round << " after " << finished << " operations";
  }
}

}  // namespace
}  // namespace lmtest
#endif
