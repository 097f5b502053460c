// LMI_ operations: argument checks and their order, entry states, listing, copy, move and rename, check-out records.
#include <functional>

#include "helpers.h"

using namespace lmtest;

namespace {

class Api : public LibTest {};

// {what, code expected, call}: each call, in the state the rows before it leave, gives the code expected.
using Call = std::tuple<const char*, int32_t, std::function<int32_t()>>;
void expectCodes(const std::vector<Call>& calls) {
  for (const auto& [what, want, call] : calls) EXPECT_EQ(call(), want) << what;
}

// The setting as the process starts, before a test changes it: with ZBSHR_LIB_WRITE_THROUGH unset, changes are synced.
const int32_t kStartWriteThrough = zbshr_lib_write_through(-1);
int g_syncs = 0;

TEST_F(Api, ChangesAreSyncedUnlessTheEnvironmentSaysOtherwise) {
  const char* env = std::getenv("ZBSHR_LIB_WRITE_THROUGH");
  const int32_t was = zbshr_lib_write_through(kStartWriteThrough);
  zbshr::lm::io_hook = [](char kind, bool, uint64_t, uint32_t) -> int64_t { return (g_syncs += kind == 's'), -1; };
  EXPECT_EQ(with(create("s.zbl"), [&](LMI_HANDLE h) { return put(h, "x", "data"); }), 0);
  zbshr::lm::io_hook = nullptr;
  zbshr_lib_write_through(was);
  EXPECT_EQ(g_syncs > 0, !env || std::string(env) != "0") << g_syncs;
}

TEST_F(Api, OpenAndDeleteLibraryRefuseBadArguments) {
  std::string p = create("a.zbl");
  spit(path("junk.zbl"), Bytes(4096, 7));
  auto opens = [&](ZBSTG_HEAP hp, const char* file, int mode, int ra) {
    LMI_HANDLE h = LMI_OpenLibrary(hp, file ? (char*)S(file) : nullptr, mode, ra);
    return h ? LMI_CloseLibrary(h) == 0 : -1;
  };
  expectCodes({
      {"no heap", -1, [&] { return opens(nullptr, p.c_str(), 1, 0); }},
      {"no path", -1, [&] { return opens(heap, nullptr, 1, 0); }},
      {"mode 0", -1, [&] { return opens(heap, p.c_str(), 0, 0); }},
      {"mode 4", -1, [&] { return opens(heap, p.c_str(), 4, 0); }},
      {"read-ahead below 512", -1, [&] { return opens(heap, p.c_str(), 1, 511); }},
      {"missing", -1, [&] { return opens(heap, path("missing.zbl").c_str(), 1, 0); }},
      {"close no handle", LMI_E_NULL_HANDLE, [&] { return LMI_CloseLibrary(nullptr); }},
      {"delete without heap", LMI_E_NULL_HEAP, [&] { return LMI_DeleteLibrary(nullptr, S(p)); }},
      {"delete no path", LMI_E_ARGUMENT, [&] { return LMI_DeleteLibrary(heap, nullptr); }},
      {"checks without a path: wrong codes", 0, [&] {
         int32_t wrong = 0;
         for (const char* q : {(const char*)nullptr, ""})
           wrong += (zbshr_lib_verify(q, nullptr, nullptr) != LMI_E_ARGUMENT) + (zbshr_lib_repair(q, nullptr, nullptr) != LMI_E_ARGUMENT) +
                    (zbshr_lib_compact(q, nullptr, nullptr) != LMI_E_ARGUMENT) +
                    (zbshr_lib_salvage(q, "out.zbl", nullptr, nullptr) != LMI_E_ARGUMENT) +
                    (zbshr_lib_salvage(p.c_str(), q, nullptr, nullptr) != LMI_E_ARGUMENT);
         return wrong;
       }},
      {"delete a file that is no library", LMI_E_IO, [&] { return LMI_DeleteLibrary(heap, S(path("junk.zbl"))); }},
      {"delete", 0, [&] { return LMI_DeleteLibrary(heap, S(p)); }},
      {"deleted", 0, [&] { return int32_t(fs::exists(p)) + 2 * !fs::exists(path("junk.zbl")); }},
      {"read-ahead clamped", 64000,
       [&] { return with(create("b.zbl"), [](LMI_HANDLE h) { return zbshr::lm::library_of(h)->readAhead; }, 1, 100000); }},
  });
}

TEST_F(Api, PathsAreFoldedAndResolvedWithoutRegardToCase) {
  fs::create_directories(path("Project"));
  ASSERT_EQ(LMI_CreateLibrary(heap, S(path("Project/App.zbl")), nullptr), 0);
  EXPECT_TRUE(fs::exists(path("Project/app.zbl")));  // in the existing, differently spelled folder
  S mixed(path("PROJECT/APP.ZBL")), name("Window_Main");
  LMI_HANDLE h = LMI_OpenLibrary(heap, mixed, 2, 0);
  EXPECT_EQ(mixed.get(), path("project/app.zbl"));
  EXPECT_TRUE(LMI_OpenEntry(h, name, 3, nullptr) == 0 && name.get() == "window_main");
  EXPECT_TRUE(LMI_CloseEntry(h) == 0 && LMI_CloseLibrary(h) == 0);
}

TEST_F(Api, EntryStateErrors) {
  std::string p = create("a.zbl");
  LMI_HANDLE h = open(p, 2), r = nullptr;
  char buf[10];
  LMI_ENTRYINFO info;
  LMI_ENTRYINFOEX infoEx{};
  LMI_LIBRARYMOD mod{0, 0, "new"};
  expectCodes({
      {"no handle", LMI_E_NULL_HANDLE, [&] { return LMI_OpenEntry(nullptr, S("x"), 1, nullptr); }},
      {"no name", LMI_E_ARGUMENT, [&] { return LMI_OpenEntry(h, nullptr, 1, nullptr); }},
      {"mode 2", LMI_E_MODE, [&] { return LMI_OpenEntry(h, S("x"), 2, nullptr); }},
      {"missing", LMI_E_NOT_FOUND, [&] { return LMI_OpenEntry(h, S("x"), 1, nullptr); }},
      {"close none", LMI_E_NOT_OPEN, [&] { return LMI_CloseEntry(h); }},
      {"open for writing", 0, [&] { return LMI_OpenEntry(h, S("x"), 3, nullptr); }},
      {"open twice", LMI_E_BUSY, [&] { return LMI_OpenEntry(h, S("x"), 3, nullptr); }},
      {"exists while busy", LMI_E_BUSY, [&] { return LMI_EntryExists(h, S("y")); }},
      {"read while writing", LMI_E_NOT_READABLE, [&] { return LMI_ReadEntry(h, buf, 10); }},
      {"write no buffer", LMI_E_NULL_BUFFER, [&] { return LMI_WriteEntry(h, nullptr, 10); }},
      {"write nothing", LMI_E_ZERO_LENGTH, [&] { return LMI_WriteEntry(h, "abc", 0); }},
      {"write", 3, [&] { return LMI_WriteEntry(h, "abc", 3); }},
      {"info of the entry in hand", 0, [&] { return LMI_EntryInformation(h, S("x"), &info); }},
      {"its size", 3, [&] { return info.size; }},
      {"its (empty) comment", 0, [&] { infoEx.comment[0] = 'z'; return LMI_EntryInfoExtended(h, S("x"), &infoEx) | infoEx.comment[0]; }},
      {"info of another", LMI_E_BUSY, [&] { return LMI_EntryInformation(h, S("y"), &info); }},
      {"info without record", LMI_E_NULL_INFO, [&] { return LMI_EntryInformation(h, S("x"), nullptr); }},
      {"close", 0, [&] { return LMI_CloseEntry(h); }},
      {"open for reading", 0, [&] { return LMI_OpenEntry(h, S("x"), 1, nullptr); }},
      {"write while reading", LMI_E_READ_ONLY, [&] { return LMI_WriteEntry(h, "abc", 3); }},
      {"read", 3, [&] { return LMI_ReadEntry(h, buf, 10); }},
      {"read at the end", 0, [&] { return LMI_ReadEntry(h, buf, 10); }},
      {"close again", 0, [&] { return LMI_CloseEntry(h); }},
      {"exists", 0, [&] { return LMI_EntryExists(h, S("x")); }},
      {"does not exist", LMI_E_NOT_FOUND, [&] { return LMI_EntryExists(h, S("y")); }},
      {"name longer than a node", LMI_E_ARGUMENT, [&] { return LMI_OpenEntry(h, S(std::string(3100, 'h')), 3, nullptr); }},
      // Closing the library closes the entry in hand.
      {"open y", 0, [&] { return LMI_OpenEntry(h, S("y"), 3, "c"); }},
      {"write y", 5, [&] { return LMI_WriteEntry(h, "12345", 5); }},
      {"close the library", 0, [&] { return LMI_CloseLibrary(h); }},
      {"y kept", 1, [&] { return with(p, [&](LMI_HANDLE g) { return readEntry(g, "y") == "12345"; }, 1); }},
      {"read-only open", 1, [&] { return (r = open(p, 1)) != nullptr; }},
      {"write entry in read-only", LMI_E_READ_ONLY, [&] { return LMI_OpenEntry(r, S("x"), 3, nullptr); }},
      {"delete in read-only", LMI_E_READ_ONLY, [&] { return LMI_DeleteEntry(r, S("x")); }},
      {"modify library in read-only", LMI_E_READ_ONLY, [&] { return LMI_ModifyLibrary(r, &mod); }},
      {"close read-only", 0, [&] { return LMI_CloseLibrary(r); }},
      {"write-only open", 1, [&] { return (r = open(p, 3)) != nullptr; }},
      {"read in write-only", LMI_E_NOT_READABLE, [&] { return LMI_OpenEntry(r, S("x"), 1, nullptr); }},
      {"modify without record", LMI_E_NULL_INFO, [&] { return LMI_ModifyLibrary(r, nullptr); }},
      {"modify without a comment", 0, [&] { LMI_LIBRARYMOD none{}; return LMI_ModifyLibrary(r, &none); }},
      {"modify", 0, [&] { return LMI_ModifyLibrary(r, &mod); }},
      {"close write-only", 0, [&] { return LMI_CloseLibrary(r); }},
  });
  EXPECT_EQ(str(slurp(p), 28, 4), std::string("new\0", 4));
}

struct Listed {
  std::vector<std::string> names;
  std::vector<int32_t> sizes;
  LMI_HANDLE h = nullptr;  // to probe during the walk
  int32_t inner = 0;
};
int32_t ZBSHR_CALL collect(LMI_ENTRYINFO* info, void* ud) {
  auto* l = static_cast<Listed*>(ud);
  l->names.push_back(info->name);
  l->sizes.push_back(info->size);
  if (l->h) l->inner = LMI_OpenEntry(l->h, S("a"), 1, nullptr);
  return 1;  // ignored
}

TEST_F(Api, ListingFollowsDirectoryOrder) {
  LMI_HANDLE h = open(create("l.zbl"), 2);
  // Fill the root, then add one name above and one below its range.
  std::vector<std::string> expect;  // stored order, not sorted
  for (int i = 0; expect.empty() || zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) >= 24 + 65; ++i) {
    expect.push_back(std::string("m").append(std::to_string(500 - i)).append(60, 'x'));
    ASSERT_EQ(put(h, expect.back(), std::string(size_t(i), 'd')), 0);
  }
  for (char c : {'a', 'z'}) {  // then the left subtree, then the right
    expect.push_back(std::string(64, c));
    ASSERT_EQ(put(h, expect.back(), ""), 0);
  }
  Listed l, some;
  ASSERT_EQ(LMI_ListEntries(h, S(".*"), collect, &l), 0);
  EXPECT_TRUE(l.names == expect && l.sizes[3] == 3);
  EXPECT_TRUE(LMI_ListEntries(h, S("^M49"), collect, &some) == 0 && some.names.size() == 10u);  // m490..m499
  for (const char* bad : {"m", "[abc", ""})  // "m" does not fit 3 bytes
    EXPECT_EQ(LMI_ListEntries(h, *bad ? (char*)S(bad) : nullptr, collect, &some), LMI_E_PATTERN) << bad;
  Listed busy{{}, {}, h};  // during a walk the handle counts as busy
  ASSERT_EQ(LMI_ListEntries(h, S("^m"), collect, &busy), 0);
  EXPECT_TRUE(busy.inner == LMI_E_BUSY && LMI_CloseLibrary(h) == 0);
}

