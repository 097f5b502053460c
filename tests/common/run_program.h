// Runs a program from an argument vector (no shell, no quoting), feeds it
// optional standard input bytes, and captures its standard output, standard
// error and exit code. Header-only, for the tests that drive the zbshr program.
//
//   zbtest::RunResult r = zbtest::run_program({ZBSHR_CLI, "dec", "add", "1", "2"});
//   EXPECT_EQ(r.code, 0);
//   EXPECT_EQ(r.out, "3\n");
//
// code is the exit status, or 128 + the signal number when the program was
// killed by a signal (as a POSIX shell reports it), or -1 when it could not be
// started. Options: stdin bytes, extra environment entries ("NAME=value",
// added to or replacing the inherited ones), and a signal to send once the
// child has written a given text on standard error (to test interruption).
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <thread>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace zbtest {

struct RunResult {
  int code = -1;
  std::string out;
  std::string err;
};

struct RunOptions {
  std::string input;                 // bytes given on standard input
  std::vector<std::string> env;      // "NAME=value" added to the environment
  std::string cwd;                   // working folder ("" = inherited)
  int signal_on_err_text = 0;        // POSIX: signal to send ...
  std::string err_text_trigger;      // ... once standard error contains this
};

#if !defined(_WIN32)

inline RunResult run_program(const std::vector<std::string>& args, const RunOptions& opt = {}) {
  RunResult r;
  if (args.empty()) return r;
  int in_p[2], out_p[2], err_p[2];
  if (pipe(in_p) != 0) return r;
  if (pipe(out_p) != 0) { close(in_p[0]); close(in_p[1]); return r; }
  if (pipe(err_p) != 0) {
    close(in_p[0]); close(in_p[1]); close(out_p[0]); close(out_p[1]);
    return r;
  }
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, in_p[0], 0);
  posix_spawn_file_actions_adddup2(&fa, out_p[1], 1);
  posix_spawn_file_actions_adddup2(&fa, err_p[1], 2);
  for (int fd : {in_p[0], in_p[1], out_p[0], out_p[1], err_p[0], err_p[1]})
    posix_spawn_file_actions_addclose(&fa, fd);
  std::string saved_cwd;
  if (!opt.cwd.empty()) {
    char buf[4096];
    if (getcwd(buf, sizeof buf)) saved_cwd = buf;
  }

  std::vector<std::string> envs;
  for (char** e = environ; e && *e; ++e) {
    std::string s = *e;
    bool replaced = false;
    for (const auto& add : opt.env) {
      auto eq = add.find('=');
      if (eq != std::string::npos && s.compare(0, eq + 1, add, 0, eq + 1) == 0) replaced = true;
    }
    if (!replaced) envs.push_back(s);
  }
  for (const auto& add : opt.env) envs.push_back(add);
  std::vector<char*> envp;
  for (auto& s : envs) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argcopy(args);
  std::vector<char*> argv;
  for (auto& s : argcopy) argv.push_back(s.data());
  argv.push_back(nullptr);

  // posix_spawn has no portable "change folder" action before glibc 2.29's
  // _np extension, so the parent changes folder around the spawn.
  if (!opt.cwd.empty() && chdir(opt.cwd.c_str()) != 0) {
    posix_spawn_file_actions_destroy(&fa);
    for (int fd : {in_p[0], in_p[1], out_p[0], out_p[1], err_p[0], err_p[1]}) close(fd);
    return r;
  }
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
  if (!saved_cwd.empty() && chdir(saved_cwd.c_str()) != 0) { /* keep going */ }
  posix_spawn_file_actions_destroy(&fa);
  close(in_p[0]);
  close(out_p[1]);
  close(err_p[1]);
  if (rc != 0) {
    close(in_p[1]); close(out_p[0]); close(err_p[0]);
    return r;
  }
  // Feed standard input and drain both outputs together so that no pipe fills.
  int in_fd = in_p[1];
  std::size_t in_pos = 0;
  if (opt.input.empty()) { close(in_fd); in_fd = -1; }
  else fcntl(in_fd, F_SETFL, fcntl(in_fd, F_GETFL) | O_NONBLOCK);
  bool out_open = true, err_open = true, signalled = false;
  void (*old_pipe)(int) = signal(SIGPIPE, SIG_IGN);
  while (out_open || err_open) {
    pollfd fds[3];
    int n = 0, i_out = -1, i_err = -1, i_in = -1;
    if (out_open) { fds[n] = {out_p[0], POLLIN, 0}; i_out = n++; }
    if (err_open) { fds[n] = {err_p[0], POLLIN, 0}; i_err = n++; }
    if (in_fd >= 0) { fds[n] = {in_fd, POLLOUT, 0}; i_in = n++; }
    if (poll(fds, n, -1) < 0) break;
    char buf[65536];
    if (i_out >= 0 && fds[i_out].revents) {
      ssize_t k = read(out_p[0], buf, sizeof buf);
      if (k > 0) r.out.append(buf, static_cast<std::size_t>(k));
      else out_open = false;
    }
    if (i_err >= 0 && fds[i_err].revents) {
      ssize_t k = read(err_p[0], buf, sizeof buf);
      if (k > 0) r.err.append(buf, static_cast<std::size_t>(k));
      else err_open = false;
    }
    if (i_in >= 0 && fds[i_in].revents) {
      ssize_t k = write(in_fd, opt.input.data() + in_pos, opt.input.size() - in_pos);
      if (k > 0) in_pos += static_cast<std::size_t>(k);
      if (k < 0 || in_pos == opt.input.size()) { close(in_fd); in_fd = -1; }
    }
    if (opt.signal_on_err_text && !signalled && !opt.err_text_trigger.empty() &&
        r.err.find(opt.err_text_trigger) != std::string::npos) {
      kill(pid, opt.signal_on_err_text);
      signalled = true;
    }
  }
  if (in_fd >= 0) close(in_fd);
  close(out_p[0]);
  close(err_p[0]);
  signal(SIGPIPE, old_pipe);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return r;
  }
  if (WIFEXITED(status)) r.code = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) r.code = 128 + WTERMSIG(status);
  return r;
}

