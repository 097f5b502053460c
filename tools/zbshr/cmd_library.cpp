// `zbshr lib`: create, inspect, change and rescue library files; and the
// library step of `zbshr demo`.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "cli.h"
#include "library/lm.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"

namespace {

const char* kCmd = "lib";

const char* kHelp =
    "usage: zbshr lib [--no-sync] ACTION LIBRARY [ARGS]\n"
    "\n"
    "Works on library files (.zbl source libraries, .zbd compiled libraries, and\n"
    "executables that carry a library). Entry names are case-insensitive and\n"
    "stored in lower case.\n"
    "\n"
    "actions:\n"
    "  create LIB [--comment TEXT]       create an empty library (.zbl added if no extension)\n"
    "  info LIB                          header, layout, counts and sizes\n"
    "  ls LIB [PATTERN] [-l]             list entries in directory order; PATTERN is a\n"
    "                                    regular expression (default: every entry);\n"
    "                                    -l adds size, time, comment and check-out status\n"
    "  cat LIB ENTRY                     write the entry's data to standard output\n"
    "  put LIB ENTRY [FILE|-] [--comment TEXT]\n"
    "                                    store a file (or standard input) as the entry\n"
    "  rm LIB ENTRY...                   delete entries\n"
    "  mv LIB ENTRY NEWNAME              rename an entry inside the library\n"
    "  mv LIB ENTRY --to LIB2 [NEWNAME]  move an entry to another library\n"
    "  cp LIB ENTRY NEWNAME              copy an entry inside the library\n"
    "  cp LIB ENTRY --to LIB2 [NEWNAME]  copy an entry to another library\n"
    "  comment LIB ENTRY TEXT            replace an entry's comment\n"
    "  checkout LIB ENTRY WORKLIB USER   copy the entry into WORKLIB and record the check-out\n"
    "  checkin WORKLIB ENTRY [--keep]    copy the working entry back to the library it came\n"
    "                                    from, clear the records, remove the working copy\n"
    "  register LIB ENTRY                mark an entry as under control\n"
    "  unregister LIB ENTRY              remove the entry's first check-out record\n"
    "  checkouts LIB                     list check-out records\n"
    "  verify LIB                        check the whole file; exit 1 with a report if damaged\n"
    "\n"
    "--no-sync turns write-through off (faster, but a crash may lose recent changes);\n"
    "the environment variable ZBSHR_LIB_WRITE_THROUGH=0 does the same.\n";

std::string errText(int32_t rc) {
  switch (rc) {
    case LMI_E_CREATE: return "the library could not be written";
    case LMI_E_EXISTS: return "the library already exists";
    case LMI_E_IO: return "a file could not be opened, read or written";
    case LMI_E_NULL_BUFFER: return "no data buffer";
    case LMI_E_ZERO_LENGTH: return "zero length";
    case LMI_E_NULL_HANDLE: return "no library";
    case LMI_E_NULL_INFO: return "missing information";
    case LMI_E_PATTERN: return "the pattern does not compile (one-character patterns do not fit)";
    case LMI_E_MODE: return "bad open mode";
    case LMI_E_ARGUMENT: return "bad name, path or extension";
    case LMI_E_NO_SPACE: return "the free-space bitmaps do not cover the file";
    case LMI_E_NOT_FOUND: return "no such entry";
    case LMI_E_NOT_OPEN: return "no entry open";
    case LMI_E_NOT_READABLE: return "not open for reading";
    case LMI_E_READ_ONLY: return "not open for writing";
    case LMI_E_BUSY: return "an entry is in use";
    case LMI_E_DISK_FULL: return "the disk is full";
    case LMI_E_DAMAGED: return "the library is damaged";
    case LMI_E_NULL_HEAP: return "no heap";
    case LMI_E_CHECKED_OUT: return "the entry is checked out";
    case LMI_E_REGISTERED: return "the entry is registered";
    default: return "error " + std::to_string(rc);
  }
}

int libFail(const std::string& what, int32_t rc) {
  return zcli::fail(kCmd, what + ": " + errText(rc) + " (" + std::to_string(rc) + ")");
}

struct Heap {
  ZBSTG_HEAP h = zbstg_begin(0);
  ~Heap() { zbstg_end(h); }
};

// A writable copy of a string for the functions that fold names in place.
struct Buf {
  std::vector<char> v;
  explicit Buf(const std::string& s) : v(s.begin(), s.end()) { v.resize(s.size() + 1024, 0); }
  operator char*() { return v.data(); }
};

struct Lib {
  LMI_HANDLE h = nullptr;
  Lib(ZBSTG_HEAP heap, const std::string& path, int mode) {
    Buf p(path);
    h = LMI_OpenLibrary(heap, p, mode, 64000);
  }
  ~Lib() {
    if (h) LMI_CloseLibrary(h);
  }
  int32_t close() {
    int32_t rc = h ? LMI_CloseLibrary(h) : 0;
    h = nullptr;
    return rc;
  }
};

std::string timeText(int32_t t) {
  std::time_t tt = std::time_t(uint32_t(t));
  char buf[32];
  std::tm tmv{};
#if defined(_WIN32)
  if (localtime_s(&tmv, &tt) != 0) return "?";
#else
  if (!localtime_r(&tt, &tmv)) return "?";
#endif
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
  return buf;
}

void progress(const char* what, uint64_t done, uint64_t total) {
  if (!zcli::stderr_is_terminal()) return;
  if (total)
    std::fprintf(stderr, "\r%s %llu / %llu bytes", what, (unsigned long long)done,
                 (unsigned long long)total);
  else
    std::fprintf(stderr, "\r%s %llu bytes", what, (unsigned long long)done);
}
void progressDone() {
  if (zcli::stderr_is_terminal()) std::fprintf(stderr, "\r\033[K");
}

// ---------------------------------------------------------------- actions

int actCreate(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  std::string comment;
  std::vector<std::string> pos;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == "--comment" && i + 1 < a.size())
      comment = a[++i];
    else
      pos.push_back(a[i]);
  }
  if (pos.size() != 1) return zcli::usage_error(kCmd, "create LIB [--comment TEXT]");
  Buf p(pos[0]);
  int32_t rc = LMI_CreateLibrary(heap, p, comment.c_str());
  if (rc) return libFail("create " + pos[0], rc);
  return zcli::kOk;
}