TEST_F(Api, CopyKeepsCommentAndTime) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  ASSERT_EQ(put(h, "obj", pattern(5000, 1), "the comment"), 0);
  // Age the entry so that a copy made now would show a different time.
  auto* lib = zbshr::lm::library_of(h);
  zbshr::lm::Search s;
  ASSERT_EQ(zbshr::lm::find_entry(lib, "obj", &s), zbshr::lm::kFound);
  zbshr::lm::wr32(zbshr::lm::record_ptr(lib, s.node, s.rec) + 16, 1000000);
  ASSERT_EQ(zbshr::lm::write_node(lib, s.node), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  const Entry obj{pattern(5000, 1), "the comment", 1000000};
  ASSERT_EQ(LMI_CopyEntry(heap, S("OBJ"), nullptr, S(a), S(b)), 0);
  EXPECT_EQ(state(b, true).entries["obj"], obj);
  ASSERT_EQ(LMI_CopyEntry(heap, S("obj"), S("copy"), S(a), nullptr), 0);
  EXPECT_EQ(state(a, true).entries["obj"], obj);
  // A move too large to hold back writes the target's journal early; both libraries still commit whole.
  const std::string big = pattern(9u << 20, 3);
  ASSERT_EQ(with(a, [&](LMI_HANDLE g) { return put(g, "big", big); }), 0);
  ASSERT_EQ(LMI_MoveEntry(heap, S("big"), nullptr, S(a), S(b)), 0);
  EXPECT_TRUE(!state(a).entries.count("big") && state(b).entries["big"].data == big);
  EXPECT_TRUE(verifyFile(a).empty() && verifyFile(b).empty());
  expectCodes({
      {"onto itself", LMI_E_ARGUMENT, [&] { return LMI_CopyEntry(heap, S("obj"), nullptr, S(a), S(a)); }},
      {"no target", LMI_E_ARGUMENT, [&] { return LMI_CopyEntry(heap, S("obj"), nullptr, S(a), nullptr); }},
      {"same name", LMI_E_ARGUMENT, [&] { return LMI_CopyEntry(heap, S("obj"), S("obj"), S(a), nullptr); }},
      {"no heap", LMI_E_NULL_HEAP, [&] { return LMI_CopyEntry(nullptr, S("obj"), S("x"), S(a), S(b)); }},
      {"missing", LMI_E_NOT_FOUND, [&] { return LMI_CopyEntry(heap, S("nothere"), S("x"), S(a), nullptr); }},
      {"missing target", LMI_E_IO, [&] { return LMI_CopyEntry(heap, S("obj"), nullptr, S(a), S(path("no.zbl"))); }},
      {"move missing", LMI_E_NOT_FOUND, [&] { return LMI_MoveEntry(heap, S("nothere"), S("x"), S(a), nullptr); }},
      {"no comment", LMI_E_NULL_INFO, [&] { return with(a, [](LMI_HANDLE g) { return LMI_ModifyEntry(g, S("obj"), nullptr); }); }},
  });
}

