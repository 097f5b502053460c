// SHDEC arithmetic: results, scales, signs of zero and error codes.
#include <cstring>
#include <functional>

#include "decimal_test_util.h"

using namespace dectest;

namespace {

std::string add(const char* a, const char* b) {
  SHDEC x = dec(a), y = dec(b), r;
  return AddDecimal(&r, &x, &y) ? str(r) : "<null>";
}
std::string mul(const char* a, const char* b) {
  SHDEC x = dec(a), y = dec(b), r;
  return MultiplyDecimal(&r, &x, &y) ? str(r) : "<null>";
}
std::string div(const char* a, const char* b) {
  SHDEC x = dec(a), y = dec(b), r;
  return DivideDecimal(&r, &x, &y) ? str(r) : "<null>";
}
std::string pow(const char* a, const char* b) {
  SHDEC x = dec(a), y = dec(b), r;
  return PowerDecimal(&r, &x, &y) ? str(r) : "<null>";
}

}  // namespace

TEST(DecimalAdd, AlignsScalesAndNormalises) {
  EXPECT_EQ(add("1.5", "2.25"), "3.75");
  SHDEC third = raw(0, 28, big("333333333333333333333333")), nought = dec("0"), sum;
  ASSERT_NE(AddDecimal(&sum, &third, &nought), nullptr);
  EXPECT_EQ(str(sum), "0.000033333333333333");
  EXPECT_EQ(add("0.9999999999999999995", "0"), "1.000000000000000000");
  EXPECT_EQ(add("-1.25", "1.2"), "-0.05");
  // a cannot be rescaled up (10^23 * 10 reaches 2^79), so b is rounded to a's scale.
  EXPECT_EQ(add("1000000000000000000.00000", "0.000005"), "1000000000000000000");
  // Normalisation makes one pass: 2^63 - 0.5 rounds to exactly 2^63.
  EXPECT_EQ(add("9223372036854775807.5", "0"), "9223372036854775808");
  // Sums just below 2^66 and 2^80 lose one digit on the way to 19 digits.
  EXPECT_EQ(add("7378697629483820646", "0.2"), "7378697629483820646");
  EXPECT_EQ(add("7378697629483820646", "0.5"), "7378697629483820647");
  EXPECT_EQ(add("60446290980731458735308.7", "60446290980731458735308.7"),
            "<null>");  // 120892581961462917470617 needs scale -5
  EXPECT_EQ(add("6044629098073145873.53087", "-0.000005"), "6044629098073145874");
  SHDEC a = dec("2"), b = dec("3");
  ASSERT_EQ(SubtractDecimal(&a, &a, &b), &a);  // result may be an operand
  EXPECT_EQ(str(a), "-1");
}

