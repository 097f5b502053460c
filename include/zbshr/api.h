/** @file
 * zbshr: export and calling-convention macros shared by every public header. */
#ifndef ZBSHR_API_H
#define ZBSHR_API_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(ZBSHR_STATIC)
#    define ZBSHR_EXPORT
#  elif defined(ZBSHR_BUILDING)
#    define ZBSHR_EXPORT __declspec(dllexport)
#  else
#    define ZBSHR_EXPORT __declspec(dllimport)
#  endif
#  define ZBSHR_CALL __stdcall
#else
#  define ZBSHR_EXPORT __attribute__((visibility("default"))) /**< marks a symbol the library exports */
#  define ZBSHR_CALL /**< calling convention of the exported functions (__stdcall on Windows) */
#endif

/** The convention of every function the library calls back (list visits,
 * comparisons, hash keys, flips, the dispatch function, hooks, handlers): the
 * exported functions' own, so a 32-bit Windows caller declares both alike. */
#define ZBSHR_CALLBACK ZBSHR_CALL

/** Declares an exported function: ZBSHR_API(int32_t) name(args); */
#define ZBSHR_API(type) ZBSHR_EXPORT type ZBSHR_CALL

#ifdef __cplusplus
#  define ZBSHR_BEGIN_DECLS extern "C" {
#  define ZBSHR_END_DECLS }
#else
#  define ZBSHR_BEGIN_DECLS /**< opens the C linkage block of a header (extern "C" in C++) */
#  define ZBSHR_END_DECLS /**< closes the C linkage block of a header */
#endif

/* The version of these headers (the library reports its own through
 * zbshr_version() in system.h). ZBSHR_VERSION_NUMBER is major * 10000 +
 * minor * 100 + patch. */
#define ZBSHR_VERSION_MAJOR 5 /**< major version of these headers */
#define ZBSHR_VERSION_MINOR 0 /**< minor version of these headers */
#define ZBSHR_VERSION_PATCH 0 /**< patch level of these headers */
/** The version of these headers as one number: major * 10000 + minor * 100 + patch. */
#define ZBSHR_VERSION_NUMBER \
  (ZBSHR_VERSION_MAJOR * 10000 + ZBSHR_VERSION_MINOR * 100 + ZBSHR_VERSION_PATCH)

/** A heap handle (see memory.h). */
typedef struct zbstg_heap_s *ZBSTG_HEAP;

#endif
