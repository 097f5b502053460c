// Fuzz target: arbitrary bytes presented to the formatters as a compiled
// format. The formatters take no size for the compiled form: they trust its
// total length field (bytes 2-3) and must check everything inside it. So the
// target builds a block of exactly that length: the mark byte 0x5A, the kind
// (date 1, number 2, string 3, from byte 0 of the input), the length, and the
// rest of the input as the body. Bytes after the 4096th are ignored.
//
// Checked: the code is in range, the output is terminated inside its size
// and nothing is written past it, and the formatters of the other kinds
// refuse the block (SHFORMAT_E_COMPILED).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "zbshr/decimal.h"
#include "zbshr/format.h"

namespace {

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kGuardLen = 16;

// Applies the block with formatter `f` (0 double, 1 float, 2 decimal,
// 3 date, 4 string) and value variant `v` at several output sizes.
int32_t apply(int f, int v, char* out, int32_t size, const unsigned char* c) {
  static const double ds[] = {0.0, -1234.5678, 1e300, std::numeric_limits<double>::quiet_NaN()};
  static const float fs[] = {0.0f, 3.25f, -1e30f, std::numeric_limits<float>::infinity()};
  SHDEC dec{};
  dec.sign = uint16_t(v & 1);
  dec.scale = int16_t(v * 9);
  dec.mag[0] = 0x1234;
  dec.mag[4] = uint16_t(v == 3 ? 0x7FFF : 0);
  SHDATETIME dt{};
  shdtBuildTime(&dt, v == 3 ? 1 : 2003, 1 + v, 2 + v, v == 2 ? 255 : 14, 5, 9, 123456);
  if (v == 1) dt.year = SHDT_NO_DATE_YEAR;
  static const char* const ss[] = {"", "abc", "Hello, World 123", "x"};
  const bool null = v == 3 && f != 3;
  switch (f) {
    case 0: return shformatDouble(out, size, c, null ? nullptr : &ds[v]);
    case 1: return shformatReal(out, size, c, null ? nullptr : &fs[v]);
    case 2: return shformatDecimal(out, size, c, null ? nullptr : &dec);
    case 3: return shformatDateTime(out, size, c, &dt);
    default: return shformatString(out, size, c, null ? nullptr : ss[v]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int kind = 1 + data[0] % 3;
  const size_t body = size - 1 > 4092 ? 4092 : size - 1;
  const size_t total = 4 + body;
  std::unique_ptr<unsigned char[]> c(new unsigned char[total]);
  c[0] = 0x5A;
  c[1] = static_cast<unsigned char>(kind);
  c[2] = static_cast<unsigned char>(total & 0xFF);
  c[3] = static_cast<unsigned char>(total >> 8);
  if (body) std::memcpy(c.get() + 4, data + 1, body);

  for (int f = 0; f < 5; ++f) {
    const int fkind = f == 3 ? 1 : f == 4 ? 3 : 2;
    for (int v = 0; v < 4; ++v) {
      for (int32_t s : {1, 7, 64, 2048}) {
        std::unique_ptr<char[]> out(new char[size_t(s) + kGuardLen]);
        std::memset(out.get(), kGuard, size_t(s) + kGuardLen);
        const int32_t r = apply(f, v, out.get(), s, c.get());
        FUZZ_CHECK(r >= SHFORMAT_OK && r <= SHFORMAT_E_VALUE);
        for (size_t i = size_t(s); i < size_t(s) + kGuardLen; ++i)
          FUZZ_CHECK(static_cast<unsigned char>(out[i]) == kGuard);
        FUZZ_CHECK(std::memchr(out.get(), 0, size_t(s)) != nullptr);
        if (fkind != kind) FUZZ_CHECK(r == SHFORMAT_E_COMPILED);
      }
      if (fkind != kind) break;
    }
  }
  return 0;
}
