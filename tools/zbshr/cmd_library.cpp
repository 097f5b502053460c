// `zbshr lib`: create, inspect, change, check and rescue library files; and
// the library step of `zbshr demo`. Every action goes through the public
// LMI_* and zbshr_lib_* calls; a failure prints the library's own reason
// (zbshr_lib_last_error) after the action.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "args.h"
#include "cli.h"
#include "fileio.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"

namespace {

const char* kCmd = "lib";
using json = nlohmann::json;

std::string errText(int32_t rc) {
  switch (rc) {
    case LMI_E_CREATE: return "the library could not be written";
    case LMI_E_EXISTS: return "the library already exists";
    case LMI_E_IO: return "a file could not be opened, read or written";
    case LMI_E_ZERO_LENGTH: return "zero length";
    case LMI_E_PATTERN: return "the pattern does not compile";
    case LMI_E_ARGUMENT: return "bad name, path or extension";
    case LMI_E_NO_SPACE: return "the free-space bitmaps do not cover the file";
    case LMI_E_NOT_FOUND: return "no such entry";
    case LMI_E_BUSY: return "an entry is in use";
    case LMI_E_DISK_FULL: return "no room left (disk full, or the 2 GiB limit of the format)";
    case LMI_E_DAMAGED: return "the library is damaged (try 'zbshr lib verify')";
    case LMI_E_CHECKED_OUT: return "the entry is checked out";
    case LMI_E_REGISTERED: return "the entry is registered";
    default: return "error " + std::to_string(rc);
  }
}

// Reports a failed library call: the library's own reason when it gave one
// for this failure, else the code's meaning.
int libFail(const std::string& what, int32_t rc) {
  char why[512] = "";
  int32_t code = zbshr_lib_last_error(why, sizeof why);
  std::string text = code != 0 && why[0] ? std::string(why) : errText(rc);
  return zcli::fail(kCmd, what + ": " + text);
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

int openFail(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec))
    return zcli::fail(kCmd, "open " + path + ": no such library (create it with 'zbshr lib create')");
  if (std::filesystem::is_directory(path, ec)) return zcli::fail(kCmd, "open " + path + ": is a folder, not a library");
  // The library's own reason already names the call and the file.
  char why[512] = "";
  if (zbshr_lib_last_error(why, sizeof why) != 0 && why[0]) return zcli::fail(kCmd, why);
  return libFail("open " + path, LMI_E_IO);
}

// UTC, ISO 8601: the same text on every machine.
std::string timeText(int32_t t) {
  std::time_t tt = std::time_t(uint32_t(t));
  std::tm tmv{};
#if defined(_WIN32)
  if (gmtime_s(&tmv, &tt) != 0) return "?";
#else
  if (!gmtime_r(&tt, &tmv)) return "?";
#endif
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  return buf;
}

void progress(const std::string& what, uint64_t done, uint64_t total) {
  if (!zcli::show_progress()) return;
  if (total)
    std::fprintf(stderr, "\r%s: %llu of %llu bytes (%d%%)", what.c_str(), (unsigned long long)done,
                 (unsigned long long)total, int(done * 100 / total));
  else
    std::fprintf(stderr, "\r%s: %llu bytes", what.c_str(), (unsigned long long)done);
}
void progressDone() {
  if (zcli::show_progress()) std::fprintf(stderr, "\r\033[K");
}
void announce(const std::string& what) {
  if (zcli::show_progress()) std::fprintf(stderr, "%s ...\n", what.c_str());
}

// The options every action shares, filled by CLI11.
struct Args {
  std::string lib, entry, name, file, pattern = ".*", comment, to, user, text, fresh;
  std::vector<std::string> entries;
  bool haveComment = false, haveName = false, longForm = false, keep = false, asJson = false;
};

int needName(const std::string& n) {
  if (n.empty()) return zcli::usage_error(kCmd, "entry names cannot be empty");
  return -1;
}

// ---------------------------------------------------------------- actions

