// The platform layer: the only code in the library that talks to the
// operating system. Its shape follows the Win32 services the library was
// written against, so the code above it reads like the original calls:
// on Windows (src/platform/win32/) each function forwards to the real API,
// on POSIX (src/platform/posix/) it emulates the same observable behaviour.
//
// Everything here is internal (not exported); hosts reach the few knobs they
// need (message-box handler, clipboard text, code page, fault injection for
// tests) through the exported functions declared in zbshr/system.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zbshr::plat {

// ---------------------------------------------------------------- types
using BOOL = int32_t;
using UINT = uint32_t;
using DWORD = uint32_t;
using WORD = uint16_t;
using LONG = int32_t;
using HFILE = int32_t;        // a file handle; HFILE_ERROR (-1) when invalid
using HGLOBAL = void*;        // a global-memory handle
using HWND = void*;           // a window (always null where there is no window system)
using HINSTANCE = void*;      // the module instance
using HKEY = void*;           // a registry key

constexpr HFILE HFILE_ERROR = -1;
constexpr HFILE INVALID_HANDLE = -1;

// Last-error codes the library looks at.
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_WRITE_FAULT = 29;
constexpr DWORD ERROR_READ_FAULT = 30;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_SEEK = 25;
constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;

DWORD GetLastError();
void SetLastError(DWORD code);

// ---------------------------------------------------------------- global memory
constexpr UINT GMEM_FIXED = 0x0000;
constexpr UINT GMEM_MOVEABLE = 0x0002;
constexpr UINT GMEM_ZEROINIT = 0x0040;
constexpr UINT GMEM_DDESHARE = 0x2000;
constexpr UINT GMEM_MODIFY = 0x0080;  // GlobalReAlloc: change the flags only

// GlobalSize reports the size asked for. GlobalReAlloc may move the block: the
// new address comes from locking the (possibly new) handle again. GlobalFree
// returns null on success, the handle on failure.
HGLOBAL GlobalAlloc(UINT flags, size_t bytes);
void* GlobalLock(HGLOBAL h);
BOOL GlobalUnlock(HGLOBAL h);
HGLOBAL GlobalReAlloc(HGLOBAL h, size_t bytes, UINT flags);
size_t GlobalSize(HGLOBAL h);
HGLOBAL GlobalFree(HGLOBAL h);

// ---------------------------------------------------------------- files
constexpr DWORD GENERIC_READ = 0x80000000u;
constexpr DWORD GENERIC_WRITE = 0x40000000u;
constexpr DWORD FILE_SHARE_READ = 0x1;
constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD FILE_SHARE_DELETE = 0x4;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000u;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFFu;

// Opens or creates a file. Access, sharing (enforced across processes: an
// open that conflicts with an existing one fails with ERROR_SHARING_VIOLATION)
// and creation disposition as in Win32. On POSIX a path whose exact spelling
// does not exist is resolved component by component without regard to case,
// and both '/' and '\' separate components. Returns INVALID_HANDLE on failure.
HFILE CreateFileA(const char* name, DWORD access, DWORD share, DWORD disposition,
                  DWORD flags_and_attributes);
BOOL ReadFile(HFILE f, void* buf, DWORD n, DWORD* got);
BOOL WriteFile(HFILE f, const void* buf, DWORD n, DWORD* put);
// 32-bit seek; `high` may be null. Returns the new low 32 bits or INVALID_SET_FILE_POINTER.
DWORD SetFilePointer(HFILE f, LONG distance, LONG* high, DWORD method);
// 64-bit seek; returns false on failure.
BOOL SetFilePointerEx(HFILE f, int64_t distance, int64_t* new_pos, DWORD method);
BOOL SetEndOfFile(HFILE f);
DWORD GetFileSize(HFILE f, DWORD* high);
BOOL GetFileSizeEx(HFILE f, int64_t* size);
BOOL FlushFileBuffers(HFILE f);
BOOL CloseHandle(HFILE f);
BOOL DeleteFileA(const char* name);
// Replaces `to` with `from` in one step (used for atomic rewrites).
BOOL MoveFileExA(const char* from, const char* to, DWORD flags);
constexpr DWORD MOVEFILE_REPLACE_EXISTING = 0x1;
constexpr DWORD MOVEFILE_WRITE_THROUGH = 0x8;
// Attributes of an existing file or folder; INVALID_FILE_ATTRIBUTES when absent.
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
DWORD GetFileAttributesA(const char* name);
// Last write time of an open file as seconds since 1970 (UTC); false on failure.
BOOL get_file_time_unix(HFILE f, int64_t* seconds);

