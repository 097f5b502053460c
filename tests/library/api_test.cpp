// LMI_ operations: argument checks and their order, entry states, listing, copy, move and rename, check-out records.
#include <functional>

#include "helpers.h"

using namespace lmtest;

namespace {

class Api : public LibTest {};

// Each call, in the state the rows leave, gives the code expected.
struct Call {
  const char* what;
  int32_t want;
  std::function<int32_t()> call;
};
void expectCodes(const std::vector<Call>& calls) {
  for (const Call& c : calls) EXPECT_EQ(c.call(), c.want) << c.what;
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
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(mixed.get(), path("project/app.zbl"));
  EXPECT_EQ(LMI_OpenEntry(h, name, 3, nullptr), 0);
  EXPECT_EQ(name.get(), "window_main");
  EXPECT_EQ(LMI_CloseEntry(h), 0);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
}

TEST_F(Api, EntryStateErrors) {
  std::string p = create("a.zbl");
  LMI_HANDLE h = open(p, 2), r = nullptr;
  ASSERT_NE(h, nullptr);
  char buf[10];
  LMI_ENTRYINFO info;
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
      {"y kept", 1, [&] { return with(p, [&](LMI_HANDLE g) { return get(g, "y") == "12345"; }, 1); }},
      {"read-only open", 1, [&] { return (r = open(p, 1)) != nullptr; }},
      {"write entry in read-only", LMI_E_READ_ONLY, [&] { return LMI_OpenEntry(r, S("x"), 3, nullptr); }},
      {"delete in read-only", LMI_E_READ_ONLY, [&] { return LMI_DeleteEntry(r, S("x")); }},
      {"modify library in read-only", LMI_E_READ_ONLY, [&] { return LMI_ModifyLibrary(r, &mod); }},
      {"close read-only", 0, [&] { return LMI_CloseLibrary(r); }},
      {"write-only open", 1, [&] { return (r = open(p, 3)) != nullptr; }},
      {"read in write-only", LMI_E_NOT_READABLE, [&] { return LMI_OpenEntry(r, S("x"), 1, nullptr); }},
      {"modify without record", LMI_E_NULL_INFO, [&] { return LMI_ModifyLibrary(r, nullptr); }},
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
  EXPECT_EQ(l.names, expect);
  EXPECT_EQ(l.sizes[3], 3);
  ASSERT_EQ(LMI_ListEntries(h, S("^M49"), collect, &some), 0);
  EXPECT_EQ(some.names.size(), 10u);  // m490..m499
  for (const char* bad : {"m", "[abc", ""})  // "m" does not fit 3 bytes
    EXPECT_EQ(LMI_ListEntries(h, *bad ? (char*)S(bad) : nullptr, collect, &some), LMI_E_PATTERN) << bad;
  Listed busy{{}, {}, h};  // during a walk the handle counts as busy
  ASSERT_EQ(LMI_ListEntries(h, S("^m"), collect, &busy), 0);
  EXPECT_EQ(busy.inner, LMI_E_BUSY);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
}

TEST_F(Api, CopyKeepsCommentAndTime) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  ASSERT_EQ(put(h, "obj", pattern(5000, 1), "the comment"), 0);
  {  // Age the entry so that a copy made now would show a different time.
    auto* lib = zbshr::lm::library_of(h);
    zbshr::lm::Search s;
    ASSERT_EQ(zbshr::lm::find_entry(lib, "obj", &s), zbshr::lm::kFound);
    zbshr::lm::wr32(zbshr::lm::record_ptr(lib, s.node, s.rec) + 16, 1000000);
    ASSERT_EQ(zbshr::lm::write_node(lib, s.node), 0);
  }
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  const Entry obj{pattern(5000, 1), "the comment", 1000000};
  ASSERT_EQ(LMI_CopyEntry(heap, S("OBJ"), nullptr, S(a), S(b)), 0);
  EXPECT_EQ(state(b, true).entries["obj"], obj);
  ASSERT_EQ(LMI_CopyEntry(heap, S("obj"), S("copy"), S(a), nullptr), 0);
  EXPECT_EQ(state(a, true).entries["obj"], obj);
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
  ASSERT_EQ(put(h, std::string(54, 'z'), "payload right"), 0);
  ASSERT_EQ(put(h, std::string(54, 'a'), "payload left"), 0);
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
    ASSERT_EQ(LMI_CopyEntrySequential(heap, S(inside), nullptr, S(a), S(b)), 0);
    EXPECT_EQ(state(b).entries[inside].data, data);
  }
}

// ---------------------------------------------------------------- check-out records

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
  ASSERT_EQ(le32(b, 288), list.size());
  EXPECT_EQ(str(b, le32(b, 284) + 10, list.size()), list);

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

  ASSERT_EQ(LMI_CheckInEntry(heap, S("w_main"), S(work), from), 0);
  EXPECT_EQ(norm(from), norm(shared));
  for (const std::string& f : {shared, work}) {
    Bytes after = slurp(f);
    EXPECT_EQ(le32(after, 284) | le32(after, 288), 0u) << f;
    EXPECT_TRUE(verifyFile(f).empty()) << f;
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
      char st = 'x';
      LMI_LIBRARYINFO li;
      LMI_LibraryInformation(h, &li);
      int32_t rc = LMI_IsEntryCheckedOut(h, S("e1"), nullptr, &st, nullptr);
      return (rc == 0 && st != 0 ? -999 : rc) * 1000 + li.checkOutLength;
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
  EXPECT_EQ(LMI_SetCheckOutEntries(heap, S(lib), raw, 0), LMI_E_ZERO_LENGTH);
  EXPECT_EQ(LMI_SetCheckOutEntries(heap, S(lib), nullptr, 5), LMI_E_NULL_BUFFER);
  ASSERT_EQ(LMI_SetCheckOutEntries(heap, S(lib), raw, sizeof raw - 1), 0);
  EXPECT_EQ(state(lib).checkouts, std::vector<std::string>{"lib|name|bob|d"});
  auto problemsAfter = verifyFile(lib);
  ASSERT_EQ(problemsAfter.size(), 1u);  // the leaked block of the old list
  EXPECT_NE(problemsAfter[0].find("belong to nothing"), std::string::npos);
}

}  // namespace
