/* zbshr: diagnostics and system utilities: buffered files, profile files and
 * the start-up path, and the host hooks of the platform layer. */
#ifndef ZBSHR_SYSTEM_H
#define ZBSHR_SYSTEM_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Host hooks of the platform layer ---------------------------------- */

/** A message-box handler answers the library's message boxes (out of memory,
 * disk errors, notices). It returns a button code: 1 OK, 2 Cancel, 3 Abort,
 * 4 Retry, 5 Ignore, 6 Yes, 7 No. `style` carries the MessageBoxA style bits. */
typedef int32_t (ZBSHR_CALLBACK *ZBSHR_MSGBOX_HANDLER)(void *context, const char *text,
                                                   const char *caption, uint32_t style);

/** Installs a handler (null restores the default: on Windows the real message
 * box; on POSIX the answers scripted in ZBSHR_MSGBOX, else the message on
 * standard error answered with Cancel). Returns the previous handler. */
ZBSHR_API(ZBSHR_MSGBOX_HANDLER) zbshr_set_msgbox_handler(ZBSHR_MSGBOX_HANDLER handler,
                                                        void *context);

/** Selects the code page for double-byte lead-byte tests: 1252 (single-byte,
 * the default) or 932 (double-byte). Returns the previous one. */
ZBSHR_API(uint32_t) zbshr_set_codepage(uint32_t codepage);

/** The text last put on the clipboard as CF_TEXT (by the clipboard export, for
 * example). Copies at most size - 1 bytes and a terminator into buf (buf may
 * be null when size is 0) and returns the full length of the text. On POSIX,
 * when ZBSHR_CLIPBOARD_CMD names a program, the text is also piped to it. */
ZBSHR_API(int32_t) zbshr_clipboard_text(char *buf, uint32_t size);

/** The library's version as "MAJOR.MINOR.PATCH" (static text). Compare with
 * the ZBSHR_VERSION_* macros of api.h to detect a header/library mismatch. */
ZBSHR_API(const char *) zbshr_version(void);

#if defined(ZBSHR_FAULT_INJECTION)
/** Fault injection for tests (only in builds with the CMake option
 * ZBSHR_FAULT_INJECTION, never in the installed library): makes the nth next
 * call (1 = the very next) of a platform service fail, and the count - 1
 * calls after it too; count 0
 * disarms. Services: 0 global allocation (also reallocation), 1 global lock,
 * 2 file write (moves half the bytes asked), 3 file read, 4 file seek,
 * 5 file open. Returns 1, or 0 for an unknown service. */
ZBSHR_API(int32_t) zbshr_inject_fault(int32_t service, int32_t nth, int32_t count);

/** Disarms every injected fault. */
ZBSHR_API(void) zbshr_clear_faults(void);
#endif

/* ---- End of the host hooks of the platform layer ------------------------ */

/* ---- Buffered files ---------------------------------------------------- */

/* Mode flags of osOpenFile (16-bit): access in the low four bits, sharing in
 * bits 4 to 7, then the action flags. */
#ifndef OF_READ
#define OF_READ            0x0000
#define OF_WRITE           0x0001
#define OF_READWRITE       0x0002
#define OF_SHARE_COMPAT    0x0000
#define OF_SHARE_EXCLUSIVE 0x0010
#define OF_SHARE_DENY_WRITE 0x0020
#define OF_SHARE_DENY_READ 0x0030
#define OF_SHARE_DENY_NONE 0x0040
#define OF_PARSE           0x0100
#define OF_DELETE          0x0200
#define OF_CREATE          0x1000
#define OF_EXIST           0x4000
#endif

/* Longest path an open-file record holds, terminator included. */
#define OS_OFS_MAXPATH 260

/** The open-file record osOpenFile fills: 268 bytes, no padding. */
typedef struct OSOFSTRUCT {
  uint16_t cBytes;                 /* record length: 268 */
  uint16_t nErrCode;               /* last-error code of a failed call; 111 when the path is too long */
  uint32_t reserved;               /* zero */
  char szPathName[OS_OFS_MAXPATH]; /* full path found or built, NUL-terminated */
} OSOFSTRUCT;

/* Default transfer-buffer size of osFileOpenNew / osFileOpenRead. */
#define OSFILE_DEFAULT_BUFFER 16284

/** A buffered file: sequential writing (osFileOpenNew) or reading
 * (osFileOpenRead) through a buffer taken from the caller's heap and pool.
 * The caller owns the record; the export state embeds one. Its field order is
 * fixed; the in-memory size depends on the pointer width. */
typedef struct OSFILE {
  ZBSTG_HEAP heap;    /* heap of the buffer */
  uint32_t pool;      /* pool of the buffer */
  int32_t hFile;      /* handle from osOpenFile; 0 after close */
  char *buffer;       /* transfer buffer (zbstg_alloc) */
  OSOFSTRUCT of;      /* open-file record of the file */
  int32_t room;       /* writing: free bytes left; reading: unread bytes left */
  int32_t position;   /* offset in the buffer of the next byte to write or read */
  int32_t capacity;   /* size of the buffer */
  int32_t readMode;   /* 1 opened by osFileOpenRead, 0 by osFileOpenNew */
} OSFILE;

/** Opens, creates, deletes, parses or tests a file by the OF_* mode flags.
 * Returns the file handle; 1 for OF_PARSE, OF_EXIST and OF_DELETE; -1 on
 * failure with the error code in the record (a null record gives -1). */