// Search order on POSIX: the program's folder, the current folder, the
// configuration folder (standing for the system folders), then each folder of
// PATH. `path` non-null restricts the search to that folder list. Returns the
// length written (without terminator), the size needed (with terminator) when
// `size` is too small, or 0 when not found.
DWORD SearchPathA(const char* path, const char* file, const char* ext, DWORD size, char* buf,
                  char** file_part);
// Makes a path absolute and removes "." and ".." without touching the file
// system. Returns the length written, the size needed (with terminator) when
// the buffer is too small, or 0 on failure.
DWORD GetFullPathNameA(const char* name, DWORD size, char* buf, char** file_part);
// With unique 0: creates an empty file "<dir>/<first 3 of prefix><hex>.TMP"
// and returns the number used; 0 on failure.
UINT GetTempFileNameA(const char* dir, const char* prefix, UINT unique, char* out);
DWORD GetTempPathA(DWORD size, char* buf);
DWORD GetCurrentDirectoryA(DWORD size, char* buf);
// Full file name of the running program (the host executable).
DWORD GetModuleFileNameA(HINSTANCE module, char* buf, DWORD size);

// The classic 16-bit-era file calls, on the same handles.
int32_t _lread(HFILE f, void* buf, UINT n);         // count read, or HFILE_ERROR
int32_t _lwrite(HFILE f, const void* buf, UINT n);  // count written, or HFILE_ERROR
LONG _llseek(HFILE f, LONG offset, int origin);     // new offset, or HFILE_ERROR
HFILE _lclose(HFILE f);                             // 0, or HFILE_ERROR

// On POSIX: resolves `name` as CreateFileA does (case-insensitive component
// matching, both separators) and returns the native path to use. Exact
// spellings that exist are kept; a missing final component keeps its case.
std::string native_path(const char* name);

// ---------------------------------------------------------------- profiles and registry
// Profile reads and writes with the private-profile rules. The system profile
// (GetProfile*) is win.ini in the configuration folder on POSIX.
DWORD GetProfileStringA(const char* section, const char* key, const char* def, char* buf,
                        DWORD size);
UINT GetProfileIntA(const char* section, const char* key, int32_t def);
BOOL WriteProfileStringA(const char* section, const char* key, const char* value);
DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* def, char* buf,
                               DWORD size, const char* file);
UINT GetPrivateProfileIntA(const char* section, const char* key, int32_t def, const char* file);
BOOL WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                const char* file);

extern HKEY const HKEY_CLASSES_ROOT;
extern HKEY const HKEY_CURRENT_USER;
extern HKEY const HKEY_LOCAL_MACHINE;
constexpr DWORD KEY_READ = 0x20019;
constexpr DWORD KEY_WRITE = 0x20006;
constexpr DWORD KEY_ALL_ACCESS = 0xF003F;
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
// Registry calls return ERROR_SUCCESS (0) or an error code.
LONG RegCreateKeyExA(HKEY key, const char* subkey, DWORD reserved, char* cls, DWORD options,
                     DWORD sam, void* security, HKEY* result, DWORD* disposition);
LONG RegOpenKeyExA(HKEY key, const char* subkey, DWORD options, DWORD sam, HKEY* result);
LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, uint8_t* data,
                      DWORD* size);
LONG RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const uint8_t* data,
                    DWORD size);
LONG RegDeleteValueA(HKEY key, const char* name);
LONG RegFlushKey(HKEY key);
LONG RegCloseKey(HKEY key);

// The configuration folder (POSIX: ZBSHR_HOME, else $XDG_CONFIG_HOME/zbshr,
// else ~/.config/zbshr; Windows: the Windows folder). No trailing separator.
std::string config_dir();

