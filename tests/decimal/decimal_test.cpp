// SHDEC beyond what the differential run sees through the driver's text: the record and its constants,
// the sign and scale of zero results, error codes with their validation order, the hooks, conversions at
// their bounds, arbitrary records, the portable 128-bit integer, and `zbshr dec` with the quick form of the
// differential run.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"
#include "decimal/hook.h"
#include "decimal/u128.h"
#include "decimal/wide.h"
#include "zbshr/decimal.h"

namespace {

using u128 = zbshr::dec::u128;

inline SHDEC raw(uint16_t sign, int16_t scale, u128 mag) {
  SHDEC d{sign, scale, {}};
  for (int i = 0; i < 5; ++i) d.mag[i] = static_cast<uint16_t>(mag >> (16 * i));
  return d;
}
inline u128 mag_of(const SHDEC& d) {
  u128 m = 0;
  for (int i = 4; i >= 0; --i) m = (m << 16) | d.mag[i];
  return m;
}
inline SHDEC dec(const char* text) {
  SHDEC d{};
  EXPECT_NE(ConvAsciiToDecimal(&d, text), nullptr) << text;
  return d;
}
inline std::string str(const SHDEC& d) {
  char t[SHDEC_TEXT_SIZE];
  const char* r = ConvDecimalToAscii(t, &d);
  return r ? std::string(r) : std::string("<error>");
}

// Records every code (and extra value) passed to the decimal error hook while alive.
struct HookRecorder {
  static inline std::vector<int> codes, extras;
  SHDEC_ERROR_HOOK previous = zbshr::dec::set_error_hook(&record);
  HookRecorder() { codes.clear(), extras.clear(); }
  ~HookRecorder() { zbshr::dec::set_error_hook(previous); }
  int last() const { return codes.empty() ? 0 : codes.back(); }
  static void ZBSHR_CALL record(int16_t code, int32_t extra) { codes.push_back(code), extras.push_back(extra); }
};


using Op = std::function<const SHDEC*(SHDEC*, const SHDEC*, const SHDEC*, int32_t)>;
#define OP2(f) [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return f(r, a, b); }
#define OP3(f) [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return f(r, a, b, p); }
#define OP1(f) [](SHDEC* r, const SHDEC* a, const SHDEC*, int32_t p) { return f(r, a, p); }
// The binary operations first.
const std::pair<const char*, Op> kOps[] = {
    {"add", OP2(AddDecimal)}, {"sub", OP2(SubtractDecimal)}, {"mul", OP2(MultiplyDecimal)},
    {"mulr", OP3(MultiplyDecimalAndRound)}, {"mult", OP3(MultiplyDecimalAndTruncate)},
    {"div", OP2(DivideDecimal)}, {"divr", OP3(DivideDecimalAndRound)}, {"divt", OP3(DivideDecimalAndTruncate)},
    {"mod", OP2(ModuloDecimal)}, {"pow", OP2(PowerDecimal)}, {"round", OP1(RoundDecimal)},
    {"trunc", OP1(TruncateDecimal)}};
#define OPA(f) [](SHDEC* r, const SHDEC* a, const SHDEC*, int32_t) { return f(r, a); }

// The record's layout; zero results carry a sign and a scale the text form hides.
TEST(DecimalRecord, LayoutAndTheSignAndScaleOfZeros) {
  HookRecorder hook;
  const SHDEC p = dec("1.5"), n = dec("-1.5"), nz5 = raw(1, 5, 0), nz15 = raw(1, 15, 0);
  const SHDEC seven = dec("7"), m5 = dec("-5.000000000000000");
  const struct {
    const char* name;
    Op op;
    const SHDEC *a, *b;
    int32_t places;
    uint16_t sign;
    int16_t scale;
  } rows[] = {
      {"1.5 + -1.5", OP2(AddDecimal), &p, &n, 0, 0, 1},
      {"-1.5 + 1.5 keeps the first sign", OP2(AddDecimal), &n, &p, 0, 1, 1},
      {"-0 * -5", OP2(MultiplyDecimal), &nz15, &m5, 0, 0, 18},
      {"-0 * -5 at 3 places", OP3(MultiplyDecimalAndRound), &nz15, &m5, 3, 0, 3},
      {"-0 / 7 as it stands", OP2(DivideDecimal), &nz5, &seven, 0, 1, 5},
      {"-0 / 7 at 3 places", OP3(DivideDecimalAndRound), &nz5, &seven, 3, 0, 3},
      {"abs -0", OPA(AbsoluteDecimal), &nz5, nullptr, 0, 1, 5},
      {"neg -0", OPA(ChangeSignDecimal), &nz5, nullptr, 0, 0, 5},
      {"round -0", OP1(RoundDecimal), &nz5, nullptr, 2, 0, 2},
  };
  for (const auto& row : rows) {
    SHDEC r = raw(1, 9, 99);
    ASSERT_EQ(row.op(&r, row.a, row.b, row.places), &r) << row.name;
    EXPECT_TRUE(mag_of(r) == 0 && r.sign == row.sign && r.scale == row.scale) << row.name << r.sign << r.scale;
  }
  EXPECT_TRUE(hook.codes.empty());
  EXPECT_EQ(TestSignDecimal(&nz5), 0);
  EXPECT_EQ(TestSignDecimal(&n), -1);
  EXPECT_EQ(TestSignDecimal(&p), 1);
  EXPECT_EQ(DecimalPrecision(&nz5), 5);
  SHDEC r;
  EXPECT_EQ(str(*AbsoluteDecimal(&r, &n)), "1.5");
  EXPECT_EQ(str(*ChangeSignDecimal(&r, &p)), "-1.5");
  // -1234567.89: sign 1, scale 2, magnitude 123456789 = 0x075BCD15, words low first.
  const SHDEC d = dec("-1234567.89");
  const unsigned char want[14] = {1, 0, 2, 0, 0x15, 0xCD, 0x5B, 0x07, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(sizeof(SHDEC), 14u);
  EXPECT_EQ(std::memcmp(&d, want, 14), 0);
  SHDEC z = raw(1, 7, 99);
  ASSERT_EQ(ZeroDecimal(&z), &z);
  EXPECT_TRUE(z.sign == 0 && z.scale == 2 && mag_of(z) == 0);
  EXPECT_EQ(ZeroDecimal(nullptr), nullptr);
  EXPECT_EQ(hook.last(), -301);
}

// Every operation rejects a null operand with -301 and a scale outside 0..28 with -303, and validates in
// order: first operand, second operand, result, places, divisor.
TEST(DecimalErrors, ValidationOrder) {
  HookRecorder hook;
  const SHDEC good = dec("1"), zero = dec("0");
  for (const auto& [name, op] : std::span(kOps).first(10)) {
    for (int16_t bad_scale : {int16_t(29), int16_t(-1)}) {
      const SHDEC bad = raw(0, bad_scale, 1);
      SHDEC r = raw(0, 1, 1234);
      const struct {
        SHDEC* r;
        const SHDEC *a, *b;
        int32_t places;
        int want;
      } cases[] = {
          {&r, nullptr, &bad, 2, -301},    {&r, &bad, nullptr, 2, -303}, {&r, &good, &bad, 2, -303},
          {&r, &good, nullptr, 2, -301},   {nullptr, &good, &bad, 2, -303}, {nullptr, &good, &good, 99, -301},
      };
      for (const auto& c : cases) {
        hook.codes.clear();
        EXPECT_FALSE(op(c.r, c.a, c.b, c.places)) << name;
        EXPECT_EQ(hook.codes, std::vector<int>{c.want}) << name;
        EXPECT_EQ(str(r), "123.4") << name << ": a failed validation leaves the result alone";
      }
    }
    if (std::strlen(name) != 4) continue;  // places (0..18) are checked before the divisor
    SHDEC r;
    for (int32_t places : {-1, 19}) {
      hook.codes.clear();
      EXPECT_FALSE(op(&r, &good, &zero, places)) << name << places;
      EXPECT_EQ(hook.codes, std::vector<int>{-313}) << name << places;
    }
    EXPECT_TRUE(op(&r, &good, &good, 18) && op(&r, &good, &good, 0)) << name;
  }
  const SHDEC bad = raw(0, 29, 1), huge = dec("59637112005354575274713"), tiny = dec("0.0000000000000000000000000001");
  SHDEC r;
  const std::pair<int, int> ones[] = {  // (got, wanted)
      {RoundDecimal(&r, &bad, 99) ? 0 : hook.last(), -303},     {RoundDecimal(&r, &good, 19) ? 0 : hook.last(), -313},
      {TruncateDecimal(nullptr, &good, 99) ? 0 : hook.last(), -301},
      {TruncateDecimal(&r, &good, -1) ? 0 : hook.last(), -313}, {AbsoluteDecimal(&r, &bad) ? 0 : hook.last(), -303},
      {ChangeSignDecimal(nullptr, &good) ? 0 : hook.last(), -301}, {CompareDecimal(&good, &bad), -303},
      {CompareDecimal(nullptr, &bad), -301}, {MagnitudeOfDecimal(&bad, &good), -303}, {TestSignDecimal(&bad), -303},
      {DecimalPrecision(nullptr), -301}, {DecimalPrecision(&bad), -303},
      // The quotient passes 2^128 with its low 128 bits 2^46: too large all the same.
      {DivideDecimal(&r, &huge, &tiny) ? 0 : hook.last(), SHDEC_ERR_OVERFLOW},
  };
  for (size_t i = 0; i < std::size(ones); ++i) EXPECT_EQ(ones[i].first, ones[i].second) << "row " << i;
  for (int extra : hook.extras) EXPECT_EQ(extra, 0);
}

// The exported attachment sees every code and detaches; the library's own hook only lets the call return null.
TEST(DecimalErrors, HookAttachDetachAndDefault) {
  HookRecorder hook;
  SHDEC_ERROR_HOOK mine = zbshr_set_decimal_error_hook(nullptr);
  EXPECT_EQ(mine, &HookRecorder::record);
  EXPECT_EQ(zbshr::dec::error_hook(), &zbshr_decimal_default_error_hook);
  SHDEC r, a = dec("1"), z = dec("0");
  EXPECT_EQ(DivideDecimal(&r, &a, &z), nullptr);
  EXPECT_EQ(zbshr_set_decimal_error_hook(mine), &zbshr_decimal_default_error_hook);
  EXPECT_EQ(ConvAsciiToDecimal(&r, "1.2.3"), nullptr);
  EXPECT_EQ(hook.codes, std::vector<int>{-306});
}

// Arbitrary records (odd sign bits, any scale, magnitudes up to 2^80 - 1) through every operation: each answer
// is either null or a well-formed record, and nothing reads or writes outside the records.
TEST(DecimalRobustness, ArbitraryRecordsGiveWellFormedAnswers) {
  HookRecorder hook;
  uint64_t s = 0x9E3779B97F4A7C15ULL;
  auto next = [&s]() { return s ^= s << 13, s ^= s >> 7, s ^= s << 17; };
  auto record = [&]() {
    const uint64_t r = next();
    const int bits = static_cast<int>(next() % 81);
    const u128 m = (static_cast<u128>(next()) << 64) | next();
    return raw(static_cast<uint16_t>(r % 7 == 0 ? next() : r % 2),
               static_cast<int16_t>(r % 11 == 0 ? next() : next() % 29), bits == 0 ? 0 : m >> (128 - bits));
  };
  for (int i = 0; i < 5000; ++i) {
    const SHDEC a = record(), b = record();
    const int32_t places = static_cast<int32_t>(next() % 22) - 2;
    char text[SHDEC_TEXT_SIZE];
    for (const auto& [name, op] : kOps) {
      SHDEC r;
      const SHDEC* o = i % 8 && name == std::string("pow") ? nullptr : op(&r, &a, &b, places);  // slow: 1 in 8
      ASSERT_TRUE(!o || (o->sign <= 1 && o->scale >= 0 && o->scale <= 28 && ConvDecimalToAscii(text, o))) << name;
    }
  }
}

TEST(DecimalText, SignsScalesAndErrorsBothWays) {
  const std::pair<SHDEC, const char*> rows[] = {
      {raw(1, 3, 0), "0.000"},  // negative zero prints as zero
      {raw(1, 28, (u128(1) << 80) - 1), "-0.0001208925819614629174706175"},  // the longest text
  };
  for (const auto& [d, text] : rows) {
    char buf[SHDEC_TEXT_SIZE + 8];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_EQ(ConvDecimalToAscii(buf, &d), buf);
    EXPECT_STREQ(buf, text);
  }
  EXPECT_EQ(std::strlen(rows[1].second) + 1, static_cast<size_t>(SHDEC_TEXT_SIZE));
  HookRecorder hook;
  char buf[SHDEC_TEXT_SIZE];
  EXPECT_EQ(ConvDecimalToAscii(nullptr, &rows[0].first), nullptr);
  EXPECT_EQ(hook.last(), -302);
  const SHDEC bad[] = {raw(0, 29, 5), raw(0, -1, 5), raw(0, 32767, 5)};
  for (const SHDEC* d : {static_cast<const SHDEC*>(nullptr), &bad[0], &bad[1], &bad[2]}) {
    std::strcpy(buf, "junk");
    EXPECT_EQ(ConvDecimalToAscii(buf, d), nullptr);
    EXPECT_EQ(hook.last(), d ? -303 : -301);
    EXPECT_STREQ(buf, "(null)");
  }
  SHDEC d = raw(7, 7, 7);
  ASSERT_EQ(ConvAsciiToDecimal(&d, "-0"), &d);
  EXPECT_TRUE(d.sign == 1 && d.scale == 0);  // the sign of a zero, which the text hides
  for (const char* t : {"1.2.3", "1e24"}) {
    d = raw(0, 3, 42);
    EXPECT_EQ(ConvAsciiToDecimal(&d, t), nullptr) << t;
    EXPECT_EQ(str(d), "0.042") << "a failed parse leaves the result alone";
  }
  EXPECT_EQ(ConvAsciiToDecimal(nullptr, "1"), nullptr);
  EXPECT_EQ(hook.last(), -301);
  EXPECT_EQ(ConvAsciiToDecimal(&d, nullptr), nullptr);
  EXPECT_EQ(hook.last(), -302);
  for (int extra : hook.extras) EXPECT_EQ(extra, 0);
}

// Integers both ways at their bounds; a failed conversion leaves zero.
TEST(DecimalIntegers, BoundsAndFailures) {
  SHDEC d;
  ConvLongToDecimal(&d, std::numeric_limits<int32_t>::min());
  EXPECT_TRUE(d.sign == 1 && d.scale == 0 && mag_of(d) == 2147483648u);
  EXPECT_EQ(str(*ConvIntToDecimal(&d, static_cast<int16_t>(0xFFFF))), "-1");
  EXPECT_EQ(str(*ConvUnsToDecimal(&d, 0xFFFF)), "65535");
  EXPECT_EQ(str(*ConvUnsLongToDecimal(&d, 0xFFFFFFFFu)), "4294967295");
  HookRecorder hook;
  EXPECT_EQ(ConvLongToDecimal(nullptr, 1), nullptr);
  EXPECT_EQ(hook.last(), -301);
  // Out of range (the differential run checks the codes): zero is left.
  for (const char* text : {"4294967295.5", "-2147483648.5"}) {
    d = dec(text);
    int16_t i = 99;
    uint16_t u = 99;
    int32_t l = 99;
    uint32_t ul = 99;
    EXPECT_TRUE(!ConvDecToInt(&i, &d) && !ConvDecToUns(&u, &d) && !ConvDecToLong(&l, &d) && !ConvDecToUnsLong(&ul, &d));
    EXPECT_TRUE(i == 0 && u == 0 && l == 0 && ul == 0) << text;
  }
  const SHDEC bad = raw(0, 29, 1);
  for (const SHDEC* p : {&bad, static_cast<const SHDEC*>(nullptr)}) {
    int16_t v = 99;
    EXPECT_EQ(ConvDecToInt(&v, p), nullptr);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(hook.last(), p ? -303 : -301);
  }
}

TEST(DecimalFloat, SpecialValuesAndCorrectRounding) {
  HookRecorder hook;
  SHDEC d;
  ASSERT_EQ(ConvDoubleToDecimal(&d, -1e-30), &d);
  EXPECT_EQ(d.sign, 0);  // vanished at 28 places: a plain zero
  EXPECT_EQ(hook.codes, std::vector<int>{-305});
  EXPECT_EQ(str(*ConvFloatToDecimal(&d, 0.1f)), "0.10000000149011612");
  hook.codes.clear();
  EXPECT_EQ(ConvDoubleToDecimal(&d, INFINITY), nullptr);
  EXPECT_EQ(ConvDoubleToDecimal(&d, NAN), nullptr);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1.0, 19), nullptr);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1.0, -1), nullptr);
  EXPECT_EQ(hook.codes, (std::vector<int>{-304, -306, -313, -313}));
  EXPECT_NE(ConvDoubleToDecimalRound(&d, 1.0, 18), nullptr);
  // A negative zero is +0 (ties and near-ties are in the differential run).
  double x = 5;
  float f = 5;
  d = raw(1, 2, 0);
  ASSERT_TRUE(ConvDecToDouble(&x, &d) && ConvDecToFloat(&f, &d));
  EXPECT_TRUE(x == 0 && !std::signbit(x) && f == 0 && !std::signbit(f));
  d = raw(0, -1, 1);

  EXPECT_EQ(ConvDecToDouble(&x, &d), nullptr);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(hook.last(), -303);
}

}  // namespace