struct LsState {
  bool longForm;
  int count = 0;
  int64_t bytes = 0;
};
int32_t ZBSHR_CALL lsShort(LMI_ENTRYINFO* i, void* ud) {
  auto* s = static_cast<LsState*>(ud);
  std::printf("%s\n", i->name);
  s->count++;
  s->bytes += i->size;
  return 0;
}
int32_t ZBSHR_CALL lsLong(LMI_ENTRYINFOEX* i, void* ud) {
  auto* s = static_cast<LsState*>(ud);
  std::printf("%10d  %s  %c  %-32s  %s\n", i->size, timeText(i->time).c_str(),
              i->status == 'x' ? '-' : i->status, i->name, i->comment);
  s->count++;
  s->bytes += i->size;
  return 0;
}

int actLs(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  bool longForm = false;
  std::vector<std::string> pos;
  for (auto& s : a) (s == "-l" ? (void)(longForm = true) : pos.push_back(s));
  if (pos.empty() || pos.size() > 2) return zcli::usage_error(kCmd, "ls LIB [PATTERN] [-l]");
  Lib lib(heap, pos[0], 1);
  if (!lib.h) return libFail("open " + pos[0], LMI_E_IO);
  Buf pat(pos.size() == 2 ? pos[1] : ".*");
  LsState st{longForm};
  int32_t rc = longForm ? LMI_ListEntriesExtended(lib.h, pat, lsLong, &st)
                        : LMI_ListEntries(lib.h, pat, lsShort, &st);
  if (rc) return libFail("list", rc);
  if (longForm) std::printf("%d entries, %lld bytes\n", st.count, (long long)st.bytes);
  return zcli::kOk;
}

