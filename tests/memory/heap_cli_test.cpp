// The `zbshr mem` subcommand, run as a separate program.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"

#if defined(ZBSHR_CLI)
TEST(HeapCli, StatisticsAndErrors) {
  const std::string img = (std::filesystem::temp_directory_path() / "zbshr_mem_cli.img").string();
  const struct { std::string args; int code; std::vector<std::string> parts; } cases[] = {  // parts: in stderr + stdout
      // Two blocks of 12 bytes in one 4 KB sub-pool plus its table of 2,424.
      {"mem --count 2 --size 5", 0, {"live blocks              2", "total bytes           6520", "free bytes            4062"}},
      // 3 x 70,016 + 2,424; no small sub-pool was made, so the size is still 4,088.
      {"mem --count 3 --size 70000 --free 100", 0, {"total bytes         212472", "sub-pool bytes       12264", "after freeing 3 of them"}},
      {"mem --count 1 --image " + img, 0, {"live blocks              1"}},
      {"mem --help", 0, {"usage: zbshr mem"}},
      {"mem --count 1 --image /nonexistent-dir/x/y.img", 1, {"cannot create /nonexistent-dir/x/y.img"}},
      {"mem --size 9-3", 2, {"--size wants MIN or MIN-MAX"}},
      {"mem --count -1", 2, {"--count wants 0..10000000"}},
      {"mem --count 10000001", 2, {"--count wants 0..10000000"}},
      {"mem --free 101", 2, {"--free wants 0..100"}},
      {"mem --pools 0", 2, {"--pools wants 1..100000"}},
      {"mem --subpool-size 65536", 2, {"--subpool-size wants 0..65535"}},
      {"mem --count", 2, {"zbshr mem: "}},
      {"mem --size 1 extra", 2, {"not expected: extra"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {ZBSHR_CLI};
    std::istringstream words(c.args);
    for (std::string w; words >> w;) argv.push_back(w);
    const zbtest::RunResult r = zbtest::run_program(argv);
    const std::string out = r.err + r.out;
    EXPECT_EQ(r.code, c.code) << c.args << "\n" << out;
    for (const std::string& p : c.parts) EXPECT_NE(out.find(p), std::string::npos) << c.args << "\n" << out;
  }
  EXPECT_GE(std::filesystem::file_size(img), 4076u);
  std::filesystem::remove(img);
}
#endif