// The sequential copy also looks below a node whose range holds the name, on either side.
TEST_F(Api, SequentialCopyFindsAMisplacedEntry) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  for (int i = 0; i == 0 || zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) >= 24 + 56; ++i)
    ASSERT_EQ(put(h, std::string("m").append(std::to_string(100 + i)).append(50, 'x'), ""), 0);
  ASSERT_TRUE(put(h, std::string(54, 'z'), "payload right") == 0 && put(h, std::string(54, 'a'), "payload left") == 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  // Each child's only record renamed to a name inside the root's range.
  Bytes bytes = slurp(a);
  for (auto [link, inside] : {std::pair<int, std::string>{12, "m100" + std::string(50, 'y')}, {4, "m100" + std::string(50, 'z')}}) {
    uint32_t child = le32(bytes, 1024 + size_t(link));
    ASSERT_NE(child, 0u);
    std::memcpy(bytes.data() + child + 32 + 24, inside.c_str(), inside.size());
  }
  spit(a, bytes);
  for (auto [inside, data] : {std::pair<std::string, const char*>{"m100" + std::string(50, 'y'), "payload right"},
                              {"m100" + std::string(50, 'z'), "payload left"}}) {
    EXPECT_EQ(LMI_CopyEntry(heap, S(inside), nullptr, S(a), S(b)), LMI_E_NOT_FOUND);
    EXPECT_TRUE(LMI_CopyEntrySequential(heap, S(inside), nullptr, S(a), S(b)) == 0 && state(b).entries[inside].data == data);
  }
}

