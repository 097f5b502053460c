// The operations, content model and fault hook of the crash tests.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>

#include "helpers.h"

namespace lmtest {

// ---------------------------------------------------------------- contents

struct LibState {
  bool exists = false;
  bool opens = false;
  std::map<std::string, std::pair<std::string, std::string>> entries;  // data, comment
  std::vector<std::string> checkouts;
  std::string comment;
  bool operator==(const LibState&) const = default;
};
using State = std::map<std::string, LibState>;  // by file name

inline int32_t ZBSHR_CALL collectName(LMI_ENTRYINFO* info, void* ctx) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(info->name);
  return 0;
}
inline int32_t ZBSHR_CALL collectCheckout(LMI_CHECKOUTINFO* info, void* ctx) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(std::string(info->otherLibrary) + "|" +
                                                         info->entryName + "|" + info->user +
                                                         "|" + info->status);
  return 0;
}

// Everything a user can read from a library, through the C interface.
inline LibState snapshotWith(ZBSTG_HEAP heap, const std::string& file) {
  LibState st;
  st.exists = fs::exists(file);
  if (!st.exists) return st;
  S p(file);
  LMI_HANDLE h = LMI_OpenLibrary(heap, p, 1, 0);
  if (!h) return st;
  st.opens = true;
  LMI_LIBRARYINFO li;
  if (LMI_LibraryInformation(h, &li) == 0) st.comment = li.comment;
  std::vector<std::string> names;
  S all(".*");
  if (LMI_ListEntries(h, all, collectName, &names) != 0) st.comment += "<list failed>";
  for (const std::string& n : names) {
    S name(n);
    LMI_ENTRYINFOEX ex{};
    std::string data;
    if (LMI_EntryInfoExtended(h, name, &ex) != 0) {
      data = "<info failed>";
    } else if (LMI_OpenEntry(h, name, 1, nullptr) != 0) {
      data = "<open failed>";
    } else {
      char buf[8192];
      for (;;) {
        int32_t got = LMI_ReadEntry(h, buf, sizeof buf);
        if (got < 0) data += "<read failed>";
        if (got <= 0) break;
        data.append(buf, size_t(got));
      }
      LMI_CloseEntry(h);
    }
    st.entries[n] = {data, ex.comment};
  }
  LMI_CloseLibrary(h);
  if (LMI_ListCheckOutEntries(heap, p, collectCheckout, &st.checkouts) != 0)
    st.checkouts.push_back("<unreadable>");
  return st;
}

// ---------------------------------------------------------------- fault hook

enum class Mode { Count, Kill, Torn, Fail };
constexpr uint64_t kBoundary = 512;  // a torn write persists up to a file offset multiple of this
inline int g_count = 0, g_at = 0;
inline Mode g_mode = Mode::Count;
inline bool g_tornApplied = false;

// Counts the changes made to files; at change g_at ends the process (exit
// status 77 before the change, 78 after a torn write) or fails the change.
inline int64_t hook(char kind, bool, uint64_t off, uint32_t n) {
  if (kind == 'e') {
    if (g_mode == Mode::Torn) _exit(78);
    return -1;
  }
  if (++g_count != g_at || g_mode == Mode::Count) return -1;
  switch (g_mode) {
    case Mode::Kill: _exit(77);
    case Mode::Torn: {
      uint64_t keep = kBoundary - off % kBoundary;
      if (kind != 'w' || keep >= n) _exit(0);  // nothing to tear: not applicable
      return int64_t(keep);
    }
    default: return 0;  // Fail
  }
}

inline int openDescriptors() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n;
}

// ---------------------------------------------------------------- operations

class CrashTest;
using Files = std::map<std::string, std::vector<uint8_t>>;

struct Operation {
  std::string name;
  std::function<void(CrashTest&)> setup;           // builds the libraries
  std::function<int32_t(CrashTest&)> run;          // the operation
  std::function<State(CrashTest&, State)> expect;  // the state after, from the state before
  std::vector<std::string> files{"a.zbl", "b.zbl", "c.zbl"};
  bool alsoWithoutWriteThrough = true;
};

struct Totals {
  int points = 0, damaged = 0, mixed = 0, failedNotBefore = 0;
  int descriptors0 = openDescriptors();
};

const std::vector<Operation>& operations();

class CrashTest : public LibTest {
 public:
  using LibTest::heap;
  using LibTest::path;
  using LibTest::open;
  std::string lib(const std::string& f) const { return path(f); }

  // Closes as a host does: a failed close leaves the handle open, and a
  // second close (here without the fault) must then succeed.
  static int32_t closeTwice(LMI_HANDLE h) {
    int32_t c = LMI_CloseLibrary(h);
    if (c) {
      EXPECT_EQ(LMI_CloseLibrary(h), 0);
    }
    return c;
  }
  int32_t putIn(const std::string& f, const std::string& name, const std::string& data,
                const char* comment = nullptr) {
    LMI_HANDLE h = open(path(f), 2);
    if (!h) return -100;
    int32_t rc = put(h, name, data, comment);
    closeTwice(h);  // its own operation: a failure there leaves the put done
    return rc;
  }
  int32_t removeFrom(const std::string& f, const std::string& name) {
    LMI_HANDLE h = open(path(f), 2);
    if (!h) return -100;
    S n(name);
    int32_t rc = LMI_DeleteEntry(h, n);
    closeTwice(h);
    return rc;
  }
  LibState snapshot(const std::string& file) { return snapshotWith(heap, file); }

