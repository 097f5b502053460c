// Fuzz target: arbitrary bytes compiled as numeric, date/time and string
// masks into compiled buffers of several sizes (too small ones included),
// then every compiled mask applied to doubles, floats, SHDEC records, date
// records, strings and null values into output buffers of several sizes.
//
// Input: byte 0 picks the regional settings (bits 0-1) and whether the
// compiled form is damaged before use (bit 2); the mask runs up to the first
// NUL; the bytes after it feed an extra value of each type and the damage.
//
// Checked on every call: the code is in range; nothing is written past the
// given size; a compiled buffer that is too small is left untouched; a
// result that fits is the same text whatever the size, and one that does
// not fit is size - 1 '#' characters; a compiled form of one kind is refused
// by the formatters of the other kinds.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "zbshr/decimal.h"
#include "fuzz_profiles.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

namespace {

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kGuardLen = 32;
constexpr int32_t kBig = 1 << 16;

// Regional settings the masks are compiled under. An empty separator is
// left out: its first character is the terminator, which then ends the
// formatted text early, so sizes no longer agree with the text.
const char* const kProfiles[4] = {
    "",
    "iDate=1\nsDecimal=,\nsThousand=.\nsShortDate=dd.MM.yyyy\nsTime=.\n"
    "sCurrency=EUR\niCurrency=3\niNegCurr=8\niCurrDigits=2\n",
    "iDate=2\nsShortDate=yyyy-MM-dd\nsLongDate=dddd d 'de' MMMM 'de' yyyy\n"
    "s1159=vorm.\ns2359=nachm.\nsCurrency=123456789\niCurrDigits=9\niNegCurr=15\n",
    "iDate=7\nsDecimal=;\nsThousand='\nsTime=\niCurrDigits=-1\niNegCurr=99\n"
    "iCurrency=9\nsShortDate=dddd MMMM yyyy dddd MMMM yyyy hh mm ss tt\n"
    "sLongDate=\"[x]\"yy;\\\n",
};

void use_profile(int p) { fuzzprof::use_profile("masks", kProfiles, p); }

enum Kind { kDate, kNumber, kString };

int32_t compile(Kind k, unsigned char* buf, const char* mask, int32_t size) {
  switch (k) {
    case kDate: return shformatCmplDateTimeMask(buf, mask, size);
    case kNumber: return shformatCmplNumericMask(buf, mask, size);
    default: return shformatCmplStringMask(buf, mask, size);
  }
}

// One value of any type; `null` passes a null value pointer.
struct Value {
  explicit Value(int t) : type(t) {}
  int type;  // 0 double, 1 float, 2 SHDEC, 3 date, 4 string
  bool null = false;
  double d = 0;
  float f = 0;
  SHDEC dec{};
  SHDATETIME dt{};
  std::string s;
};

int32_t apply(int type, char* out, int32_t size, const unsigned char* c, const Value& v) {
  switch (type) {
    case 0: return shformatDouble(out, size, c, v.null ? nullptr : &v.d);
    case 1: return shformatReal(out, size, c, v.null ? nullptr : &v.f);
    case 2: return shformatDecimal(out, size, c, v.null ? nullptr : &v.dec);
    case 3: return shformatDateTime(out, size, c, v.null ? nullptr : &v.dt);
    default: return shformatString(out, size, c, v.null ? nullptr : v.s.c_str());
  }
}

bool kind_takes(Kind k, int type) {
  if (k == kDate) return type == 3;
  if (k == kString) return type == 4;
  return type <= 2;
}

SHDEC make_dec(uint16_t sign, int16_t scale, uint64_t lo, uint16_t hi) {
  SHDEC d{};
  d.sign = sign;
  d.scale = scale;
  for (int i = 0; i < 4; ++i) d.mag[i] = uint16_t(lo >> (16 * i));
  d.mag[4] = hi;
  return d;
}

SHDATETIME make_dt(uint32_t us, int16_t y, uint8_t mo, uint8_t d, uint8_t h, uint8_t mi,
                   uint8_t s) {
  SHDATETIME t{};
  t.microsecond = us;
  t.year = y;
  t.month = mo;
  t.day = d;
  t.hour = h;
  t.minute = mi;
  t.second = s;
  return t;
}

std::vector<Value> values_for(Kind k, const uint8_t* tail, size_t n) {
  std::vector<Value> vs;
  auto add = [&](Value v) { vs.push_back(std::move(v)); };
  if (k == kNumber) {
    const double ds[] = {0.0,
                         -0.0,
                         1.0,
                         -1234567.891,
                         0.125,
                         0.5,
                         9.995,
                         1e15,
                         123456789012345678.0,
                         1e300,
                         -1e-300,
                         5e-324,
                         std::numeric_limits<double>::max(),
                         std::numeric_limits<double>::quiet_NaN(),
                         std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity()};
    for (double d : ds) {
      Value v(0);
      v.d = d;
      add(v);
    }
    for (float f : {0.1f, -3.4e38f, 1e-45f, std::numeric_limits<float>::quiet_NaN()}) {
      Value v(1);
      v.f = f;
      add(v);
    }
    const SHDEC decs[] = {
        make_dec(0, 0, 0, 0),           make_dec(1, 0, 0, 0),  // zero and negative zero
        make_dec(1, 2, 150, 0),                                // -1.50
        make_dec(0, 28, 1, 0),                                 // 1e-28
        make_dec(0, 0, ~0ull, 0x7FFF),                         // 2^79 - 1
        make_dec(1, 28, ~0ull, 0x7FFF),
        make_dec(0, 5, 12345678901234567ull, 0),
        make_dec(0, 29, 1, 0),                                 // scale out of range
        make_dec(0, -1, 1, 0),
        make_dec(2, 0, 7, 0),                                  // stray sign bits
        make_dec(0, 0, ~0ull, 0xFFFF),                         // magnitude 2^80 - 1
    };
    for (const SHDEC& d : decs) {
      Value v(2);
      v.dec = d;
      add(v);
    }
    if (n >= 8) {
      Value v(0);
      uint64_t bits = 0;
      for (int i = 0; i < 8; ++i) bits |= uint64_t(tail[i]) << (8 * i);
      std::memcpy(&v.d, &bits, 8);
      add(v);
      Value f(1);
      uint32_t fb = uint32_t(bits);
      std::memcpy(&f.f, &fb, 4);
      add(f);
    }
    if (n >= 14) {
      Value v(2);
      v.dec.sign = uint16_t(tail[0] | tail[1] << 8);
      v.dec.scale = int16_t(uint16_t(tail[2] | tail[3] << 8));
      for (int i = 0; i < 5; ++i) v.dec.mag[i] = uint16_t(tail[4 + 2 * i] | tail[5 + 2 * i] << 8);
      add(v);
    }
    for (int t = 0; t < 3; ++t) {
      Value v(t);
      v.null = true;
      add(v);
    }
  } else if (k == kDate) {
    const SHDATETIME dts[] = {
        make_dt(0, 103, 0, 2, 14, 5, 9),            // 2003-01-02 14:05:09
        make_dt(999999, 8099, 11, 31, 23, 59, 59),  // 9999-12-31
        make_dt(500000, -1899, 0, 1, 0, 0, 0),      // year 1
        make_dt(0, 100, 1, 29, 12, 0, 0),           // 2000-02-29 noon
        make_dt(0, SHDT_NO_DATE_YEAR, 0, 1, 1, 2, 3),
        make_dt(0, 98, 6, 4, SHDT_NO_TIME_HOUR, 0, 0),
        make_dt(0, 99, 1, 30, 0, 0, 0),             // 30 February
        make_dt(1000000, 99, 12, 0, 24, 60, 60),    // every field out of range
        make_dt(~0u, -32768, 255, 255, 254, 255, 255),
        make_dt(0, 32767, 0, 1, 0, 0, 0),
    };
    for (const SHDATETIME& d : dts) {
      Value v(3);
      v.dt = d;
      add(v);
    }
    if (n >= 12) {
      Value v(3);
      v.dt.microsecond = uint32_t(tail[0] | tail[1] << 8 | tail[2] << 16 | uint32_t(tail[3]) << 24);
      v.dt.year = int16_t(uint16_t(tail[4] | tail[5] << 8));
      v.dt.month = tail[6];
      v.dt.day = tail[7];
      v.dt.hour = tail[8];
      v.dt.minute = tail[9];
      v.dt.second = tail[10];
      v.dt.reserved = tail[11];
      add(v);
    }
    Value v(3);
    v.null = true;
    add(v);
  } else {
    for (const char* s : {"", "a", "abcdef", "Hello, World 123", "@@@@####"}) {
      Value v(4);
      v.s = s;
      add(v);
    }
    Value l(4);
    l.s.assign(300, 'x');
    add(l);
    if (n > 0) {
      Value v(4);
      v.s.assign(reinterpret_cast<const char*>(tail), n > 600 ? 600 : n);
      v.s.resize(std::strlen(v.s.c_str()));
      add(v);
    }
    Value v(4);
    v.null = true;
    add(v);
  }
  return vs;
}

// Applies one compiled mask to one value at several output sizes.
void check_value(const unsigned char* c, const Value& v, bool damaged) {
  static std::vector<char> ref(kBig + kGuardLen);
  std::memset(ref.data(), kGuard, ref.size());
  const int32_t rc = apply(v.type, ref.data(), kBig, c, v);
  FUZZ_CHECK(rc >= SHFORMAT_OK && rc <= SHFORMAT_E_VALUE);
  for (size_t i = kBig; i < ref.size(); ++i) FUZZ_CHECK((unsigned char)ref[i] == kGuard);
  FUZZ_CHECK(std::memchr(ref.data(), 0, kBig) != nullptr);
  const size_t len = std::strlen(ref.data());

  static const int32_t sizes[] = {-1, 0, 1, 2, 3, 5, 8, 13, 24, 40, 100};
  for (int32_t s : sizes) {
    const size_t cap = size_t(s > 0 ? s : 0);
    std::unique_ptr<char[]> out(new char[cap + kGuardLen]);
    std::memset(out.get(), kGuard, cap + kGuardLen);
    const int32_t r = apply(v.type, out.get(), s, c, v);
    FUZZ_CHECK(r >= SHFORMAT_OK && r <= SHFORMAT_E_VALUE);
    for (size_t i = cap; i < cap + kGuardLen; ++i) FUZZ_CHECK((unsigned char)out[i] == kGuard);
    if (s < 0) {
      FUZZ_CHECK(r == SHFORMAT_E_ARGUMENT);
      continue;
    }
    if (s == 0) continue;
    FUZZ_CHECK(std::memchr(out.get(), 0, cap) != nullptr);
    // A damaged literal may hold a terminator: only bounds are checked then.
    if (rc != SHFORMAT_OK || damaged) continue;
    if ((len < cap) != (r == SHFORMAT_OK))
      std::fprintf(stderr, "value type %d null %d: \"%s\" (%zu chars), size %d gives %d \"%.*s\"\n",
                   v.type, int(v.null), ref.data(), len, int(s), int(r), int(cap), out.get()),
      std::fprintf(stderr, "value %.17g, next bytes %02x %02x %02x\n", v.d, ref[len + 1] & 255, ref[len + 2] & 255, ref[len + 3] & 255);
    if (len < cap) {
      FUZZ_CHECK(r == SHFORMAT_OK);
      FUZZ_CHECK(std::memcmp(out.get(), ref.data(), len + 1) == 0);
    } else {
      FUZZ_CHECK(r == SHFORMAT_E_OVERFLOW);
      for (size_t i = 0; i + 1 < cap; ++i) FUZZ_CHECK(out[i] == '#');
      FUZZ_CHECK(out[cap - 1] == '\0');
    }
  }
}

void check_error_string(int32_t code) {
  for (int32_t s : {0, 1, 4, 100}) {
    char buf[100 + kGuardLen];
    std::memset(buf, kGuard, sizeof buf);
    const int32_t n = shformatErrorString(code, buf, s);
    FUZZ_CHECK(n >= 0 && (s == 0 ? n == 0 : n < s));
    for (size_t i = size_t(s); i < sizeof buf; ++i) FUZZ_CHECK((unsigned char)buf[i] == kGuard);
    if (s > 0) FUZZ_CHECK(buf[n] == '\0');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  const uint8_t sel = data[0];
  use_profile(sel & 3);
  const bool damage = (sel & 4) != 0;

  const uint8_t* body = data + 1;
  const size_t n = size - 1;
  const uint8_t* nul = static_cast<const uint8_t*>(std::memchr(body, 0, n));
  const size_t mlen = nul ? size_t(nul - body) : n;
  const uint8_t* tail = nul ? nul + 1 : body + n;
  const size_t tlen = size_t(body + n - tail);

  // The mask in a heap block of its exact size, so that reading past its
  // terminator is caught.
  std::unique_ptr<char[]> mask(new char[mlen + 1]);
  std::memcpy(mask.get(), body, mlen);
  mask[mlen] = '\0';

  static const int32_t csizes[] = {-1, 0, 1, 4, 8, 16, 40, 100, 300, SHFORMAT_BUFSIZE, 8192};
  for (Kind k : {kDate, kNumber, kString}) {
    int32_t codes[sizeof csizes / sizeof csizes[0]];
    int32_t smallest = -1;
    for (size_t i = 0; i < sizeof csizes / sizeof csizes[0]; ++i) {
      const int32_t s = csizes[i];
      const size_t cap = size_t(s > 0 ? s : 0);
      std::vector<unsigned char> buf(cap + kGuardLen, kGuard);
      codes[i] = compile(k, buf.data(), mask.get(), s);
      FUZZ_CHECK(codes[i] >= SHFORMAT_OK && codes[i] <= SHFORMAT_E_VALUE);
      FUZZ_CHECK(codes[i] != SHFORMAT_E_OVERFLOW && codes[i] != SHFORMAT_E_COMPILED &&
                 codes[i] != SHFORMAT_E_VALUE);
      // Nothing past the size; nothing at all when the buffer is too small.
      const size_t untouched = (codes[i] == SHFORMAT_E_SMALL) ? 0 : cap;
      for (size_t j = untouched; j < buf.size(); ++j) FUZZ_CHECK(buf[j] == kGuard);
      if (s < 0) FUZZ_CHECK(codes[i] == SHFORMAT_E_ARGUMENT);
      if (codes[i] == SHFORMAT_OK && smallest < 0) smallest = s;
    }
    check_error_string(codes[sizeof csizes / sizeof csizes[0] - 1]);
    const int32_t final_code = codes[sizeof csizes / sizeof csizes[0] - 1];
    if (final_code != SHFORMAT_OK) continue;
    // Once a size is big enough, every bigger size is too.
    bool ok_seen = false;
    for (size_t i = 1; i < sizeof csizes / sizeof csizes[0]; ++i) {
      FUZZ_CHECK(codes[i] == SHFORMAT_OK || codes[i] == SHFORMAT_E_SMALL);
      if (ok_seen) FUZZ_CHECK(codes[i] == SHFORMAT_OK);
      ok_seen = ok_seen || codes[i] == SHFORMAT_OK;
    }
    if (mlen <= 200) FUZZ_CHECK(codes[9] == SHFORMAT_OK || std::strchr(mask.get(), '[') != nullptr);

    // The compiled form, in a heap block of the smallest size that took it.
    const size_t csize = size_t(smallest);
    std::unique_ptr<unsigned char[]> c(new unsigned char[csize]);
    std::vector<unsigned char> tmp(csize + kGuardLen, kGuard);
    FUZZ_CHECK(compile(k, tmp.data(), mask.get(), int32_t(csize)) == SHFORMAT_OK);
    std::memcpy(c.get(), tmp.data(), csize);
    {
      // The same compiled bytes whatever room was given.
      std::vector<unsigned char> big(8192, 0);
      FUZZ_CHECK(compile(k, big.data(), mask.get(), 8192) == SHFORMAT_OK);
      const size_t total = size_t(big[2] | big[3] << 8);
      FUZZ_CHECK(total <= csize);
      FUZZ_CHECK(std::memcmp(big.data(), c.get(), total) == 0);
    }

    if (damage && tlen > 0 && csize > 4) {
      // Damage bytes past the total length field (bytes 2 and 3), which
      // the formatters trust to be the size of the compiled form.
      for (size_t i = 0; i + 1 < tlen && i < 16; i += 2) {
        size_t at = tail[i] % csize;
        if (at == 2 || at == 3) continue;
        c[at] ^= tail[i + 1];
      }
    }

    for (const Value& v : values_for(k, tail, tlen)) check_value(c.get(), v, damage);

    if (!damage) {
      // A compiled form of one kind is refused by the other kinds' formatters.
      char out[64];
      Value dv(0);
      dv.d = 1.5;
      dv.f = 1.5f;
      dv.s = "x";
      dv.dt = make_dt(0, 100, 0, 1, 0, 0, 0);
      dv.dec = make_dec(0, 1, 15, 0);
      for (int t = 0; t < 5; ++t) {
        if (kind_takes(k, t)) continue;
        dv.type = t;
        FUZZ_CHECK(apply(t, out, sizeof out, c.get(), dv) == SHFORMAT_E_COMPILED);
      }
    }
  }
  return 0;
}