ZBSHR_API(int32_t) osOpenFile(const char *name, OSOFSTRUCT *of, uint16_t mode);
#ifndef _WIN32
/* The classic handle calls for the handles osOpenFile returns (on Windows the
 * system's own functions serve). Each fails with -1 (HFILE_ERROR); -1 as an
 * unsigned count from _lread and _lwrite. A handle has exactly the access it
 * was opened with: reading one opened for writing only fails, and the other
 * way round.
 * _lopen: an existing file; mode = OF_READ, OF_WRITE or OF_READWRITE with one
 * OF_SHARE_* value. _lcreat: creates or empties a file for reading and
 * writing; attribute 0, or 1 read-only (later opens cannot write), 2 hidden
 * and 4 system (no effect here). _llseek: origin 0 start, 1 current, 2 end;
 * returns the new offset. _lclose: 0 on success. */
ZBSHR_API(int32_t) _lopen(const char *path, int32_t mode);
ZBSHR_API(int32_t) _lcreat(const char *path, int32_t attribute);
ZBSHR_API(uint32_t) _lread(int32_t file, void *buf, uint32_t n);
ZBSHR_API(uint32_t) _lwrite(int32_t file, const char *buf, uint32_t n);
ZBSHR_API(int32_t) _llseek(int32_t file, int32_t offset, int32_t origin);
ZBSHR_API(int32_t) _lclose(int32_t file);
#endif
/** Non-zero when the file can be found (osOpenFile with OF_EXIST). */
ZBSHR_API(int32_t) osFileExists(const char *name);
/** Creates (truncating) a file for buffered writing; buffer size 0 = 16284.
 * 1 on success, 0 when the file cannot be created. */
ZBSHR_API(int32_t) osFileOpenNew(ZBSTG_HEAP heap, uint32_t pool, OSFILE *file, const char *name,
                                 uint32_t buffer_size);
/** Opens an existing file for buffered reading; buffer size 0 = 16284. */
ZBSHR_API(int32_t) osFileOpenRead(ZBSTG_HEAP heap, uint32_t pool, OSFILE *file, const char *name,
                                  uint32_t buffer_size);
/** Appends n bytes (a null source flushes the buffer). Returns n (1 for a
 * flush), or 0 on failure: a short write leaves the object as it was. */
ZBSHR_API(uint32_t) osFileWrite(OSFILE *file, const void *src, uint32_t n);
/** Reads up to n bytes; returns the count delivered (fewer at end of file). */
ZBSHR_API(uint32_t) osFileRead(OSFILE *file, void *dst, uint32_t n);
/** Size of a file opened for reading; 0 for one opened for writing. */
ZBSHR_API(uint32_t) osFileSize(OSFILE *file);
/** Flushes (when keep is non-zero), closes and frees the buffer. Returns keep,
 * or 0 when the final flush failed. keep 0 drops the pending bytes. */
ZBSHR_API(int32_t) osFileClose(OSFILE *file, int32_t keep);

/* ---- End of buffered files --------------------------------------------- */

/* ---- Profile files and the start-up path --------------------------------
 * The host program is recognised from the programs loaded in the process
 * (on POSIX: the running program's file name, or ZBSHR_HOST_PROGRAM when set,
 * compared without regard to case, with or without ".exe"): zb050 is the
 * development environment ("zb"), kw050 and kwrt050 the report tool ("kw"),
 * dv050 the grid builder ("dv"); anything else counts as the development
 * environment. Its profile file is <init path><short name>.ini. */

/** The init path (ending in a separator or ':'), with `file` appended when
 * given; a result that would not fit gives `file` alone. Returns buf. */
ZBSHR_API(char *) OS_UtilGetInitPath(char *buf, int32_t size, const char *file);
/** Stores a folder as the init path (an empty one removes the stored path).
 * Non-zero on success; 0 when the folder holds no profile file of the host
 * or the store fails. */
ZBSHR_API(int32_t) OS_UtilPutInitPath(const char *folder);
/* Private-profile reads and writes on the host's profile file. A write to a
 * profile file that does not exist removes the stored init path and lands in
 * the host program's folder. */
ZBSHR_API(int32_t) OS_UtilGetProfInt(const char *section, const char *key, int32_t def);
ZBSHR_API(int32_t) OS_UtilGetProfStr(const char *section, const char *key, const char *def,
                                     char *buf, int32_t size);
ZBSHR_API(int32_t) OS_UtilPutProfStr(const char *section, const char *key, const char *value);
/* The shared profile is named by "sharedIni" in section "zb" of the local
 * profile. Accessible returns the length of that name (0: none). Without a
 * shared profile, reads give the default and writes fail with 0. */
ZBSHR_API(int32_t) OS_NetworkSharedProfileAccessible(void);
ZBSHR_API(int32_t) OS_NetworkGetProfInt(const char *section, const char *key, int32_t def);
ZBSHR_API(int32_t) OS_NetworkGetProfStr(const char *section, const char *key, const char *def,
                                        char *buf, int32_t size);
ZBSHR_API(int32_t) OS_NetworkPutProfStr(const char *section, const char *key, const char *value);
/** Diagnostics: the recognised host's short name, product name and program
 * folder (each cut to its buffer); returns 1. */
ZBSHR_API(int32_t) OS_UtilGetHostInfo(char *short_name, int32_t short_size, char *product,
                                      int32_t product_size, char *folder, int32_t folder_size);
/** Diagnostics: the profile file path used for reading (for_writing 0) or
 * writing (non-zero; this may remove a stored init path whose profile file is
 * missing, as a write would). Returns the full length of the path. */
ZBSHR_API(int32_t) OS_UtilGetProfileFile(char *buf, int32_t size, int32_t for_writing);

/* ---- End of profile files ---------------------------------------------- */

ZBSHR_END_DECLS

#endif
