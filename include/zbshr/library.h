/* zbshr: library files: named entries (source and compiled objects) kept in
 * one file of 512-byte blocks, with check-out records.
 *
 * Names and paths passed to these functions are folded to lower case in the
 * caller's buffer before use, which is why they are not const. Every function
 * returns 0 (or a byte count) on success and a negative LMI_E_* code on
 * failure, except LMI_OpenLibrary, which returns a handle or null. */
#ifndef ZBSHR_LIBRARY_H
#define ZBSHR_LIBRARY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Error codes -------------------------------------------------------- */
#define LMI_E_CREATE (-1)        /* a new library could not be written */
#define LMI_E_EXISTS (-2)        /* the library file to be created exists */
#define LMI_E_IO (-3)            /* open, read or write failed; short transfer */
#define LMI_E_NULL_BUFFER (-4)   /* null data buffer */
#define LMI_E_ZERO_LENGTH (-5)   /* zero byte count */
#define LMI_E_NULL_HANDLE (-6)   /* null library handle */
#define LMI_E_NULL_INFO (-7)     /* null information or modification record */
#define LMI_E_PATTERN (-8)       /* null pattern or one that does not compile */
#define LMI_E_MODE (-9)          /* entry open mode other than 1 or 3 */
#define LMI_E_ARGUMENT (-10)     /* null name/path, bad extension, same source and
                                    destination, entry too large for a node */
#define LMI_E_NO_SPACE (-11)     /* the free-space bitmaps do not cover the file */
#define LMI_E_NOT_FOUND (-12)    /* no entry of that name */
#define LMI_E_NOT_OPEN (-13)     /* no entry in hand */
#define LMI_E_NOT_READABLE (-14) /* not opened for reading */
#define LMI_E_READ_ONLY (-15)    /* library or entry not open for writing */
#define LMI_E_BUSY (-16)         /* an (other) entry is in hand */
#define LMI_E_DISK_FULL (-17)    /* short write cancelled; offset past 0x7FFFFFFF */
#define LMI_E_DAMAGED (-18)      /* damaged library */
#define LMI_E_NULL_HEAP (-19)    /* null heap */
#define LMI_E_CHECKED_OUT (-20)  /* the entry is checked out */
#define LMI_E_SESSION_ARGS (-21) /* null argument to a run-time session function */
#define LMI_E_REGISTERED (-22)   /* the entry is registered */
#define LMI_E_EXECUTABLE (-23)   /* the executable carrying a library cannot be opened */

/* Library open modes and entry open modes. */
#define LMI_MODE_READ 1
#define LMI_MODE_READWRITE 2
#define LMI_MODE_WRITE 3

/* ---- Records -------------------------------------------------------------- */
typedef struct LMI_LIBRARY_S *LMI_HANDLE;

/** LMI_EntryInformation and the LMI_ListEntries callback. */
typedef struct LMI_ENTRYINFO {
  int32_t time;     /* modification time, seconds since 1970 */
  int32_t size;     /* data length without the entry comment */
  const char *name; /* inside the handle; valid until the next call on it */
} LMI_ENTRYINFO;

/** LMI_EntryInfoExtended and the LMI_ListEntriesExtended callback. */
typedef struct LMI_ENTRYINFOEX {
  char comment[256]; /* zero-terminated entry comment */
  int32_t time;
  int32_t size;
  const char *name;
  char status; /* listing only: 'd', 's', 'r', or 'x' for no check-out record */
} LMI_ENTRYINFOEX;

/** LMI_LibraryInformation. */
typedef struct LMI_LIBRARYINFO {
  int32_t checkOutLength; /* bytes of check-out records, 0 when none */
  int32_t creationTime;   /* seconds since 1970 */
  const char *comment;    /* inside the handle's header copy */
} LMI_LIBRARYINFO;

/** LMI_ModifyLibrary: the first two fields are ignored. */
typedef struct LMI_LIBRARYMOD {
  int32_t reserved1;
  int32_t reserved2;
  const char *comment; /* new library comment; null leaves it unchanged */
} LMI_LIBRARYMOD;

