// zbshr export from the command line: the typed CSV input, exit statuses and messages, pipes, and the promise
// that an output appears whole or not at all and is never the input (readers.py reads what it writes).
#include <algorithm>
#include <csignal>

#include "common/run_program.h"
#include "export_util.h"

namespace xt {
namespace {

std::string lf(std::string s) { return std::erase(s, '\r'), s; }  // Windows programs end lines with CRLF

class ExportCli : public ExportTest {
 protected:
  void SetUp() override {
    ExportTest::SetUp();
    if (!std::filesystem::exists(ZBSHR_CLI)) GTEST_SKIP() << "zbshr program not built";
  }
  // Runs `zbshr export ARGS...`; "@x" in an argument stands for path("x").
  zbtest::RunResult zbshr(std::vector<std::string> args, const std::string& input = "",
                          std::vector<std::string> env = {}) {
    std::vector<std::string> argv{ZBSHR_CLI, "export"};
    for (auto& a : args) argv.push_back(a.size() > 1 && a[0] == '@' ? path(a.substr(1)) : a);
    zbtest::RunOptions o;
    o.input = input;
    o.env = std::move(env);
    return zbtest::run_program(argv, o);
  }
  void write(const std::string& leaf, const std::string& text) { std::ofstream(path(leaf), std::ios::binary) << text; }
  // The folder holds exactly these names (no temporary file left behind); names sorted.
  void expect_files(const std::vector<std::string>& names) {
    std::vector<std::string> got;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) got.push_back(e.path().filename().string());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, names);
  }
};

const std::string kInput =
    "id:number,name:string:12,amount:decimal,day:date,at:time\r\n"
    "1,\"Smith, J\",12.50,1998-07-04,12:30:45.5\r\n"
    "2,\"\",-3,2001-01-02,00:00:00\r\n"
    "3,,,,\r\n";

TEST_F(ExportCli, WritesWhatItIsGiven) {
  write("-dash.csv", "n:number\n0.3333333333333333\n");
  const struct {
    std::vector<std::string> args;
    std::string input, out_file, want;  // want: the output's bytes (standard output when no file)
    std::string env = "ZBSHR_CLIPBOARD_CMD=";
  } cases[] = {
      // pipes, options after the operands, a byte-order mark, type names in any case, ISO 'T' date-times
      {{"-", "-", "--format", "csv"}, "\xEF\xBB\xBFid:NUMBER,at:DateTime\r\n1,1998-07-04T12:30:45\r\n", "",
       "1,7/4/1998 12:30:45\r\n"},
      // "--" ends the options; a number that fits the format's room
      {{"-f", "csv", "--", "@-dash.csv", "@dash.out"}, "", "dash.out", "0.333333333333333\r\n"},
#if !defined(_WIN32)  // there the clipboard is the system's
      {{"--format", "clip", "--headings", "-"}, "s:string\r\nsay \"hi\"\r\n\"a\tb\"\r\n", "",
       "s\r\nsay \"hi\"\r\n\"a\tb\"\r\n"},
      // a clipboard program takes the text; nothing on standard output
      {{"--format", "clip", "-"}, "s:string\r\nsay \"hi\"\r\n", "clip.txt", "say \"hi\"\r\n",
       "ZBSHR_CLIPBOARD_CMD=cat > '" + path("clip.txt") + "'"},
#endif
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    auto r = zbshr(c.args, c.input, {c.env});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(lf(c.out_file.empty() ? c.want : ""), lf(r.out));
    if (!c.out_file.empty()) {
      EXPECT_EQ(c.want, read_file(path(c.out_file)));
    }
  }
}

