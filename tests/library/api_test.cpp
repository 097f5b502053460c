// LMI_ operations: argument checks and their order, entry states, listing,
// copy, move and rename, check-out records.
#include "helpers.h"

using namespace lmtest;

namespace {

class Api : public LibTest {};

TEST_F(Api, OpenLibraryRefusesBadArguments) {
  std::string p = create("a.zbl");
  S s(p);
  EXPECT_EQ(LMI_OpenLibrary(nullptr, s, 1, 0), nullptr);
  EXPECT_EQ(LMI_OpenLibrary(heap, nullptr, 1, 0), nullptr);
  EXPECT_EQ(LMI_OpenLibrary(heap, s, 0, 0), nullptr);
  EXPECT_EQ(LMI_OpenLibrary(heap, s, 4, 0), nullptr);
  EXPECT_EQ(LMI_OpenLibrary(heap, s, 1, 511), nullptr);
  S missing(path("missing.zbl"));
  EXPECT_EQ(LMI_OpenLibrary(heap, missing, 1, 0), nullptr);
  LMI_HANDLE h = LMI_OpenLibrary(heap, s, 1, 100000);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(zbshr::lm::library_of(h)->readAhead, 64000);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  EXPECT_EQ(LMI_CloseLibrary(nullptr), LMI_E_NULL_HANDLE);
  // Deleting: only a library is deleted.
  EXPECT_EQ(LMI_DeleteLibrary(nullptr, s), LMI_E_NULL_HEAP);
  EXPECT_EQ(LMI_DeleteLibrary(heap, nullptr), LMI_E_ARGUMENT);
  EXPECT_EQ(LMI_DeleteLibrary(heap, s), 0);
  EXPECT_FALSE(fs::exists(p));
  spit(path("junk.zbl"), std::vector<uint8_t>(4096, 7));
  S j(path("junk.zbl"));
  EXPECT_EQ(LMI_DeleteLibrary(heap, j), LMI_E_IO);
  EXPECT_TRUE(fs::exists(path("junk.zbl")));
}

TEST_F(Api, PathsAreFoldedAndResolvedWithoutRegardToCase) {
  fs::create_directories(path("Project"));
  S p(path("Project/App.zbl"));
  ASSERT_EQ(LMI_CreateLibrary(heap, p, nullptr), 0);
  // The folded name was created in the existing, differently spelled folder.
  EXPECT_TRUE(fs::exists(path("Project/app.zbl")));
  S mixed(path("PROJECT/APP.ZBL"));
  LMI_HANDLE h = LMI_OpenLibrary(heap, mixed, 2, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(mixed.get(), path("project/app.zbl"));
  S name("Window_Main");
  EXPECT_EQ(LMI_OpenEntry(h, name, 3, nullptr), 0);
  EXPECT_EQ(name.get(), "window_main");
  EXPECT_EQ(LMI_CloseEntry(h), 0);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
}

TEST_F(Api, EntryStateErrors) {
  std::string p = create("a.zbl");
  LMI_HANDLE h = open(p, 2);
  ASSERT_NE(h, nullptr);
  S n("x");
  EXPECT_EQ(LMI_OpenEntry(nullptr, n, 1, nullptr), LMI_E_NULL_HANDLE);
  EXPECT_EQ(LMI_OpenEntry(h, nullptr, 1, nullptr), LMI_E_ARGUMENT);
  EXPECT_EQ(LMI_OpenEntry(h, n, 2, nullptr), LMI_E_MODE);
  EXPECT_EQ(LMI_OpenEntry(h, n, 1, nullptr), LMI_E_NOT_FOUND);
  EXPECT_EQ(LMI_CloseEntry(h), LMI_E_NOT_OPEN);
  ASSERT_EQ(LMI_OpenEntry(h, n, 3, nullptr), 0);
  EXPECT_EQ(LMI_OpenEntry(h, n, 3, nullptr), LMI_E_BUSY);
  S other("y");
  EXPECT_EQ(LMI_EntryExists(h, other), LMI_E_BUSY);
  char buf[10];
  EXPECT_EQ(LMI_ReadEntry(h, buf, 10), LMI_E_NOT_READABLE);
  EXPECT_EQ(LMI_WriteEntry(h, nullptr, 10), LMI_E_NULL_BUFFER);
  EXPECT_EQ(LMI_WriteEntry(h, "abc", 0), LMI_E_ZERO_LENGTH);
  EXPECT_EQ(LMI_WriteEntry(h, "abc", 3), 3);
  LMI_ENTRYINFO info;
  EXPECT_EQ(LMI_EntryInformation(h, n, &info), 0);  // the entry in hand
  EXPECT_EQ(info.size, 3);
  EXPECT_EQ(LMI_EntryInformation(h, other, &info), LMI_E_BUSY);
  EXPECT_EQ(LMI_EntryInformation(h, n, nullptr), LMI_E_NULL_INFO);
  EXPECT_EQ(LMI_CloseEntry(h), 0);
  ASSERT_EQ(LMI_OpenEntry(h, n, 1, nullptr), 0);
  EXPECT_EQ(LMI_WriteEntry(h, "abc", 3), LMI_E_READ_ONLY);
  EXPECT_EQ(LMI_ReadEntry(h, buf, 10), 3);
  EXPECT_EQ(LMI_ReadEntry(h, buf, 10), 0);
  EXPECT_EQ(LMI_CloseEntry(h), 0);
  EXPECT_EQ(LMI_EntryExists(h, n), 0);
  EXPECT_EQ(LMI_EntryExists(h, other), LMI_E_NOT_FOUND);
  S huge(std::string(3100, 'h'));  // larger than a directory node can hold
  EXPECT_EQ(LMI_OpenEntry(h, huge, 3, nullptr), LMI_E_ARGUMENT);
  // Closing the library closes the entry in hand.
  ASSERT_EQ(LMI_OpenEntry(h, other, 3, "c"), 0);
  ASSERT_EQ(LMI_WriteEntry(h, "12345", 5), 5);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  h = open(p, 1);
  EXPECT_EQ(get(h, "y"), "12345");
  EXPECT_EQ(LMI_CloseLibrary(h), 0);

  h = open(p, 1);
  EXPECT_EQ(LMI_OpenEntry(h, n, 3, nullptr), LMI_E_READ_ONLY);
  EXPECT_EQ(LMI_DeleteEntry(h, n), LMI_E_READ_ONLY);
  LMI_LIBRARYMOD mod{0, 0, "new"};
  EXPECT_EQ(LMI_ModifyLibrary(h, &mod), LMI_E_READ_ONLY);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  h = open(p, 3);
  EXPECT_EQ(LMI_OpenEntry(h, n, 1, nullptr), LMI_E_NOT_READABLE);
  EXPECT_EQ(LMI_ModifyLibrary(h, nullptr), LMI_E_NULL_INFO);
  EXPECT_EQ(LMI_ModifyLibrary(h, &mod), 0);
  LMI_LIBRARYINFO li;
  EXPECT_EQ(LMI_LibraryInformation(h, &li), 0);
  EXPECT_STREQ(li.comment, "new");
  EXPECT_EQ(li.checkOutLength, 0);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
  auto b = slurp(p);
  EXPECT_EQ(str(b, 28, 4), std::string("new\0", 4));
}

struct Listed {
  std::vector<std::string> names;
  std::vector<int32_t> sizes;
};
int32_t ZBSHR_CALL collect(LMI_ENTRYINFO* info, void* ud) {
  auto* l = static_cast<Listed*>(ud);
  l->names.push_back(info->name);
  l->sizes.push_back(info->size);
  return 1;  // ignored
}

TEST_F(Api, ListingFollowsDirectoryOrder) {
  std::string p = create("l.zbl");
  LMI_HANDLE h = open(p, 2);
  // Fill the root, then add one name above and one below its range.
  std::vector<std::string> rootNames;
  for (int i = 0;; ++i) {
    std::string name = std::string("m").append(std::to_string(500 - i)).append(60, 'x');
    ASSERT_EQ(put(h, name, std::string(size_t(i), 'd')), 0);
    rootNames.push_back(name);
    if (zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) < 24 + 65) break;
  }
  std::string above(64, 'z'), below(64, 'a');
  ASSERT_EQ(put(h, above, ""), 0);
  ASSERT_EQ(put(h, below, ""), 0);
  Listed l;
  S all(".*");
  ASSERT_EQ(LMI_ListEntries(h, all, collect, &l), 0);
  std::vector<std::string> expect = rootNames;  // stored order, not sorted
  expect.push_back(below);  // then the left subtree
  expect.push_back(above);  // then the right subtree
  EXPECT_EQ(l.names, expect);
  EXPECT_EQ(l.sizes[3], 3);
  Listed some;
  S pat("^M49");
  ASSERT_EQ(LMI_ListEntries(h, pat, collect, &some), 0);
  EXPECT_EQ(some.names.size(), 10u);  // m490..m499
  S one("m");
  EXPECT_EQ(LMI_ListEntries(h, one, collect, &some), LMI_E_PATTERN);  // does not fit 3 bytes
  EXPECT_EQ(LMI_ListEntries(h, nullptr, collect, &some), LMI_E_PATTERN);
  S bad("[abc");
  EXPECT_EQ(LMI_ListEntries(h, bad, collect, &some), LMI_E_PATTERN);
  EXPECT_EQ(LMI_CloseLibrary(h), 0);
}

// During a walk the handle counts as busy.
LMI_HANDLE g_h;
int32_t g_inner;
int32_t ZBSHR_CALL probe(LMI_ENTRYINFO*, void*) {
  char n[] = "a";
  g_inner = LMI_OpenEntry(g_h, n, 1, nullptr);
  return 0;
}
TEST_F(Api, ListingMakesTheHandleBusy) {
  std::string p = create("b.zbl");
  g_h = open(p, 2);
  ASSERT_EQ(put(g_h, "a", "1"), 0);
  S all(".*");
  ASSERT_EQ(LMI_ListEntries(g_h, all, probe, nullptr), 0);
  EXPECT_EQ(g_inner, LMI_E_BUSY);
  EXPECT_EQ(LMI_CloseLibrary(g_h), 0);
}

TEST_F(Api, CopyKeepsCommentAndTimeAcrossLibraries) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  ASSERT_EQ(put(h, "obj", pattern(5000, 1), "the comment"), 0);
  // Age the entry so that a copy made now would show a different time.
  {
    auto* lib = zbshr::lm::library_of(h);
    zbshr::lm::Search s;
    ASSERT_EQ(zbshr::lm::find_entry(lib, "obj", &s), zbshr::lm::kFound);
    zbshr::lm::wr32(zbshr::lm::record_ptr(lib, s.node, s.rec) + 16, 1000000);
    ASSERT_EQ(zbshr::lm::write_node(lib, s.node), 0);
  }
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  S n("OBJ"), src(a), dst(b);
  ASSERT_EQ(LMI_CopyEntry(heap, n, nullptr, src, dst), 0);
  h = open(b, 1);
  EXPECT_EQ(get(h, "obj"), pattern(5000, 1));
  S on("obj");
  LMI_ENTRYINFOEX ex;
  ASSERT_EQ(LMI_EntryInfoExtended(h, on, &ex), 0);
  EXPECT_STREQ(ex.comment, "the comment");
  EXPECT_EQ(ex.time, 1000000);
  LMI_CloseLibrary(h);
  // Within one library under a new name.
  S n2("obj"), nn("copy"), src2(a);
  ASSERT_EQ(LMI_CopyEntry(heap, n2, nn, src2, nullptr), 0);
  h = open(a, 1);
  EXPECT_EQ(get(h, "copy"), pattern(5000, 1));
  EXPECT_EQ(get(h, "obj"), pattern(5000, 1));
  EXPECT_TRUE(problems(h).empty());
  LMI_CloseLibrary(h);
  // Argument errors.
  S n3("obj"), s3(a), same(a);
  EXPECT_EQ(LMI_CopyEntry(heap, n3, nullptr, s3, same), LMI_E_ARGUMENT);
  EXPECT_EQ(LMI_CopyEntry(heap, n3, nullptr, s3, nullptr), LMI_E_ARGUMENT);
  S nm("obj");
  EXPECT_EQ(LMI_CopyEntry(heap, n3, nm, s3, nullptr), LMI_E_ARGUMENT);
  EXPECT_EQ(LMI_CopyEntry(nullptr, n3, nm, s3, same), LMI_E_NULL_HEAP);
  S missing("nothere"), nm2("x");
  EXPECT_EQ(LMI_CopyEntry(heap, missing, nm2, s3, nullptr), LMI_E_NOT_FOUND);
  S nolib(path("nolib.zbl"));
  EXPECT_EQ(LMI_CopyEntry(heap, n3, nullptr, s3, nolib), LMI_E_IO);
}