/** LMI_ListCheckOutEntries callback record. */
typedef struct LMI_CHECKOUTINFO {
  const char *otherLibrary; /* empty for a registration */
  const char *entryName;
  const char *user;         /* empty for a registration */
  char status;              /* 'd', 's' or 'r' */
} LMI_CHECKOUTINFO;

/* Callbacks: the result is ignored; the walk always visits every record. */
typedef int32_t (ZBSHR_CALLBACK *LMI_LISTCALLBACK)(LMI_ENTRYINFO *info, void *userData);
typedef int32_t (ZBSHR_CALLBACK *LMI_LISTCALLBACKEX)(LMI_ENTRYINFOEX *info, void *userData);
typedef int32_t (ZBSHR_CALLBACK *LMI_CHECKOUTCALLBACK)(LMI_CHECKOUTINFO *info, void *userData);

/* ---- Libraries ------------------------------------------------------------ */
/* mode 1 read, 2 read/write, 3 write; readAheadSize 0 for 16384, otherwise
 * 512..64000 (larger values are cut to 64000). Null on any failure. */
ZBSHR_API(LMI_HANDLE) LMI_OpenLibrary(ZBSTG_HEAP heap, char *path, int32_t mode,
                                      int32_t readAheadSize);
ZBSHR_API(int32_t) LMI_CreateLibrary(ZBSTG_HEAP heap, char *path, const char *comment);
ZBSHR_API(int32_t) LMI_CloseLibrary(LMI_HANDLE handle);
ZBSHR_API(int32_t) LMI_DeleteLibrary(ZBSTG_HEAP heap, char *path);
ZBSHR_API(int32_t) LMI_LibraryInformation(LMI_HANDLE handle, LMI_LIBRARYINFO *info);
ZBSHR_API(int32_t) LMI_ModifyLibrary(LMI_HANDLE handle, LMI_LIBRARYMOD *modification);

/* ---- Entries ---------------------------------------------------------------- */
ZBSHR_API(int32_t) LMI_OpenEntry(LMI_HANDLE handle, char *name, int32_t mode,
                                 const char *comment);
ZBSHR_API(int32_t) LMI_ReadEntry(LMI_HANDLE handle, void *buffer, int32_t count);
ZBSHR_API(int32_t) LMI_WriteEntry(LMI_HANDLE handle, const void *buffer, int32_t count);
ZBSHR_API(int32_t) LMI_CloseEntry(LMI_HANDLE handle);
ZBSHR_API(int32_t) LMI_EntryExists(LMI_HANDLE handle, char *name);
ZBSHR_API(int32_t) LMI_EntryInformation(LMI_HANDLE handle, char *name, LMI_ENTRYINFO *info);
ZBSHR_API(int32_t) LMI_EntryInfoExtended(LMI_HANDLE handle, char *name, LMI_ENTRYINFOEX *info);
ZBSHR_API(int32_t) LMI_ListEntries(LMI_HANDLE handle, char *pattern, LMI_LISTCALLBACK callback,
                                   void *userData);
ZBSHR_API(int32_t) LMI_ListEntriesExtended(LMI_HANDLE handle, char *pattern,
                                           LMI_LISTCALLBACKEX callback, void *userData);
ZBSHR_API(int32_t) LMI_DeleteEntry(LMI_HANDLE handle, char *name);
ZBSHR_API(int32_t) LMI_ModifyEntry(LMI_HANDLE handle, char *name, const char *comment);

/* ---- Between libraries ------------------------------------------------------ */
ZBSHR_API(int32_t) LMI_CopyEntry(ZBSTG_HEAP heap, char *name, char *newName, char *sourcePath,
                                 char *destinationPath);
ZBSHR_API(int32_t) LMI_CopyEntrySequential(ZBSTG_HEAP heap, char *name, char *newName,
                                           char *sourcePath, char *destinationPath);
ZBSHR_API(int32_t) LMI_MoveEntry(ZBSTG_HEAP heap, char *name, char *newName, char *sourcePath,
                                 char *destinationPath);

/* ---- Check-out records -------------------------------------------------------- */
ZBSHR_API(int32_t) LMI_CheckOutEntry(ZBSTG_HEAP heap, char *name, char *sourcePath,
                                     char *workPath, char *user);
