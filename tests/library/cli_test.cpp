// `zbshr lib` as a user runs it: every action, its output, exit status and JSON documents,
// and the error paths (missing, unreadable and directory inputs, empty names, "-" and "--", damage).
#include <nlohmann/json.hpp>

#include <algorithm>

#include "helpers.h"
// After the library's own headers: on Windows it brings in <windows.h>, whose macros clash with the platform's names.
#include "common/run_program.h"
#include "zbshr/system.h"

using namespace lmtest;

namespace {

class Cli : public LibTest {
 protected:
  zbtest::RunResult last;
  void SetUp() override {
    LibTest::SetUp();
    if (!fs::exists(ZBSHR_CLI)) GTEST_SKIP() << "zbshr program not built";
  }
  // Runs `zbshr lib ARGS...`; "@x" in an argument stands for path("x").
  int lib(std::vector<std::string> args, const std::string& input = "") {
    std::vector<std::string> argv{ZBSHR_CLI, "lib"};
    for (auto& a : args) argv.push_back(a.size() > 1 && a[0] == '@' ? path(a.substr(1)) : a);
    last = zbtest::run_program(argv, {input, {}, 0, {}});
    return last.code;
  }
  std::string what() const { return "stdout: " + last.out + "\nstderr: " + last.err; }
};

TEST_F(Cli, EveryActionDoesWhatItSays) {
  const std::string data = pattern(20000, 11);
  spit(path("in.bin"), std::vector<uint8_t>(data.begin(), data.end()));
  // {arguments, standard input, exit status, text expected in stdout}
  const std::tuple<std::vector<std::string>, std::string, int, std::string> steps[] = {
      {{"create", "@proj.zbl", "--comment", "a project"}, "", 0, ""},
      {{"put", "@proj.zbl", "W_Main", "@in.bin", "--comment", "main window"}, "", 0, ""},
      {{"put", "--comment", "menu", "@proj.zbl", "m_menu", "-"}, "menu source", 0, ""},  // options anywhere
      {{"put", "@proj.zbl", "--", "-l"}, "dash", 0, ""},                                  // "--" ends options
      {{"cat", "@proj.zbl", "-l"}, "", 2, ""},                                            // -l is no option of cat
      {{"cat", "@proj.zbl", "--", "-l"}, "", 0, "dash"},
      {{"ls", "@proj.zbl", "-l"}, "", 0, "3 entries, 20015 bytes"},
      {{"ls", "--json", "@proj.zbl", "^w"}, "", 0, "{\"comment\":\"main window\",\"name\":\"w_main\",\"size\":20000,\"status\":\"-\","},
      {{"put", "@proj.zbl", "m_menu", "-"}, "menu source 2", 0, ""},  // replaces, keeps the comment
      {{"ls", "@proj.zbl", "-l", "^m"}, "", 0, "13  "},
      {{"cp", "@proj.zbl", "w_main", "w_copy"}, "", 0, ""},
      {{"mv", "@proj.zbl", "w_copy", "w_two"}, "", 0, ""},
      {{"create", "@other.zbl"}, "", 0, ""},
      {{"cp", "@proj.zbl", "w_two", "--to", "@other.zbl"}, "", 0, ""},
      {{"mv", "@proj.zbl", "w_two", "--to", "@other.zbl", "w_moved"}, "", 0, ""},
      {{"ls", "@other.zbl"}, "", 0, "w_two\nw_moved\n"},
      {{"comment", "@proj.zbl", "m_menu", "the menu"}, "", 0, ""},
      {{"ls", "@proj.zbl", "-l", "m_menu"}, "", 0, "the menu"},
      {{"create", "@work.zbl"}, "", 0, ""},
      {{"checkout", "@proj.zbl", "w_main", "@work.zbl", "alice"}, "", 0, ""},
      {{"checkouts", "@proj.zbl"}, "", 0, "alice"},
      {{"checkouts", "@proj.zbl", "--json"}, "", 0, "\"user\":\"alice\""},
      {{"ls", "@proj.zbl", "--json", "w_main"}, "", 0, "\"status\":\"d\""},
      {{"checkout", "@proj.zbl", "w_main", "@work.zbl", "bob"}, "", 1, ""},  // already out
      {{"checkin", "@work.zbl", "w_main"}, "", 0, ""},
      {{"checkouts", "@proj.zbl"}, "", 0, ""},
      {{"checkin", "@work.zbl", "w_main"}, "", 1, ""},  // nothing checked out
      {{"register", "@proj.zbl", "m_menu"}, "", 0, ""},
      {{"checkouts", "@proj.zbl"}, "", 0, "registered"},
      {{"unregister", "@proj.zbl", "m_menu"}, "", 0, ""},
      {{"rm", "@proj.zbl", "m_menu", "nothere"}, "", 1, ""},  // one is missing: the other still goes
      {{"cat", "@proj.zbl", "m_menu"}, "", 1, ""},
      {{"info", "@proj.zbl"}, "", 0, "a project"},
      {{"info", "--json", "@proj.zbl"}, "", 0, "\"damaged\":false,\"entries\":2,"},
      {{"--help"}, "", 0, "put"},
      {{"put", "--help"}, "", 0, "put"},
      {{"verify", "@proj.zbl"}, "", 0, "no damage found"},
      {{"repair", "@proj.zbl"}, "", 0, "problems fixed"},
      {{"compact", "@proj.zbl"}, "", 0, "2 entries kept"},
      {{"cat", "@proj.zbl", "w_main"}, "", 0, data},  // it survives copy, check-out, check-in and compaction
  };
  for (const auto& [args, input, code, out] : steps) {
    SCOPED_TRACE(testing::PrintToString(args));
    ASSERT_EQ(lib(args, input), code) << what();
    // A failure says why; no progress text when standard error is not a terminal.
    EXPECT_EQ(last.err.empty(), code == 0) << what();
    EXPECT_NE(last.out.find(out), std::string::npos) << what();
    EXPECT_TRUE(!std::count(args.begin(), args.end(), "--json") || nlohmann::json::accept(last.out)) << what();
    EXPECT_TRUE(args[0] != "checkouts" || !out.empty() || last.out.empty()) << what();
  }
  EXPECT_EQ(zbtest::run_program({ZBSHR_CLI, "--version"}).out.rfind("zbshr " + std::string(zbshr_version()), 0), 0u);
}

// Damage is found and reported; salvage saves what it can read.
TEST_F(Cli, DamageIsReportedAndSalvaged) {
  std::string d = create("d.zbl"), saved = path("saved.zbl");
  ASSERT_EQ(with(d, [&](LMI_HANDLE h) { return put(h, "big", std::string(20000, 'a')) || put(h, "small", "tiny"); }), 0);
  Bytes b = slurp(d);
  std::memset(b.data() + 4096 + 512, 'X', 16);  // inside the first data block
  spit(d, b);
  EXPECT_EQ(lib({"verify", "--json", "@d.zbl"}), 1);
  EXPECT_GT(nlohmann::json::parse(last.out, nullptr, false).value("problems", 0), 0) << what();
  ASSERT_EQ(lib({"salvage", "@d.zbl", "@saved.zbl"}), 0) << what();
  EXPECT_TRUE(state(saved).entries["small"].data == "tiny" && verifyFile(saved).empty());
}

// Bad arguments and inputs, and every action on a missing, folder or foreign library, fail with one line and change nothing.
TEST_F(Cli, BadInputsFailWithTheReasonAndChangeNothing) {
  ASSERT_EQ(lib({"create", "@p.zbl"}), 0);
  ASSERT_EQ(lib({"put", "@p.zbl", "keep", "-"}, "original"), 0);
  fs::create_directories(path("adir"));
  spit(path("text.zbl"), Bytes(4096, 'x'));
  // {arguments, exit status, text expected on standard error}
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"put", "@p.zbl", "keep", "@adir"}, 1, "Is a directory"},
      {{"put", "@p.zbl", "keep", "@missing.bin"}, 1, "No such file or directory"},
      {{"put", "@p.zbl", "", "-"}, 2, "entry names cannot be empty"},
      {{"cp", "@p.zbl", "keep", ""}, 2, "entry names cannot be empty"},
      {{"put", "@nolib.zbl", "x", "-"}, 1, "zbshr lib create"},
      {{"ls", "@nolib.zbl"}, 1, "no such library"},
      {{"ls", "@p.zbl", "[abc"}, 2, "does not compile"},
      {{"ls", "--bogus", "@p.zbl"}, 2, "--bogus"},
      {{"frobnicate", "@p.zbl"}, 2, "unknown action 'frobnicate'"},
      {{"cp", "@p.zbl", "keep"}, 2, "NEWNAME or --to"},
      {{"verify", "@adir"}, 1, "verify"},
      {{"put", "@adir", "x", "-"}, 1, "is a folder"},
      {{"salvage", "@p.zbl", "@p.zbl"}, 1, "salvage"},  // the new library must not exist
  };
  auto fails = [&](const std::vector<std::string>& args, int code) {
    EXPECT_EQ(lib(args, "new data"), code) << testing::PrintToString(args) << what();
    EXPECT_EQ(std::count(last.err.begin(), last.err.end(), '\n'), 1) << what();  // one line, one hint
    EXPECT_LE(std::count(last.out.begin(), last.out.end(), '\n'), 1) << what();  // a heading at most
  };
  for (const auto& [args, code, err] : cases) {
    fails(args, code);
    EXPECT_NE(last.err.find(err), std::string::npos) << what();
  }
  const std::vector<std::vector<std::string>> actions = {
      {"ls", "L"}, {"cat", "L", "e"}, {"put", "L", "e", "-"}, {"rm", "L", "e"}, {"cp", "L", "e", "f"},
      {"mv", "L", "e", "f"}, {"cp", "L", "e", "--to", "@p.zbl"}, {"comment", "L", "e", "t"}, {"info", "L"},
      {"checkout", "L", "e", "@p.zbl", "u"}, {"checkin", "L", "e"}, {"register", "L", "e"},
      {"unregister", "L", "e"}, {"checkouts", "L"}, {"verify", "L"}, {"repair", "L"}, {"compact", "L"},
      {"salvage", "L", "@new.zbl"}};
  for (const std::string b : {"@missing.zbl", "@text.zbl", "@adir"}) {
    for (auto args : actions) {
      if (args[0] == "salvage" && b == "@text.zbl") continue;  // salvage reads what it can
      std::replace(args.begin(), args.end(), std::string("L"), b);
      fails(args, 1);
    }
  }
  EXPECT_FALSE(fs::exists(path("missing.zbl")) || fs::exists(path("new.zbl")));
  EXPECT_TRUE(slurp(path("text.zbl")) == Bytes(4096, 'x') && fs::is_empty(path("adir")));
  EXPECT_EQ(state(path("p.zbl")), (LibState{true, true, {{"keep", {"original", "", 0}}}, {}, ""}));
  EXPECT_TRUE(verifyFile(path("p.zbl")).empty());
}

