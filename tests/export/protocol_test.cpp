// The protocol shared by every format: table names, misuse of the calls,
// write failures, and the release of everything an export allocated.
#include <atomic>
#include <thread>

#include "export/state.h"
#include "export_util.h"

namespace xt {
namespace {

const Format kAll[] = {kCsv, kText, kClip, kSql, kDif, kSylk, kExcel, kWk, kDbase2, kDbase3};

std::string table_of(const char* file) {
  char out[300];
  std::memset(out, 'Z', sizeof out);
  zbshr::exp::derive_table_name(file, out);
  return out;
}

TEST(ExportTableName, StartsAtTheLastDotAndStopsAtTheFirst) {
  EXPECT_EQ(table_of("C:\\DATA\\ORDERS.TXT"), "ORDERS");
  EXPECT_EQ(table_of("C:\\OUT\\ORDERS"), "ORDERS");
  EXPECT_EQ(table_of("C:\\A.B\\FILE"), "A");  // the scan starts at the last dot
  EXPECT_EQ(table_of("/tmp/x/orders.tar.gz"), "orders");
  EXPECT_EQ(table_of("D:ITEMS.DBF"), "ITEMS");
  EXPECT_EQ(table_of("plain"), "plain");
  EXPECT_EQ(table_of("dir/"), "");
  EXPECT_EQ(table_of(""), "");
  EXPECT_EQ(table_of(nullptr), "");
  EXPECT_EQ(table_of(std::string(400, 'n').c_str()), std::string(260, 'n'));
}

TEST(ExportTableName, BackslashInsideADoubleByteCharacterIsNoSeparator) {
  const char* name = "C:\\\x95\\X.TXT";  // 0x95 0x5C is one character in code page 932
  uint32_t old = zbshr_set_codepage(932);
  EXPECT_EQ(table_of(name), "\x95\\X");
  zbshr_set_codepage(1252);
  EXPECT_EQ(table_of(name), "X");
  zbshr_set_codepage(old);
}

TEST(ExportFieldName, UpperCasedAndCutToTenBytes) {
  uint8_t out[11];
  zbshr::exp::dbase_field_name("customer_name", out);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 11), std::string("CUSTOMER_N") + '\0');
  zbshr::exp::dbase_field_name("a\xe9z", out);  // only ASCII letters change
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out)), "A\xe9Z");
}

TEST(ExportIntegers, FormattedAsPrintfPrecisionDoes) {
  const int64_t values[] = {0, 1, 7, 9, 10, 99, 100, 1998, 12345, -1, -7, -10, -30867, 2147483647,
                            -2147483648LL};
  for (int64_t v : values) {
    for (int digits : {1, 2, 4}) {
      char want[40], got[40];
      std::snprintf(want, sizeof want, "%.*lld", digits, static_cast<long long>(v));
      *zbshr::exp::Out::format_int(got, v, digits) = '\0';
      EXPECT_STREQ(got, want) << v << " " << digits;
    }
  }
}

using ExportProtocol = ExportTest;

