// The Windows backend: every service forwards to the real API. Handles cross
// the boundary through intptr_t (file handles) or as they are (memory,
// windows, registry keys). Fault injection applies here too, so tests of the
// layers above behave the same on both systems.
//
// platform.h comes first: the Windows headers define many of its names as
// macros with the same values.
#include "platform/platform.h"
#include "platform/win32/win32.h"
#include "platform/internal.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <atomic>
#include <cstring>
#include <string>
#include <utility>

namespace zbshr::plat {
namespace {

HANDLE to_handle(HFILE f) { return reinterpret_cast<HANDLE>(static_cast<intptr_t>(f)); }
HFILE to_hfile(HANDLE h) { return static_cast<HFILE>(reinterpret_cast<intptr_t>(h)); }

std::atomic<UINT> g_codepage{0};  // 0: the system's ANSI code page

}  // namespace

// ---------------------------------------------------------------- errors
thread_local DWORD t_last_error = 0;

void win32::keep_error() { t_last_error = static_cast<DWORD>(::GetLastError()); }

DWORD GetLastError() { return t_last_error; }
void SetLastError(DWORD code) {
  t_last_error = code;
  ::SetLastError(code);
}

// ---------------------------------------------------------------- global memory
HGLOBAL GlobalAlloc(UINT flags, size_t bytes) {
  if (detail::fault_fires(Fault::GlobalAlloc)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return win32::kept(::GlobalAlloc(flags, bytes));
}

void* GlobalLock(HGLOBAL h) {
  if (detail::fault_fires(Fault::GlobalLock)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return win32::kept(::GlobalLock(h));
}

BOOL GlobalUnlock(HGLOBAL h) { return win32::kept(::GlobalUnlock(h)); }

HGLOBAL GlobalReAlloc(HGLOBAL h, size_t bytes, UINT flags) {
  if (detail::fault_fires(Fault::GlobalAlloc)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return win32::kept(::GlobalReAlloc(h, bytes, flags));
}

size_t GlobalSize(HGLOBAL h) { return win32::kept(::GlobalSize(h)); }
HGLOBAL GlobalFree(HGLOBAL h) { return win32::kept(::GlobalFree(h)); }

// ---------------------------------------------------------------- files
HFILE CreateFileA(const char* name, DWORD access, DWORD share, DWORD disposition,
                  DWORD flags_and_attributes) {
  if (detail::fault_fires(Fault::Open)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE;
  }
  HANDLE h = ::CreateFileA(name, access, share, nullptr, disposition, flags_and_attributes, nullptr);
  win32::keep_error();
  return h == INVALID_HANDLE_VALUE ? INVALID_HANDLE : to_hfile(h);
}

BOOL ReadFile(HFILE f, void* buf, DWORD n, DWORD* got) {
  if (got) *got = 0;
  if (detail::fault_fires(Fault::Read)) {
    SetLastError(ERROR_READ_FAULT);
    return 0;
  }
  ::DWORD done = 0;
  BOOL ok = ::ReadFile(to_handle(f), buf, n, &done, nullptr);
  win32::keep_error();
  if (got) *got = static_cast<DWORD>(done);
  return ok;
}

BOOL WriteFile(HFILE f, const void* buf, DWORD n, DWORD* put) {
  if (put) *put = 0;
  DWORD want = n;
  bool short_write = detail::fault_fires(Fault::Write);
  if (short_write) want = n / 2;
  ::DWORD done = 0;
  BOOL ok = ::WriteFile(to_handle(f), buf, want, &done, nullptr);
  win32::keep_error();
  if (put) *put = static_cast<DWORD>(done);
  if (ok && short_write) SetLastError(ERROR_DISK_FULL);
  return ok;
}

DWORD SetFilePointer(HFILE f, LONG distance, LONG* high, DWORD method) {
  if (detail::fault_fires(Fault::Seek)) {
    SetLastError(ERROR_SEEK);
    return INVALID_SET_FILE_POINTER;
  }
  ::LONG hi = high ? *high : 0;
  ::DWORD r = ::SetFilePointer(to_handle(f), distance, high ? &hi : nullptr, method);
  win32::keep_error();
  if (high) *high = hi;
  return static_cast<DWORD>(r);
}

BOOL SetFilePointerEx(HFILE f, int64_t distance, int64_t* new_pos, DWORD method) {
  if (detail::fault_fires(Fault::Seek)) {
    SetLastError(ERROR_SEEK);
    return 0;
  }
  LARGE_INTEGER d, r;
  d.QuadPart = distance;
  r.QuadPart = 0;
  BOOL ok = ::SetFilePointerEx(to_handle(f), d, &r, method);
  win32::keep_error();
  if (ok && new_pos) *new_pos = r.QuadPart;
  return ok;
}

BOOL SetEndOfFile(HFILE f) { return win32::kept(::SetEndOfFile(to_handle(f))); }

DWORD GetFileSize(HFILE f, DWORD* high) {
  ::DWORD hi = 0;
  ::DWORD r = ::GetFileSize(to_handle(f), high ? &hi : nullptr);
  win32::keep_error();
  if (high) *high = static_cast<DWORD>(hi);
  return static_cast<DWORD>(r);
}

BOOL GetFileSizeEx(HFILE f, int64_t* size) {
  LARGE_INTEGER s;
  s.QuadPart = 0;
  BOOL ok = ::GetFileSizeEx(to_handle(f), &s);
  win32::keep_error();
  if (ok && size) *size = s.QuadPart;
  return ok;
}

BOOL FlushFileBuffers(HFILE f) { return win32::kept(::FlushFileBuffers(to_handle(f))); }
BOOL CloseHandle(HFILE f) { return win32::kept(::CloseHandle(to_handle(f))); }
BOOL DeleteFileA(const char* name) { return win32::kept(::DeleteFileA(name)); }
BOOL MoveFileExA(const char* from, const char* to, DWORD flags) { return win32::kept(::MoveFileExA(from, to, flags)); }
DWORD GetFileAttributesA(const char* name) { return win32::kept(static_cast<DWORD>(::GetFileAttributesA(name))); }

BOOL get_file_time_unix(HFILE f, int64_t* seconds) {
  FILETIME written;
  if (!::GetFileTime(to_handle(f), nullptr, nullptr, &written)) return 0;
  uint64_t ticks = (static_cast<uint64_t>(written.dwHighDateTime) << 32) | written.dwLowDateTime;
  // 100-nanosecond ticks since 1601 to seconds since 1970.
  if (seconds) *seconds = static_cast<int64_t>(ticks / 10000000ull) - 11644473600ll;
  return 1;
}

DWORD GetFullPathNameA(const char* name, DWORD size, char* buf, char** file_part) {
  DWORD r = win32::kept(static_cast<DWORD>(::GetFullPathNameA(name, size, buf, file_part)));
  // A full path too long for the system is a buffer that cannot hold it
  // (error 111), as on every other path service of the library.
  if (r == 0 && GetLastError() == ERROR_FILENAME_EXCED_RANGE) SetLastError(ERROR_BUFFER_OVERFLOW);
  return r;
}

UINT GetTempFileNameA(const char* dir, const char* prefix, UINT unique, char* out) {
  return win32::kept(::GetTempFileNameA(dir, prefix, unique, out));
}

DWORD GetTempPathA(DWORD size, char* buf) { return win32::kept(static_cast<DWORD>(::GetTempPathA(size, buf))); }

DWORD GetCurrentDirectoryA(DWORD size, char* buf) {
  return win32::kept(static_cast<DWORD>(::GetCurrentDirectoryA(size, buf)));
}

DWORD GetModuleFileNameA(HINSTANCE module, char* buf, DWORD size) {
  return win32::kept(static_cast<DWORD>(::GetModuleFileNameA(static_cast<HMODULE>(module), buf, size)));
}

int32_t _lread(HFILE f, void* buf, UINT n) {
  DWORD got = 0;
  return ReadFile(f, buf, n, &got) ? static_cast<int32_t>(got) : HFILE_ERROR;
}

int32_t _lwrite(HFILE f, const void* buf, UINT n) {
  DWORD put = 0;
  return WriteFile(f, buf, n, &put) ? static_cast<int32_t>(put) : HFILE_ERROR;
}

LONG _llseek(HFILE f, LONG offset, int origin) {
  int64_t pos = 0;
  if (!SetFilePointerEx(f, offset, &pos, static_cast<DWORD>(origin))) return HFILE_ERROR;
  return static_cast<LONG>(pos);
}

HFILE _lclose(HFILE f) { return CloseHandle(f) ? 0 : HFILE_ERROR; }

std::string native_path(const char* name) { return name ? std::string(name) : std::string(); }

// Profiles, registry, message boxes and fatal exit: home.cpp.

// ---------------------------------------------------------------- user interface
BOOL MessageBeep(UINT type) { return win32::kept(::MessageBeep(type)); }
HWND GetActiveWindow() { return win32::kept(::GetActiveWindow()); }

HINSTANCE module_instance() {
  HMODULE module = nullptr;
  ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&module_instance), &module);
  return module;
}

DWORD GetVersion() {
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
  return win32::kept(static_cast<DWORD>(::GetVersion()));
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

// ---------------------------------------------------------------- clipboard
BOOL OpenClipboard(HWND owner) { return win32::kept(::OpenClipboard(static_cast<::HWND>(owner))); }
BOOL EmptyClipboard() {
  BOOL ok = ::EmptyClipboard();
  win32::keep_error();
  if (ok) detail::set_clipboard_text(std::string());
  return ok;
}

HGLOBAL SetClipboardData(UINT format, HGLOBAL mem) {
  // Copy the text for zbshr_clipboard_text before the system takes the
  // block; keep the copy only when the system accepted it.
  std::string text;
  bool is_text = false;
  if (format == CF_TEXT && mem) {
    if (const char* p = static_cast<const char*>(::GlobalLock(mem))) {
      size_t size = ::GlobalSize(mem), n = 0;
      win32::keep_error();
      while (n < size && p[n] != '\0') ++n;
      text.assign(p, n);
      is_text = true;
      ::GlobalUnlock(mem);
    }
  }
  HGLOBAL r = ::SetClipboardData(format, mem);
  win32::keep_error();
  if (r && is_text) detail::set_clipboard_text(std::move(text));
  return r;
}

BOOL CloseClipboard() { return win32::kept(::CloseClipboard()); }

// ---------------------------------------------------------------- clock
void GetLocalTime(SYSTEMTIME* t) {
  if (!t) return;
  ::SYSTEMTIME st;
  ::GetLocalTime(&st);
  t->wYear = st.wYear;
  t->wMonth = st.wMonth;
  t->wDayOfWeek = st.wDayOfWeek;
  t->wDay = st.wDay;
  t->wHour = st.wHour;
  t->wMinute = st.wMinute;
  t->wSecond = st.wSecond;
  t->wMilliseconds = st.wMilliseconds;
}

DWORD GetTickCount() { return static_cast<DWORD>(::GetTickCount()); }

// ---------------------------------------------------------------- character set
BOOL IsDBCSLeadByte(uint8_t c) { return detail::is_lead_byte_in(GetACP(), c) ? 1 : 0; }

UINT GetACP() {
  UINT cp = g_codepage.load(std::memory_order_relaxed);
  return cp ? cp : ::GetACP();
}

void set_acp(UINT codepage) { g_codepage.store(codepage, std::memory_order_relaxed); }

int lstrcmpA(const char* a, const char* b) { return ::lstrcmpA(a ? a : "", b ? b : ""); }
int lstrcmpiA(const char* a, const char* b) { return ::lstrcmpiA(a ? a : "", b ? b : ""); }

}  // namespace zbshr::plat