// A path with '/' separators in lower case: Windows may store either form.
std::string norm(std::string p) {
  for (auto& c : p) c = c == '\\' ? '/' : char(std::tolower(static_cast<unsigned char>(c)));
  return p;
}

TEST_F(Api, CheckOutAndInRestoresBothLists) {
  std::string shared = create("shared.zbl"), work = create("work.zbl");
  ASSERT_EQ(with(shared, [&](LMI_HANDLE h) { return put(h, "w_main", "payload"); }), 0);
  auto before = slurp(shared);
  ASSERT_EQ(LMI_CheckOutEntry(heap, S("W_Main"), S(shared), S(work), S("Alice")), 0);
  std::vector<std::string> recs = state(shared).checkouts;
  ASSERT_EQ(recs.size(), 1u);
  std::string other = recs[0].substr(0, recs[0].find('|'));
  EXPECT_EQ(norm(other) + recs[0].substr(other.size()), norm(work) + "|w_main|Alice|d");
  Bytes b = slurp(shared);
  std::string list = other + '\0' + "w_main" + '\0' + "Alice" + '\0' + "d";
  EXPECT_TRUE(le32(b, 288) == list.size() && str(b, le32(b, 284) + 10, list.size()) == list);

  LMI_HANDLE h = open(work, 1);
  char u[300], from[300], st;
  EXPECT_EQ(LMI_IsEntryCheckedOut(h, S("w_main"), u, &st, from), LMI_E_CHECKED_OUT);
  EXPECT_EQ(norm(from) + "|" + u + "|" + st, norm(shared) + "|Alice|s");
  LMI_LIBRARYINFO li;
  ASSERT_EQ(LMI_LibraryInformation(h, &li), 0);
  std::vector<char> raw(size_t(li.checkOutLength));
  ASSERT_EQ(LMI_GetCheckOutEntries(h, raw.data()), 0);
  EXPECT_EQ(std::string(raw.begin(), raw.end()), std::string(from) + '\0' + "w_main" + '\0' + "Alice" + '\0' + "s");
  LMI_CloseLibrary(h);

  EXPECT_TRUE(LMI_CheckInEntry(heap, S("w_main"), S(work), from) == 0 && norm(from) == norm(shared));
  for (const std::string& f : {shared, work}) {
    Bytes after = slurp(f);
    EXPECT_TRUE((le32(after, 284) | le32(after, 288)) == 0u && verifyFile(f).empty()) << f;
  }
  EXPECT_EQ(fs::file_size(shared), before.size());  // the list's blocks were given back
  // Deleting a checked-out entry clears both libraries' records.
  ASSERT_EQ(with(work, [&](LMI_HANDLE g) { return put(g, "w_main", "x"); }), 0);
  ASSERT_EQ(LMI_CheckOutEntry(heap, S("w_main"), S(shared), S(work), S("bob")), 0);
  ASSERT_EQ(with(work, [](LMI_HANDLE g) { return LMI_DeleteEntry(g, S("w_main")); }), 0);
  EXPECT_EQ(le32(slurp(shared), 288) + le32(slurp(work), 288), 0u);
}