int actCat(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 2) return zcli::usage_error(kCmd, "cat LIB ENTRY");
  Lib lib(heap, a[0], 1);
  if (!lib.h) return libFail("open " + a[0], LMI_E_IO);
  Buf n(a[1]);
  LMI_ENTRYINFO info;
  int32_t rc = LMI_EntryInformation(lib.h, n, &info);
  if (rc == 0) rc = LMI_OpenEntry(lib.h, n, 1, nullptr);
  if (rc) return libFail(a[1], rc);
  std::vector<char> buf(65536);
  uint64_t done = 0;
  for (;;) {
    int32_t got = LMI_ReadEntry(lib.h, buf.data(), int32_t(buf.size()));
    if (got < 0) {
      progressDone();
      return libFail("read " + a[1], got);
    }
    if (got > 0 && std::fwrite(buf.data(), 1, size_t(got), stdout) != size_t(got))
      return zcli::fail(kCmd, "cannot write standard output");
    done += uint64_t(got);
    progress("reading", done, uint64_t(info.size));
    if (got < int32_t(buf.size())) break;
  }
  progressDone();
  LMI_CloseEntry(lib.h);
  return zcli::kOk;
}

int actPut(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  std::string comment;
  bool haveComment = false;
  std::vector<std::string> pos;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == "--comment" && i + 1 < a.size()) {
      comment = a[++i];
      haveComment = true;
    } else {
      pos.push_back(a[i]);
    }
  }
  if (pos.size() < 2 || pos.size() > 3)
    return zcli::usage_error(kCmd, "put LIB ENTRY [FILE|-] [--comment TEXT]");
  std::istream* in = &std::cin;
  std::ifstream f;
  if (pos.size() == 3 && pos[2] != "-") {
    f.open(pos[2], std::ios::binary);
    if (!f) return zcli::fail(kCmd, "cannot open " + pos[2]);
    in = &f;
  }
  Lib lib(heap, pos[0], 2);
  if (!lib.h) return libFail("open " + pos[0], LMI_E_IO);
  Buf n(pos[1]);
  int32_t rc = LMI_OpenEntry(lib.h, n, 3, haveComment ? comment.c_str() : nullptr);
  if (rc) return libFail(pos[1], rc);
  std::vector<char> buf(65536);
  uint64_t done = 0;
  while (*in) {
    in->read(buf.data(), std::streamsize(buf.size()));
    std::streamsize got = in->gcount();
    if (got <= 0) break;
    rc = LMI_WriteEntry(lib.h, buf.data(), int32_t(got));
    if (rc < 0) {
      LMI_CloseEntry(lib.h);
      progressDone();
      return libFail("write " + pos[1], rc);
    }
    done += uint64_t(got);
    progress("writing", done, 0);
  }
  progressDone();
  rc = LMI_CloseEntry(lib.h);
  if (rc == 0) rc = lib.close();
  if (rc) return libFail("close " + pos[1], rc);
  return zcli::kOk;
}

int actRm(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() < 2) return zcli::usage_error(kCmd, "rm LIB ENTRY...");
  Lib lib(heap, a[0], 2);
  if (!lib.h) return libFail("open " + a[0], LMI_E_IO);
  int result = zcli::kOk;
  for (size_t i = 1; i < a.size(); ++i) {
    Buf n(a[i]);
    int32_t rc = LMI_DeleteEntry(lib.h, n);
    if (rc) result = libFail("delete " + a[i], rc);
  }
  int32_t rc = lib.close();
  if (rc) return libFail("close", rc);
  return result;
}

int actCopyMove(ZBSTG_HEAP heap, std::vector<std::string>& a, bool move) {
  std::string to;
  std::vector<std::string> pos;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == "--to" && i + 1 < a.size())
      to = a[++i];
    else
      pos.push_back(a[i]);
  }
  const char* use = move ? "mv LIB ENTRY NEWNAME | mv LIB ENTRY --to LIB2 [NEWNAME]"
                         : "cp LIB ENTRY NEWNAME | cp LIB ENTRY --to LIB2 [NEWNAME]";
  if (pos.size() < 2 || pos.size() > 3 || (to.empty() && pos.size() != 3))
    return zcli::usage_error(kCmd, use);
  Buf n(pos[1]), src(pos[0]), dst(to);
  Buf nn(pos.size() == 3 ? pos[2] : "");
  char* newName = pos.size() == 3 ? static_cast<char*>(nn) : nullptr;
  char* dest = to.empty() ? nullptr : static_cast<char*>(dst);
  int32_t rc = move ? LMI_MoveEntry(heap, n, newName, src, dest)
                    : LMI_CopyEntry(heap, n, newName, src, dest);
  if (rc) return libFail((move ? "move " : "copy ") + pos[1], rc);
  return zcli::kOk;
}