  Files prepare(const Operation& op) {
    for (const std::string& f : op.files) {
      fs::remove(path(f));
      fs::remove(path(f) + "-journal");
    }
    int32_t was = zbshr_lib_write_through(0);
    op.setup(*this);
    zbshr_lib_write_through(was);
    Files base;
    for (const std::string& f : op.files)
      if (fs::exists(path(f))) base[f] = slurp(path(f));
    return base;
  }
  void restore(const Files& base) {
    // Super-journals left by a killed change of two libraries.
    for (const auto& e : fs::directory_iterator(fs::path(path("a.zbl")).parent_path()))
      if (e.path().filename().string().find("-mj") != std::string::npos) fs::remove(e.path());
    for (std::string f : {"a.zbl", "b.zbl", "c.zbl"}) {
      fs::remove(path(f) + "-journal");
      fs::remove(path(f) + "-creating");
      auto it = base.find(f);
      if (it == base.end())
        fs::remove(path(f));
      else
        spit(path(f), it->second);
    }
  }
  State snapshotAll(const Operation& op) {
    State s;
    for (const std::string& f : op.files) s[f] = snapshot(path(f));
    return s;
  }
  // Damage problems and leaked blocks over the operation's libraries.
  // `backwards` checks (and so first opens, which resolves its journal) the
  // last library first.
  int verifyAll(const Operation& op, bool backwards = false) {
    int bad = 0;
    std::vector<std::string> files = op.files;
    if (backwards) std::reverse(files.begin(), files.end());
    for (const std::string& f : files) {
      if (!fs::exists(path(f))) continue;
      int leaks = 0;
      int32_t rc = zbshr_lib_verify(
          path(f).c_str(),
          [](void* ctx, int32_t code, const char*, const char* text) {
            if (code == ZBSHR_LIB_NOTE_LEAK) ++*static_cast<int*>(ctx);
            if (code != ZBSHR_LIB_NOTE_INFO) ADD_FAILURE() << text;
          },
          &leaks);
      bad += (rc < 0 ? 1 : rc) + leaks;
    }
    return bad;
  }
};

// ---------------------------------------------------------------- random operations

// A deterministic sequence of operations on one library, and its model.
class RandomOps {
 public:
  explicit RandomOps(uint32_t seed) : seed_(seed) {}
  // Runs operation i on the library (its parameters depend only on seed and i).
  void apply(ZBSTG_HEAP heap, const std::string& lib, int i) {
    Step s = step(i);
    S p(lib), n(s.name), to(s.other);
    switch (s.kind) {
      case 0: case 1: {
        LMI_HANDLE h = LMI_OpenLibrary(heap, p, 2, 0);
        if (!h) return;
        if (LMI_OpenEntry(h, n, 3, s.comment.empty() ? nullptr : s.comment.c_str()) == 0) {
          if (!s.data.empty()) LMI_WriteEntry(h, s.data.data(), int32_t(s.data.size()));
          LMI_CloseEntry(h);
        }
        LMI_CloseLibrary(h);
        break;
      }
      case 2: {
        LMI_HANDLE h = LMI_OpenLibrary(heap, p, 2, 0);
        if (!h) return;
        LMI_DeleteEntry(h, n);
        LMI_CloseLibrary(h);
        break;
      }
      case 3: LMI_MoveEntry(heap, n, to, p, nullptr); break;
      default: {
        LMI_HANDLE h = LMI_OpenLibrary(heap, p, 2, 0);
        if (!h) return;
        LMI_ModifyEntry(h, n, s.comment.c_str());
        LMI_CloseLibrary(h);
      }
    }
  }
  // The contents after the first n operations.
  LibState stateAfter(int n) {
    LibState st;
    st.exists = st.opens = true;
    for (int i = 0; i < n; ++i) {
      Step s = step(i);
      auto it = st.entries.find(s.name);
      switch (s.kind) {
        case 0: case 1: {
          std::string c = !s.comment.empty() ? s.comment : it != st.entries.end() ? it->second.second : "";
          st.entries[s.name] = {s.data, c};
          break;
        }
        case 2: if (it != st.entries.end()) st.entries.erase(it); break;
        case 3:
          if (it != st.entries.end() && s.other != s.name) {
            auto v = it->second;
            st.entries.erase(it);
            st.entries[s.other] = v;
          }
          break;
        default:
          if (it != st.entries.end()) it->second.second = s.comment;
      }
    }
    return st;
  }

 private:
  struct Step {
    int kind;
    std::string name, other, data, comment;
  };
  Step step(int i) const {
    std::mt19937 g(seed_ * 7919u + uint32_t(i));
    Step s;
    s.kind = int(g() % 5);
    s.name = "n" + std::to_string(g() % 10);
    s.other = "n" + std::to_string(g() % 10);
    s.data = pattern(size_t(g() % 3 == 0 ? g() % 40000 : g() % 1200), g());
    s.comment = g() % 2 ? "c" + std::to_string(g() % 1000) : "";
    if (s.kind == 4 && s.comment.empty()) s.comment = "m";
    return s;
  }
  uint32_t seed_;
};

}  // namespace lmtest