TEST_F(ExportCli, RefusalsLeaveEveryFileAsItWas) {
  write("in.csv", kInput);
  write("old.csv", "old contents");
  write("long.csv", "x:number\n1\n0.3333333333333333\n");
  std::filesystem::create_directories(path("adir"));
  std::filesystem::create_hard_link(path("in.csv"), path("link.csv"));
  std::string big = "n:number\n";
  for (int i = 0; i < 65537; ++i) big += std::to_string(i % 10) + "\n";
  write("big.csv", big);
  const struct {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string err;
  } cases[] = {
      {{"-f", "csv", "@in.csv", "@in.csv"}, "", 1, "is the input file"},
      {{"-f", "csv", "@in.csv", "@link.csv"}, "", 1, "is the input file"},
      {{"-f", "csv", "@adir", "@old.csv"}, "", 1, "Is a directory"},
      {{"-f", "csv", "@in.csv", "@adir"}, "", 1, "Is a directory"},
      {{"-f", "csv", "@nosuch.csv", "@old.csv"}, "", 1, "No such file or directory"},
      {{"-f", "csv", "-", "@old.csv"}, "a:number,b:date\r\n1,1998-07-04\r\nx,1998-07-04\r\n", 1, ":3: column a: 'x' is not a number"},
      {{"-f", "csv", "-", "@old.csv"}, "a:number\r\ninf\r\n", 1, ":2: column a: 'inf' is not a finite"},
      {{"-f", "csv", "-", "@old.csv"}, "a:date\r\n1998-13-01\r\n", 1, "the month is wrong"},
      {{"-f", "csv", "-", "@old.csv"}, "a:nothing\r\n1\r\n", 1, "name:type[:width]"},
      {{"-f", "csv", "-", "@old.csv"}, "a:string,b:number\r\nx\r\n", 1, "1 cells, expected 2"},
      {{"-f", "csv", "-", "@old.csv"}, "a:string\r\n\"open\r\n", 1, "unterminated"},
      {{"-f", "excel", "@big.csv", "@new.xls"}, "", 1, "65536 rows"},
      {{"-f", "wk", "@big.csv", "@new.wks"}, "", 1, "65536 rows"},
      {{"-f", "dif", "@long.csv", "@new.dif"}, "", 1, "long.csv:3, column x: 0.3333333333333333)"},
      {{"@in.csv", "@old.csv"}, "", 2, "--format"},
      {{"-f", "xls", "@in.csv", "@old.csv"}, "", 2, "unknown format 'xls'"},
      {{"-f", "csv", "@in.csv"}, "", 2, "OUTPUT is required"},
      {{"-f", "clip", "@in.csv", "@old.csv"}, "", 2, "clip takes no OUTPUT"},
      {{"-f", "csv", "--nope", "@in.csv", "@old.csv"}, "", 2, "--nope"},
      {{"-f", "csv", "@in.csv", "@old.csv", "extra"}, "", 2, "extra"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    auto r = zbshr(c.args, c.input);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(read_file(path("in.csv")), kInput);
  EXPECT_EQ(read_file(path("old.csv")), "old contents");
  expect_files({"adir", "big.csv", "in.csv", "link.csv", "long.csv", "old.csv"});
  // --force writes what fits, with a warning.
  for (const char* fmt : {"excel", "wk"}) {
    const auto r = zbshr({"-f", fmt, "--force", "@big.csv", "@big.out"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("warning"), std::string::npos) << r.err;
    EXPECT_EQ(std::filesystem::file_size(path("big.out")), fmt[0] == 'e' ? 24u + 65536 * 19 : 22u + 65536 * 17);
  }
}

TEST_F(ExportCli, InterruptedExportLeavesNoOutput) {
#if defined(_WIN32)
  GTEST_SKIP() << "sends a POSIX signal";
#endif
  std::string big = "n:number,s:string\n";
  for (int i = 0; i < 200000; ++i) big += std::to_string(i) + ",row\n";
  write("big.csv", big);
  zbtest::RunOptions o;
  o.signal_on_err_text = SIGINT;
  o.err_text_trigger = "warning";  // printed just before the writing starts
  auto r = zbtest::run_program({ZBSHR_CLI, "export", "-f", "wk", "--force", path("big.csv"), path("out.wks")}, o);
  // Wherever the signal lands, the output is whole or absent, never partial.
  EXPECT_TRUE(r.code == 0 || (r.code == 128 + SIGINT && r.err.find("interrupted") != std::string::npos)) << r.err;
  expect_files(r.code == 0 ? std::vector<std::string>{"big.csv", "out.wks"} : std::vector<std::string>{"big.csv"});
  if (r.code == 0) {
    EXPECT_EQ(std::filesystem::file_size(path("out.wks")), 22u + 65536 * 17);
  }
}

// Every format of the sample and the tricky values read back by xlrd, dbfread, sqlite3, LibreOffice, Gnumeric.
TEST_F(ExportCli, RealReadersSeeWhatWasExported) {
#if defined(_WIN32)
  GTEST_SKIP() << "the readers run on the build machine";
#endif
  if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
  auto r = zbtest::run_program({"/usr/bin/python3", ZBSHR_SOURCE_DIR "/tests/export/readers.py", ZBSHR_CLI, path("readers")});
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.find("FAIL"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace xt