#if defined(__SIZEOF_INT128__)

using zbshr::dec::U128;
using Native = unsigned __int128;

// Checked against the compiler's own 128-bit integer on edge and pseudo-random values.
TEST(PortableU128, MatchesTheNativeIntegerOnEveryOperation) {
  auto port = [](Native v) { return U128::make(static_cast<uint64_t>(v >> 64), static_cast<uint64_t>(v)); };
  auto native = [](U128 v) { return (static_cast<Native>(v.hi()) << 64) | v.lo(); };
  const Native one = 1;
  std::vector<Native> xs = {0, 2, 3, 0xFFFFFFFFu, 0x100000000u, ~uint64_t{0}, one << 64, (one << 79) - 1,
                            one << 127, ~Native{0}};
  for (Native p = 1, i = 0; i <= 38; ++i, p *= 10) xs.insert(xs.end(), {p, p - 1});
  uint64_t s = 0x9E3779B97F4A7C15u;
  auto next = [&s] { return s ^= s << 13, s ^= s >> 7, s ^= s << 17; };
  for (int i = 0; i < 60; ++i) {
    const int bits = static_cast<int>(next() % 128) + 1;
    const Native v = (static_cast<Native>(next()) << 64) | next();
    xs.push_back(bits == 128 ? v : v & ((one << bits) - 1));
  }
  for (Native a : xs) {
    const U128 pa = port(a);
    ASSERT_TRUE(native(-pa) == -a && native(~pa) == ~a);
    ASSERT_EQ(static_cast<double>(pa), static_cast<double>(a));
    ASSERT_EQ(static_cast<float>(pa), static_cast<float>(a));
    for (int n : {0, 1, 31, 32, 63, 64, 65, 100, 127}) ASSERT_TRUE(native(pa << n) == a << n && native(pa >> n) == a >> n);
    for (Native b : xs) {
      const U128 pb = port(b);
      ASSERT_TRUE(native(pa + pb) == a + b && native(pa - pb) == a - b && native(pa * pb) == a * b);
      ASSERT_TRUE((pa < pb) == (a < b) && (pa == pb) == (a == b));
      if (b != 0) {
        ASSERT_TRUE(native(pa / pb) == a / b && native(pa % pb) == a % b) << double(a) << " / " << double(b);
      }
    }
  }
  // Conversions from signed values sign-extend; to narrow ones keep the low bits.
  EXPECT_TRUE(native(U128(-5)) == static_cast<Native>(-5));
  EXPECT_EQ(static_cast<uint32_t>(port(~Native{0} - 1)), 0xFFFFFFFEu);
}

