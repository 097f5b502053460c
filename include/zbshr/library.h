/** @file
 * zbshr: library files: named entries (source and compiled objects) kept in
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
#define LMI_E_CREATE (-1)        /**< a new library could not be written */
#define LMI_E_EXISTS (-2)        /**< the library file to be created exists */
#define LMI_E_IO (-3)            /**< open, read or write failed; short transfer */
#define LMI_E_NULL_BUFFER (-4)   /**< null data buffer */
#define LMI_E_ZERO_LENGTH (-5)   /**< zero byte count */
#define LMI_E_NULL_HANDLE (-6)   /**< null library handle */
#define LMI_E_NULL_INFO (-7)     /**< null information or modification record */
#define LMI_E_PATTERN (-8)       /**< null pattern or one that does not compile */
#define LMI_E_MODE (-9)          /**< entry open mode other than 1 or 3 */
#define LMI_E_ARGUMENT (-10)     /**< null name/path, bad extension, same source and
                                    destination, entry too large for a node */
#define LMI_E_NO_SPACE (-11)     /**< the free-space bitmaps do not cover the file */
#define LMI_E_NOT_FOUND (-12)    /**< no entry of that name */
#define LMI_E_NOT_OPEN (-13)     /**< no entry in hand */
#define LMI_E_NOT_READABLE (-14) /**< not opened for reading */
#define LMI_E_READ_ONLY (-15)    /**< library or entry not open for writing */
#define LMI_E_BUSY (-16)         /**< an (other) entry is in hand */
#define LMI_E_DISK_FULL (-17)    /**< short write cancelled; offset past 0x7FFFFFFF */
#define LMI_E_DAMAGED (-18)      /**< damaged library */
#define LMI_E_NULL_HEAP (-19)    /**< null heap */
#define LMI_E_CHECKED_OUT (-20)  /**< the entry is checked out */
#define LMI_E_SESSION_ARGS (-21) /**< null argument to a run-time session function */
#define LMI_E_REGISTERED (-22)   /**< the entry is registered */
#define LMI_E_EXECUTABLE (-23)   /**< the executable carrying a library cannot be opened */

/* Library open modes and entry open modes. */
#define LMI_MODE_READ 1 /**< open for reading */
#define LMI_MODE_READWRITE 2 /**< open a library for reading and writing */
#define LMI_MODE_WRITE 3 /**< open for writing */

/* ---- Records -------------------------------------------------------------- */
/** A library handle from LMI_OpenLibrary. */
typedef struct LMI_LIBRARY_S *LMI_HANDLE;

/** LMI_EntryInformation and the LMI_ListEntries callback. */
typedef struct LMI_ENTRYINFO {
  int32_t time;     /**< modification time, seconds since 1970 */
  int32_t size;     /**< data length without the entry comment */
  const char *name; /**< inside the handle; valid until the next call on it */
} LMI_ENTRYINFO;

/** LMI_EntryInfoExtended and the LMI_ListEntriesExtended callback. */
typedef struct LMI_ENTRYINFOEX {
  char comment[256]; /**< zero-terminated entry comment */
  int32_t time;      /**< modification time, seconds since 1970 */
  int32_t size;      /**< data length without the entry comment */
  const char *name;  /**< inside the handle; valid until the next call on it */
  char status; /**< listing only: 'd', 's', 'r', or 'x' for no check-out record */
} LMI_ENTRYINFOEX;

/** LMI_LibraryInformation. */
typedef struct LMI_LIBRARYINFO {
  int32_t checkOutLength; /**< bytes of check-out records, 0 when none */
  int32_t creationTime;   /**< seconds since 1970 */
  const char *comment;    /**< inside the handle's header copy */
} LMI_LIBRARYINFO;

/** LMI_ModifyLibrary: the first two fields are ignored. */
typedef struct LMI_LIBRARYMOD {
  int32_t reserved1; /**< ignored */
  int32_t reserved2; /**< ignored */
  const char *comment; /**< new library comment; null leaves it unchanged */
} LMI_LIBRARYMOD;

/** LMI_ListCheckOutEntries callback record. */
typedef struct LMI_CHECKOUTINFO {
  const char *otherLibrary; /**< empty for a registration */
  const char *entryName;   /**< the entry */
  const char *user;         /**< empty for a registration */
  char status;              /**< 'd', 's' or 'r' */
} LMI_CHECKOUTINFO;