int actCreate(ZBSTG_HEAP heap, Args& a) {
  Buf p(a.lib);
  int32_t rc = LMI_CreateLibrary(heap, p, a.comment.c_str());
  if (rc) return libFail("create " + a.lib, rc);
  return zcli::kOk;
}

struct LsState {
  Args* a;
  int count = 0;
  int64_t bytes = 0;
  json rows = json::array();
};
int32_t ZBSHR_CALL lsEntry(LMI_ENTRYINFOEX* i, void* ud) {
  auto* s = static_cast<LsState*>(ud);
  const char st = i->status == 'x' ? '-' : i->status;
  if (s->a->asJson) {
    s->rows.push_back({{"name", i->name}, {"size", i->size}, {"time", timeText(i->time)},
                       {"status", std::string(1, st)}, {"comment", i->comment}});
  } else if (s->a->longForm) {
    std::printf("%10d  %s  %c  %-32s  %s\n", i->size, timeText(i->time).c_str(), st, i->name,
                i->comment);
  } else {
    std::printf("%s\n", i->name);
  }
  s->count++;
  s->bytes += i->size;
  return zcli::interrupted() ? 1 : 0;
}

int actLs(ZBSTG_HEAP heap, Args& a) {
  Lib lib(heap, a.lib, 1);
  if (!lib.h) return openFail(a.lib);
  Buf pat(a.pattern);
  LsState st{&a};
  int32_t rc = LMI_ListEntriesExtended(lib.h, pat, lsEntry, &st);
  if (rc == LMI_E_PATTERN) return zcli::usage_error(kCmd, "the pattern '" + a.pattern + "' does not compile");
  if (rc) return libFail("list " + a.lib, rc);
  if (a.asJson)
    std::printf("%s\n", json{{"library", a.lib}, {"entries", st.rows}, {"bytes", st.bytes}}.dump().c_str());
  else if (a.longForm)
    std::printf("%d entries, %lld bytes\n", st.count, (long long)st.bytes);
  return zcli::kOk;
}

int actCat(ZBSTG_HEAP heap, Args& a) {
  Lib lib(heap, a.lib, 1);
  if (!lib.h) return openFail(a.lib);
  Buf n(a.entry);
  LMI_ENTRYINFO info;
  int32_t rc = LMI_EntryInformation(lib.h, n, &info);
  if (rc == 0) rc = LMI_OpenEntry(lib.h, n, 1, nullptr);
  if (rc) return libFail(a.entry, rc);
  std::vector<char> buf(65536);
  uint64_t done = 0;
  for (;;) {
    int32_t got = LMI_ReadEntry(lib.h, buf.data(), int32_t(buf.size()));
    if (got < 0) {
      progressDone();
      return libFail("read " + a.entry, got);
    }
    if (got > 0 && std::fwrite(buf.data(), 1, size_t(got), stdout) != size_t(got))
      return zcli::fail(kCmd, "cannot write standard output: " + zcli::os_reason(errno));
    done += uint64_t(got);
    progress("reading " + a.entry, done, uint64_t(info.size));
    if (got < int32_t(buf.size())) break;
    if (zcli::interrupted()) {
      progressDone();
      LMI_CloseEntry(lib.h);
      return zcli::fail(kCmd, "cat " + a.entry + ": interrupted");
    }
  }
  progressDone();
  LMI_CloseEntry(lib.h);
  return zcli::kOk;
}

