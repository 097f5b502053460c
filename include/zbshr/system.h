/** @file
 * zbshr: diagnostics and system utilities: buffered files, profile files and
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

/** Installs the handler that answers the library's message boxes.
 * @param handler the new handler; null restores the default (on Windows the real message box;
 *     on POSIX the answers scripted in ZBSHR_MSGBOX, else the message on standard error
 *     answered with Cancel)
 * @param context passed to every call of the handler
 * @return the previous handler */
ZBSHR_API(ZBSHR_MSGBOX_HANDLER) zbshr_set_msgbox_handler(ZBSHR_MSGBOX_HANDLER handler,
                                                        void *context);

/** Selects the code page for double-byte lead-byte tests.
 * @param codepage 1252 (single-byte, the default) or 932 (double-byte)
 * @return the previous code page */
ZBSHR_API(uint32_t) zbshr_set_codepage(uint32_t codepage);

/** The text last put on the clipboard as CF_TEXT (by the clipboard export, for example). On
 * POSIX, when ZBSHR_CLIPBOARD_CMD names a program, the text is also piped to it.
 * @param buf receives at most size - 1 bytes and a terminator; may be null when size is 0
 * @param size size of buf in bytes
 * @return the full length of the text */
ZBSHR_API(int32_t) zbshr_clipboard_text(char *buf, uint32_t size);

/** The library's version. Compare with the ZBSHR_VERSION_* macros of api.h to detect a
 * header/library mismatch.
 * @return "MAJOR.MINOR.PATCH" (static text, not to be freed) */
ZBSHR_API(const char *) zbshr_version(void);

#if defined(ZBSHR_FAULT_INJECTION)
/** Fault injection for tests (only in builds with the CMake option ZBSHR_FAULT_INJECTION, never
 * in the installed library): makes the nth next call of a platform service fail, and the count
 * - 1 calls after it too.
 * @param service 0 global allocation (also reallocation), 1 global lock, 2 file write (moves
 *     half the bytes asked), 3 file read, 4 file seek, 5 file open
 * @param nth which next call fails first (1 = the very next)
 * @param count number of calls that fail; 0 disarms
 * @return 1, or 0 for an unknown service */
ZBSHR_API(int32_t) zbshr_inject_fault(int32_t service, int32_t nth, int32_t count);

/** Disarms every injected fault. */
ZBSHR_API(void) zbshr_clear_faults(void);
#endif

/* ---- End of the host hooks of the platform layer ------------------------ */

/* ---- Buffered files ---------------------------------------------------- */

/* Mode flags of osOpenFile (16-bit): access in the low four bits, sharing in
 * bits 4 to 7, then the action flags. */
#ifndef OF_READ
#define OF_READ            0x0000 /**< read access */
#define OF_WRITE           0x0001 /**< write access */
#define OF_READWRITE       0x0002 /**< read and write access */
#define OF_SHARE_COMPAT    0x0000 /**< compatibility sharing */
#define OF_SHARE_EXCLUSIVE 0x0010 /**< no sharing */
#define OF_SHARE_DENY_WRITE 0x0020 /**< others may not write */
#define OF_SHARE_DENY_READ 0x0030 /**< others may not read */
#define OF_SHARE_DENY_NONE 0x0040 /**< others may read and write */
#define OF_PARSE           0x0100 /**< only build the full path */
#define OF_DELETE          0x0200 /**< delete the file */
#define OF_CREATE          0x1000 /**< create or truncate the file */
#define OF_EXIST           0x4000 /**< test that the file exists */
#endif

/** Longest path an open-file record holds, terminator included. */
#define OS_OFS_MAXPATH 260

/** The open-file record osOpenFile fills: 268 bytes, no padding. */
typedef struct OSOFSTRUCT {
  uint16_t cBytes;                 /**< record length: 268 */
  uint16_t nErrCode;               /**< last-error code of a failed call; 111 when the path is too long */
  uint32_t reserved;               /**< zero */
  char szPathName[OS_OFS_MAXPATH]; /**< full path found or built, NUL-terminated */
} OSOFSTRUCT;

/** Default transfer-buffer size of osFileOpenNew / osFileOpenRead. */
#define OSFILE_DEFAULT_BUFFER 16284

/** A buffered file: sequential writing (osFileOpenNew) or reading
 * (osFileOpenRead) through a buffer taken from the caller's heap and pool.
 * The caller owns the record; the export state embeds one. Its field order is
 * fixed; the in-memory size depends on the pointer width. */
typedef struct OSFILE {
  ZBSTG_HEAP heap;    /**< heap of the buffer */
  uint32_t pool;      /**< pool of the buffer */
  int32_t hFile;      /**< handle from osOpenFile; 0 after close */
  char *buffer;       /**< transfer buffer (zbstg_alloc) */
  OSOFSTRUCT of;      /**< open-file record of the file */
  int32_t room;       /**< writing: free bytes left; reading: unread bytes left */
  int32_t position;   /**< offset in the buffer of the next byte to write or read */
  int32_t capacity;   /**< size of the buffer */
  int32_t readMode;   /**< 1 opened by osFileOpenRead, 0 by osFileOpenNew */
} OSFILE;