TEST_F(Api, RegistrationsAndRawLists) {
  std::string lib = create("r.zbl");
  // The status of e1 and the list's length (a clear status when not checked out).
  auto checked = [&] {
    return with(lib, [&](LMI_HANDLE h) {
      char st = 'x', user[8] = "u", other[8] = "o";
      LMI_LIBRARYINFO li;
      LMI_LibraryInformation(h, &li);
      int32_t rc = LMI_IsEntryCheckedOut(h, S("e1"), user, &st, other);
      return (rc == 0 && (st || user[0] || other[0]) ? -999 : rc) * 1000 + li.checkOutLength;
    }, 1);
  };
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, S(lib), S("e1")), 0);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, S(lib), S("e1")), 0);
  EXPECT_EQ(checked(), LMI_E_REGISTERED * 1000 + 2 * 6);
  ASSERT_EQ(LMI_CheckClearRegEntry(heap, S(lib), S("e1")), 0);
  EXPECT_EQ(checked(), LMI_E_REGISTERED * 1000 + 6);  // only the first record went
  ASSERT_EQ(LMI_CheckClearRegEntry(heap, S(lib), S("e1")), 0);
  EXPECT_TRUE(verifyFile(lib).empty());
  EXPECT_EQ(checked(), 0);
  char buf[10];
  EXPECT_EQ(with(lib, [&](LMI_HANDLE h) { return LMI_GetCheckOutEntries(h, buf); }, 1), LMI_E_IO);  // no list
  // A raw list replaces the old one; the old chain stays marked in use.
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, S(lib), S("e1")), 0);
  const char raw[] = "lib\0name\0bob\0d";
  EXPECT_EQ(std::make_pair(LMI_SetCheckOutEntries(heap, S(lib), raw, 0), LMI_SetCheckOutEntries(heap, S(lib), nullptr, 5)),
            std::make_pair(LMI_E_ZERO_LENGTH, LMI_E_NULL_BUFFER));
  ASSERT_EQ(LMI_SetCheckOutEntries(heap, S(lib), raw, sizeof raw - 1), 0);
  EXPECT_EQ(state(lib).checkouts, std::vector<std::string>{"lib|name|bob|d"});
  auto problemsAfter = verifyFile(lib);
  EXPECT_TRUE(problemsAfter.size() == 1u && problemsAfter[0].find("belong to nothing") != std::string::npos);  // the old list
}

// On-disk layout: exact bytes of headers, bitmaps, nodes, records and data chains, read from the file independently.

class Layout : public LibTest {
 protected:
  // Puts the entries ({name, data}) into library p, one handle for all.
  void fill(const std::string& p, std::vector<std::pair<std::string, std::string>> entries, int ra = 0) {
    LMI_HANDLE h = open(p, 2, ra);
    for (auto& [n, d] : entries) ASSERT_EQ(put(h, n, d), 0) << n;
    ASSERT_EQ(LMI_CloseLibrary(h), 0);
  }
  int32_t remove(const std::string& p, const std::string& name) {
    return with(p, [&](LMI_HANDLE h) { return LMI_DeleteEntry(h, S(name)); });
  }
  // Offset of the record named n in the node at `node`.
  static size_t record(const Bytes& b, const std::string& n, size_t node = 1024) {
    for (size_t r = node + 32; r < node + 3072 && r + 25 + n.size() < b.size(); r += 24 + le16(b, r + 22))
      if (str(b, r + 24, n.size() + 1) == n + '\0') return r;
    return 0;
  }
};