/* Callbacks: the result is ignored; the walk always visits every record. */
/** LMI_ListEntries callback. */
typedef int32_t (ZBSHR_CALLBACK *LMI_LISTCALLBACK)(LMI_ENTRYINFO *info, void *userData);
/** LMI_ListEntriesExtended callback. */
typedef int32_t (ZBSHR_CALLBACK *LMI_LISTCALLBACKEX)(LMI_ENTRYINFOEX *info, void *userData);
/** LMI_ListCheckOutEntries callback. */
typedef int32_t (ZBSHR_CALLBACK *LMI_CHECKOUTCALLBACK)(LMI_CHECKOUTINFO *info, void *userData);

/* ---- Libraries ------------------------------------------------------------ */
/* mode 1 read, 2 read/write, 3 write; readAheadSize 0 for 16384, otherwise
 * 512..64000 (larger values are cut to 64000). Null on any failure. */
/** Opens a library file.
 * @param heap heap for the handle and its buffers
 * @param path the library path (folded to lower case in place)
 * @param mode 1 read, 2 read/write, 3 write
 * @param readAheadSize 0 for 16384, otherwise 512..64000 (larger values are cut to 64000)
 * @return the handle (release it with LMI_CloseLibrary), or null on any failure
 *     (zbshr_lib_last_error tells why when the arguments were accepted) */
ZBSHR_API(LMI_HANDLE) LMI_OpenLibrary(ZBSTG_HEAP heap, char *path, int32_t mode,
                                      int32_t readAheadSize);
/** Creates a new, empty library. A path without an extension gets ".zbl"; otherwise the
 * extension must be .zbd, .zbl or .tmp.
 * @param heap a heap
 * @param path the library path (folded to lower case in place)
 * @param comment library comment (at most 255 bytes are kept); may be null
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_EXISTS, LMI_E_IO, LMI_E_CREATE */
ZBSHR_API(int32_t) LMI_CreateLibrary(ZBSTG_HEAP heap, char *path, const char *comment);
/** Closes an entry still in hand, then the library, and frees the handle.
 * @param handle the library
 * @return 0, or a negative LMI_E_* code (LMI_E_NULL_HANDLE for null) */
ZBSHR_API(int32_t) LMI_CloseLibrary(LMI_HANDLE handle);
/** Deletes a library file (it must open as a library).
 * @param heap a heap
 * @param path the library path (folded to lower case in place)
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_IO */
ZBSHR_API(int32_t) LMI_DeleteLibrary(ZBSTG_HEAP heap, char *path);
/** Fills `info` from the library header.
 * @param handle the library
 * @param info the record to fill; its comment points into the handle
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_NULL_INFO */
ZBSHR_API(int32_t) LMI_LibraryInformation(LMI_HANDLE handle, LMI_LIBRARYINFO *info);
/** Replaces the library comment (at most 255 bytes are kept). The library must be open in mode
 * 3.
 * @param handle the library
 * @param modification the new comment; a null comment changes nothing
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_NULL_INFO, LMI_E_READ_ONLY, or an I/O code */
ZBSHR_API(int32_t) LMI_ModifyLibrary(LMI_HANDLE handle, LMI_LIBRARYMOD *modification);

/* ---- Entries ---------------------------------------------------------------- */
/** Puts an entry in hand for reading (mode 1) or for writing (mode 3, which creates or replaces
 * the entry). One entry at a time per handle.
 * @param handle the library
 * @param name the entry name (folded to lower case in place)
 * @param mode 1 read, 3 write
 * @param comment entry comment for mode 3; may be null
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_BUSY, LMI_E_ARGUMENT, LMI_E_MODE, LMI_E_READ_ONLY,
 *     LMI_E_NOT_READABLE, LMI_E_NOT_FOUND or another negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_OpenEntry(LMI_HANDLE handle, char *name, int32_t mode,
                                 const char *comment);
/** Reads the next bytes of the entry in hand.
 * @param handle the library
 * @param buffer destination
 * @param count bytes wanted, > 0
 * @return the number of bytes read (fewer at the end of the entry), or LMI_E_NULL_HANDLE,
 *     LMI_E_NULL_BUFFER, LMI_E_ZERO_LENGTH, LMI_E_NOT_READABLE, LMI_E_DAMAGED or an I/O code */