// The whole input is read before the library is opened: a read error or an
// interruption then leaves the library untouched. Storing it is one
// operation of the library (open, write, close the entry), which a crash
// leaves either undone or done, never half done.
int actPut(ZBSTG_HEAP heap, Args& a) {
  if (int rc = needName(a.entry); rc >= 0) return rc;
  std::string error;
  FILE* in = zcli::open_input(a.file, false, error);
  if (!in) return zcli::fail(kCmd, error);
  const std::string source = a.file == "-" ? std::string("standard input") : a.file;
  uint64_t total = 0;
  if (a.file != "-") {
    std::error_code ec;
    total = std::filesystem::file_size(a.file, ec);
  }
  std::vector<char> data;
  std::vector<char> buf(65536);
  const std::string reading = "reading " + source;
  for (;;) {
    size_t got = std::fread(buf.data(), 1, buf.size(), in);
    data.insert(data.end(), buf.data(), buf.data() + got);
    progress(reading, data.size(), total);
    if (zcli::interrupted() || data.size() > size_t(INT32_MAX) || (got < buf.size() && std::ferror(in))) {
      const int err = errno;
      const bool broken = std::ferror(in) != 0, interrupted = zcli::interrupted();
      progressDone();
      zcli::close_input(in);
      if (interrupted) return zcli::fail(kCmd, "put " + a.entry + ": interrupted, nothing stored");
      if (broken) return zcli::fail(kCmd, "cannot read " + source + ": " + zcli::os_reason(err) + "; nothing stored");
      return zcli::fail(kCmd, "put " + a.entry + ": " + source + " is larger than an entry can hold (2 GiB); nothing stored");
    }
    if (got < buf.size()) break;
  }
  progressDone();
  zcli::close_input(in);

  Lib lib(heap, a.lib, 2);
  if (!lib.h) return openFail(a.lib);
  // Keep the old entry's comment unless a new one was given.
  LMI_ENTRYINFOEX old{};
  bool keep = false;
  if (!a.haveComment) {
    Buf n(a.entry);
    keep = LMI_EntryInfoExtended(lib.h, n, &old) == 0;
  }
  Buf n(a.entry);
  int32_t rc = LMI_OpenEntry(lib.h, n, 3, a.haveComment ? a.comment.c_str() : keep ? old.comment : nullptr);
  if (rc) return libFail(a.entry, rc);
  const std::string writing = "writing " + a.entry;
  int result = zcli::kOk;
  for (size_t done = 0; done < data.size();) {
    const int32_t chunk = int32_t(std::min<size_t>(data.size() - done, size_t(1) << 20));
    rc = LMI_WriteEntry(lib.h, data.data() + done, chunk);
    if (rc < 0) {
      result = libFail("write " + a.entry, rc);
      break;
    }
    done += size_t(chunk);
    progress(writing, done, data.size());
  }
  progressDone();
  rc = LMI_CloseEntry(lib.h);
  if (result == zcli::kOk && rc) result = libFail("write " + a.entry, rc);
  rc = lib.close();
  if (result == zcli::kOk && rc) result = libFail("close " + a.lib, rc);
  return result;
}

int actRm(ZBSTG_HEAP heap, Args& a) {
  Lib lib(heap, a.lib, 2);
  if (!lib.h) return openFail(a.lib);
  int result = zcli::kOk;
  for (const auto& e : a.entries) {
    Buf n(e);
    int32_t rc = LMI_DeleteEntry(lib.h, n);
    if (rc) result = libFail("delete " + e, rc);
  }
  int32_t rc = lib.close();
  if (rc) return libFail("close " + a.lib, rc);
  return result;
}

int actCopyMove(ZBSTG_HEAP heap, Args& a, bool move) {
  if (int rc = needName(a.entry); rc >= 0) return rc;
  if (a.haveName)
    if (int rc = needName(a.name); rc >= 0) return rc;
  if (a.to.empty() && a.name.empty())
    return zcli::usage_error(kCmd, std::string(move ? "mv" : "cp") + " needs NEWNAME or --to LIB2");
  {
    Lib lib(heap, a.lib, 1);
    if (!lib.h) return openFail(a.lib);
    Buf n(a.entry);
    LMI_ENTRYINFO info;
    if (LMI_EntryInformation(lib.h, n, &info) == 0)
      announce(std::string(move ? "moving " : "copying ") + a.entry + " (" +
               std::to_string(info.size) + " bytes)");
  }
  Buf n(a.entry), src(a.lib), dst(a.to), nn(a.name);
  char* newName = a.name.empty() ? nullptr : static_cast<char*>(nn);
  char* dest = a.to.empty() ? nullptr : static_cast<char*>(dst);
  int32_t rc = move ? LMI_MoveEntry(heap, n, newName, src, dest) : LMI_CopyEntry(heap, n, newName, src, dest);
  if (rc) return libFail((move ? "move " : "copy ") + a.entry, rc);
  return zcli::kOk;
}