TEST_F(Layout, CreateNamesRefusalsAndTheEmptyLibraryOf4096Bytes) {
  std::string p = create("empty.zbl", "a comment");
  Bytes b = slurp(p), want(4096, 0);
  ASSERT_EQ(b.size(), 4096u);
  std::string head = std::string("HDR*Quillbrander\0\0" "0500", 22) + str(b, 22, 4) + std::string(2, 0) + "a comment";
  std::copy(head.begin(), head.end(), want.begin());
  std::memcpy(&want[512], "FRE*", 4);
  want[520] = 0xFF;
  std::memcpy(&want[1024], "NOD*", 4);
  set32(want, 1024 + 16, 3040, 2);
  EXPECT_EQ(b, want);
  EXPECT_NEAR(double(le32(b, 22)), double(std::time(nullptr)), 60.0);
  EXPECT_TRUE(verifyFile(p).empty());
  S noext(path("Proj"));
  EXPECT_EQ(LMI_CreateLibrary(heap, noext, nullptr), 0);
  EXPECT_TRUE(noext.get() == path("proj") && fs::exists(path("proj.zbl")));  // folded in the caller's buffer
  for (auto [name, rc] : {std::pair<const char*, int32_t>{"notes.txt", LMI_E_ARGUMENT}, {"proj.zbl", LMI_E_EXISTS},
                          {"X.ZBD", 0}, {"scratch.TMP", 0}})
    EXPECT_EQ(LMI_CreateLibrary(heap, S(path(name)), nullptr), rc) << name;
  EXPECT_EQ(LMI_CreateLibrary(heap, nullptr, nullptr), LMI_E_ARGUMENT);
  EXPECT_TRUE(LMI_CreateLibrary(nullptr, S(path("y.zbl")), nullptr) == LMI_E_NULL_HEAP && !fs::exists(path("y.zbl")));
  EXPECT_EQ(str(slurp(create("long.zbl", std::string(400, 'c').c_str())), 28, 256), std::string(255, 'c') + '\0');
}

TEST_F(Layout, EntryRecordsAndChainsOf502And503Bytes) {
  std::string p = create("e.zbl");
  fill(p, {{"Alpha", std::string(502, 'a')}, {"beta", std::string(503, 'b')}});
  Bytes b = slurp(p);
  ASSERT_EQ(b.size(), 4096u + 3 * 512);
  // Root node: records in insertion order, offsets of the smallest and greatest.
  const size_t r = 1024 + 32, r2 = r + 30;
  const std::tuple<size_t, int, uint32_t> fields[] = {  // {offset, width, value}
      {1024 + 20, 2, 2}, {1024 + 16, 2, 3040 - 30 - 29}, {1024 + 22, 2, 32 + 24}, {1024 + 18, 2, 32 + 24 + 6 + 24},
      {r + 8, 4, 4096}, {r + 12, 4, 502}, {r + 20, 2, 0}, {r + 22, 2, 6}, {r2 + 8, 4, 4608}, {r2 + 12, 4, 503},
      {4096 + 4, 4, 0}, {4096 + 8, 2, 502}, {4608 + 4, 4, 5120}, {4608 + 8, 2, 502}, {5120 + 4, 4, 0},
      {5120 + 8, 2, 1}, {520, 1, 0xFF}, {521, 1, 0xE0},  // bitmap: blocks 0..10 in use
  };
  for (auto [at, width, value] : fields) EXPECT_EQ(width == 4 ? le32(b, at) : width == 2 ? le16(b, at) : b[at], value) << at;
  EXPECT_EQ(str(b, r, 8) + str(b, r + 24, 6) + str(b, 4096, 4), std::string("ENT*0500alpha\0DAT*", 18));
  EXPECT_EQ(str(b, 5120 + 10, 502), 'b' + std::string(501, 0));
  EXPECT_TRUE(verifyFile(p).empty());
}

TEST_F(Layout, CommentAtTheFrontOfTheData) {
  std::string p = create("c.zbl");
  // A null comment keeps the old one; trailing blanks are cut.
  ASSERT_EQ(with(p, [&](LMI_HANDLE h) { return put(h, "obj", pattern(1000, 7), "ten bytes!   ") || put(h, "obj", "xyz"); }), 0);
  EXPECT_EQ(state(p).entries["obj"], (Entry{"xyz", "ten bytes!"}));
  Bytes b = slurp(p);
  EXPECT_TRUE(le16(b, 1024 + 32 + 20) == 10 && le32(b, 1024 + 32 + 12) == 13u);  // comment length, data length
  EXPECT_EQ(str(b, 4096 + 10, 13), "ten bytes!xyz");
}

