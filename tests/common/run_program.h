// Runs a program from an argument vector (no shell), feeds it standard input
// and captures its outputs and exit code: the exit status, 128 + the signal
// number if it was killed (as a POSIX shell reports it), -1 if it never ran.
#pragma once

#include <cerrno>
#include <string>
#include <tuple>
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
  std::string out, err;
};

struct RunOptions {
  std::string input;                 // bytes given on standard input
  std::vector<std::string> env;      // "NAME=value" added to the environment
  int signal_on_err_text = 0;        // POSIX: signal to send ...
  std::string err_text_trigger;      // ... once standard error contains this
};

#if !defined(_WIN32)

inline RunResult run_program(const std::vector<std::string>& args, const RunOptions& opt = {}) {
  RunResult r;
  int in_p[2] = {-1, -1}, out_p[2] = {-1, -1}, err_p[2] = {-1, -1};
  auto close_all = [&] {
    for (int fd : {in_p[0], in_p[1], out_p[0], out_p[1], err_p[0], err_p[1]})
      if (fd >= 0) close(fd);
  };
  if (args.empty() || pipe(in_p) != 0 || pipe(out_p) != 0 || pipe(err_p) != 0) {
    close_all();
    return r;
  }
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, in_p[0], 0);
  posix_spawn_file_actions_adddup2(&fa, out_p[1], 1);
  posix_spawn_file_actions_adddup2(&fa, err_p[1], 2);
  for (int fd : {in_p[0], in_p[1], out_p[0], out_p[1], err_p[0], err_p[1]})
    posix_spawn_file_actions_addclose(&fa, fd);
  std::vector<std::string> envs;  // the inherited entries not replaced by opt.env, then opt.env
  for (char** e = environ; e && *e; ++e) {
    std::string s = *e;
    bool replaced = false;
    for (const auto& add : opt.env) {
      std::size_t n = add.find('=');
      replaced |= n != std::string::npos && s.compare(0, n + 1, add, 0, n + 1) == 0;
    }
    if (!replaced) envs.push_back(s);
  }
  envs.insert(envs.end(), opt.env.begin(), opt.env.end());
  std::vector<std::string> argcopy(args);
  std::vector<char*> envp, argv;
  for (auto& s : envs) envp.push_back(s.data());
  for (auto& s : argcopy) argv.push_back(s.data());
  envp.push_back(nullptr);
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  for (int* fd : {&in_p[0], &out_p[1], &err_p[1]}) close(*fd), *fd = -1;
  if (rc != 0) {
    close_all();
    return r;
  }
  // Feed standard input and drain both outputs together so that no pipe fills.
  int& in_fd = in_p[1];
  std::size_t in_pos = 0;
  if (opt.input.empty()) close(in_fd), in_fd = -1;
  else fcntl(in_fd, F_SETFL, fcntl(in_fd, F_GETFL) | O_NONBLOCK);
  bool signalled = false;
  void (*old_pipe)(int) = signal(SIGPIPE, SIG_IGN);
  while (out_p[0] >= 0 || err_p[0] >= 0) {
    pollfd fds[3] = {{out_p[0], POLLIN, 0}, {err_p[0], POLLIN, 0}, {in_fd, POLLOUT, 0}};
    if (poll(fds, 3, -1) < 0) break;  // negative descriptors are skipped by poll
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
      if (!fds[i].revents) continue;
      ssize_t k = read(fds[i].fd, buf, sizeof buf);
      if (k > 0) (i ? r.err : r.out).append(buf, static_cast<std::size_t>(k));
      else close(fds[i].fd), (i ? err_p[0] : out_p[0]) = -1;
    }
    if (fds[2].revents) {
      ssize_t k = write(in_fd, opt.input.data() + in_pos, opt.input.size() - in_pos);
      if (k > 0) in_pos += static_cast<std::size_t>(k);
      if (k < 0 || in_pos == opt.input.size()) close(in_fd), in_fd = -1;
    }
    if (opt.signal_on_err_text && !signalled && !opt.err_text_trigger.empty() &&
        r.err.find(opt.err_text_trigger) != std::string::npos) {
      kill(pid, opt.signal_on_err_text);
      signalled = true;
    }
  }
  close_all();
  signal(SIGPIPE, old_pipe);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return r;
  if (WIFEXITED(status)) r.code = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) r.code = 128 + WTERMSIG(status);
  return r;
}