TEST_F(ExportProtocol, MisuseIsRefusedWithoutCrashing) {
  for (const Format& f : kAll) {
    SCOPED_TRACE(f.name);
    EXPECT_EQ(f.column(nullptr, "A", 1, 1), 0);
    EXPECT_EQ(f.item(nullptr, "x"), 0);
    EXPECT_EQ(f.end(nullptr), 0);
    EXPECT_EQ(f.begin(nullptr, 0, path("n").c_str(), 1, 1, 0), nullptr);
    EXPECT_EQ(f.begin(heap_, 0, path("n").c_str(), 1, -1, 0), nullptr);
    const std::string file = path(std::string("m.") + f.name);
    ExportState* h = f.begin(heap_, 0, file.c_str(), 1, 2, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(f.column(h, nullptr, 4, 1), 1);  // a null name is an empty name
    EXPECT_EQ(f.item(h, "early"), 0);          // not every column is declared yet
    EXPECT_EQ(f.column(h, "B", 4, 1), 1);
    EXPECT_EQ(f.item(h, "v"), 1);
    EXPECT_EQ(f.column(h, "C", 4, 1), 0);  // columns come before the first cell
    EXPECT_EQ(f.item(h, nullptr), 1);
    EXPECT_EQ(f.item(h, "w"), 1);  // more rows than announced are fine
    EXPECT_EQ(f.end(h), 1);
    // an ended handle is refused by every call, a second End included
    EXPECT_EQ(f.end(h), 0);
    EXPECT_EQ(f.item(h, "x"), 0);
    EXPECT_EQ(f.column(h, "D", 4, 1), 0);
    EXPECT_EQ(f.end(reinterpret_cast<ExportState*>(&h)), 0);  // never a handle
    if (f.item != osSaveClipItem) {
      EXPECT_EQ(read_file(file).find("early"), std::string::npos);
    }
    ExportState* none = f.begin(heap_, 0, path(std::string("z.") + f.name).c_str(), 0, 0, 0);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(f.item(none, "v"), 0);  // no columns: nowhere to put a cell
    EXPECT_EQ(f.end(none), 1);
  }
}

TEST_F(ExportProtocol, OfTwoEndsRacingOnOneHandleOnlyOneRuns) {
  for (int round = 0; round < 50; ++round) {
    ExportState* h = osSaveCsvBegin(heap_, 0, path("race.csv").c_str(), 1, 1, 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(osSaveCsvColumn(h, "A", 1, 1), 1);
    std::atomic<int> go{0};
    int32_t r1 = -1, r2 = -1;
    std::thread t1([&] {
      while (go.load() == 0) {
      }
      r1 = osSaveCsvEnd(h);
    });
    std::thread t2([&] {
      go.store(1);
      r2 = osSaveCsvEnd(h);
    });
    t1.join();
    t2.join();
    ASSERT_EQ(r1 + r2, 1) << round;
  }
}

TEST_F(ExportProtocol, FileThatCannotBeCreatedFailsBegin) {
  const std::string bad = path("no/such/folder/out.dat");
  for (const Format& f : kAll) {
    if (f.item == osSaveClipItem) continue;
    EXPECT_EQ(f.begin(heap_, 0, bad.c_str(), 1, 1, 0), nullptr) << f.name;
  }
}

TEST_F(ExportProtocol, EndReleasesEverythingWhateverThePointReached) {
  ZBSTG_STAT before{}, after{};
  zbstg_stat(heap_, &before);
  for (const Format& f : kAll) {
    SCOPED_TRACE(f.name);
    const uint32_t pool = zbstg_new_pool(heap_);
    // ended before any column, after some columns, and after some cells
    for (int stop = 0; stop < 3; ++stop) {
      ExportState* h = f.begin(heap_, pool, path(std::string("r.") + f.name).c_str(), 5, 3,
                               OSSAVE_HEADINGS);
      ASSERT_NE(h, nullptr);
      EXPECT_EQ(zbstg_get_pointer_subpool(heap_, h->block), pool);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(h) % alignof(ExportState), 0u);
      if (stop >= 1) {
        f.column(h, "FIRST", 10, 1);
        f.column(h, "SECOND", 10, 2);
      }
      if (stop >= 2) {
        f.column(h, "THIRD", 10, 1);
        double v = 1;
        f.item(h, "a");
        f.item(h, &v);
      }
      f.end(h);
    }
  }
  zbstg_stat(heap_, &after);
  EXPECT_EQ(after.live_blocks, before.live_blocks);
}

TEST_F(ExportProtocol, ShortWriteOfACellFailsTheItem) {
  const std::string text(200, 't');
  for (const Format& f : kAll) {
    if (f.item == osSaveClipItem) continue;  // no file
    SCOPED_TRACE(f.name);
    ExportState* h = f.begin(heap_, 0, path(std::string("short.") + f.name).c_str(), 1000, 1, 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(f.column(h, "S", 255, OSSAVE_STRING), 1);
    zbshr_inject_fault(2, 1, 1);  // the first write to the disk moves half its bytes
    int32_t written = 0;
    while (written < 1000 && f.item(h, text.c_str()) == 1) ++written;
    zbshr_clear_faults();
    EXPECT_GT(written, 0);
    EXPECT_LT(written, 1000);  // the cell whose bytes met the short write said so
    f.end(h);
  }
}

TEST_F(ExportProtocol, FailedTrailerDiscardsPendingBytesAndStillFrees) {
  ZBSTG_STAT before{}, after{};
  zbstg_stat(heap_, &before);
  const std::string file = path("trailer.sql");
  ExportState* h = osSaveSqlBegin(heap_, 0, file.c_str(), 1, 1, 0);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(osSaveSqlColumn(h, "S", 10, 1), 1);
  // pad the buffer to exactly full: header 22 bytes, row prefix, quotes, ");"
  const std::string prefix = "\r\nINSERT INTO trailer VALUES (\r\n\t'";
  const size_t used = std::string("CREATE TABLE trailer (\r\n\tS char(10));").size() +
                      prefix.size();
  std::string s(16284 - used - 3, 'y');
  ASSERT_EQ(osSaveSqlItem(h, s.c_str()), 1);
  ASSERT_EQ(std::filesystem::file_size(file), 0u);  // all still in the buffer
  zbshr_inject_fault(2, 1, 1);  // the flush before the trailer moves half the buffer
  EXPECT_EQ(osSaveSqlEnd(h), 0);
  zbshr_clear_faults();
  EXPECT_EQ(std::filesystem::file_size(file), 16284u / 2);  // no trailer, nothing more
  zbstg_stat(heap_, &after);
  EXPECT_EQ(after.live_blocks, before.live_blocks);
}

TEST_F(ExportProtocol, FailedFinalFlushFailsEnd) {
  const std::string file = path("flush.csv");
  ExportState* h = osSaveCsvBegin(heap_, 0, file.c_str(), 1, 1, 0);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(osSaveCsvColumn(h, "S", 10, 1), 1);
  ASSERT_EQ(osSaveCsvItem(h, "abc"), 1);
  zbshr_inject_fault(2, 1, 1);
  EXPECT_EQ(osSaveCsvEnd(h), 0);
}

TEST_F(ExportProtocol, HeaderWriteFailureAtBeginLeavesNothingAllocated) {
  ZBSTG_STAT before{}, after{};
  zbstg_stat(heap_, &before);
  zbshr_inject_fault(5, 1, 1);  // the open fails
  EXPECT_EQ(osSaveDifBegin(heap_, 0, path("x.dif").c_str(), 1, 1, 0), nullptr);
  zbshr_clear_faults();
  zbstg_stat(heap_, &after);
  EXPECT_EQ(after.live_blocks, before.live_blocks);
}

}  // namespace
}  // namespace xt