int actComment(ZBSTG_HEAP heap, Args& a) {
  Lib lib(heap, a.lib, 2);
  if (!lib.h) return openFail(a.lib);
  Buf n(a.entry);
  int32_t rc = LMI_ModifyEntry(lib.h, n, a.text.c_str());
  if (rc == 0) rc = lib.close();
  if (rc) return libFail("comment " + a.entry, rc);
  return zcli::kOk;
}

int32_t ZBSHR_CALL countEntry(LMI_ENTRYINFO* i, void* ud) {
  auto* n = static_cast<std::pair<int64_t, int64_t>*>(ud);
  n->first++;
  n->second += i->size;
  return 0;
}
void ZBSHR_CALL countProblem(void* /*ctx*/, int32_t, const char*, const char*) {}

int actInfo(ZBSTG_HEAP heap, Args& a) {
  Lib lib(heap, a.lib, 1);
  if (!lib.h) return openFail(a.lib);
  LMI_LIBRARYINFO li{};
  int32_t rc = LMI_LibraryInformation(lib.h, &li);
  if (rc) return libFail("info " + a.lib, rc);
  std::pair<int64_t, int64_t> counts{0, 0};
  Buf all(".*");
  LMI_ListEntries(lib.h, all, countEntry, &counts);
  const std::string comment = li.comment ? li.comment : "";
  lib.close();
  std::error_code ec;
  const auto size = std::filesystem::file_size(a.lib, ec);
  const int32_t damage = zbshr_lib_verify(a.lib.c_str(), countProblem, nullptr);
  if (a.asJson) {
    json j{{"path", a.lib},          {"created", timeText(li.creationTime)}, {"comment", comment},
           {"file_size", ec ? 0 : size}, {"entries", counts.first},      {"entry_bytes", counts.second},
           {"checkout_bytes", li.checkOutLength}, {"damaged", damage != 0}};
    std::printf("%s\n", j.dump().c_str());
    return zcli::kOk;
  }
  std::printf("path:            %s\n", a.lib.c_str());
  std::printf("created:         %s\n", timeText(li.creationTime).c_str());
  std::printf("comment:         %s\n", comment.c_str());
  std::printf("file size:       %llu bytes\n", (unsigned long long)(ec ? 0 : size));
  std::printf("entries:         %lld, %lld bytes of data\n", (long long)counts.first, (long long)counts.second);
  std::printf("check-out list:  %d bytes\n", li.checkOutLength);
  if (damage != 0) std::printf("state:           DAMAGED (run 'zbshr lib verify')\n");
  return zcli::kOk;
}

int actCheckout(ZBSTG_HEAP heap, Args& a) {
  {
    Lib lib(heap, a.lib, 1);
    if (!lib.h) return openFail(a.lib);
    Buf n(a.entry);
    char st;
    int32_t rc = LMI_IsEntryCheckedOut(lib.h, n, nullptr, &st, nullptr);
    if (rc == LMI_E_CHECKED_OUT) return libFail(a.entry, rc);
    LMI_ENTRYINFO info;
    if (LMI_EntryInformation(lib.h, n, &info) == 0)
      announce("checking out " + a.entry + " (" + std::to_string(info.size) + " bytes) into " + a.to);
  }
  Buf n(a.entry), src(a.lib), work(a.to);
  int32_t rc = LMI_CopyEntry(heap, n, nullptr, src, work);
  if (rc) return libFail("copy " + a.entry, rc);
  Buf n2(a.entry), src2(a.lib), work2(a.to), user(a.user);
  rc = LMI_CheckOutEntry(heap, n2, src2, work2, user);
  if (rc) return libFail("check out " + a.entry, rc);
  return zcli::kOk;
}

