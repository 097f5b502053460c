// The few POSIX calls the tests use, for Windows test builds (forced into
// every test source there); tests that fork or run a shell are POSIX-only.
#pragma once

#if defined(_WIN32)
#include <direct.h>
#include <process.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>


// As on Windows generally, an empty value removes the variable.
static inline int setenv(const char* name, const char* value, int overwrite) {
  return !overwrite && getenv(name) ? 0 : _putenv_s(name, value) == 0 ? 0 : -1;
}
static inline int unsetenv(const char* name) { return _putenv_s(name, "") == 0 ? 0 : -1; }

static inline struct tm* localtime_r(const time_t* t, struct tm* out) { return localtime_s(out, t) ? NULL : out; }
static inline struct tm* gmtime_r(const time_t* t, struct tm* out) { return gmtime_s(out, t) ? NULL : out; }

// Replaces the trailing XXXXXX with a unique suffix and creates the folder.
static inline char* mkdtemp(char* tmpl) {
  size_t n = strlen(tmpl);
  if (n < 6 || strcmp(tmpl + n - 6, "XXXXXX") != 0) return NULL;
  static unsigned counter = 0;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    unsigned v = (unsigned)_getpid() * 2654435761u ^ (unsigned)time(NULL) ^ (++counter * 40503u);
    for (int i = 0; i < 6; ++i) {
      tmpl[n - 6 + i] = "abcdefghijklmnopqrstuvwxyz0123456789"[v % 36];
      v /= 36;
    }
    if (_mkdir(tmpl) == 0) return tmpl;
  }
  return NULL;
}

#endif
