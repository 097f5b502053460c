// `zbshr lib` as a user runs it: every action, its output and exit status, the
// JSON documents, and the error paths (missing, unreadable and directory
// inputs, empty names, "-" and "--", damaged files).
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#ifndef _WIN32
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

#include "helpers.h"
// After the library's own headers: on Windows it brings in <windows.h>,
// whose macros would clash with the platform layer's names.
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
    zbtest::RunOptions o;
    o.input = input;
    last = zbtest::run_program(argv, o);
    return last.code;
  }
  std::string what() const { return "stdout: " + last.out + "\nstderr: " + last.err; }
  nlohmann::json json() const { return nlohmann::json::parse(last.out); }
};

TEST_F(Cli, EveryActionDoesWhatItSays) {
  const std::string data = pattern(20000, 11);
  spit(path("in.bin"), std::vector<uint8_t>(data.begin(), data.end()));
  // {arguments, standard input, exit status, text expected in stdout}
  struct Step {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string out;
  } steps[] = {
      {{"create", "@proj.zbl", "--comment", "a project"}, "", 0, ""},
      {{"put", "@proj.zbl", "W_Main", "@in.bin", "--comment", "main window"}, "", 0, ""},
      {{"put", "--comment", "menu", "@proj.zbl", "m_menu", "-"}, "menu source", 0, ""},  // options anywhere
      {{"put", "@proj.zbl", "--", "-l"}, "dash", 0, ""},                                  // "--" ends options
      {{"cat", "@proj.zbl", "-l"}, "", 2, ""},                                            // -l is no option of cat
      {{"cat", "@proj.zbl", "--", "-l"}, "", 0, "dash"},
      {{"ls", "@proj.zbl", "-l"}, "", 0, "3 entries, 20015 bytes"},
      {{"ls", "@proj.zbl", "^m"}, "", 0, "m_menu\n"},
      {{"cat", "@proj.zbl", "m_menu"}, "", 0, "menu source"},
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
      {{"verify", "@proj.zbl"}, "", 0, "no damage found"},
      {{"repair", "@proj.zbl"}, "", 0, "problems fixed"},
      {{"compact", "@proj.zbl"}, "", 0, "2 entries kept"},
      {{"cat", "@proj.zbl", "w_main"}, "", 0, ""},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(testing::PrintToString(s.args));
    ASSERT_EQ(lib(s.args, s.input), s.code) << what();
    if (s.code != 0) {
      EXPECT_NE(last.err, "") << "a failure says why";
    } else {
      EXPECT_EQ(last.err, "") << "no progress text when standard error is not a terminal";
    }
    if (!s.out.empty()) {
      EXPECT_NE(last.out.find(s.out), std::string::npos) << what();
    } else if (s.args[0] == "checkouts") {
      EXPECT_EQ(last.out, "");
    }
  }
  EXPECT_TRUE(last.out == data) << "the entry survives copy, check-out, check-in and compaction";
}

TEST_F(Cli, JsonDocumentsParse) {
  spit(path("a.bin"), std::vector<uint8_t>(300, 'a'));
  ASSERT_EQ(lib({"create", "@j.zbl", "--comment", "c"}), 0);
  ASSERT_EQ(lib({"put", "@j.zbl", "one", "@a.bin", "--comment", "first"}), 0);
  ASSERT_EQ(lib({"create", "@w.zbl"}), 0);
  ASSERT_EQ(lib({"checkout", "@j.zbl", "one", "@w.zbl", "carol"}), 0) << what();

  ASSERT_EQ(lib({"ls", "--json", "@j.zbl"}), 0) << what();
  auto j = json();
  ASSERT_EQ(j["entries"].size(), 1u);
  EXPECT_EQ(j["entries"][0]["name"], "one");
  EXPECT_EQ(j["entries"][0]["size"], 300);
  EXPECT_EQ(j["entries"][0]["comment"], "first");
  EXPECT_EQ(j["entries"][0]["status"], "d");
  ASSERT_EQ(lib({"info", "@j.zbl", "--json"}), 0) << what();
  EXPECT_EQ(json()["comment"], "c");
  EXPECT_EQ(json()["entries"], 1);
  EXPECT_EQ(json()["damaged"], false);
  ASSERT_EQ(lib({"checkouts", "@j.zbl", "--json"}), 0) << what();
  EXPECT_EQ(json()["records"][0]["user"], "carol");
  ASSERT_EQ(lib({"verify", "@j.zbl", "--json"}), 0) << what();
  EXPECT_EQ(json()["problems"], 0);
}

TEST_F(Cli, BadInputsFailWithTheReasonAndChangeNothing) {
  ASSERT_EQ(lib({"create", "@p.zbl"}), 0);
  ASSERT_EQ(lib({"put", "@p.zbl", "keep", "-"}, "original"), 0);
  fs::create_directories(path("adir"));
  // {arguments, exit status, text expected on standard error}
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string err;
  } cases[] = {
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
      {{"salvage", "@p.zbl", "@p.zbl"}, 1, "salvage"},  // the new library must not exist
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    EXPECT_EQ(lib(c.args, "new data"), c.code) << what();
    EXPECT_NE(last.err.find(c.err), std::string::npos) << what();
    EXPECT_EQ(std::count(last.err.begin(), last.err.end(), '\n'), 1) << "one line, one hint";
  }
  ASSERT_EQ(lib({"ls", "@p.zbl"}), 0);
  EXPECT_EQ(last.out, "keep\n");
  ASSERT_EQ(lib({"cat", "@p.zbl", "keep"}), 0);
  EXPECT_EQ(last.out, "original");
  EXPECT_EQ(lib({"verify", "@p.zbl"}), 0) << what();
}