int actCheckin(ZBSTG_HEAP heap, Args& a) {
  std::string source;
  {
    Lib lib(heap, a.lib, 1);
    if (!lib.h) return openFail(a.lib);
    Buf n(a.entry);
    char st = 0;
    std::vector<char> other(4096), user(4096);
    int32_t rc = LMI_IsEntryCheckedOut(lib.h, n, user.data(), &st, other.data());
    if (rc != LMI_E_CHECKED_OUT || st != 's')
      return zcli::fail(kCmd, a.entry + " is not checked out into " + a.lib);
    source = other.data();
    LMI_ENTRYINFO info;
    if (LMI_EntryInformation(lib.h, n, &info) == 0)
      announce("checking in " + a.entry + " (" + std::to_string(info.size) + " bytes) to " + source);
  }
  Buf n(a.entry), work(a.lib), src(source);
  int32_t rc = LMI_CopyEntry(heap, n, nullptr, work, src);
  if (rc) return libFail("copy back " + a.entry, rc);
  Buf n2(a.entry), work2(a.lib);
  std::vector<char> srcOut(4096);
  rc = LMI_CheckInEntry(heap, n2, work2, srcOut.data());
  if (rc) return libFail("check in " + a.entry, rc);
  if (!a.keep) {
    Lib lib(heap, a.lib, 2);
    if (!lib.h) return openFail(a.lib);
    Buf n3(a.entry);
    rc = LMI_DeleteEntry(lib.h, n3);
    if (rc) return libFail("remove working copy", rc);
  }
  return zcli::kOk;
}

int actRegister(ZBSTG_HEAP heap, Args& a, bool reg) {
  Buf p(a.lib), n(a.entry);
  int32_t rc = reg ? LMI_CheckRegisterEntry(heap, p, n) : LMI_CheckClearRegEntry(heap, p, n);
  if (rc) return libFail(a.entry, rc);
  return zcli::kOk;
}

struct CoState {
  bool asJson;
  json rows = json::array();
};
int32_t ZBSHR_CALL coRecord(LMI_CHECKOUTINFO* i, void* ud) {
  auto* s = static_cast<CoState*>(ud);
  const char* what = i->status == 'd'   ? "checked out to"
                     : i->status == 's' ? "working copy of"
                     : i->status == 'r' ? "registered"
                                        : "?";
  if (s->asJson)
    s->rows.push_back({{"entry", i->entryName}, {"status", std::string(1, i->status)},
                       {"user", i->user}, {"other_library", i->otherLibrary}});
  else
    std::printf("%-32s %c  %-16s %s %s\n", i->entryName, i->status, i->user, what, i->otherLibrary);
  return 0;
}

int actCheckouts(ZBSTG_HEAP heap, Args& a) {
  Buf p(a.lib);
  CoState st{a.asJson};
  int32_t rc = LMI_ListCheckOutEntries(heap, p, coRecord, &st);
  if (rc) return libFail("check-out list of " + a.lib, rc);
  if (a.asJson) std::printf("%s\n", json{{"library", a.lib}, {"records", st.rows}}.dump().c_str());
  return zcli::kOk;
}

// verify, salvage, repair and compact report through one callback.
struct Report {
  bool asJson;
  json items = json::array();
  int leaks = 0;
};
void ZBSHR_CALL onProblem(void* ctx, int32_t code, const char* entry, const char* text) {
  auto* r = static_cast<Report*>(ctx);
  if (code == ZBSHR_LIB_NOTE_LEAK) r->leaks++;
  const char* kind = code < 0 ? "damage" : code == ZBSHR_LIB_NOTE_LEAK ? "leak" : "info";
  if (r->asJson) {
    r->items.push_back({{"kind", kind}, {"code", code},
                        {"entry", entry ? json(entry) : json(nullptr)}, {"text", text ? text : ""}});
  } else {
    progressDone();
    std::printf("  %s%s%s%s\n", code < 0 ? "" : code == ZBSHR_LIB_NOTE_LEAK ? "leak: " : "",
                entry ? entry : "", entry ? ": " : "", text ? text : "");
  }
}