TEST(DecimalAdd, OverflowDependsOnScale) {
  HookRecorder hook;
  SHDEC r;
  // Near 9.2 x 10^18 at scale 0: dropping a digit would need scale -1.
  SHDEC a = dec("9000000000000000000"), b = dec("9000000000000000000");
  EXPECT_EQ(AddDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(hook.last(), -304);
  a = dec("90000000000000000.00");
  b = dec("90000000000000000.01");
  ASSERT_EQ(AddDecimal(&r, &a, &b), &r);
  EXPECT_EQ(r.scale, 1);
  EXPECT_EQ(str(r), "180000000000000000.0");
  // A carry out of the fifth word (only hand-made records get there).
  a = raw(0, 0, (u128(1) << 80) - 1);
  b = raw(0, 0, 1);
  EXPECT_EQ(AddDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(hook.last(), -304);
  a = raw(0, 28, (u128(1) << 80) - 1);
  b = raw(0, 28, 1);
  ASSERT_EQ(AddDecimal(&r, &a, &b), &r);
  EXPECT_EQ(str(r), "0.000120892581961463");
}

TEST(DecimalAdd, ZeroSigns) {
  SHDEC r, a = dec("1.5"), b = dec("-1.5");
  AddDecimal(&r, &a, &b);
  EXPECT_EQ(r.sign, 0);
  AddDecimal(&r, &b, &a);
  EXPECT_EQ(r.sign, 1);  // equal magnitudes: the first operand's sign
  EXPECT_EQ(r.scale, 1);
  EXPECT_EQ(str(r), "0.0");
  EXPECT_EQ(TestSignDecimal(&r), 0);
}

TEST(DecimalMultiply, ScalesAndRounding) {
  EXPECT_EQ(mul("12345.67", "0.0825"), "1018.517775");
  EXPECT_EQ(mul("0.000000000000001", "0.000000000000003"), "0.000000000000000000");
  SHDEC a = dec("1.000000000000001"), b = dec("3.000000000000001"), r;
  ASSERT_NE(MultiplyDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(r.scale, 18);  // 23 places before normalisation
  EXPECT_EQ(str(r), "3.000000000000004000");
  // The product is fitted below 2^79 (rounded at 24 places) and then
  // normalised (rounded again): exactly 226.268168620856340649...
  EXPECT_EQ(mul("871.0004510055680189", "0.2597796228"), "226.2681686208563407");
  EXPECT_EQ(mul("3000000000.123456789", "1000000000.987654321"), "3000000003086419752");
  EXPECT_EQ(mul("123456789012.3456789", "987654321098.7654321"), "<null>");
  EXPECT_EQ(mul("-3", "0.5"), "-1.5");
}

TEST(DecimalMultiply, ZerosUnderflowAndVariants) {
  HookRecorder hook;
  SHDEC r, a = raw(1, 15, 0), b = dec("-5.000000000000000");
  ASSERT_NE(MultiplyDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(r.sign, 0);
  EXPECT_EQ(r.scale, 18);
  EXPECT_TRUE(hook.seen().empty());
  ASSERT_NE(MultiplyDecimalAndRound(&r, &a, &b, 3), nullptr);
  EXPECT_EQ(str(r), "0.000");
  // A non-zero product that vanishes is reported and still returned.
  a = dec("0.0000000000000000000000000001");
  ASSERT_EQ(MultiplyDecimal(&r, &a, &a), &r);
  EXPECT_EQ(mag_of(r), 0u);
  EXPECT_EQ(hook.last(), -305);
  a = dec("0.004");
  b = dec("1");
  hook.clear();
  ASSERT_EQ(MultiplyDecimalAndRound(&r, &a, &b, 2), &r);
  EXPECT_EQ(str(r), "0.00");
  EXPECT_EQ(hook.seen(), std::vector<int>{-305});
  a = dec("-2.345");
  b = dec("3");
  ASSERT_NE(MultiplyDecimalAndRound(&r, &a, &b, 2), nullptr);
  EXPECT_EQ(str(r), "-7.04");
  ASSERT_NE(MultiplyDecimalAndTruncate(&r, &a, &b, 2), nullptr);
  EXPECT_EQ(str(r), "-7.03");
  ASSERT_NE(MultiplyDecimalAndTruncate(&r, &a, &b, 5), nullptr);
  EXPECT_EQ(str(r), "-7.03500");
  a = dec("5000000000");
  hook.clear();
  EXPECT_EQ(MultiplyDecimalAndRound(&r, &a, &a, 0), nullptr);  // 2.5e19 >= 2^63
  EXPECT_EQ(hook.seen(), std::vector<int>{-304});
  a = dec("100000000000");
  EXPECT_EQ(MultiplyDecimalAndRound(&r, &a, &a, 2), nullptr);  // 10^24 cannot take 2 places
  EXPECT_EQ(hook.last(), -304);
}

TEST(DecimalDivide, TargetsAndTruncation) {
  EXPECT_EQ(div("1", "3"), "0.333333333333333333");
  EXPECT_EQ(div("2", "3"), "0.666666666666666666");  // the 18th place is truncated
  EXPECT_EQ(div("-1", "8"), "-0.125000000000000000");
  EXPECT_EQ(div("12345.67", "0.0825"), "149644.484848484848484848");
  SHDEC r, a = dec("0.125"), b = dec("1");
  ASSERT_NE(DivideDecimalAndRound(&r, &a, &b, 2), nullptr);
  EXPECT_EQ(str(r), "0.13");
  a = dec("-0.125");
  ASSERT_NE(DivideDecimalAndRound(&r, &a, &b, 2), nullptr);
  EXPECT_EQ(str(r), "-0.13");
  ASSERT_NE(DivideDecimalAndTruncate(&r, &a, &b, 2), nullptr);
  EXPECT_EQ(str(r), "-0.12");
  // The dividend's scale exceeds the divisor's plus the target.
  a = dec("2.5000000000000000000000");
  b = dec("1");
  ASSERT_NE(DivideDecimalAndRound(&r, &a, &b, 0), nullptr);
  EXPECT_EQ(str(r), "3");
  a = dec("2.4999999999999999999999");
  ASSERT_NE(DivideDecimalAndRound(&r, &a, &b, 1), nullptr);
  EXPECT_EQ(str(r), "2.5");
  ASSERT_NE(DivideDecimalAndTruncate(&r, &a, &b, 1), nullptr);
  EXPECT_EQ(str(r), "2.4");
}

TEST(DecimalDivide, ZerosUnderflowAndOverflow) {
  HookRecorder hook;
  SHDEC r, a = raw(1, 5, 0), b = dec("7");
  ASSERT_EQ(DivideDecimal(&r, &a, &b), &r);  // a zero dividend as it stands
  EXPECT_EQ(r.sign, 1);
  EXPECT_EQ(r.scale, 5);
  ASSERT_EQ(DivideDecimalAndRound(&r, &a, &b, 3), &r);
  EXPECT_EQ(r.sign, 0);
  EXPECT_EQ(r.scale, 3);
  a = dec("1");
  b = dec("10000000000000000000");
  EXPECT_EQ(DivideDecimal(&r, &a, &b), nullptr);  // 10^-19 truncates to zero
  EXPECT_EQ(hook.last(), -305);
  b = dec("3");
  EXPECT_EQ(DivideDecimalAndTruncate(&r, &a, &b, 0), nullptr);
  EXPECT_EQ(hook.last(), -305);
  // DivideDecimal's quotient must stay below 2^79.
  a = raw(0, 18, big("604462909807314587353087"));
  b = dec("1");
  ASSERT_NE(DivideDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(str(r), "604462.909807314587353087");
  a = raw(0, 18, u128(1) << 79);  // 604462.909807314587353088
  hook.clear();
  EXPECT_EQ(DivideDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(hook.seen(), std::vector<int>{-304});
  // The places variants need the result below 2^63.
  a = dec("9223372036854775808");
  EXPECT_EQ(DivideDecimalAndRound(&r, &a, &b, 0), nullptr);
  EXPECT_EQ(hook.last(), -304);
  a = dec("9223372036854775807");
  ASSERT_NE(DivideDecimalAndRound(&r, &a, &b, 0), nullptr);
  b = dec("0");
  hook.clear();
  EXPECT_EQ(DivideDecimal(&r, &a, &b), nullptr);
  EXPECT_EQ(hook.seen(), std::vector<int>{-309});
}

TEST(DecimalModulo, TruncatedQuotient) {
  auto mod = [](const char* a, const char* b) {
    SHDEC x = dec(a), y = dec(b), r;
    return ModuloDecimal(&r, &x, &y) ? str(r) : std::string("<null>");
  };
  EXPECT_EQ(mod("1", "3"), "1");
  EXPECT_EQ(mod("10", "3"), "1");
  EXPECT_EQ(mod("-7", "2"), "-1");
  EXPECT_EQ(mod("7.5", "-2"), "1.5");
  EXPECT_EQ(mod("0.00", "3.000"), "0.000");
  EXPECT_EQ(mod("12345.67", "0.0825"), "0.0400");
  HookRecorder hook;
  EXPECT_EQ(mod("1", "0"), "<null>");
  EXPECT_EQ(hook.last(), -309);
}

TEST(DecimalRound, PlacesRoundingAndUnderflow) {
  HookRecorder hook;
  SHDEC r, a = dec("2.5");
  RoundDecimal(&r, &a, 0);
  EXPECT_EQ(str(r), "3");
  a = dec("-2.5");
  RoundDecimal(&r, &a, 0);
  EXPECT_EQ(str(r), "-3");
  TruncateDecimal(&r, &a, 0);
  EXPECT_EQ(str(r), "-2");
  RoundDecimal(&r, &a, 3);
  EXPECT_EQ(str(r), "-2.500");
  a = raw(1, 9, 0);
  ASSERT_NE(RoundDecimal(&r, &a, 4), nullptr);  // a zero takes the requested scale
  EXPECT_EQ(r.scale, 4);
  EXPECT_EQ(r.sign, 0);
  EXPECT_TRUE(hook.seen().empty());
  a = dec("0.004");
  ASSERT_EQ(RoundDecimal(&r, &a, 2), &r);
  EXPECT_EQ(str(r), "0.00");
  EXPECT_EQ(hook.seen(), std::vector<int>{-305});
  EXPECT_EQ(RoundDecimal(&r, &a, 19), nullptr);
  EXPECT_EQ(hook.last(), -313);
  EXPECT_EQ(RoundDecimal(&r, &a, -1), nullptr);
  EXPECT_EQ(hook.last(), -313);
  a = dec("92233720368547758.065");
  ASSERT_NE(RoundDecimal(&r, &a, 2), nullptr);
  EXPECT_EQ(str(r), "92233720368547758.07");
  a = dec("92233720368547758.085");
  hook.clear();
  EXPECT_EQ(RoundDecimal(&r, &a, 2), nullptr);  // 2^63 or more after rounding
  EXPECT_EQ(hook.seen(), std::vector<int>{-304});
  EXPECT_EQ(str(r), "92233720368547758.09");  // the formed result stays in the record
}

TEST(DecimalCompare, ValuesScalesAndZeros) {
  auto cmp = [](SHDEC a, SHDEC b) { return CompareDecimal(&a, &b); };
  EXPECT_EQ(cmp(dec("1.50"), dec("1.5")), 0);
  EXPECT_EQ(cmp(raw(1, 4, 0), raw(0, 0, 0)), 0);
  EXPECT_EQ(cmp(dec("-0.001"), raw(1, 0, 0)), -1);
  EXPECT_EQ(cmp(raw(1, 0, 0), dec("-0.001")), 1);
  EXPECT_EQ(cmp(dec("-1"), dec("-2")), 1);
  EXPECT_EQ(cmp(dec("-2"), dec("1")), -1);
  EXPECT_EQ(static_cast<uint16_t>(cmp(dec("1"), dec("2"))), 0xFFFF);
  // Bringing 10^20 to 28 places overflows: it is the larger magnitude.
  EXPECT_EQ(cmp(dec("100000000000000000000"), dec("0.0000000000000000000000000001")), 1);
  EXPECT_EQ(cmp(dec("-100000000000000000000"), dec("-0.0000000000000000000000000001")), -1);
  SHDEC a = dec("-3"), b = dec("2.9999");
  EXPECT_EQ(MagnitudeOfDecimal(&a, &b), 1);
  EXPECT_EQ(MagnitudeOfDecimal(&b, &a), -1);
  a = raw(1, 2, 0);
  b = raw(0, 5, 0);
  EXPECT_EQ(MagnitudeOfDecimal(&a, &b), 0);
}

TEST(DecimalSign, AbsoluteChangeSignTestSign) {
  SHDEC r, a = dec("-1.25");
  ASSERT_NE(AbsoluteDecimal(&r, &a), nullptr);
  EXPECT_EQ(str(r), "1.25");
  EXPECT_EQ(TestSignDecimal(&a), -1);
  ChangeSignDecimal(&r, &a);
  EXPECT_EQ(str(r), "1.25");
  EXPECT_EQ(TestSignDecimal(&r), 1);
  a = raw(1, 3, 0);  // negative zero: copied as it stands
  AbsoluteDecimal(&r, &a);
  EXPECT_EQ(r.sign, 1);
  EXPECT_EQ(TestSignDecimal(&a), 0);
  ChangeSignDecimal(&r, &a);
  EXPECT_EQ(r.sign, 0);
  EXPECT_EQ(DecimalPrecision(&a), 3);
}

TEST(DecimalPower, IntegralExponents) {
  EXPECT_EQ(pow("2", "10"), "1024");
  EXPECT_EQ(pow("2", "10.000"), "1024");
  EXPECT_EQ(pow("-1.5", "3"), "-3.375");
  EXPECT_EQ(pow("1.1", "2"), "1.21");
  EXPECT_EQ(pow("7", "0"), "1");
  EXPECT_EQ(pow("2", "-2"), "0.250000000000000000");
  EXPECT_EQ(pow("3", "-1"), "0.333333333333333333");
  EXPECT_EQ(pow("0.00", "3"), "0.000000");
  // Exactly 1.00328207408540385532...; squaring rounds at 23 places.
  EXPECT_EQ(pow("1.0000001", "32767"), "1.003282074085403855");
  HookRecorder hook;
  EXPECT_EQ(pow("0", "0"), "<null>");
  EXPECT_EQ(hook.last(), -310);
  EXPECT_EQ(pow("-2", "0"), "<null>");
  EXPECT_EQ(hook.last(), -310);
  EXPECT_EQ(pow("0", "-1"), "<null>");
  EXPECT_EQ(hook.last(), -309);
  EXPECT_EQ(pow("10", "100"), "<null>");
  EXPECT_EQ(hook.last(), -304);
  hook.clear();
  EXPECT_EQ(pow("0.1", "30"), "0.00");  // vanished: reported, zero returned
  EXPECT_EQ(hook.seen(), std::vector<int>{-305});
}

TEST(DecimalPower, SeriesForOtherExponents) {
  EXPECT_EQ(pow("2", "0.5"), "1.414213562373095049");
  EXPECT_EQ(pow("10", "0.5"), "3.162277660168379332");
  EXPECT_EQ(pow("0.5", "0.5"), "0.707106781186547524");
  // Exactly 1.99999999999999999861...
  EXPECT_EQ(pow("8", "0.333333333333333333"), "1.999999999999999999");
  EXPECT_EQ(pow("100", "1.5"), "1000.000000000000000");
  HookRecorder hook;
  EXPECT_EQ(pow("-2", "0.5"), "<null>");
  EXPECT_EQ(hook.last(), -310);
  EXPECT_EQ(pow("0.00000000000000000000004", "0.5"), "<null>");  // below 5e-23
  EXPECT_EQ(hook.last(), -310);
  EXPECT_EQ(pow("2", "1000.5"), "<null>");  // exponent of e above 43
  EXPECT_EQ(hook.last(), -304);
  hook.clear();
  EXPECT_EQ(pow("2", "-100.5"), "0.00");  // below -42: zero, reported
  EXPECT_EQ(hook.seen(), std::vector<int>{-305});
}

// Every operation rejects a null operand with -301 and a scale outside
// 0..28 with -303, and validates in order: first operand, second operand,
// result, places, divisor.
TEST(DecimalErrors, ValidationOrder) {
  HookRecorder hook;
  const SHDEC good = dec("1"), zero = dec("0");
  using Op = std::function<bool(SHDEC*, const SHDEC*, const SHDEC*, int32_t)>;
  const std::vector<std::pair<const char*, Op>> ops = {
      {"add", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return AddDecimal(r, a, b); }},
      {"sub", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return SubtractDecimal(r, a, b); }},
      {"mul", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return MultiplyDecimal(r, a, b); }},
      {"mulr", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return MultiplyDecimalAndRound(r, a, b, p); }},
      {"mult", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return MultiplyDecimalAndTruncate(r, a, b, p); }},
      {"div", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return DivideDecimal(r, a, b); }},
      {"divr", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return DivideDecimalAndRound(r, a, b, p); }},
      {"divt", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return DivideDecimalAndTruncate(r, a, b, p); }},
      {"mod", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return ModuloDecimal(r, a, b); }},
      {"pow", [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return PowerDecimal(r, a, b); }},
  };
  for (const auto& [name, op] : ops) {
    for (int16_t bad_scale : {int16_t(29), int16_t(-1)}) {
      const SHDEC bad = raw(0, bad_scale, 1);
      SHDEC r = raw(0, 1, 1234);
      struct Case {
        SHDEC* r;
        const SHDEC* a;
        const SHDEC* b;
        int32_t places;
        int want;
      } cases[] = {
          {&r, nullptr, &bad, 2, -301}, {&r, &bad, nullptr, 2, -303},
          {&r, &good, &bad, 2, -303},   {&r, &good, nullptr, 2, -301},
          {nullptr, &good, &bad, 2, -303}, {nullptr, &good, &good, 99, -301},
      };
      for (const auto& c : cases) {
        hook.clear();
        EXPECT_FALSE(op(c.r, c.a, c.b, c.places)) << name;
        EXPECT_EQ(hook.seen(), std::vector<int>{c.want}) << name;
        EXPECT_EQ(str(r), "123.4") << name << ": a failed validation leaves the result alone";
      }
    }
    // Places are checked before the divisor.
    std::string n = name;
    if (n == "mulr" || n == "mult" || n == "divr" || n == "divt") {
      SHDEC r;
      hook.clear();
      EXPECT_FALSE(op(&r, &good, &zero, 19)) << name;
      EXPECT_EQ(hook.seen(), std::vector<int>{-313}) << name;
    }
  }
  // Single-operand operations.
  const SHDEC bad = raw(0, 29, 1);
  SHDEC r;
  EXPECT_EQ(RoundDecimal(&r, &bad, 99), nullptr);
  EXPECT_EQ(hook.last(), -303);
  EXPECT_EQ(TruncateDecimal(nullptr, &good, 99), nullptr);
  EXPECT_EQ(hook.last(), -301);
  EXPECT_EQ(AbsoluteDecimal(&r, &bad), nullptr);
  EXPECT_EQ(hook.last(), -303);
  EXPECT_EQ(ChangeSignDecimal(nullptr, &good), nullptr);
  EXPECT_EQ(hook.last(), -301);
  EXPECT_EQ(CompareDecimal(&good, &bad), -303);
  EXPECT_EQ(CompareDecimal(nullptr, &bad), -301);
  EXPECT_EQ(MagnitudeOfDecimal(&bad, &good), -303);
  EXPECT_EQ(TestSignDecimal(&bad), -303);
  EXPECT_EQ(DecimalPrecision(nullptr), -301);
  EXPECT_EQ(DecimalPrecision(&bad), -303);
  for (int extra : hook.extras()) EXPECT_EQ(extra, 0);
}

