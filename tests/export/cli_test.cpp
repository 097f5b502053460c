// zbshr export from the command line: reading the typed CSV input, the exit
// statuses and messages, and the files it writes.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "export_util.h"

namespace xt {
namespace {

struct Ran {
  int status;
  std::string out;  // standard output and standard error
};

class ExportCli : public ExportTest {
 protected:
  void SetUp() override {
    ExportTest::SetUp();
    if (!std::filesystem::exists(ZBSHR_CLI)) GTEST_SKIP() << "zbshr program not built";
  }
  Ran zbshr(const std::string& args) {
    const std::string cmd = std::string("'") + ZBSHR_CLI + "' " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    Ran r{-1, {}};
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }
  std::string write(const std::string& leaf, const std::string& text) {
    const std::string p = path(leaf);
    std::ofstream(p, std::ios::binary) << text;
    return p;
  }
};

const std::string kInput =
    "id:number,name:string:12,amount:decimal,day:date,at:time\r\n"
    "1,\"Smith, J\",12.50,1998-07-04,12:30:45.5\r\n"
    "2,\"\",-3,2001-01-02,00:00:00\r\n"
    "3,,,,\r\n";

TEST_F(ExportCli, WritesCsvWithHeadingsNullsAndEmptyStrings) {
  const std::string in = write("in.csv", kInput);
  Ran r = zbshr("export --format csv --headings '" + in + "' '" + path("out.csv") + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  std::string got = read_file(path("out.csv"));
  // the exact rendering of numbers and dates is the display formats' business;
  // the cells, separators, quoting and nulls are the export's
  EXPECT_EQ(got.rfind("id,name,amount,day,at\r\n1,\"Smith, J\",12.5", 0), 0u) << visible(got);
  EXPECT_NE(got.find(":5\r\n2,,-3,"), std::string::npos) << visible(got);
  EXPECT_NE(got.find("\r\n3,,,,\r\n"), std::string::npos) << visible(got);
}

TEST_F(ExportCli, DbaseTableUsesGivenAndMeasuredWidths) {
  const std::string in = write("in.csv", kInput);
  Ran r = zbshr("export --format dbase3 '" + in + "' '" + path("t.dbf") + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  std::string got = read_file(path("t.dbf"));
  ASSERT_GE(got.size(), 32u * 6 + 1);
  EXPECT_EQ(got.substr(4, 4), u32(3));                        // three rows
  EXPECT_EQ(static_cast<uint8_t>(got[32 + 32 + 16]), 12u);  // name:string:12
  EXPECT_EQ(got[32 * 6], '\x0D');
  EXPECT_EQ(got.back(), '\x1A');
}

TEST_F(ExportCli, BadInputIsReportedWithLineAndColumn) {
  const std::string in = write("bad.csv", "a:number,b:date\r\n1,1998-07-04\r\nx,1998-07-04\r\n");
  Ran r = zbshr("export --format csv '" + in + "' '" + path("o.csv") + "'");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find(":3: column a: 'x' is not a number"), std::string::npos) << r.out;
  Ran r2 = zbshr("export --format csv '" + write("h.csv", "a:nothing\r\n1\r\n") + "' '" +
                 path("o.csv") + "'");
  EXPECT_EQ(r2.status, 1);
  EXPECT_NE(r2.out.find("name:type[:width]"), std::string::npos) << r2.out;
  Ran r3 = zbshr("export --format csv '" + write("n.csv", "a:string,b:number\r\nx\r\n") + "' '" +
                 path("o.csv") + "'");
  EXPECT_EQ(r3.status, 1);
  EXPECT_NE(r3.out.find("1 cells, expected 2"), std::string::npos) << r3.out;
  Ran r4 = zbshr("export --format csv '" + write("q.csv", "a:string\r\n\"open\r\n") + "' '" +
                 path("o.csv") + "'");
  EXPECT_EQ(r4.status, 1);
  EXPECT_NE(r4.out.find("unterminated"), std::string::npos) << r4.out;
}

TEST_F(ExportCli, CommandLineMistakesExitWithTwo) {
  const std::string in = write("in.csv", kInput);
  EXPECT_EQ(zbshr("export --help").status, 0);
  EXPECT_EQ(zbshr("export '" + in + "' out.csv").status, 2);                      // no format
  EXPECT_EQ(zbshr("export --format xls '" + in + "' out.csv").status, 2);         // unknown
  EXPECT_EQ(zbshr("export --format csv '" + in + "'").status, 2);                 // no output
  EXPECT_EQ(zbshr("export --format clip '" + in + "' out.txt").status, 2);        // clip: none
  EXPECT_EQ(zbshr("export --format csv --nope '" + in + "' out.csv").status, 2);  // option
}

TEST_F(ExportCli, ClipWithoutClipboardProgramPrintsTheText) {
  const std::string in = write("in.csv", "s:string\r\nsay \"hi\"\r\n\"a\tb\"\r\n");
  unsetenv("ZBSHR_CLIPBOARD_CMD");
  Ran r = zbshr("export --format clip --headings '" + in + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_BYTES("s\r\nsay \"hi\"\r\n\"a\tb\"\r\n", r.out);
}

TEST_F(ExportCli, ClipIsPipedToTheClipboardProgram) {
  const std::string in = write("in.csv", "s:string,n:number\r\nx,1\r\n");
  const std::string sink = path("clipboard.txt");
  setenv("ZBSHR_CLIPBOARD_CMD", ("cat > '" + sink + "'").c_str(), 1);
  Ran r = zbshr("export --format clip '" + in + "'");
  unsetenv("ZBSHR_CLIPBOARD_CMD");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "");  // nothing on standard output when a program takes it
  EXPECT_BYTES("x\t1\r\n", read_file(sink));
}

TEST_F(ExportCli, Dbase2RefusesTooManyColumns) {
  std::string head;
  std::string row;
  for (int i = 0; i < 33; ++i) {
    head += (i ? "," : "") + std::string("c") + std::to_string(i) + ":number";
    row += (i ? "," : "") + std::to_string(i);
  }
  const std::string in = write("wide.csv", head + "\r\n" + row + "\r\n");
  Ran r = zbshr("export --format dbase2 '" + in + "' '" + path("w.dbf") + "'");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("32 columns"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace xt