int actComment(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 3) return zcli::usage_error(kCmd, "comment LIB ENTRY TEXT");
  Lib lib(heap, a[0], 2);
  if (!lib.h) return libFail("open " + a[0], LMI_E_IO);
  Buf n(a[1]);
  int32_t rc = LMI_ModifyEntry(lib.h, n, a[2].c_str());
  if (rc == 0) rc = lib.close();
  if (rc) return libFail("comment " + a[1], rc);
  return zcli::kOk;
}

int actInfo(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 1) return zcli::usage_error(kCmd, "info LIB");
  Lib lib(heap, a[0], 1);
  if (!lib.h) return libFail("open " + a[0], LMI_E_IO);
  auto* h = zbshr::lm::H(lib.h);
  LMI_LIBRARYINFO li;
  LMI_LibraryInformation(lib.h, &li);
  auto rep = zbshr::lm::verify(h);
  std::printf("path:            %s\n", h->path.c_str());
  std::printf("format version:  %.4s (%s layout, %u-byte directory nodes)\n",
              reinterpret_cast<const char*>(h->fixed + 18), h->nodeSize == 3072 ? "large" : "old",
              h->nodeSize);
  if (h->base || h->trailer)
    std::printf("library base:    %u%s\n", h->base, h->trailer ? " (from the trailer)" : "");
  std::printf("created:         %s\n", timeText(li.creationTime).c_str());
  std::printf("comment:         %s\n", li.comment);
  std::printf("file size:       %llu bytes, %u blocks, %u free\n", (unsigned long long)h->fsize,
              rep.blocks, rep.freeBlocks);
  std::printf("entries:         %u in %u directory nodes, %u data blocks\n", rep.entries,
              rep.nodes, rep.dataBlocks);
  std::printf("bitmap blocks:   %u\n", rep.maps);
  std::printf("check-out list:  %d bytes\n", li.checkOutLength);
  if (!rep.ok()) std::printf("state:           DAMAGED (run 'zbshr lib verify')\n");
  return zcli::kOk;
}

int actCheckout(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 4) return zcli::usage_error(kCmd, "checkout LIB ENTRY WORKLIB USER");
  {
    Lib lib(heap, a[0], 1);
    if (!lib.h) return libFail("open " + a[0], LMI_E_IO);
    Buf n(a[1]);
    char st;
    int32_t rc = LMI_IsEntryCheckedOut(lib.h, n, nullptr, &st, nullptr);
    if (rc == LMI_E_CHECKED_OUT) return libFail(a[1], rc);
  }
  Buf n(a[1]), src(a[0]), work(a[2]);
  int32_t rc = LMI_CopyEntry(heap, n, nullptr, src, work);
  if (rc) return libFail("copy " + a[1], rc);
  Buf n2(a[1]), src2(a[0]), work2(a[2]), user(a[3]);
  rc = LMI_CheckOutEntry(heap, n2, src2, work2, user);
  if (rc) return libFail("check out " + a[1], rc);
  return zcli::kOk;
}