// A hole in the middle stays; the tail goes away, free blocks before it too; a
// chain that does not fit the free blocks is appended whole; a small entry takes the first free block.
TEST_F(Layout, TailReleaseAndReuseOfFreedBlocks) {
  std::string p = create("t.zbl");
  fill(p, {{"a", std::string(2000, 'a')}, {"b", std::string(2000, 'b')}, {"c", std::string(2000, 'c')}});  // 4 blocks each
  auto putIn = [&](const char* n, size_t size) { return with(p, [&](LMI_HANDLE h) { return put(h, n, std::string(size, 'x')); }); };
  // {step, file blocks after the 8 fixed ones, entry put, its first two blocks}
  const std::tuple<std::function<int32_t()>, uint32_t, std::string, uint32_t, uint32_t> steps[] = {
      {[&] { return remove(p, "b"); }, 12, "", 0, 0},
      {[&] { return putIn("d", 2500); }, 17, "d", 12, 13},
      {[&] { return remove(p, "d"); }, 12, "", 0, 0},
      {[&] { return remove(p, "c"); }, 4, "", 0, 0},
      {[&] { return putIn("e", 1); }, 5, "e", 4, 0}};
  for (const auto& [step, blocks, name, first, second] : steps) {
    ASSERT_EQ(step(), 0);
    Bytes b = slurp(p);
    EXPECT_EQ(b.size(), 4096u + blocks * 512);
    EXPECT_TRUE(verifyFile(p).empty());
    if (name.empty()) continue;
    EXPECT_EQ(le32(b, record(b, name) + 8), 4096u + first * 512) << name;
    EXPECT_EQ(le32(b, 4096 + first * 512 + 4), second ? 4096u + second * 512 : 0u) << name;
  }
}