ZBSHR_API(int32_t) LMI_ReadEntry(LMI_HANDLE handle, void *buffer, int32_t count);
/** Appends bytes to the entry in hand. On failure everything since the entry was opened is
 * rolled back and the entry stays in hand, refusing writes, until it is closed.
 * @param handle the library
 * @param buffer the bytes
 * @param count number of bytes, > 0
 * @return `count`, or LMI_E_NULL_HANDLE, LMI_E_NULL_BUFFER, LMI_E_ZERO_LENGTH,
 *     LMI_E_READ_ONLY, LMI_E_IO, LMI_E_DISK_FULL or another negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_WriteEntry(LMI_HANDLE handle, const void *buffer, int32_t count);
/** Closes the entry in hand (a written entry is committed).
 * @param handle the library
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_NOT_OPEN or another negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_CloseEntry(LMI_HANDLE handle);
/** Looks an entry up.
 * @param handle the library
 * @param name the entry name (folded to lower case in place)
 * @return 0 when it exists, LMI_E_NOT_FOUND when not, or LMI_E_NULL_HANDLE, LMI_E_BUSY,
 *     LMI_E_ARGUMENT or another negative code */
ZBSHR_API(int32_t) LMI_EntryExists(LMI_HANDLE handle, char *name);
/** Fills `info` with an entry's time, size and name (the entry in hand, or one found with
 * nothing in hand).
 * @param handle the library
 * @param name the entry name (folded to lower case in place)
 * @param info the record to fill; its name points into the handle, valid until the next call
 *     on it
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_ARGUMENT, LMI_E_NULL_INFO, LMI_E_BUSY,
 *     LMI_E_NOT_FOUND, LMI_E_DAMAGED */
ZBSHR_API(int32_t) LMI_EntryInformation(LMI_HANDLE handle, char *name, LMI_ENTRYINFO *info);
/** As LMI_EntryInformation, with the entry comment too.
 * @param handle the library
 * @param name the entry name (folded to lower case in place)
 * @param info the record to fill; its name points into the handle, valid until the next call
 *     on it
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_ARGUMENT, LMI_E_NULL_INFO, LMI_E_BUSY,
 *     LMI_E_NOT_FOUND, LMI_E_DAMAGED or an I/O code */
ZBSHR_API(int32_t) LMI_EntryInfoExtended(LMI_HANDLE handle, char *name, LMI_ENTRYINFOEX *info);
/** Calls `callback` for every entry whose name matches the pattern (shregExprCmpl syntax).
 * @param handle the library
 * @param pattern the pattern (folded to lower case in place)
 * @param callback called with each entry's information (valid during the call); null only
 *     walks
 * @param userData passed to every call
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_PATTERN (null, empty or not compiling) or another
 *     negative code */
ZBSHR_API(int32_t) LMI_ListEntries(LMI_HANDLE handle, char *pattern, LMI_LISTCALLBACK callback,
                                   void *userData);
/** As LMI_ListEntries, with each entry's comment and check-out status.
 * @param handle the library
 * @param pattern the pattern (folded to lower case in place)
 * @param callback called with each entry's information (valid during the call); null only
 *     walks
 * @param userData passed to every call
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_PATTERN or another negative code */
ZBSHR_API(int32_t) LMI_ListEntriesExtended(LMI_HANDLE handle, char *pattern,
                                           LMI_LISTCALLBACKEX callback, void *userData);
/** Deletes an entry and its check-out record (and, for a checked-out entry, the record in the
 * other library, failures there not being reported).
 * @param handle the library, not open read-only
 * @param name the entry name (folded to lower case in place)
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_BUSY, LMI_E_ARGUMENT, LMI_E_READ_ONLY,
 *     LMI_E_NOT_FOUND or another negative code */
ZBSHR_API(int32_t) LMI_DeleteEntry(LMI_HANDLE handle, char *name);
/** Replaces an entry's comment.
 * @param handle the library, not open read-only
 * @param name the entry name (folded to lower case in place)
 * @param comment the new comment
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_NULL_INFO, LMI_E_ARGUMENT, LMI_E_READ_ONLY or another
 *     negative code */
ZBSHR_API(int32_t) LMI_ModifyEntry(LMI_HANDLE handle, char *name, const char *comment);