/** Opens, creates, deletes, parses or tests a file by the OF_* mode flags.
 * @param name the file name
 * @param of the open-file record to fill (full path, error code)
 * @param mode OF_* access, sharing and action flags
 * @return the file handle; 1 for OF_PARSE, OF_EXIST and OF_DELETE; -1 on failure with the
 *     error code in the record (a null record gives -1) */
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
/** Opens an existing file. A handle has exactly the access it was opened with.
 * @param path the file
 * @param mode OF_READ, OF_WRITE or OF_READWRITE with one OF_SHARE_* value
 * @return the handle, or -1 (HFILE_ERROR) */
ZBSHR_API(int32_t) _lopen(const char *path, int32_t mode);
/** Creates or empties a file for reading and writing.
 * @param path the file
 * @param attribute 0, or 1 read-only (later opens cannot write), 2 hidden and 4 system (no
 *     effect here)
 * @return the handle, or -1 (HFILE_ERROR) */
ZBSHR_API(int32_t) _lcreat(const char *path, int32_t attribute);
/** Reads from a handle (fails on a handle opened for writing only).
 * @param file the handle
 * @param buf destination
 * @param n bytes wanted
 * @return the bytes read, or 0xFFFFFFFF (-1) on failure */
ZBSHR_API(uint32_t) _lread(int32_t file, void *buf, uint32_t n);
/** Writes to a handle (fails on a handle opened for reading only).
 * @param file the handle
 * @param buf source
 * @param n bytes to write
 * @return the bytes written, or 0xFFFFFFFF (-1) on failure */
ZBSHR_API(uint32_t) _lwrite(int32_t file, const char *buf, uint32_t n);
/** Moves the file position.
 * @param file the handle
 * @param offset the distance
 * @param origin 0 start, 1 current, 2 end
 * @return the new offset, or -1 (HFILE_ERROR) */
ZBSHR_API(int32_t) _llseek(int32_t file, int32_t offset, int32_t origin);
/** Closes a handle.
 * @param file the handle
 * @return 0 on success, -1 (HFILE_ERROR) on failure */
ZBSHR_API(int32_t) _lclose(int32_t file);
#endif
/** Tests whether a file can be found (osOpenFile with OF_EXIST).
 * @param name the file name
 * @return 1 when it exists, else 0 */
ZBSHR_API(int32_t) osFileExists(const char *name);
/** Creates (truncating) a file for buffered writing. The buffer comes from the heap and pool.
 * @param heap heap of the buffer
 * @param pool pool of the buffer
 * @param file the caller's record to fill
 * @param name the file name
 * @param buffer_size buffer size in bytes; 0 = 16284
 * @return 1 on success, 0 when the file cannot be created */
ZBSHR_API(int32_t) osFileOpenNew(ZBSTG_HEAP heap, uint32_t pool, OSFILE *file, const char *name,
                                 uint32_t buffer_size);
/** Opens an existing file for buffered reading. The buffer comes from the heap and pool.
 * @param heap heap of the buffer
 * @param pool pool of the buffer
 * @param file the caller's record to fill
 * @param name the file name
 * @param buffer_size buffer size in bytes; 0 = 16284
 * @return 1 on success, 0 when the file cannot be opened */
ZBSHR_API(int32_t) osFileOpenRead(ZBSTG_HEAP heap, uint32_t pool, OSFILE *file, const char *name,
                                  uint32_t buffer_size);
/** Appends n bytes to a file opened by osFileOpenNew.
 * @param file the file record
 * @param src the bytes; null flushes the buffer
 * @param n number of bytes
 * @return n (1 for a flush), or 0 on failure: a short write leaves the object as it was */
ZBSHR_API(uint32_t) osFileWrite(OSFILE *file, const void *src, uint32_t n);
/** Reads from a file opened by osFileOpenRead.
 * @param file the file record
 * @param dst destination
 * @param n bytes wanted
 * @return the count delivered (fewer at end of file) */
ZBSHR_API(uint32_t) osFileRead(OSFILE *file, void *dst, uint32_t n);
/** Size of a file opened for reading.
 * @param file the file record
 * @return the size in bytes; 0 for one opened for writing or on failure */
ZBSHR_API(uint32_t) osFileSize(OSFILE *file);
/** Flushes (when keep is non-zero), closes and frees the buffer.
 * @param file the file record
 * @param keep non-zero writes the pending bytes; 0 drops them
 * @return keep, or 0 when the final flush failed */
ZBSHR_API(int32_t) osFileClose(OSFILE *file, int32_t keep);