#else  // _WIN32

// Windows: builds a command line with the C runtime's quoting rules and runs it
// through CreateProcessW with redirected handles and an environment block of
// its own (the test's environment is left alone). Standard input is fed and
// standard error drained by helper threads while standard output is read, so
// that no pipe fills. The program's text output has CRLF line ends, which are
// given back as LF; the signal options have no Windows counterpart.
inline std::wstring zbtest_widen(const std::string& s) {
  if (s.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring w(static_cast<std::size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
  return w;
}
inline std::wstring zbtest_quote(const std::wstring& a) {
  if (!a.empty() && a.find_first_of(L" \t\n\v\"") == std::wstring::npos) return a;
  std::wstring q = L"\"";
  std::size_t bs = 0;
  for (wchar_t c : a) {
    if (c == L'\\') { ++bs; continue; }
    if (c == L'"') q.append(bs * 2 + 1, L'\\');
    else q.append(bs, L'\\');
    bs = 0;
    q.push_back(c);
  }
  q.append(bs * 2, L'\\');
  q.push_back(L'"');
  return q;
}
// The inherited environment with the given "NAME=value" entries added or
// replacing (names compared without regard to case, as Windows does).
inline std::wstring zbtest_environment(const std::vector<std::string>& extra) {
  std::vector<std::wstring> vars;
  if (wchar_t* block = GetEnvironmentStringsW()) {
    for (const wchar_t* p = block; *p; p += wcslen(p) + 1) vars.emplace_back(p);
    FreeEnvironmentStringsW(block);
  }
  auto name_of = [](const std::wstring& v) {
    std::size_t eq = v.find(L'=', v.empty() || v[0] != L'=' ? 0 : 1);
    std::wstring n = v.substr(0, eq);
    for (auto& c : n) c = static_cast<wchar_t>(towupper(c));
    return n;
  };
  for (const auto& e : extra) {
    std::wstring w = zbtest_widen(e);
    std::wstring n = name_of(w);
    bool replaced = false;
    for (auto& v : vars) {
      if (name_of(v) == n) { v = w; replaced = true; }
    }
    if (!replaced) vars.push_back(w);
  }
  std::wstring block;
  for (const auto& v : vars) { block += v; block.push_back(L'\0'); }
  block.push_back(L'\0');
  return block;
}
inline std::string zbtest_lf(std::string s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n') continue;
    out.push_back(s[i]);
  }
  return out;
}
inline RunResult run_program(const std::vector<std::string>& args, const RunOptions& opt = {}) {
  RunResult r;
  if (args.empty()) return r;
  std::wstring cmd;
  for (const auto& a : args) {
    if (!cmd.empty()) cmd.push_back(L' ');
    cmd += zbtest_quote(zbtest_widen(a));
  }
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  HANDLE in_r, in_w, out_r, out_w, err_r, err_w;
  if (!CreatePipe(&in_r, &in_w, &sa, 0)) return r;
  if (!CreatePipe(&out_r, &out_w, &sa, 0)) {
    CloseHandle(in_r); CloseHandle(in_w);
    return r;
  }
  if (!CreatePipe(&err_r, &err_w, &sa, 0)) {
    CloseHandle(in_r); CloseHandle(in_w); CloseHandle(out_r); CloseHandle(out_w);
    return r;
  }
  SetHandleInformation(in_w, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(out_r, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(err_r, HANDLE_FLAG_INHERIT, 0);
  std::wstring env = zbtest_environment(opt.env);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in_r;
  si.hStdOutput = out_w;
  si.hStdError = err_w;
  PROCESS_INFORMATION pi{};
  std::wstring wcwd = zbtest_widen(opt.cwd);
  BOOL ok = CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                           env.data(), opt.cwd.empty() ? nullptr : wcwd.c_str(), &si, &pi);
  CloseHandle(in_r);
  CloseHandle(out_w);
  CloseHandle(err_w);
  if (!ok) {
    CloseHandle(in_w); CloseHandle(out_r); CloseHandle(err_r);
    return r;
  }
  std::thread feeder([&] {
    std::size_t pos = 0;
    while (pos < opt.input.size()) {
      DWORD put = 0;
      DWORD n = static_cast<DWORD>(std::min<std::size_t>(opt.input.size() - pos, 1 << 16));
      if (!WriteFile(in_w, opt.input.data() + pos, n, &put, nullptr) || put == 0) break;
      pos += put;
    }
    CloseHandle(in_w);
  });
  std::string err;
  std::thread drainer([&] {
    char buf[65536];
    DWORD k = 0;
    while (ReadFile(err_r, buf, sizeof buf, &k, nullptr) && k) err.append(buf, k);
  });
  char buf[65536];
  DWORD k = 0;
  while (ReadFile(out_r, buf, sizeof buf, &k, nullptr) && k) r.out.append(buf, k);
  drainer.join();
  feeder.join();
  WaitForSingleObject(pi.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(pi.hProcess, &code);
  r.code = static_cast<int>(code);
  r.out = zbtest_lf(std::move(r.out));
  r.err = zbtest_lf(std::move(err));
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  CloseHandle(out_r);
  CloseHandle(err_r);
  return r;
}

#endif

}  // namespace zbtest
