// Fuzz target: the pattern matcher. The input is a selector byte, a pattern
// up to the first NUL and a text after it. The pattern is compiled narrow,
// and wide from the same bytes, into buffers of several sizes with guard
// units after them, then matched against the text.
//
// Checked: codes in range and nothing written past the size; a compile that
// works at one size works at every bigger one and gives the same matches;
// three units per pattern character plus two are always enough; narrow and
// wide agree on ASCII; a pattern of plain letters, digits and '.' counts
// the same matches as a simple model.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "zbshr/format.h"

namespace {

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

constexpr size_t kGuardLen = 16;

int32_t cmpl(unsigned char* b, const char* p, int32_t s) { return shregExprCmpl(b, p, s); }
int32_t cmpl(uint16_t* b, const uint16_t* p, int32_t s) { return shregExprCmplW(b, p, s); }
int32_t match(const char* t, const unsigned char* c) { return shregExprMatch(t, c); }
int32_t match(const uint16_t* t, const uint16_t* c) { return shregExprMatchW(t, c); }

template <typename Unit>
size_t ulen(const Unit* s) {
  size_t n = 0;
  while (s[n] != 0) ++n;
  return n;
}

struct Result {
  int32_t code;   // at the biggest size
  int32_t count;  // matches when the code is 0
};

// Compiles at several sizes, checks guards and sizes, and matches.
template <typename Unit, typename Code>
Result run(const Unit* pat, const Unit* text) {
  const size_t plen = ulen(pat);
  const int32_t enough = int32_t(3 * plen + 2);
  const int32_t sizes[] = {-1, 0, 1, 2, 3, 5, 9, 17, int32_t(plen), int32_t(plen + 1),
                           int32_t(2 * plen + 2), enough, enough + 64};
  constexpr size_t kCount = sizeof sizes / sizeof sizes[0];
  int32_t codes[kCount];
  int32_t counts[kCount];
  for (size_t i = 0; i < kCount; ++i) {
    const int32_t s = sizes[i];
    const size_t cap = size_t(s > 0 ? s : 0);
    std::vector<Code> buf(cap + kGuardLen, Code(0xA5A5));
    codes[i] = cmpl(buf.data(), pat, s);
    FUZZ_CHECK(codes[i] == 0 || codes[i] == SHREGEXPR_E_SMALL || codes[i] == SHREGEXPR_E_SET ||
               codes[i] == SHREGEXPR_E_SETLONG || codes[i] == SHREGEXPR_E_CLOSURE);
    for (size_t j = cap; j < buf.size(); ++j) FUZZ_CHECK(buf[j] == Code(0xA5A5));
    counts[i] = -1;
    if (codes[i] == 0) {
      // The compiled form in a block of exactly the size it was given.
      std::unique_ptr<Code[]> c(new Code[cap]);
      std::memcpy(c.get(), buf.data(), cap * sizeof(Code));
      counts[i] = match(text, c.get());
      FUZZ_CHECK(counts[i] >= 0);
      FUZZ_CHECK(counts[i] <= int32_t(ulen(text)) + 1);
      if (*text == 0) FUZZ_CHECK(counts[i] == 0);
    }
  }
  const Result r{codes[kCount - 1], counts[kCount - 1]};
  FUZZ_CHECK(codes[kCount - 2] == r.code);  // 3 units a character plus 2 suffice
  FUZZ_CHECK(r.code != SHREGEXPR_E_SMALL);
  // Once big enough, every bigger size works the same; on a pattern error,
  // the error or "too small" is all a smaller size may give.
  for (size_t i = 1; i < kCount; ++i) {
    FUZZ_CHECK(codes[i] == r.code || codes[i] == SHREGEXPR_E_SMALL);
    if (codes[i] == 0) FUZZ_CHECK(counts[i] == r.count);
  }
  for (size_t i = 1; i < kCount; ++i)
    for (size_t j = 1; j < kCount; ++j)
      if (codes[i] == 0 && sizes[j] >= sizes[i]) FUZZ_CHECK(codes[j] == 0);
  return r;
}

// Non-overlapping matches of a pattern of literal characters and '.'.
int32_t model_count(const char* pat, const char* text) {
  const size_t pl = std::strlen(pat), tl = std::strlen(text);
  int32_t n = 0;
  for (size_t i = 0; i + pl <= tl;) {
    size_t k = 0;
    while (k < pl && (pat[k] == '.' || pat[k] == text[i + k])) ++k;
    if (k == pl) {
      ++n;
      i += pl;
    } else {
      ++i;
    }
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 2048) return 0;
  const uint8_t sel = data[0];
  const uint8_t* body = data + 1;
  const size_t n = size - 1;
  const uint8_t* nul = static_cast<const uint8_t*>(std::memchr(body, 0, n));
  const size_t plen = nul ? size_t(nul - body) : n;
  const uint8_t* tbeg = nul ? nul + 1 : body + n;
  const uint8_t* tnul = static_cast<const uint8_t*>(std::memchr(tbeg, 0, size_t(body + n - tbeg)));
  const size_t tlen = size_t((tnul ? tnul : body + n) - tbeg);

  // Narrow: the bytes themselves, each in a block of its exact size.
  std::unique_ptr<char[]> pat(new char[plen + 1]);
  std::memcpy(pat.get(), body, plen);
  pat[plen] = 0;
  std::unique_ptr<char[]> text(new char[tlen + 1]);
  std::memcpy(text.get(), tbeg, tlen);
  text[tlen] = 0;
  const Result narrow = run<char, unsigned char>(pat.get(), text.get());

  // Wide: one unit per byte, or (selector bit 0) one unit per byte pair.
  const bool pairs = (sel & 1) != 0;
  auto widen = [pairs](const uint8_t* p, size_t len) {
    std::vector<uint16_t> w;
    if (pairs) {
      for (size_t i = 0; i + 1 < len; i += 2) {
        const uint16_t u = uint16_t(p[i] | p[i + 1] << 8);
        if (u == 0) break;
        w.push_back(u);
      }
    } else {
      w.assign(p, p + len);
    }
    std::unique_ptr<uint16_t[]> out(new uint16_t[w.size() + 1]);
    if (!w.empty()) std::memcpy(out.get(), w.data(), w.size() * 2);
    out[w.size()] = 0;
    return out;
  };
  auto wpat = widen(body, plen);
  auto wtext = widen(tbeg, tlen);
  const Result wide = run<uint16_t, uint16_t>(wpat.get(), wtext.get());

  auto ascii = [](const char* s) {
    for (; *s; ++s)
      if (static_cast<unsigned char>(*s) >= 0x80) return false;
    return true;
  };
  if (!pairs && ascii(pat.get()) && ascii(text.get())) {
    FUZZ_CHECK(narrow.code == wide.code);
    if (narrow.code == 0) FUZZ_CHECK(narrow.count == wide.count);
  }

  bool plain = plen > 0;
  for (size_t i = 0; i < plen; ++i) {
    const unsigned char c = static_cast<unsigned char>(pat[i]);
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == '.'))
      plain = false;
  }
  if (plain) {
    FUZZ_CHECK(narrow.code == 0);
    FUZZ_CHECK(narrow.count == model_count(pat.get(), text.get()));
  }
  return 0;
}