/* ---- Between libraries ------------------------------------------------------ */
/** Copies an entry (data, comment and time) from one library to another.
 * @param heap a heap
 * @param name the entry name (folded to lower case in place)
 * @param newName the name in the destination (folded to lower case in place)
 * @param sourcePath the source library (folded to lower case in place)
 * @param destinationPath the destination library (folded to lower case in place)
 * @return 0, or a negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_CopyEntry(ZBSTG_HEAP heap, char *name, char *newName, char *sourcePath,
                                 char *destinationPath);
/** As LMI_CopyEntry, but the source entry is looked up without the directory index and, where a
 * node's name range excludes it, in both of that node's subtrees too: it is found even in a
 * directory whose order is damaged.
 * @param heap a heap
 * @param name the entry name (folded to lower case in place)
 * @param newName the name in the destination (folded to lower case in place)
 * @param sourcePath the source library (folded to lower case in place)
 * @param destinationPath the destination library (folded to lower case in place)
 * @return 0, or a negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_CopyEntrySequential(ZBSTG_HEAP heap, char *name, char *newName,
                                           char *sourcePath, char *destinationPath);
/** As LMI_CopyEntry, then deletes the entry from the source.
 * @param heap a heap
 * @param name the entry name (folded to lower case in place)
 * @param newName the name in the destination (folded to lower case in place)
 * @param sourcePath the source library (folded to lower case in place)
 * @param destinationPath the destination library (folded to lower case in place)
 * @return 0, or a negative LMI_E_* code */
ZBSHR_API(int32_t) LMI_MoveEntry(ZBSTG_HEAP heap, char *name, char *newName, char *sourcePath,
                                 char *destinationPath);

/* ---- Check-out records -------------------------------------------------------- */
/** Records a check-out of an entry from one library into a working library: status 'd' in the
 * source and 's' in the working library, both committed or neither.
 * @param heap a heap
 * @param name the entry name (folded to lower case in place)
 * @param sourcePath the library the entry comes from (folded to lower case in place)
 * @param workPath the working library (folded to lower case in place)
 * @param user the user's name
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_IO or another negative code */
ZBSHR_API(int32_t) LMI_CheckOutEntry(ZBSTG_HEAP heap, char *name, char *sourcePath,
                                     char *workPath, char *user);
/* `sourcePath` receives the library the entry came from (at least 260 bytes). */
/** Removes the check-out records of an entry from the working library and the library it came
 * from, both or neither.
 * @param heap a heap
 * @param name the entry name (folded to lower case in place)
 * @param workPath the working library (folded to lower case in place)
 * @param sourcePath receives the library the entry came from (at least 260 bytes)
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_IO (also when the entry has no record)
 *     or another negative code */
ZBSHR_API(int32_t) LMI_CheckInEntry(ZBSTG_HEAP heap, char *name, char *workPath,
                                    char *sourcePath);
/** Adds a registration record (status 'r') for an entry.
 * @param heap a heap
 * @param libraryPath the library (folded to lower case in place)
 * @param name the entry name (folded to lower case in place)
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP or another negative code */
ZBSHR_API(int32_t) LMI_CheckRegisterEntry(ZBSTG_HEAP heap, char *libraryPath, char *name);
/** Removes an entry's check-out or registration record.
 * @param heap a heap
 * @param libraryPath the library (folded to lower case in place)
 * @param name the entry name (folded to lower case in place)
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP or another negative code */
ZBSHR_API(int32_t) LMI_CheckClearRegEntry(ZBSTG_HEAP heap, char *libraryPath, char *name);
/* Outputs may be null; user and other library need room for the stored text. */
/** Looks up an entry's check-out record. The outputs are cleared first.
 * @param handle the library
 * @param name the entry name (folded to lower case in place)
 * @param userOut receives the user; may be null
 * @param statusOut receives the status byte ('d', 's', 'r'; 0 without a record); may be null
 * @param otherLibraryOut receives the other library's path; may be null
 * @return 0 without a record, LMI_E_CHECKED_OUT ('d' or 's'), LMI_E_REGISTERED ('r'), or
 *     LMI_E_NULL_HANDLE, LMI_E_BUSY, LMI_E_ARGUMENT, LMI_E_IO */
ZBSHR_API(int32_t) LMI_IsEntryCheckedOut(LMI_HANDLE handle, char *name, char *userOut,
                                         char *statusOut, char *otherLibraryOut);
/** Copies the raw check-out list (LMI_LIBRARYINFO::checkOutLength bytes) into `buffer`. The
 * library must be open in mode 1.
 * @param handle the library
 * @param buffer destination of checkOutLength bytes
 * @return 0, or LMI_E_NULL_HANDLE, LMI_E_NULL_BUFFER, LMI_E_BUSY, LMI_E_NOT_READABLE, LMI_E_IO
 *     (also for an empty list) */
ZBSHR_API(int32_t) LMI_GetCheckOutEntries(LMI_HANDLE handle, void *buffer);
/** Replaces the raw check-out list of a library (the old chain's blocks stay marked in use).
 * @param heap a heap
 * @param libraryPath the library (folded to lower case in place)
 * @param bytes the new list
 * @param count its length, > 0
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_NULL_BUFFER, LMI_E_ZERO_LENGTH,
 *     LMI_E_IO */