#ifndef _WIN32
// A put interrupted while it reads its input stores nothing: the library keeps the old entry whole
// and checks clean, and no file is left beside it.
TEST_F(Cli, InterruptedPutStoresNothing) {
  ASSERT_EQ(lib({"create", "@i.zbl"}), 0);
  ASSERT_EQ(lib({"put", "@i.zbl", "e", "-"}, "old data"), 0);
  signal(SIGPIPE, SIG_IGN);  // a child that ends early makes write() fail, not this program
  for (int sig : {SIGINT, SIGTERM}) {
    int in[2];
    ASSERT_EQ(pipe(in), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_addclose(&fa, in[1]);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    std::string exe = ZBSHR_CLI, l = path("i.zbl");
    std::vector<char*> argv{exe.data(), (char*)"lib", (char*)"put", l.data(), (char*)"e", (char*)"-", nullptr};
    pid_t pid;
    ASSERT_EQ(posix_spawn(&pid, exe.c_str(), &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    const std::string chunk(1 << 16, 'n');
    for (int i = 0; i < 64; ++i) ASSERT_EQ(write(in[1], chunk.data(), chunk.size()), ssize_t(chunk.size())) << sig;
    kill(pid, sig);  // the program is still waiting for the rest of its input
    (void)!write(in[1], chunk.data(), chunk.size());  // fails once the program has stopped
    close(in[1]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + sig) << status;
    ASSERT_EQ(lib({"cat", "@i.zbl", "e"}), 0);
    EXPECT_EQ(last.out, "old data");
    EXPECT_EQ(lib({"verify", "@i.zbl"}), 0) << what();
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);  // i.zbl alone
  }
}
#endif

}  // namespace