#else  // _WIN32

// Windows: the C runtime's quoting rules, CreateProcessW with an environment
// block of its own, helper threads for standard input and error so that no
// pipe fills, CRLF given back as LF; the signal options have no counterpart.
inline std::wstring zbtest_widen(const std::string& s) {
  std::wstring w(s.size(), L'\0');  // UTF-8 never needs more UTF-16 units than bytes
  w.resize(static_cast<std::size_t>(
      MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), static_cast<int>(w.size()))));
  return w;
}
inline std::wstring zbtest_quote(const std::wstring& a) {
  if (!a.empty() && a.find_first_of(L" \t\n\v\"") == std::wstring::npos) return a;
  std::wstring q = L"\"";
  std::size_t bs = 0;
  for (wchar_t c : a) {
    if (c == L'\\') { ++bs; continue; }
    q.append(c == L'"' ? bs * 2 + 1 : bs, L'\\');
    bs = 0;
    q.push_back(c);
  }
  q.append(bs * 2, L'\\');
  return q + L"\"";
}
// The inherited environment with the "NAME=value" entries added or replacing
// (names compared without regard to case, as Windows does).
inline std::wstring zbtest_environment(const std::vector<std::string>& extra) {
  std::vector<std::wstring> vars;
  if (wchar_t* block = GetEnvironmentStringsW()) {
    for (const wchar_t* p = block; *p; p += wcslen(p) + 1) vars.emplace_back(p);
    FreeEnvironmentStringsW(block);
  }
  auto name_of = [](std::wstring v) {
    v.resize(std::min(v.size(), v.find(L'=', v.empty() || v[0] != L'=' ? 0 : 1)));
    for (auto& c : v) c = static_cast<wchar_t>(towupper(c));
    return v;
  };
  for (const auto& e : extra) {
    std::wstring w = zbtest_widen(e);
    auto it = std::find_if(vars.begin(), vars.end(), [&](const std::wstring& v) { return name_of(v) == name_of(w); });
    if (it != vars.end()) *it = w;
    else vars.push_back(w);
  }
  std::wstring block;
  for (const auto& v : vars) block += v + L'\0';
  return block + L'\0';
}
inline std::string zbtest_lf(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i)
    if (s[i] != '\r' || i + 1 == s.size() || s[i + 1] != '\n') out.push_back(s[i]);
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
  HANDLE in_r = nullptr, in_w = nullptr, out_r = nullptr, out_w = nullptr, err_r = nullptr, err_w = nullptr;
  if (!CreatePipe(&in_r, &in_w, &sa, 0) || !CreatePipe(&out_r, &out_w, &sa, 0) || !CreatePipe(&err_r, &err_w, &sa, 0)) {
    for (HANDLE h : {in_r, in_w, out_r, out_w, err_r, err_w})
      if (h) CloseHandle(h);
    return r;
  }
  for (HANDLE h : {in_w, out_r, err_r}) SetHandleInformation(h, HANDLE_FLAG_INHERIT, 0);
  std::wstring env = zbtest_environment(opt.env);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  std::tie(si.hStdInput, si.hStdOutput, si.hStdError) = std::tie(in_r, out_w, err_w);
  PROCESS_INFORMATION pi{};
  BOOL ok = FALSE;
  DWORD why = 0;
  for (int attempt = 0; !ok && attempt < 3; ++attempt)  // under a loaded emulator a start can fail once
    if (!(ok = CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT, env.data(), nullptr, &si, &pi)))
      why = GetLastError(), Sleep(200);
  for (HANDLE h : {in_r, out_w, err_w}) CloseHandle(h);
  if (!ok) {
    for (HANDLE h : {in_w, out_r, err_r}) CloseHandle(h);
    r.err = "the program did not start (error " + std::to_string(why) + ")";
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
  r = {static_cast<int>(code), zbtest_lf(r.out), zbtest_lf(err)};
  for (HANDLE h : {pi.hProcess, pi.hThread, out_r, err_r}) CloseHandle(h);
  return r;
}

#endif

}  // namespace zbtest