int actCheckin(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  bool keep = false;
  std::vector<std::string> pos;
  for (auto& s : a) (s == "--keep" ? (void)(keep = true) : pos.push_back(s));
  if (pos.size() != 2) return zcli::usage_error(kCmd, "checkin WORKLIB ENTRY [--keep]");
  std::string source;
  {
    Lib lib(heap, pos[0], 1);
    if (!lib.h) return libFail("open " + pos[0], LMI_E_IO);
    Buf n(pos[1]);
    char st = 0;
    std::vector<char> other(4096), user(4096);
    int32_t rc = LMI_IsEntryCheckedOut(lib.h, n, user.data(), &st, other.data());
    if (rc != LMI_E_CHECKED_OUT || st != 's')
      return zcli::fail(kCmd, pos[1] + " is not checked out into " + pos[0]);
    source = other.data();
  }
  Buf n(pos[1]), work(pos[0]), src(source);
  int32_t rc = LMI_CopyEntry(heap, n, nullptr, work, src);
  if (rc) return libFail("copy back " + pos[1], rc);
  Buf n2(pos[1]), work2(pos[0]);
  std::vector<char> srcOut(4096);
  rc = LMI_CheckInEntry(heap, n2, work2, srcOut.data());
  if (rc) return libFail("check in " + pos[1], rc);
  if (!keep) {
    Lib lib(heap, pos[0], 2);
    if (!lib.h) return libFail("open " + pos[0], LMI_E_IO);
    Buf n3(pos[1]);
    rc = LMI_DeleteEntry(lib.h, n3);
    if (rc) return libFail("remove working copy", rc);
  }
  return zcli::kOk;
}

int actRegister(ZBSTG_HEAP heap, std::vector<std::string>& a, bool reg) {
  if (a.size() != 2) return zcli::usage_error(kCmd, reg ? "register LIB ENTRY" : "unregister LIB ENTRY");
  Buf p(a[0]), n(a[1]);
  int32_t rc = reg ? LMI_CheckRegisterEntry(heap, p, n) : LMI_CheckClearRegEntry(heap, p, n);
  if (rc) return libFail(a[1], rc);
  return zcli::kOk;
}

int32_t ZBSHR_CALL coRecord(LMI_CHECKOUTINFO* i, void*) {
  const char* what = i->status == 'd'   ? "checked out to"
                     : i->status == 's' ? "working copy of"
                     : i->status == 'r' ? "registered"
                                        : "?";
  std::printf("%-32s %c  %-16s %s %s\n", i->entryName, i->status, i->user, what, i->otherLibrary);
  return 0;
}

int actCheckouts(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 1) return zcli::usage_error(kCmd, "checkouts LIB");
  Buf p(a[0]);
  int32_t rc = LMI_ListCheckOutEntries(heap, p, coRecord, nullptr);
  if (rc) return libFail("check-out list", rc);
  return zcli::kOk;
}

int actVerify(ZBSTG_HEAP heap, std::vector<std::string>& a) {
  if (a.size() != 1) return zcli::usage_error(kCmd, "verify LIB");
  Lib lib(heap, a[0], 1);
  if (!lib.h) return zcli::fail(kCmd, a[0] + ": not a library, or it cannot be opened");
  if (zcli::stderr_is_terminal()) std::fprintf(stderr, "checking %s ...", a[0].c_str());
  auto rep = zbshr::lm::verify(zbshr::lm::H(lib.h));
  progressDone();
  std::printf("%s: %u entries, %u directory nodes, %u data blocks, %u bitmap blocks, %u of %u "
              "blocks free\n",
              a[0].c_str(), rep.entries, rep.nodes, rep.dataBlocks, rep.maps, rep.freeBlocks,
              rep.blocks);
  if (rep.ok()) {
    std::printf("no problems found\n");
    return zcli::kOk;
  }
  std::printf("%zu problem(s):\n", rep.problems.size());
  for (auto& p : rep.problems) std::printf("  %s\n", p.c_str());
  return zcli::kFailed;
}