/* `sourcePath` receives the library the entry came from (at least 260 bytes). */
ZBSHR_API(int32_t) LMI_CheckInEntry(ZBSTG_HEAP heap, char *name, char *workPath,
                                    char *sourcePath);
ZBSHR_API(int32_t) LMI_CheckRegisterEntry(ZBSTG_HEAP heap, char *libraryPath, char *name);
ZBSHR_API(int32_t) LMI_CheckClearRegEntry(ZBSTG_HEAP heap, char *libraryPath, char *name);
/* Outputs may be null; user and other library need room for the stored text. */
ZBSHR_API(int32_t) LMI_IsEntryCheckedOut(LMI_HANDLE handle, char *name, char *userOut,
                                         char *statusOut, char *otherLibraryOut);
ZBSHR_API(int32_t) LMI_GetCheckOutEntries(LMI_HANDLE handle, void *buffer);
ZBSHR_API(int32_t) LMI_SetCheckOutEntries(ZBSTG_HEAP heap, char *libraryPath, const void *bytes,
                                          int32_t count);
ZBSHR_API(int32_t) LMI_ListCheckOutEntries(ZBSTG_HEAP heap, char *libraryPath,
                                           LMI_CHECKOUTCALLBACK callback, void *userData);

/* ---- Host setting --------------------------------------------------------------- */
/** Write-through: 1 (the default) opens library files so that every write is on
 * disk when it returns; 0 leaves writes to the system cache for bulk work (a
 * crash may then lose recent changes). Any other value only queries. The
 * initial value comes from the environment variable ZBSHR_LIB_WRITE_THROUGH
 * ("0" turns it off). Applies to libraries opened or created afterwards;
 * returns the previous setting. */
ZBSHR_API(int32_t) zbshr_lib_write_through(int32_t on);

/* ---- Checking, salvage and repair ------------------------------------------------- */
/* One problem (or information line) found by verify, salvage, repair or compact.
 * code: a negative LMI_E_* code for damage, ZBSHR_LIB_NOTE_LEAK for blocks marked in
 * use that belong to nothing, ZBSHR_LIB_NOTE_INFO for information (for instance
 * "saved ENTRY"); entry: the entry concerned or null; text: one line, no newline.
 * The strings are valid only during the call. */
#define ZBSHR_LIB_NOTE_INFO 0
#define ZBSHR_LIB_NOTE_LEAK 1
typedef void (ZBSHR_CALLBACK *ZBSHR_LIB_PROBLEM)(void *ctx, int32_t code, const char *entry,
                                            const char *text);
/** Checks a library (opened read-only). Returns the number of damage problems
 * (>= 0; leaked blocks are reported but not counted) or a negative LMI_E_* code
 * when the file cannot be opened as a library. cb may be null. */
ZBSHR_API(int32_t) zbshr_lib_verify(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Scans every block of `damaged` for directory nodes and entry records, and
 * copies every entry that reads whole (data, comment, time) and the readable
 * check-out records into the library `fresh`, which must not exist. Returns
 * the number of entries saved or a negative LMI_E_* code. */
ZBSHR_API(int32_t) zbshr_lib_salvage(const char *damaged, const char *fresh,
                                     ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Repairs a library in place: rebuilds the free-space bitmaps from the blocks
 * reachable from the header and the directory, frees leaked blocks, drops an
 * unreadable check-out list and breaks directory cycles. Returns the number of
 * problems fixed (>= 0) or a negative LMI_E_* code. */
ZBSHR_API(int32_t) zbshr_lib_repair(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Rewrites a library into a fresh file with a shallow directory and no free
 * blocks, then puts it in place of the old one. Returns the number of entries
 * kept or a negative LMI_E_* code; on failure the library is unchanged. */
ZBSHR_API(int32_t) zbshr_lib_compact(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Why the last library call on this thread failed: copies the text into buf
 * (always zero-terminated when size > 0) and returns its code, 0 when the last
 * call succeeded or none failed yet. A call refused for its arguments before
 * any work (a null handle, say) leaves the previous reason in place. */
ZBSHR_API(int32_t) zbshr_lib_last_error(char *buf, int32_t size);

ZBSHR_END_DECLS

#endif