// The sequential copy also looks below a node whose range holds the name.
TEST_F(Api, SequentialCopyFindsAMisplacedEntry) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  for (int i = 0;; ++i) {
    ASSERT_EQ(put(h, std::string("m").append(std::to_string(100 + i)).append(50, 'x'), ""), 0);
    if (zbshr::lm::rd16(zbshr::lm::root_img(zbshr::lm::library_of(h)) + 16) < 24 + 56) break;
  }
  std::string high(54, 'z');
  ASSERT_EQ(put(h, high, "payload"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  // Rename the child's only record to a name inside the root's range.
  auto bytes = slurp(a);
  uint32_t right = le32(bytes, 1024 + 12);
  ASSERT_NE(right, 0u);
  std::string inside = "m100" + std::string(50, 'y');
  std::memcpy(bytes.data() + right + 32 + 24, inside.c_str(), inside.size());
  spit(a, bytes);
  S n1(inside), s1(a), d1(b);
  EXPECT_EQ(LMI_CopyEntry(heap, n1, nullptr, s1, d1), LMI_E_NOT_FOUND);
  S n2(inside), s2(a), d2(b);
  ASSERT_EQ(LMI_CopyEntrySequential(heap, n2, nullptr, s2, d2), 0);
  h = open(b, 1);
  EXPECT_EQ(get(h, inside), "payload");
  LMI_CloseLibrary(h);
}

TEST_F(Api, MoveRenamesInPlaceAndBetweenLibraries) {
  std::string a = create("a.zbl"), b = create("b.zbl");
  LMI_HANDLE h = open(a, 2);
  ASSERT_EQ(put(h, "one", pattern(3000, 2), "c1"), 0);
  ASSERT_EQ(put(h, "two", pattern(100, 3)), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto size = fs::file_size(a);
  S n("one"), nn("uno"), s(a);
  ASSERT_EQ(LMI_MoveEntry(heap, n, nn, s, nullptr), 0);
  EXPECT_EQ(fs::file_size(a), size);
  h = open(a, 1);
  EXPECT_EQ(get(h, "uno"), pattern(3000, 2));
  S one("one");
  EXPECT_EQ(LMI_EntryExists(h, one), LMI_E_NOT_FOUND);
  LMI_ENTRYINFOEX ex;
  S uno("uno");
  ASSERT_EQ(LMI_EntryInfoExtended(h, uno, &ex), 0);
  EXPECT_STREQ(ex.comment, "c1");
  LMI_CloseLibrary(h);
  h = open(a, 2);  // a new comment keeps the data
  EXPECT_EQ(LMI_ModifyEntry(h, uno, nullptr), LMI_E_NULL_INFO);
  ASSERT_EQ(LMI_ModifyEntry(h, uno, "a newer comment"), 0);
  ASSERT_EQ(LMI_EntryInfoExtended(h, uno, &ex), 0);
  EXPECT_STREQ(ex.comment, "a newer comment");
  EXPECT_EQ(get(h, "uno"), pattern(3000, 2));
  LMI_CloseLibrary(h);
  S miss("missing"), nn2("x"), s4(a);
  EXPECT_EQ(LMI_MoveEntry(heap, miss, nn2, s4, nullptr), LMI_E_NOT_FOUND);
  // Renaming onto an existing name drops that entry's old data.
  S n2("uno"), onto("two"), s2(a);
  ASSERT_EQ(LMI_MoveEntry(heap, n2, onto, s2, nullptr), 0);
  EXPECT_TRUE(verifyFile(a).empty());
  h = open(a, 1);
  EXPECT_EQ(get(h, "two"), pattern(3000, 2));
  LMI_CloseLibrary(h);
  // Between libraries.
  S n3("two"), s3(a), d3(b);
  ASSERT_EQ(LMI_MoveEntry(heap, n3, nullptr, s3, d3), 0);
  h = open(a, 1);
  S two("two");
  EXPECT_EQ(LMI_EntryExists(h, two), LMI_E_NOT_FOUND);
  LMI_CloseLibrary(h);
  h = open(b, 1);
  EXPECT_EQ(get(h, "two"), pattern(3000, 2));
  LMI_CloseLibrary(h);
  EXPECT_TRUE(verifyFile(a).empty());
  EXPECT_TRUE(verifyFile(b).empty());
}

// ---------------------------------------------------------------- check-out records

// A path with '/' separators in lower case: Windows may store either form.
std::string norm(std::string p) {
  for (auto& c : p) c = c == '\\' ? '/' : char(std::tolower(static_cast<unsigned char>(c)));
  return p;
}

struct Rec {
  std::string other, name, user;
  char status;
};
int32_t ZBSHR_CALL collectRec(LMI_CHECKOUTINFO* i, void* ud) {
  static_cast<std::vector<Rec>*>(ud)->push_back({i->otherLibrary, i->entryName, i->user, i->status});
  return 0;
}

TEST_F(Api, CheckOutAndInRestoresBothLists) {
  std::string shared = create("shared.zbl"), work = create("work.zbl");
  LMI_HANDLE h = open(shared, 2);
  ASSERT_EQ(put(h, "w_main", "payload"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  auto before = slurp(shared);

  S n("W_Main"), s(shared), w(work), user("Alice");
  ASSERT_EQ(LMI_CheckOutEntry(heap, n, s, w, user), 0);
  std::vector<Rec> recs;
  S sp(shared);
  ASSERT_EQ(LMI_ListCheckOutEntries(heap, sp, collectRec, &recs), 0);
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(norm(recs[0].other), norm(work));
  EXPECT_EQ(recs[0].name, "w_main");
  EXPECT_EQ(recs[0].user, "Alice");
  EXPECT_EQ(recs[0].status, 'd');
  auto b = slurp(shared);
  std::string expectList = recs[0].other + '\0' + "w_main" + '\0' + "Alice" + '\0' + "d";
  ASSERT_EQ(le32(b, 288), expectList.size());
  uint32_t first = le32(b, 284);
  EXPECT_EQ(str(b, first + 10, expectList.size()), expectList);

  h = open(work, 1);
  char u[300], other[300], st;
  S wn("w_main");
  EXPECT_EQ(LMI_IsEntryCheckedOut(h, wn, u, &st, other), LMI_E_CHECKED_OUT);
  EXPECT_EQ(st, 's');
  EXPECT_EQ(norm(other), norm(shared));
  EXPECT_STREQ(u, "Alice");
  LMI_LIBRARYINFO li;
  ASSERT_EQ(LMI_LibraryInformation(h, &li), 0);
  std::vector<char> raw(size_t(li.checkOutLength));
  ASSERT_EQ(LMI_GetCheckOutEntries(h, raw.data()), 0);
  EXPECT_EQ(std::string(raw.begin(), raw.end()),
            std::string(other) + '\0' + "w_main" + '\0' + "Alice" + '\0' + "s");
  LMI_CloseLibrary(h);

  char srcOut[300];
  S n2("w_main"), w2(work);
  ASSERT_EQ(LMI_CheckInEntry(heap, n2, w2, srcOut), 0);
  EXPECT_EQ(norm(srcOut), norm(shared));
  auto after = slurp(shared);
  EXPECT_EQ(le32(after, 284), 0u);
  EXPECT_EQ(le32(after, 288), 0u);
  EXPECT_EQ(after.size(), before.size());  // the list's blocks were given back
  EXPECT_TRUE(verifyFile(shared).empty());
  EXPECT_TRUE(verifyFile(work).empty());
  auto wb = slurp(work);
  EXPECT_EQ(le32(wb, 284), 0u);
  EXPECT_EQ(le32(wb, 288), 0u);
}

TEST_F(Api, RegistrationsAndRawLists) {
  std::string lib = create("r.zbl");
  S p(lib), n("e1");
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, p, n), 0);
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, p, n), 0);
  LMI_HANDLE h = open(lib, 1);
  S e1("e1");
  char st;
  EXPECT_EQ(LMI_IsEntryCheckedOut(h, e1, nullptr, &st, nullptr), LMI_E_REGISTERED);
  LMI_LIBRARYINFO li;
  LMI_LibraryInformation(h, &li);
  EXPECT_EQ(li.checkOutLength, 2 * 6);
  LMI_CloseLibrary(h);
  ASSERT_EQ(LMI_CheckClearRegEntry(heap, p, n), 0);
  h = open(lib, 1);
  LMI_LibraryInformation(h, &li);
  EXPECT_EQ(li.checkOutLength, 6);  // only the first record went
  LMI_CloseLibrary(h);
  ASSERT_EQ(LMI_CheckClearRegEntry(heap, p, n), 0);
  EXPECT_TRUE(verifyFile(lib).empty());
  h = open(lib, 1);
  EXPECT_EQ(LMI_IsEntryCheckedOut(h, e1, nullptr, &st, nullptr), 0);
  EXPECT_EQ(st, 0);
  char buf[10];
  EXPECT_EQ(LMI_GetCheckOutEntries(h, buf), LMI_E_IO);  // no list
  LMI_CloseLibrary(h);
  // A raw list replaces the old one; the old chain stays marked in use.
  ASSERT_EQ(LMI_CheckRegisterEntry(heap, p, n), 0);
  const char raw[] = "lib\0name\0bob\0d";
  EXPECT_EQ(LMI_SetCheckOutEntries(heap, p, raw, 0), LMI_E_ZERO_LENGTH);
  EXPECT_EQ(LMI_SetCheckOutEntries(heap, p, nullptr, 5), LMI_E_NULL_BUFFER);
  ASSERT_EQ(LMI_SetCheckOutEntries(heap, p, raw, sizeof raw - 1), 0);
  std::vector<Rec> recs;
  ASSERT_EQ(LMI_ListCheckOutEntries(heap, p, collectRec, &recs), 0);
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].user, "bob");
  auto problemsAfter = verifyFile(lib);
  ASSERT_EQ(problemsAfter.size(), 1u);  // the leaked block of the old list
  EXPECT_NE(problemsAfter[0].find("belong to nothing"), std::string::npos);
}

TEST_F(Api, DeletingACheckedOutEntryClearsBothLibraries) {
  std::string shared = create("s.zbl"), work = create("w.zbl");
  LMI_HANDLE h = open(work, 2);
  ASSERT_EQ(put(h, "e", "x"), 0);
  ASSERT_EQ(LMI_CloseLibrary(h), 0);
  S n("e"), s(shared), w(work), u("bob");
  ASSERT_EQ(LMI_CheckOutEntry(heap, n, s, w, u), 0);
  h = open(work, 2);
  S e("e");
  ASSERT_EQ(LMI_DeleteEntry(h, e), 0);
  LMI_CloseLibrary(h);
  EXPECT_EQ(le32(slurp(shared), 288), 0u);
  EXPECT_EQ(le32(slurp(work), 288), 0u);
}

}  // namespace