TEST(DecimalErrors, DefaultHookDoesNothing) {
  // Restored to the library's hook, an error is only a null return.
  SHDEC_ERROR_HOOK mine = zbshr::dec::set_error_hook(nullptr);
  EXPECT_EQ(zbshr::dec::error_hook(), &zbshr_decimal_default_error_hook);
  SHDEC r, a = dec("1"), z = dec("0");
  EXPECT_EQ(DivideDecimal(&r, &a, &z), nullptr);
  zbshr::dec::set_error_hook(mine);
}

// Arbitrary records (odd sign bits, any scale, magnitudes up to 2^80 - 1)
// through every operation: each answer is either null or a well-formed
// record, and nothing reads or writes outside the records.
TEST(DecimalRobustness, ArbitraryRecordsGiveWellFormedAnswers) {
  HookRecorder hook;  // keep the codes out of the way
  uint64_t state = 0x9E3779B97F4A7C15ULL;
  auto next = [&state]() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
  };
  auto record = [&]() {
    SHDEC d;
    const uint64_t r = next();
    d.sign = static_cast<uint16_t>(r % 7 == 0 ? next() : r % 2);
    d.scale = static_cast<int16_t>(r % 11 == 0 ? static_cast<int16_t>(next()) : static_cast<int16_t>(next() % 29));
    const int bits = static_cast<int>(next() % 81);
    u128 m = (static_cast<u128>(next()) << 64) | next();
    m = bits == 0 ? 0 : (m >> (128 - bits));
    for (int i = 0; i < 5; ++i) d.mag[i] = static_cast<uint16_t>(m >> (16 * i));
    return d;
  };
  auto well_formed = [](const SHDEC* r) {
    return r->sign <= 1 && r->scale >= 0 && r->scale <= 28;
  };
  for (int i = 0; i < 20000; ++i) {
    const SHDEC a = record(), b = record();
    const int32_t places = static_cast<int32_t>(next() % 22) - 2;
    SHDEC r;
    char text[SHDEC_TEXT_SIZE];
    const SHDEC* out[] = {
        AddDecimal(&r, &a, &b), SubtractDecimal(&r, &a, &b), MultiplyDecimal(&r, &a, &b),
        MultiplyDecimalAndRound(&r, &a, &b, places), MultiplyDecimalAndTruncate(&r, &a, &b, places),
        DivideDecimal(&r, &a, &b), DivideDecimalAndRound(&r, &a, &b, places),
        DivideDecimalAndTruncate(&r, &a, &b, places), ModuloDecimal(&r, &a, &b),
        RoundDecimal(&r, &a, places), TruncateDecimal(&r, &a, places),
    };
    for (const SHDEC* o : out) {
      if (o) {
        ASSERT_TRUE(well_formed(o));
        ASSERT_NE(ConvDecimalToAscii(text, o), nullptr);
        ASSERT_LT(std::strlen(text), static_cast<size_t>(SHDEC_TEXT_SIZE));
      }
    }
    if (i % 8 == 0) {
      // Powers are slower: a sample, with small exponents as well.
      SHDEC e = b;
      if (i % 16 == 0) {
        e.scale = static_cast<int16_t>(next() % 4);
        const u128 m = next() % 5000;
        for (int w = 0; w < 5; ++w) e.mag[w] = static_cast<uint16_t>(m >> (16 * w));
      }
      if (const SHDEC* p = PowerDecimal(&r, &a, &e)) {
        ASSERT_TRUE(well_formed(p));
      }
    }
    CompareDecimal(&a, &b);
    MagnitudeOfDecimal(&a, &b);
    ConvDecimalToAscii(text, &a);
    double x;
    ConvDecToDouble(&x, &a);
    int32_t l;
    ConvDecToLong(&l, &a);
  }
}