TEST_F(Layout, FullRootGrowsRightAndLeftChildren) {
  const auto fullRoot = [&](const char* file) {  // m000_nnn... onwards until the next one would not fit
    LMI_HANDLE h = open(create(file), 2);
    for (int i = 0; i == 0 || zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) >= 24 + 46; ++i)
      EXPECT_EQ(put(h, "m" + std::to_string(1000 + i).substr(1) + "_" + std::string(40, 'n'), ""), 0);
    return h;
  };
  // A name inside the range of a root with no children: a new left child takes just enough of the smallest.
  LMI_HANDLE h = fullRoot("mid.zbl");
  ASSERT_TRUE(put(h, "m010_" + std::string(40, 'o'), "") == 0 && LMI_CloseLibrary(h) == 0);
  Bytes b = slurp(path("mid.zbl"));
  const uint32_t mid = le32(b, 1024 + 4);
  EXPECT_TRUE(mid && le16(b, mid + 20) == 1 && str(b, mid + 32 + 24, 46) == "m000_" + std::string(40, 'n') + '\0') << mid;
  std::string p = path("tree.zbl");
  h = fullRoot("tree.zbl");
  const std::string z(45, 'z'), a(45, 'a');
  ASSERT_EQ(put(h, z, "zz"), 0);
  ASSERT_EQ(put(h, a, "aa"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  b = slurp(p);
  uint32_t left = le32(b, 1024 + 4), right = le32(b, 1024 + 12);
  ASSERT_EQ(right, 4096u);           // the first new node: blocks 8..13
  ASSERT_EQ(left, 4096u + 7 * 512);  // after the first entry's data block
  EXPECT_TRUE(str(b, right, 4) == "NOD*" && le32(b, right + 8) == 1024u && le16(b, right + 20) == 1);  // parent, 1 record
  EXPECT_EQ(str(b, right + 32 + 24, 46) + str(b, left + 32 + 24, 46), z + '\0' + a + '\0');
  EXPECT_EQ(b.size(), 4096u + 14 * 512);
  EXPECT_TRUE(verifyFile(p).empty());
  EXPECT_TRUE(zbshr_lib_repair(p.c_str(), nullptr, nullptr) == 0 && slurp(p) == b);  // a node just past the fixed area is sound
}

TEST_F(Layout, OldLayoutWith1024ByteNodes) {
  Bytes b(2048, 0);
  std::memcpy(b.data(), "HDR*Quillbrander\0\0" "0100", 22);
  std::memcpy(b.data() + 512, "FRE*", 4);
  b[520] = 0xF0;
  std::memcpy(b.data() + 1024, "NOD*", 4);
  set32(b, 1024 + 16, 992, 2);
  std::string p = path("old.zbl");
  spit(p, b);
  std::vector<std::pair<std::string, std::string>> entries;
  for (int i = 0; i < 60; ++i) entries.emplace_back("entry_" + std::to_string(1000 + i) + std::string(20, 'x'), "data");
  fill(p, entries);
  Bytes a = slurp(p);
  EXPECT_TRUE(str(a, 18, 4) == "0100" && le16(a, 1024 + 16) < 992);
  uint32_t right = le32(a, 1024 + 12);  // a new node, on a block boundary after the 2048 fixed bytes
  EXPECT_TRUE(right && str(a, right, 4) == "NOD*" && (right - 2048) % 512 == 0) << right;
  EXPECT_TRUE(verifyFile(p).empty() && state(p).entries.size() == 60u);
  b[5] = 'X';  // a file whose product name differs is refused
  spit(p, b);
  EXPECT_EQ(open(p, 1), nullptr);
}

// A library appended to an executable, found through the trailer (the file unchanged while read). The stub need
// not fill whole blocks, so no link ends in a zero byte. Without a trailer the library follows the run-time stub.
TEST_F(Layout, TrailerReadOnlyAndReadWrite) {
  const Bytes inner = slurp(create("inner.zbl")), exe = exeWith(inner, 1000);
  const std::string p = path("app.exe"), data = pattern(4100 * 502, 5);  // past the first bitmap
  spit(p, exe);
  EXPECT_EQ(with(p, [&](LMI_HANDLE g) { return int32_t(zbshr::lm::library_of(g)->base + fs::file_size(p) - exe.size()); }, 1),
            1000);
  LMI_HANDLE h = open(p, 2);
  EXPECT_EQ(fs::file_size(p), exe.size() - 512);  // the trailer is off while open
  ASSERT_EQ(put(h, "w_main", data), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  Bytes a = slurp(p);
  ASSERT_EQ(a.size(), exe.size() + 4101 * 512);  // the data blocks and a bitmap, at the end
  EXPECT_TRUE(str(a, a.size() - 512, 4) == "TRL*" && le32(a, a.size() - 508) == 1000u);
  EXPECT_EQ(le32(a, 1000 + 1024 + 32 + 8), 1000u + 4096);  // stored offsets are absolute
  EXPECT_TRUE(std::equal(exe.begin(), exe.begin() + 1000, a.begin()) && state(p).entries["w_main"].data == data);
  EXPECT_TRUE(verifyFile(p).empty());
  EXPECT_EQ(with(p, [](LMI_HANDLE g) { return LMI_DeleteEntry(g, S("w_main")); }), 0);
  EXPECT_EQ(slurp(p).size(), exe.size());
  Bytes bare(16384, 0x90);
  bare.insert(bare.end(), inner.begin(), inner.end());
  spit(p, bare);
  EXPECT_EQ(with(p, [&](LMI_HANDLE g) { return put(g, "w_main", data); }), 0);
  EXPECT_TRUE(state(p).entries["w_main"].data == data && slurp(p).size() == bare.size() + 4101 * 512);
}

// A kept-aside base found when the executable still ends in its trailer (the writer stopped after putting it
// back): nothing is added, and the kept base goes.
TEST_F(Layout, TrailerKeptAsideIsNotAddedTwice) {
  const Bytes exe = exeWith(slurp(create("inner.zbl")));
  const std::string p = path("app.exe");
  spit(p, exe);
  Bytes side(12, 0);
  std::memcpy(side.data(), "TRS*", 4);
  set32(side, 4, 1536);
  set32(side, 8, ~1536u);
  spit(p + "-trailer", side);
  EXPECT_TRUE(verifyFile(p).empty());
  EXPECT_TRUE(slurp(p) == exe && !fs::exists(p + "-trailer"));
}

TEST_F(Layout, BitmapChainGrowsPastTwoAndFourMegabytes) {
  int32_t was = zbshr_lib_write_through(0);  // more than 8 MB of held-back writes go out on the way
  std::string p = create("big.zbl"), data = pattern(4028 * 502, 3);
  fill(p, {{"big0", data}, {"big1", data}, {"big2", data}, {"big3", data}, {"big4", data}}, 64000);
  Bytes b = slurp(p);
  ASSERT_GT(b.size(), 4u * 2064384);
  ASSERT_EQ(le32(b, 516), 2064384u);
  // Marked in use by its own bit, and linked to the third.
  EXPECT_TRUE(str(b, 2064384, 4) == "FRE*" && (b[2064384 + 8] & 0x80) && le32(b, 2064384 + 4) == 2u * 2064384);
  EXPECT_TRUE(verifyFile(p).empty());
  for (auto& [n, e] : state(p).entries) EXPECT_TRUE(e.data == data) << n;
  // Deleting the last entries gives the tail back, bitmaps included.
  for (const char* n : {"big4", "big3", "big2", "big1"}) ASSERT_EQ(remove(p, n), 0);
  // What is left (header, root, "big0") ends in the first byte of the second bitmap.
  EXPECT_EQ(fs::file_size(p), 4096u + 4028u * 512 + 512);
  b = slurp(p);
  EXPECT_TRUE(le32(b, 516) == 2064384u && le32(b, 2064384 + 4) == 0u);  // the later bitmaps were dropped
  EXPECT_TRUE(verifyFile(p).empty());
  zbshr_lib_write_through(was);
}

// Random operations on both a library and an in-memory model; after every step the library must list exactly the
// model's entries (and, every fullEvery steps, hold their bytes) and pass the checker.

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
    for (auto& [name, e] : model) ASSERT_TRUE(!bytes || readEntry(h, name) == e.data) << name;
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