int actRescue(Args& a, const std::string& act) {
  Report rep{a.asJson};
  if (!a.asJson) std::printf("%s %s:\n", act.c_str(), a.lib.c_str());
  announce(act + " " + a.lib);
  int32_t rc;
  if (act == "verify") rc = zbshr_lib_verify(a.lib.c_str(), onProblem, &rep);
  else if (act == "salvage") rc = zbshr_lib_salvage(a.lib.c_str(), a.fresh.c_str(), onProblem, &rep);
  else if (act == "repair") rc = zbshr_lib_repair(a.lib.c_str(), onProblem, &rep);
  else rc = zbshr_lib_compact(a.lib.c_str(), onProblem, &rep);
  if (rc < 0) {
    std::error_code ec;
    if (!std::filesystem::exists(a.lib, ec)) return zcli::fail(kCmd, a.lib + ": no such library");
    return libFail(act + " " + a.lib, rc);
  }
  const char* countName = act == "verify" ? "problems" : act == "repair" ? "fixed" : act == "salvage" ? "saved" : "kept";
  if (a.asJson) {
    std::printf("%s\n", json{{"library", a.lib}, {"action", act}, {countName, rc}, {"leaks", rep.leaks},
                             {"reports", rep.items}}.dump().c_str());
  } else if (act == "verify") {
    if (rc == 0)
      std::printf("no damage found%s\n", rep.leaks ? "; some blocks leaked (run 'zbshr lib repair')" : "");
    else
      std::printf("%d problem(s)\n", rc);
  } else {
    std::printf("%d %s\n", rc, act == "salvage" ? "entries saved" : act == "repair" ? "problems fixed" : "entries kept");
  }
  return act == "verify" && rc > 0 ? zcli::kFailed : zcli::kOk;
}

// ---------------------------------------------------------------- command line

