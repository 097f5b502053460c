// Random masks and values and damaged compiled formats: every call returns a
// code in range, stays inside the sizes it is given and leaves a terminated
// text (under the sanitizers, a bounds check too).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "zbshr/decimal.h"
#include "zbshr/format.h"
#include "zbshr/system.h"

namespace {

constexpr unsigned char kCanary = 0xA5;

std::string random_text(std::mt19937& rng, const char* alphabet, size_t max_len) {
  const size_t n = std::strlen(alphabet);
  std::string s(rng() % (max_len + 1), ' ');
  for (char& c : s) c = alphabet[rng() % n];
  return s;
}

// A code in range, a terminated text within size bytes, the canaries after it untouched.
void check_output(const std::vector<char>& out, int32_t size, int32_t code) {
  ASSERT_TRUE(code >= 0 && code <= SHFORMAT_E_VALUE) << code;
  for (size_t i = static_cast<size_t>(size); i < out.size(); ++i)
    ASSERT_EQ(static_cast<unsigned char>(out[i]), kCanary) << "written past the size";
  ASSERT_TRUE(size == 0 || std::memchr(out.data(), 0, static_cast<size_t>(size)));
}

TEST(FormatRobustness, RandomMasksAndValues) {
  std::mt19937 rng(4242);
  const char* alphabet = "0#?.,%Ee+-;\"'\\[]@<>dmyhsfaAP/_*: xGENRALCUYSHOTDIM1\x83\x5c";
  const char* keywords[] = {"[GENERAL]", "[CURRENCY]", "[SHORTDATE]", "[LONGDATE]", "[TIME]",
                            "[Red]",     "[>=1]",      "[<-2.5]",     "[h]",        "[ss]"};
  // Half of the masks are read in the double-byte code page.
  const uint32_t old_codepage = zbshr_set_codepage(1252);
  for (int iter = 0; iter < 20000; ++iter) {
    zbshr_set_codepage(iter % 2 ? 932 : 1252);
    std::string mask = random_text(rng, alphabet, 24);
    if (iter % 5 == 0) mask.insert(rng() % (mask.size() + 1), keywords[rng() % 10]);
    const int32_t csize = static_cast<int32_t>(rng() % 160);
    std::vector<unsigned char> compiled(static_cast<size_t>(csize) + 16, kCanary);
    const int kind = iter % 3;
    int32_t e = kind == 0   ? shformatCmplNumericMask(compiled.data(), mask.c_str(), csize)
                : kind == 1 ? shformatCmplDateTimeMask(compiled.data(), mask.c_str(), csize)
                            : shformatCmplStringMask(compiled.data(), mask.c_str(), csize);
    ASSERT_TRUE(e >= 0 && e <= SHFORMAT_E_VALUE) << e;
    for (size_t i = static_cast<size_t>(csize); i < compiled.size(); ++i)
      ASSERT_EQ(compiled[i], kCanary) << mask;
    if (e != 0) continue;
    for (int k = 0; k < 4; ++k) {
      const int32_t osize = static_cast<int32_t>(rng() % 40);
      std::vector<char> out(static_cast<size_t>(osize) + 8, static_cast<char>(kCanary));
      int32_t r;
      if (kind == 0) {
        const double values[] = {0.0, -0.0, 1.5, -1234567.891, 1e300, -1e-300, 0.125, 5e-324};
        const double v = values[rng() % 8];
        r = shformatDouble(out.data(), osize, compiled.data(), k == 3 ? nullptr : &v);
        check_output(out, osize, r);
        const float f = static_cast<float>(v);
        r = shformatReal(out.data(), osize, compiled.data(), &f);
        check_output(out, osize, r);
        SHDEC d;
        ConvAsciiToDecimal(&d, k == 0 ? "-12345678901234567.8901" : "0.0001");
        r = shformatDecimal(out.data(), osize, compiled.data(), &d);
      } else if (kind == 1) {
        SHDATETIME dt;
        shdtBuildTime(&dt, 1900 + static_cast<int>(rng() % 300), 1 + static_cast<int>(rng() % 13),
                      static_cast<int>(rng() % 33), static_cast<int>(rng() % 25),
                      static_cast<int>(rng() % 61), static_cast<int>(rng() % 61), rng() % 1000001);
        if (k == 2) dt.hour = 255;
        if (k == 1) dt.year = -32767;
        r = shformatDateTime(out.data(), osize, compiled.data(), k == 3 ? nullptr : &dt);
      } else {
        const std::string v = random_text(rng, "abcXYZ \x83\x5c", 20);
        r = shformatString(out.data(), osize, compiled.data(), k == 3 ? nullptr : v.c_str());
      }
      check_output(out, osize, r);
      int32_t colour = -1;
      const double v = -2.5;
      r = shformatColor(compiled.data(), k == 3 ? nullptr : &v, &colour);
      ASSERT_EQ(r, SHFORMAT_OK);
      ASSERT_TRUE(colour >= 0 && colour <= 56) << colour;
    }
  }
  zbshr_set_codepage(old_codepage);
}

TEST(FormatRobustness, DamagedCompiledFormats) {
  std::mt19937 rng(99);
  std::vector<unsigned char> buf(70000, 0);
  for (int iter = 0; iter < 20000; ++iter) {
    const size_t n = 8 + rng() % 120;
    for (size_t i = 0; i < n; ++i) buf[i] = static_cast<unsigned char>(rng());
    buf[0] = 0x5A;
    buf[1] = static_cast<unsigned char>(1 + iter % 3);
    if (iter % 2) {  // a plausible length and section count
      buf[2] = static_cast<unsigned char>(n);
      buf[3] = 0;
      buf[4] = static_cast<unsigned char>(1 + rng() % 4);
    }
    std::vector<char> out(48, static_cast<char>(kCanary));
    const double v = -12.5;
    SHDATETIME dt;
    shdtBuildTime(&dt, 2001, 2, 3, 4, 5, 6, 7);
    int32_t r = buf[1] == 2   ? shformatDouble(out.data(), 40, buf.data(), &v)
                : buf[1] == 1 ? shformatDateTime(out.data(), 40, buf.data(), &dt)
                              : shformatString(out.data(), 40, buf.data(), "hello");
    check_output(out, 40, r);
    std::memset(buf.data(), 0, n);
  }
}

}  // namespace