int cmdLib(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "--no-sync") {
    zbshr_lib_write_through(0);
    args.erase(args.begin());
  }
  if (args.empty()) return zcli::usage_error(kCmd, "missing action (see 'zbshr lib --help')");
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::printf("%s", kHelp);
    return zcli::kOk;
  }
  std::string act = args[0];
  args.erase(args.begin());
  for (auto& s : args)
    if (s == "--help" || s == "-h") {
      std::printf("%s", kHelp);
      return zcli::kOk;
    }
  Heap heap;
  if (act == "create") return actCreate(heap.h, args);
  if (act == "ls") return actLs(heap.h, args);
  if (act == "cat") return actCat(heap.h, args);
  if (act == "put") return actPut(heap.h, args);
  if (act == "rm") return actRm(heap.h, args);
  if (act == "mv") return actCopyMove(heap.h, args, true);
  if (act == "cp") return actCopyMove(heap.h, args, false);
  if (act == "comment") return actComment(heap.h, args);
  if (act == "info") return actInfo(heap.h, args);
  if (act == "checkout") return actCheckout(heap.h, args);
  if (act == "checkin") return actCheckin(heap.h, args);
  if (act == "register") return actRegister(heap.h, args, true);
  if (act == "unregister") return actRegister(heap.h, args, false);
  if (act == "checkouts") return actCheckouts(heap.h, args);
  if (act == "verify") return actVerify(heap.h, args);
  return zcli::usage_error(kCmd, "unknown action '" + act + "' (see 'zbshr lib --help')");
}

ZBSHR_SUBCOMMAND(lib, "lib", "create, list, read, write and check library files", cmdLib);

// ---------------------------------------------------------------- demo

int32_t ZBSHR_CALL demoList(LMI_ENTRYINFOEX* i, void* ud) {
  std::fprintf(static_cast<FILE*>(ud), "  %-14s %6d bytes  status %c  \"%s\"\n", i->name, i->size,
               i->status, i->comment);
  return 0;
}

int demoLibrary(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  Heap heap;
  std::string shared = ctx.workdir + "/shared.zbl", work = ctx.workdir + "/work.zbl";
  std::remove(shared.c_str());
  std::remove(work.c_str());
  Buf sp(shared), wp(work);
  if (LMI_CreateLibrary(heap.h, sp, "demo library") || LMI_CreateLibrary(heap.h, wp, "work"))
    return zcli::kFailed;
  std::fprintf(out, "created %s and %s\n", shared.c_str(), work.c_str());
  {
    Lib lib(heap.h, shared, 2);
    if (!lib.h) return zcli::kFailed;
    struct {
      const char* name;
      const char* comment;
      std::string data;
    } items[] = {{"w_main", "Main window", std::string(1500, 'w')},
                 {"m_menu", "Menu", "menu source"},
                 {"d_orders", "Orders report", std::string(12000, 'd')}};
    for (auto& it : items) {
      Buf n(it.name);
      if (LMI_OpenEntry(lib.h, n, 3, it.comment) ||
          LMI_WriteEntry(lib.h, it.data.data(), int32_t(it.data.size())) != int32_t(it.data.size()) ||
          LMI_CloseEntry(lib.h))
        return zcli::kFailed;
    }
    if (lib.close()) return zcli::kFailed;
  }
  Buf n("w_main"), s1(shared), w1(work), u("demo");
  if (LMI_CopyEntry(heap.h, n, nullptr, s1, w1) || LMI_CheckOutEntry(heap.h, n, s1, w1, u))
    return zcli::kFailed;
  std::fprintf(out, "checked w_main out into work.zbl; shared.zbl now lists:\n");
  {
    Lib lib(heap.h, shared, 1);
    Buf all(".*");
    if (!lib.h || LMI_ListEntriesExtended(lib.h, all, demoList, out)) return zcli::kFailed;
  }
  Buf n2("w_main"), w2(work);
  std::vector<char> src(4096);
  if (LMI_CheckInEntry(heap.h, n2, w2, src.data())) return zcli::kFailed;
  std::fprintf(out, "checked w_main back in (from %s)\n", src.data());
  int rc = zcli::kOk;
  for (const std::string& p : {shared, work}) {
    Lib lib(heap.h, p, 1);
    if (!lib.h) return zcli::kFailed;
    auto rep = zbshr::lm::verify(zbshr::lm::H(lib.h));
    std::fprintf(out, "verify %s: %u entries, %s\n", p.c_str(), rep.entries,
                 rep.ok() ? "no problems" : rep.problems[0].c_str());
    if (!rep.ok()) rc = zcli::kFailed;
  }
  return rc;
}

ZBSHR_DEMO_STEP(library, 60, "library files", demoLibrary);

}  // namespace