ZBSHR_API(int32_t) LMI_SetCheckOutEntries(ZBSTG_HEAP heap, char *libraryPath, const void *bytes,
                                          int32_t count);
/** Calls `callback` for every readable check-out record of a library.
 * @param heap a heap
 * @param libraryPath the library (folded to lower case in place)
 * @param callback called with each record (valid during the call); may be null
 * @param userData passed to every call
 * @return 0, or LMI_E_ARGUMENT, LMI_E_NULL_HEAP, LMI_E_IO (also when the list is cut short) */
ZBSHR_API(int32_t) LMI_ListCheckOutEntries(ZBSTG_HEAP heap, char *libraryPath,
                                           LMI_CHECKOUTCALLBACK callback, void *userData);

/* ---- Host setting --------------------------------------------------------------- */
/** Write-through: 1 (the default) opens library files so that every write is on disk when it
 * returns; 0 leaves writes to the system cache for bulk work (a crash may then lose recent
 * changes). The initial value comes from the environment variable ZBSHR_LIB_WRITE_THROUGH ("0"
 * turns it off). Applies to libraries opened or created afterwards.
 * @param on 1 or 0; any other value only queries
 * @return the previous setting */
ZBSHR_API(int32_t) zbshr_lib_write_through(int32_t on);

/* ---- Checking, salvage and repair ------------------------------------------------- */
/* One problem (or information line) found by verify, salvage, repair or compact.
 * code: a negative LMI_E_* code for damage, ZBSHR_LIB_NOTE_LEAK for blocks marked in
 * use that belong to nothing, ZBSHR_LIB_NOTE_INFO for information (for instance
 * "saved ENTRY"); entry: the entry concerned or null; text: one line, no newline.
 * The strings are valid only during the call. */
#define ZBSHR_LIB_NOTE_INFO 0 /**< an information line */
#define ZBSHR_LIB_NOTE_LEAK 1 /**< blocks marked in use that belong to nothing */
/** Problem report callback of verify, salvage, repair and compact (see above). */
typedef void (ZBSHR_CALLBACK *ZBSHR_LIB_PROBLEM)(void *ctx, int32_t code, const char *entry,
                                            const char *text);
/** Checks a library (opened read-only); leaked blocks are reported but not counted.
 * @param path the library
 * @param cb receives each problem; may be null
 * @param ctx passed to every call of cb
 * @return the number of damage problems (>= 0), or a negative LMI_E_* code when the file
 *     cannot be opened as a library */
ZBSHR_API(int32_t) zbshr_lib_verify(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Scans every block of `damaged` for directory nodes and entry records, and copies every entry
 * that reads whole (data, comment, time) and the readable check-out records into the library
 * `fresh`.
 * @param damaged the damaged library
 * @param fresh the new library, which must not exist
 * @param cb receives each problem and information line; may be null
 * @param ctx passed to every call of cb
 * @return the number of entries saved, or a negative LMI_E_* code */
ZBSHR_API(int32_t) zbshr_lib_salvage(const char *damaged, const char *fresh,
                                     ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Repairs a library in place: rebuilds the free-space bitmaps from the blocks reachable from
 * the header and the directory, frees leaked blocks, drops an unreadable check-out list and
 * breaks directory cycles.
 * @param path the library
 * @param cb receives each problem; may be null
 * @param ctx passed to every call of cb
 * @return the number of problems fixed (>= 0), or a negative LMI_E_* code */
ZBSHR_API(int32_t) zbshr_lib_repair(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Rewrites a library into a fresh file with a shallow directory and no free blocks, then puts
 * it in place of the old one; on failure the library is unchanged.
 * @param path the library
 * @param cb receives each problem; may be null
 * @param ctx passed to every call of cb
 * @return the number of entries kept, or a negative LMI_E_* code */
ZBSHR_API(int32_t) zbshr_lib_compact(const char *path, ZBSHR_LIB_PROBLEM cb, void *ctx);
/** Why the last library call on this thread failed. A call refused for its arguments before any
 * work (a null handle, say) leaves the previous reason in place.
 * @param buf receives the text, always zero-terminated when size > 0
 * @param size size of buf in bytes
 * @return the code, 0 when the last call succeeded or none failed yet */
ZBSHR_API(int32_t) zbshr_lib_last_error(char *buf, int32_t size);

ZBSHR_END_DECLS

#endif