/* ---- End of buffered files --------------------------------------------- */

/* ---- Profile files and the start-up path --------------------------------
 * The host program is recognised from the programs loaded in the process
 * (on POSIX: the running program's file name, or ZBSHR_HOST_PROGRAM when set,
 * compared without regard to case, with or without ".exe"): zb050 is the
 * development environment ("zb"), kw050 and kwrt050 the report tool ("kw"),
 * dv050 the grid builder ("dv"); anything else counts as the development
 * environment. Its profile file is <init path><short name>.ini. */

/** The init path (ending in a separator or ':'), with `file` appended when given; a result that
 * would not fit gives `file` alone.
 * @param buf destination
 * @param size size of buf in bytes
 * @param file name to append; may be null
 * @return buf */
ZBSHR_API(char *) OS_UtilGetInitPath(char *buf, int32_t size, const char *file);
/** Stores a folder as the init path.
 * @param folder the folder; an empty one removes the stored path
 * @return non-zero on success; 0 when the folder holds no profile file of the host or the
 *     store fails */
ZBSHR_API(int32_t) OS_UtilPutInitPath(const char *folder);
/* Private-profile reads and writes on the host's profile file. A write to a
 * profile file that does not exist removes the stored init path and lands in
 * the host program's folder. */
/** Reads a whole number from the host's profile file.
 * @param section the section
 * @param key the key
 * @param def the value when the key is missing
 * @return the value read, or def */
ZBSHR_API(int32_t) OS_UtilGetProfInt(const char *section, const char *key, int32_t def);
/** Reads a string from the host's profile file.
 * @param section the section
 * @param key the key
 * @param def the text when the key is missing (null counts as empty)
 * @param buf destination, always terminated
 * @param size size of buf in bytes
 * @return the number of characters copied; 0 for a null buffer or size <= 0 */
ZBSHR_API(int32_t) OS_UtilGetProfStr(const char *section, const char *key, const char *def,
                                     char *buf, int32_t size);
/** Writes a string to the host's profile file. A write to a profile file that does not exist
 * removes the stored init path and lands in the host program's folder.
 * @param section the section
 * @param key the key
 * @param value the text
 * @return non-zero on success, 0 on failure */
ZBSHR_API(int32_t) OS_UtilPutProfStr(const char *section, const char *key, const char *value);
/* The shared profile is named by "sharedIni" in section "zb" of the local
 * profile. Accessible returns the length of that name (0: none). Without a
 * shared profile, reads give the default and writes fail with 0. */
/** Tells whether a shared profile is named by "sharedIni" in section "zb" of the local profile.
 * @return the length of that name; 0 when there is none */
ZBSHR_API(int32_t) OS_NetworkSharedProfileAccessible(void);
/** Reads a whole number from the shared profile.
 * @param section the section
 * @param key the key
 * @param def the value when the key or the shared profile is missing
 * @return the value read, or def */
ZBSHR_API(int32_t) OS_NetworkGetProfInt(const char *section, const char *key, int32_t def);
/** Reads a string from the shared profile; without one, the default is copied.
 * @param section the section
 * @param key the key
 * @param def the text when the key or the shared profile is missing (null counts as empty)
 * @param buf destination, always terminated
 * @param size size of buf in bytes
 * @return the number of characters copied; 0 for a null buffer or size <= 0 */
ZBSHR_API(int32_t) OS_NetworkGetProfStr(const char *section, const char *key, const char *def,
                                        char *buf, int32_t size);
/** Writes a string to the shared profile.
 * @param section the section
 * @param key the key
 * @param value the text
 * @return non-zero on success; 0 on failure or without a shared profile */
ZBSHR_API(int32_t) OS_NetworkPutProfStr(const char *section, const char *key, const char *value);
/** Diagnostics: the recognised host's short name, product name and program folder, each cut to
 * its buffer (a null buffer or size <= 0 is skipped).
 * @param short_name receives the short name
 * @param short_size size of short_name
 * @param product receives the product name
 * @param product_size size of product
 * @param folder receives the program folder
 * @param folder_size size of folder
 * @return 1 */
ZBSHR_API(int32_t) OS_UtilGetHostInfo(char *short_name, int32_t short_size, char *product,
                                      int32_t product_size, char *folder, int32_t folder_size);
/** Diagnostics: the profile file path used for reading or writing.
 * @param buf destination
 * @param size size of buf in bytes
 * @param for_writing 0 for reading; non-zero for writing (this may remove a stored init path
 *     whose profile file is missing, as a write would)
 * @return the full length of the path; 0 for a null buffer or size <= 0 */
ZBSHR_API(int32_t) OS_UtilGetProfileFile(char *buf, int32_t size, int32_t for_writing);

/* ---- End of profile files ---------------------------------------------- */

ZBSHR_END_DECLS

#endif