#endif

TEST(DecimalCli, OperationsBatchesAndErrors) {
  const struct {
    const char* args;
    std::string input;
    int code;
    std::string out;  // standard error then standard output (or a text in them)
  } cases[] = {
      {"divr -0.125 1 2", "", 0, "-0.13\n"},
      {"--raw mul -1.5 2", "", 0, "1 1 30\n"},
      {"toint -2.5", "", 0, "zbshr dec: note -308: a non-zero fraction was dropped\n-3\n"},
      {"add @0:2:150 @1:0:1", "", 0, "0.50\n"},
      {"div 1 0", "", 1, "zbshr dec: error -309: division by zero\n"},
      {"add @0:29:1 1", "", 1, "error -303"},
      {"add 1", "", 2, ""}, {"frobnicate 1 2", "", 2, ""}, {"add 1x 2", "", 2, ""},
      {"--batch", "add 1 2\ndiv 1 0\nround 0.004 2\nparse  1.50 \nparse 1..2\nbogus\n", 0,
       "ok 3\nerr -309\nok 0.00 w-305\nok 1.50\nerr -306\nusage unknown operation 'bogus'\n"},
      // a blank line and CRLF line ends get their answer too, so a reader stays in step
      {"--batch", "add 1 2\r\n\r\n\nadd 2 2\r\n", 0, "ok 3\nusage empty line\nusage empty line\nok 4\n"},
      {"--batch --json", "add 1 2\n\ndiv 1 0\n", 0,
       "{\"line\":1,\"notes\":[],\"result\":\"3\",\"status\":\"ok\"}\n"
       "{\"line\":2,\"status\":\"usage\",\"text\":\"empty line\"}\n{\"code\":-309,\"line\":3,\"status\":\"err\"}\n"},
      {"--help", "", 0, "usage: zbshr dec"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {ZBSHR_DEC_DRIVER, "dec"};
    std::istringstream words(c.args);
    for (std::string w; words >> w;) argv.push_back(w);
    zbtest::RunOptions opt;
    opt.input = c.input;
    const zbtest::RunResult r = zbtest::run_program(argv, opt);
    EXPECT_EQ(r.code, c.code) << c.args;
    const std::string all = r.err + r.out;  // a text not ending a line: found anywhere in it
    if (c.out.empty() || c.out.back() != '\n') {
      EXPECT_NE(all.find(c.out), std::string::npos) << c.args << all;
    } else {
      EXPECT_EQ(all, c.out) << c.args;
    }
  }
}

// A few thousand random cases of every operation; the full run is the CTest
// test DecimalDifferential.
TEST(DecimalDifferential, QuickRunAgreesWithPythonDecimal) {
#ifndef ZBSHR_TEST_PYTHON3
  GTEST_SKIP() << "no python3 in this build";
#else
  const std::string script = std::string(ZBSHR_SOURCE_DIR) + "/tests/decimal/diff_decimal.py";
  zbtest::RunResult r = zbtest::run_program({ZBSHR_TEST_PYTHON3, script, ZBSHR_DEC_DRIVER, "2000", "7"});
  if (r.code == -1) GTEST_SKIP() << "python3 cannot be started";
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(" 0 mismatches"), std::string::npos) << r.out;
#endif
}