int cmdLib(int argc, char** argv) {
  CLI::App app{"Works on library files (.zbl source libraries, .zbd compiled libraries, and\n"
               "executables that carry a library). Entry names are case-insensitive and\n"
               "stored in lower case. FILE '-' is standard input.",
               "zbshr lib"};
  app.require_subcommand(1);
  app.footer("--no-sync (or ZBSHR_LIB_WRITE_THROUGH=0) turns write-through off: faster, but a\n"
             "crash may lose recent changes. Exit status: 0 success, 1 failure (or damage\n"
             "found by verify), 2 bad command line.");
  bool noSync = false;
  app.add_flag("--no-sync", noSync, "turn write-through off");
  Args a;
  auto lib = [&](CLI::App* s) { s->add_option("LIB", a.lib, "library file")->required(); };
  auto entry = [&](CLI::App* s) { s->add_option("ENTRY", a.entry, "entry name")->required(); };
  auto json_ = [&](CLI::App* s) { s->add_flag("--json", a.asJson, "one JSON document on standard output"); };
  CLI::App* s;
  s = app.add_subcommand("create", "create an empty library (.zbl added if no extension)");
  lib(s);
  s->add_option("--comment", a.comment, "the library's comment");
  s = app.add_subcommand("info", "creation time, comment, counts and sizes");
  lib(s), json_(s);
  s = app.add_subcommand("ls", "list entries in directory order");
  lib(s), json_(s);
  s->add_option("PATTERN", a.pattern, "regular expression (default: every entry)");
  s->add_flag("-l,--long", a.longForm, "add size, time (UTC), check-out status and comment");
  s = app.add_subcommand("cat", "write an entry's data to standard output");
  lib(s), entry(s);
  s = app.add_subcommand("put", "store a file (or standard input) as the entry");
  lib(s), entry(s);
  s->add_option("FILE", a.file, "file to store ('-' or none: standard input)");
  s->add_option("--comment", a.comment, "the entry's comment")->each([&](const std::string&) { a.haveComment = true; });
  s = app.add_subcommand("rm", "delete entries");
  lib(s);
  s->add_option("ENTRY", a.entries, "entry names")->required();
  for (const char* mv : {"mv", "cp"}) {
    s = app.add_subcommand(mv, std::string(mv[0] == 'm' ? "rename or move" : "copy") +
                                   " an entry, inside the library or --to another");
    lib(s), entry(s);
    s->add_option("NEWNAME", a.name, "new name")->each([&](const std::string&) { a.haveName = true; });
    s->add_option("--to", a.to, "the other library");
  }
  s = app.add_subcommand("comment", "replace an entry's comment");
  lib(s), entry(s);
  s->add_option("TEXT", a.text, "the new comment")->required();
  s = app.add_subcommand("checkout", "copy the entry into WORKLIB and record the check-out");
  lib(s), entry(s);
  s->add_option("WORKLIB", a.to, "working library")->required();
  s->add_option("USER", a.user, "who checks it out")->required();
  s = app.add_subcommand("checkin", "copy a working entry back to its library and clear the records");
  s->add_option("WORKLIB", a.lib, "working library")->required();
  entry(s);
  s->add_flag("--keep", a.keep, "keep the working copy");
  s = app.add_subcommand("register", "mark an entry as under control");
  lib(s), entry(s);
  s = app.add_subcommand("unregister", "remove the entry's first check-out record");
  lib(s), entry(s);
  s = app.add_subcommand("checkouts", "list check-out records");
  lib(s), json_(s);
  s = app.add_subcommand("verify", "check the whole file; exit 1 with a report if damaged");
  lib(s), json_(s);
  s = app.add_subcommand("salvage", "copy every entry that still reads whole into a new library");
  lib(s), json_(s);
  s->add_option("NEWLIB", a.fresh, "the new library (must not exist)")->required();
  s = app.add_subcommand("repair", "rebuild the free-space maps and free leaked blocks, in place");
  lib(s), json_(s);
  s = app.add_subcommand("compact", "rewrite the library without free blocks");
  lib(s), json_(s);
  for (CLI::App* sub : app.get_subcommands({})) sub->add_flag("-q,--quiet")->description("show no progress");
  // The first word that is not an option names the action.
  for (int i = 1; i < argc; ++i) {
    const std::string w = argv[i];
    if (w == "--") break;
    if (!w.empty() && w[0] == '-') continue;
    bool known = false;
    for (CLI::App* sub : app.get_subcommands({})) known = known || sub->get_name() == w;
    if (!known) return zcli::usage_error(kCmd, "unknown action '" + w + "'");
    break;
  }
  if (int rc = zcli::parse_args(app, kCmd, argc, argv); rc >= 0) return rc;
  CLI::App* sub = app.get_subcommands().front();
  zcli::set_quiet(sub->count("-q") > 0);
  const std::string act = sub->get_name();
  if (a.file.empty()) a.file = "-";
  if (noSync) zbshr_lib_write_through(0);
  if (act == "verify" || act == "salvage" || act == "repair" || act == "compact") return actRescue(a, act);
  Heap heap;
  if (act == "create") return actCreate(heap.h, a);
  if (act == "ls") return actLs(heap.h, a);
  if (act == "cat") return actCat(heap.h, a);
  if (act == "put") return actPut(heap.h, a);
  if (act == "rm") return actRm(heap.h, a);
  if (act == "mv" || act == "cp") return actCopyMove(heap.h, a, act == "mv");
  if (act == "comment") return actComment(heap.h, a);
  if (act == "info") return actInfo(heap.h, a);
  if (act == "checkout") return actCheckout(heap.h, a);
  if (act == "checkin") return actCheckin(heap.h, a);
  if (act == "register" || act == "unregister") return actRegister(heap.h, a, act == "register");
  return actCheckouts(heap.h, a);
}

ZBSHR_SUBCOMMAND(lib, "lib", "create, list, read, write, check and rescue library files", cmdLib);

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
    const int32_t problems = zbshr_lib_verify(p.c_str(), nullptr, nullptr);
    std::fprintf(out, "verify %s: %s\n", p.c_str(),
                 problems == 0 ? "no problems" : (std::to_string(problems) + " problem(s)").c_str());
    if (problems != 0) rc = zcli::kFailed;
  }
  return rc;
}

ZBSHR_DEMO_STEP(library, 60, "library files", demoLibrary);

}  // namespace