// ---------------------------------------------------------------- user interface and resources
constexpr UINT MB_OK = 0x0;
constexpr UINT MB_OKCANCEL = 0x1;
constexpr UINT MB_ABORTRETRYIGNORE = 0x2;
constexpr UINT MB_YESNOCANCEL = 0x3;
constexpr UINT MB_YESNO = 0x4;
constexpr UINT MB_RETRYCANCEL = 0x5;
constexpr UINT MB_ICONSTOP = 0x10;
constexpr UINT MB_ICONQUESTION = 0x20;
constexpr UINT MB_ICONEXCLAMATION = 0x30;
constexpr UINT MB_SYSTEMMODAL = 0x1000;
constexpr UINT MB_TASKMODAL = 0x2000;
constexpr int IDOK = 1, IDCANCEL = 2, IDABORT = 3, IDRETRY = 4, IDIGNORE = 5, IDYES = 6, IDNO = 7;

// On POSIX: asks the installed handler (zbshr_set_msgbox_handler), else takes
// the next scripted answer from ZBSHR_MSGBOX, else prints the message on
// standard error and answers Cancel (No for Yes/No boxes, OK for OK boxes).
int MessageBoxA(HWND owner, const char* text, const char* caption, UINT style);
BOOL MessageBeep(UINT type);
// Starts the ZBSHR_MSGBOX script again from its first answer (tests).
void reset_message_box_script();
HWND GetActiveWindow();
// Shows the text (standard error on POSIX) and ends the process at once with
// a non-zero status, without running clean-up.
[[noreturn]] void FatalAppExitA(UINT action, const char* text);

// The library's own module instance.
HINSTANCE module_instance();
// String resources compiled into the library (month and day names 700-771,
// messages). Copies at most size - 1 characters plus the terminator and
// returns the count copied; a missing string gives 0 and an empty buffer.
int LoadStringA(HINSTANCE module, UINT id, char* buf, int size);
// A custom binary resource; null (and *size 0) when absent.
const void* load_resource_data(HINSTANCE module, UINT type, UINT id, DWORD* size);
// GetVersion-style packed version: low byte major, next byte minor.
DWORD GetVersion();

// ---------------------------------------------------------------- clipboard
constexpr UINT CF_TEXT = 1;
BOOL OpenClipboard(HWND owner);
BOOL EmptyClipboard();
// Takes ownership of the global block (the caller must not free it) on success.
HGLOBAL SetClipboardData(UINT format, HGLOBAL mem);
BOOL CloseClipboard();

// ---------------------------------------------------------------- clock
struct SYSTEMTIME {
  WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
void GetLocalTime(SYSTEMTIME* t);
DWORD GetTickCount();

// ---------------------------------------------------------------- character set
// Single-byte code page (1252) by default; 932 makes 0x81-0x9F and 0xE0-0xFC
// lead bytes. Hosts select it with zbshr_set_codepage.
BOOL IsDBCSLeadByte(uint8_t c);
UINT GetACP();
void set_acp(UINT codepage);
// String comparison as lstrcmpA / lstrcmpiA (negative, 0, positive).
int lstrcmpA(const char* a, const char* b);
int lstrcmpiA(const char* a, const char* b);

// ---------------------------------------------------------------- modules
// The module of a loaded program or library by file name, or null when it is
// not loaded; a null name gives the process's own program. On POSIX the only
// module is the running program: a name matches it when it equals the
// program's file name without regard to case, with or without ".exe" on either
// side. ZBSHR_HOST_PROGRAM, when set, stands in for the running program's
// path (so a script can act as a given host program).
HINSTANCE GetModuleHandleA(const char* name);
// The full file name of a module from GetModuleHandleA (POSIX: the program's
// path, or ZBSHR_HOST_PROGRAM when set). Length written, or 0 on failure.
DWORD module_file_name_of(HINSTANCE module, char* buf, DWORD size);

// ---------------------------------------------------------------- fault injection (tests)
// Makes the n-th next call (1 = the very next) of the given service fail, and
// the `count` - 1 calls after it too. `count` 0 disarms. A failing GlobalAlloc
// returns null; a failing write moves only half the bytes asked (a short
// write); a failing read returns HFILE_ERROR / false.
enum class Fault { GlobalAlloc, GlobalLock, Write, Read, Seek, Open };
void inject_fault(Fault f, int nth, int count);
void clear_faults();

}  // namespace zbshr::plat