// Every action on a library that is missing, a folder or not a library fails
// with one line saying why, and creates nothing.
TEST_F(Cli, EveryActionRefusesABadLibrary) {
  fs::create_directories(path("adir"));
  spit(path("text.zbl"), std::vector<uint8_t>(4096, 'x'));
  ASSERT_EQ(lib({"create", "@w.zbl"}), 0);
  const std::vector<std::vector<std::string>> actions = {
      {"ls", "L"}, {"cat", "L", "e"}, {"put", "L", "e", "-"}, {"rm", "L", "e"}, {"cp", "L", "e", "f"},
      {"mv", "L", "e", "f"}, {"cp", "L", "e", "--to", "@w.zbl"}, {"comment", "L", "e", "t"}, {"info", "L"},
      {"checkout", "L", "e", "@w.zbl", "u"}, {"checkin", "L", "e"}, {"register", "L", "e"},
      {"unregister", "L", "e"}, {"checkouts", "L"}, {"verify", "L"}, {"repair", "L"}, {"compact", "L"},
      {"salvage", "L", "@new.zbl"}};
  // A folder is tried with the actions that only read: one opened for
  // writing is retried for seconds as if it were busy.
  for (const std::string b : {"@missing.zbl", "@text.zbl", "@adir"}) {
    for (auto args : actions) {
      if (b == "@adir" && !(args[0] == "ls" || args[0] == "cat" || args[0] == "info" || args[0] == "verify")) continue;
      if (args[0] == "salvage" && b == "@text.zbl") continue;  // salvage reads what it can
      std::replace(args.begin(), args.end(), std::string("L"), b);
      SCOPED_TRACE(testing::PrintToString(args));
      EXPECT_EQ(lib(args, "data"), 1) << what();
      EXPECT_EQ(std::count(last.err.begin(), last.err.end(), '\n'), 1) << what();
      EXPECT_LE(std::count(last.out.begin(), last.out.end(), '\n'), 1) << what();  // a heading at most
    }
  }
  EXPECT_FALSE(fs::exists(path("missing.zbl")));
  EXPECT_FALSE(fs::exists(path("new.zbl")));
  EXPECT_EQ(slurp(path("text.zbl")), std::vector<uint8_t>(4096, 'x'));
  EXPECT_TRUE(fs::is_empty(path("adir")));
}

#ifndef _WIN32
// A put interrupted while it reads its input stores nothing: the library
// keeps the old entry whole and checks clean, and no file is left beside it.
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
    std::vector<char*> argv{exe.data(), const_cast<char*>("lib"), const_cast<char*>("put"), l.data(),
                            const_cast<char*>("e"), const_cast<char*>("-"), nullptr};
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
    std::vector<std::string> files;
    for (auto& f : fs::directory_iterator(dir)) files.push_back(f.path().filename().string());
    EXPECT_EQ(files, std::vector<std::string>{"i.zbl"});
  }
}
#endif

TEST_F(Cli, DamageIsReportedAndSalvaged) {
  const std::string data = pattern(20000, 5);
  spit(path("in.bin"), std::vector<uint8_t>(data.begin(), data.end()));
  ASSERT_EQ(lib({"create", "@d.zbl"}), 0);
  ASSERT_EQ(lib({"put", "@d.zbl", "big", "@in.bin"}), 0);
  ASSERT_EQ(lib({"put", "@d.zbl", "small", "-"}, "tiny"), 0);
  auto b = slurp(path("d.zbl"));
  std::memset(b.data() + 4096 + 512, 'X', 16);  // inside the first data block
  spit(path("d.zbl"), b);
  EXPECT_EQ(lib({"verify", "@d.zbl"}), 1) << what();
  EXPECT_NE(last.out.find("problem"), std::string::npos) << what();
  EXPECT_EQ(lib({"verify", "--json", "@d.zbl"}), 1);
  EXPECT_GT(json()["problems"].get<int>(), 0);
  ASSERT_EQ(lib({"salvage", "@d.zbl", "@saved.zbl"}), 0) << what();
  ASSERT_EQ(lib({"cat", "@saved.zbl", "small"}), 0) << what();
  EXPECT_EQ(last.out, "tiny");
  EXPECT_EQ(lib({"verify", "@saved.zbl"}), 0) << what();
}

TEST_F(Cli, HelpAndVersion) {
  for (std::vector<std::string> args : {std::vector<std::string>{"--help"}, {"put", "--help"}}) {
    EXPECT_EQ(lib(args), 0);
    EXPECT_NE(last.out.find("put"), std::string::npos);
  }
  auto r = zbtest::run_program({ZBSHR_CLI, "help", "lib"});
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("salvage"), std::string::npos) << "help CMD is the command's own help";
  r = zbtest::run_program({ZBSHR_CLI, "--version"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind("zbshr " + std::string(zbshr_version()), 0), 0u) << r.out;
}

}  // namespace
