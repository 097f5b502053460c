// The clipboard on POSIX. There is no system clipboard to talk to, so the
// library keeps the CF_TEXT text as the current clipboard contents (read back
// with zbshr_clipboard_text). When ZBSHR_CLIPBOARD_CMD names a program, the
// text is also piped to it when the clipboard is closed, through /bin/sh.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"

extern char** environ;

namespace zbshr::plat {
namespace {

std::mutex g_mutex;
bool g_open = false;
bool g_changed = false;          // text set since the clipboard was opened
std::vector<HGLOBAL> g_owned;    // blocks handed over by SetClipboardData

void free_owned() {
  for (HGLOBAL h : g_owned) GlobalFree(h);
  g_owned.clear();
}

// Runs `command` with `text` on its standard input. A program that exits
// without reading everything must not take this process down with SIGPIPE.
void pipe_to_command(const std::string& command, const std::string& text) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[0]);
  if (rc != 0) {
    close(fds[1]);
    return;
  }
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  const char* p = text.data();
  size_t left = text.size();
  bool broken = false;
  while (left > 0) {
    ssize_t w = write(fds[1], p, left);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      broken = errno == EPIPE;
      break;
    }
    p += w;
    left -= static_cast<size_t>(w);
  }
  close(fds[1]);
  if (broken) {
    // Take the SIGPIPE this thread raised before unblocking it.
    timespec zero{};
    sigtimedwait(&block, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

BOOL OpenClipboard(HWND) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_open) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  g_open = true;
  g_changed = false;
  return 1;
}

BOOL EmptyClipboard() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_open) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  free_owned();
  detail::set_clipboard_text(std::string());
  g_changed = true;
  return 1;
}

HGLOBAL SetClipboardData(UINT format, HGLOBAL mem) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_open || !mem) {
    SetLastError(g_open ? ERROR_INVALID_PARAMETER : ERROR_ACCESS_DENIED);
    return nullptr;
  }
  if (format == CF_TEXT) {
    const char* p = static_cast<const char*>(GlobalLock(mem));
    if (!p) return nullptr;
    size_t size = GlobalSize(mem);
    size_t n = 0;
    while (n < size && p[n] != '\0') ++n;
    detail::set_clipboard_text(std::string(p, n));
    GlobalUnlock(mem);
    g_changed = true;
  }
  g_owned.push_back(mem);
  return mem;
}

BOOL CloseClipboard() {
  std::string command, text;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_open) {
      SetLastError(ERROR_ACCESS_DENIED);
      return 0;
    }
    g_open = false;
    if (!g_changed) return 1;
    g_changed = false;
    const char* env = std::getenv("ZBSHR_CLIPBOARD_CMD");
    if (!env || !*env) return 1;
    command = env;
    text = detail::clipboard_text();
  }
  pipe_to_command(command, text);
  return 1;
}

}  // namespace zbshr::plat
