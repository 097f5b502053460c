// Bulk memory and string operations of any length, and file removal.
#include <algorithm>
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"

extern "C" {

ZBSHR_API(int16_t) zbstg_huge_memcmp(const void* a, const void* b, uint32_t n) {
  if (n == 0 || a == b || a == nullptr || b == nullptr) return 0;
  const auto* pa = static_cast<const unsigned char*>(a);
  const auto* pb = static_cast<const unsigned char*>(b);
  auto [ia, ib] = std::mismatch(pa, pa + n, pb);
  if (ia == pa + n) return 0;
  // The difference of the first differing bytes taken as signed characters.
  int da = static_cast<signed char>(*ia);
  int db = static_cast<signed char>(*ib);
  return static_cast<int16_t>(da - db);
}

ZBSHR_API(void*) zbstg_huge_memcpy(void* dst, const void* src, uint32_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  const auto* s = static_cast<const unsigned char*>(src);
  if (n == 0 || d == s || d == nullptr || s == nullptr) return dst;
  if (d > s && d < s + n) {
    // A forward byte copy into an overlapping destination above the source
    // re-reads bytes it has just written: keep that exact effect.
    for (uint32_t i = 0; i < n; ++i) d[i] = s[i];
  } else {
    // Otherwise a forward copy gives the same bytes as memmove.
    std::memmove(d, s, n);
  }
  return dst;
}

ZBSHR_API(void*) zbstg_huge_memmove(void* dst, const void* src, uint32_t n) {
  // Backwards when src < dst < src + n, else forwards: exactly memmove.
  if (n != 0 && dst != nullptr && src != nullptr) std::memmove(dst, src, n);
  return dst;
}

ZBSHR_API(void*) zbstg_huge_memset(void* dst, int32_t byte, uint32_t n) {
  if (n != 0 && dst != nullptr) std::memset(dst, static_cast<unsigned char>(byte), n);
  return dst;
}

ZBSHR_API(char*) zbstg_huge_strchr(const char* s, int32_t c) {
  if (s == nullptr) return nullptr;
  char ch = static_cast<char>(c);
  if (ch == '\0') return nullptr;  // the terminator is never found
  return const_cast<char*>(std::strchr(s, ch));
}

ZBSHR_API(char*) zbstg_huge_strcpy(char* dst, const char* src) {
  if (dst != nullptr && src != nullptr) std::strcpy(dst, src);
  return dst;
}

ZBSHR_API(uint32_t) zbstg_huge_strlen(const char* s) {
  if (s == nullptr) return 0;
  return static_cast<uint32_t>(std::strlen(s));
}

ZBSHR_API(char*) zbstg_huge_strncpy(char* dst, const char* src, uint32_t n) {
  if (dst == nullptr) return dst;
  if (src == nullptr) src = "";
  uint32_t i = 0;
  while (i < n && src[i] != '\0') {
    dst[i] = src[i];
    ++i;
  }
  // The terminator goes right after the copied bytes: at dst[n] when all n
  // were copied. A shorter source leaves zeros up to dst[n - 1].
  dst[i] = '\0';
  if (i + 1 < n) std::memset(dst + i + 1, 0, n - i - 1);
  return dst;
}

ZBSHR_API(char*) zbstg_huge_strstr(const char* s, const char* t) {
  if (s == nullptr || t == nullptr) return nullptr;
  return const_cast<char*>(std::strstr(s, t));
}

ZBSHR_API(int32_t) zbstg_remove(const char* file_name) {
  if (file_name == nullptr) return -1;
  return zbshr::plat::DeleteFileA(file_name) ? 0 : -1;
}

}  // extern "C"
