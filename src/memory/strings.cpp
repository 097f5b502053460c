// String helpers that allocate from heap pools: duplicates, length-carrying
// blocks, the string builder and in-place editing.
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"

namespace {

// The 4-byte block header sits just before the pointer callers receive:
// word 0 the block size (header included), word 1 the back-offset to the
// sub-pool start, whose bit 15 marks a length-carrying block.
constexpr uint16_t kStringFlag = 0x8000;
constexpr uint32_t kLargeLimit = 63997;  // first request size that is a large block

uint16_t read_word(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
void write_word(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v & 0xFF);
  p[1] = static_cast<unsigned char>(v >> 8);
}

// Shared by the two string builders: makes room for `len` more bytes and the
// terminator. A quarter of the capacity (at least 512 bytes) plus the text is
// added, so a long string costs few reallocations.
bool builder_reserve(ZBSTG_HEAP heap, uint32_t pool, char** buf, int32_t* cap, int32_t* used,
                     uint32_t len) {
  int64_t c = *cap, u = *used;
  if (c - u > static_cast<int64_t>(len)) return true;
  int64_t grow = c * 25 / 100;
  if (grow < 512) grow = 512;
  int64_t new_cap = c + grow + len;
  if (new_cap > INT32_MAX) return false;  // the capacity is a 32-bit count
  void* p = zbstg_realloc(heap, *buf, static_cast<uint32_t>(new_cap), pool);
  if (p == nullptr) return false;
  *buf = static_cast<char*>(p);
  *cap = static_cast<int32_t>(new_cap);
  return true;
}

bool builder_args_ok(char** buf, int32_t* cap, int32_t* used) {
  // A null buffer is a new, empty builder: it must claim no room and no text.
  return buf && cap && used && *used >= 0 && *cap >= 0 &&
         (*buf != nullptr || (*used == 0 && *cap == 0));
}

}  // namespace

extern "C" {

ZBSHR_API(char*) zbstg_strdup(ZBSTG_HEAP heap, const char* s, uint32_t pool) {
  if (s == nullptr) return nullptr;
  size_t len = std::strlen(s);
  if (len >= UINT32_MAX) return nullptr;
  char* p = static_cast<char*>(zbstg_alloc(heap, static_cast<uint32_t>(len + 1), pool));
  if (p) std::memcpy(p, s, len + 1);
  return p;
}

ZBSHR_API(char*) zbstg_dbstrdup(ZBSTG_HEAP heap, const char* s, uint32_t pool, const char* /*file*/,
                                int32_t /*line*/) {
  return zbstg_strdup(heap, s, pool);
}

ZBSHR_API(void*) zbstg_allocstring(ZBSTG_HEAP heap, uint32_t n, uint32_t pool) {
  // A negative length passed through a 32-bit signed variable arrives here
  // as a size beyond 2 GB: refuse it rather than ask the heap for it.
  if (n > INT32_MAX) return nullptr;
  if (static_cast<uint64_t>(n) + 2 >= kLargeLimit) return zbstg_alloc(heap, n, pool);
  auto* p = static_cast<unsigned char*>(zbstg_alloc(heap, n + 2, pool));
  if (p == nullptr) return nullptr;
  unsigned char* header = p - 4;
  uint16_t size = read_word(header);
  write_word(header + 2, static_cast<uint16_t>(read_word(header + 2) | kStringFlag));
  // The trailer is the last word of the block, header included.
  write_word(header + size - 2, static_cast<uint16_t>(n));
  return p;
}

ZBSHR_API(int32_t) zbstg_allocstringlen(const void* block) {
  if (block == nullptr) return 0;
  const auto* header = static_cast<const unsigned char*>(block) - 4;
  uint16_t size = read_word(header);
  if ((read_word(header + 2) & kStringFlag) && size != 64001 && size >= 6) {
    return static_cast<int32_t>(read_word(header + size - 2)) - 1;
  }
  return static_cast<int32_t>(std::strlen(static_cast<const char*>(block)));
}

ZBSHR_API(void) zbstg_str_build(ZBSTG_HEAP heap, uint32_t pool, char** buffer, int32_t* capacity,
                                int32_t* used, const char* s) {
  if (s == nullptr || !builder_args_ok(buffer, capacity, used)) return;
  size_t len = std::strlen(s);
  if (len > INT32_MAX) return;
  if (!builder_reserve(heap, pool, buffer, capacity, used, static_cast<uint32_t>(len))) return;
  char* at = *buffer + *used;
  if (*capacity > 64000) {
    zbstg_huge_strcpy(at, s);
  } else {
    std::memcpy(at, s, len + 1);
  }
  *used += static_cast<int32_t>(len);
}

ZBSHR_API(void) zbstg_str_build_huge(ZBSTG_HEAP heap, uint32_t pool, char** buffer,
                                     int32_t* capacity, int32_t* used, const char* s) {
  if (s == nullptr || !builder_args_ok(buffer, capacity, used)) return;
  uint32_t len = zbstg_huge_strlen(s);
  if (len > INT32_MAX) return;
  if (!builder_reserve(heap, pool, buffer, capacity, used, len)) return;
  zbstg_huge_strcpy(*buffer + *used, s);
  *used += static_cast<int32_t>(len);
}

ZBSHR_API(void) zbstg_str_build_char(ZBSTG_HEAP heap, uint32_t pool, char** buffer,
                                     int32_t* capacity, int32_t* used, char c) {
  if (!builder_args_ok(buffer, capacity, used)) return;
  if (static_cast<int64_t>(*capacity) - *used < 2) {
    int64_t new_cap = static_cast<int64_t>(*capacity) + 501;
    if (new_cap > INT32_MAX) return;
    void* p = zbstg_realloc(heap, *buffer, static_cast<uint32_t>(new_cap), pool);
    if (p == nullptr) return;
    *buffer = static_cast<char*>(p);
    *capacity = static_cast<int32_t>(new_cap);
  }
  (*buffer)[*used] = c;
  *used += 1;
  (*buffer)[*used] = '\0';
}

ZBSHR_API(char*) zbstg_str_remove_char(char* s, char c) {
  if (s == nullptr) return s;
  char* out = s;
  for (const char* in = s; *in; ++in) {
    if (*in != c) *out++ = *in;
  }
  *out = '\0';
  return s;
}

ZBSHR_API(char*) zbstg_str_trim_char(char* s, char c) {
  if (s == nullptr) return s;
  size_t n = std::strlen(s);
  while (n > 0 && s[n - 1] == c) s[--n] = '\0';
  return s;
}

ZBSHR_API(char*) zbstg_str_wordcap(char* s) {
  if (s == nullptr) return s;
  bool word_start = true;
  for (unsigned char* p = reinterpret_cast<unsigned char*>(s); *p; ++p) {
    unsigned char b = *p;
    if (zbshr::plat::IsDBCSLeadByte(b)) {
      // A double-byte character passes unchanged; a lead byte right before
      // the terminator stands alone.
      if (p[1] == 0) break;
      ++p;
      continue;
    }
    if (b >= 0xA1 && b <= 0xDF) continue;  // single-byte katakana
    if (b == '-' || b == '_') {
      *p = ' ';
      word_start = true;
    } else if (b == ' ' || b == '\t' || b == '\n' || b == '\r') {
      word_start = true;
    } else if (word_start) {
      *p = static_cast<unsigned char>(zbstg_ansitoupper(static_cast<char>(b)));
      word_start = false;
    } else {
      *p = static_cast<unsigned char>(zbstg_ansitolower(static_cast<char>(b)));
    }
  }
  return s;
}

}  // extern "C"
