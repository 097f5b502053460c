// The SHDEC record, its constants and the conversions to and from text,
// integers and floating point.
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>

#include "decimal_test_util.h"

using namespace dectest;

TEST(DecimalRecord, LayoutIsSevenSixteenBitWords) {
  EXPECT_EQ(sizeof(SHDEC), 14u);
  EXPECT_EQ(offsetof(SHDEC, sign), 0u);
  EXPECT_EQ(offsetof(SHDEC, scale), 2u);
  EXPECT_EQ(offsetof(SHDEC, mag), 4u);
  // 1234567.89 negative: magnitude 123456789 = 0x075BCD15.
  SHDEC d = dec("-1234567.89");
  unsigned char bytes[14];
  std::memcpy(bytes, &d, 14);
  const unsigned char want[14] = {1, 0, 2, 0, 0x15, 0xCD, 0x5B, 0x07, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(bytes, want, 14), 0);
}

TEST(DecimalRecord, CanonicalZeroAndConstants) {
  SHDEC z = raw(1, 7, 99);
  ASSERT_EQ(ZeroDecimal(&z), &z);
  EXPECT_EQ(z.sign, 0);
  EXPECT_EQ(z.scale, 2);
  EXPECT_EQ(mag_of(z), 0u);
  EXPECT_EQ(str(z), "0.00");
  HookRecorder hook;
  EXPECT_EQ(ZeroDecimal(nullptr), nullptr);
  EXPECT_EQ(hook.last(), -301);

  EXPECT_EQ(str(shdecOne), "1");
  EXPECT_EQ(str(shdecSevenTenths), "0.7");
  EXPECT_EQ(str(shdecLog2E), "1.44269504088896340735992");
  EXPECT_EQ(str(shdecLog10E), "0.43429448190325182765113");
  EXPECT_EQ(str(shdecLn2), "0.69314718055994530941723");
  EXPECT_EQ(str(shdecLn10), "2.30258509299404568401799");
  EXPECT_EQ(str(shdecExpCeiling), "43");
  EXPECT_EQ(str(shdecExpFloor), "-42");
  EXPECT_EQ(shdecExpFloor.sign, 1);
  EXPECT_EQ(shdecLn10.scale, 23);
}

TEST(DecimalText, OutputFollowsMagnitudeAndScale) {
  EXPECT_EQ(str(raw(1, 2, 12345)), "-123.45");
  EXPECT_EQ(str(raw(0, 3, 5)), "0.005");
  EXPECT_EQ(str(raw(0, 0, 7)), "7");
  EXPECT_EQ(str(raw(0, 0, 0)), "0");
  // Negative zero prints as zero with the scale's zeros.
  EXPECT_EQ(str(raw(1, 3, 0)), "0.000");
  // The longest text: sign, 29 digits, point, terminator.
  const SHDEC widest = raw(1, 28, (u128(1) << 80) - 1);
  char buf[SHDEC_TEXT_SIZE + 8];
  std::memset(buf, 'x', sizeof buf);
  ASSERT_NE(ConvDecimalToAscii(buf, &widest), nullptr);
  EXPECT_STREQ(buf, "-0.0001208925819614629174706175");
  EXPECT_EQ(std::strlen(buf) + 1, static_cast<size_t>(SHDEC_TEXT_SIZE));
}

TEST(DecimalText, OutputErrors) {
  HookRecorder hook;
  char buf[SHDEC_TEXT_SIZE];
  const SHDEC ok = dec("1");
  EXPECT_EQ(ConvDecimalToAscii(nullptr, &ok), nullptr);
  EXPECT_EQ(hook.last(), -302);
  std::strcpy(buf, "junk");
  EXPECT_EQ(ConvDecimalToAscii(buf, nullptr), nullptr);
  EXPECT_EQ(hook.last(), -301);
  EXPECT_STREQ(buf, "(null)");
  for (int16_t bad : {int16_t(29), int16_t(-1), int16_t(32767)}) {
    const SHDEC d = raw(0, bad, 5);
    std::strcpy(buf, "junk");
    EXPECT_EQ(ConvDecimalToAscii(buf, &d), nullptr);
    EXPECT_EQ(hook.last(), -303);
    EXPECT_STREQ(buf, "(null)");
  }
  EXPECT_EQ(hook.extras(), std::vector<int>(hook.extras().size(), 0));
}

// Values and codes of random and malformed texts are compared with Python's
// decimal in the differential run; here what its text form hides.
TEST(DecimalText, InputSignScaleAndErrors) {
  struct Case {
    const char* text;
    uint16_t sign;
    int16_t scale;
  } cases[] = {{"  -0012.3400  ", 1, 4}, {"-0", 1, 0}, {"0e-28", 0, 28}, {"0e99", 0, 0}};
  for (const auto& c : cases) {
    SHDEC d = raw(7, 7, 7);
    ASSERT_EQ(ConvAsciiToDecimal(&d, c.text), &d) << c.text;
    EXPECT_EQ(d.sign, c.sign) << c.text;
    EXPECT_EQ(d.scale, c.scale) << c.text;
  }
  HookRecorder hook;
  for (const char* t : {"1.2.3", "1e24"}) {
    SHDEC d = raw(0, 3, 42);
    EXPECT_EQ(ConvAsciiToDecimal(&d, t), nullptr) << t;
    EXPECT_EQ(str(d), "0.042") << "a failed parse leaves the result alone";
  }
  SHDEC d;
  EXPECT_EQ(ConvAsciiToDecimal(nullptr, "1"), nullptr);
  EXPECT_EQ(hook.last(), -301);
  EXPECT_EQ(ConvAsciiToDecimal(&d, nullptr), nullptr);
  EXPECT_EQ(hook.last(), -302);
}

TEST(DecimalIntegers, FromIntegers) {
  SHDEC d;
  ConvLongToDecimal(&d, std::numeric_limits<int32_t>::min());
  EXPECT_EQ(d.sign, 1);
  EXPECT_EQ(d.scale, 0);
  EXPECT_TRUE(mag_of(d) == 2147483648u);
  ConvIntToDecimal(&d, static_cast<int16_t>(0xFFFF));
  EXPECT_EQ(str(d), "-1");
  ConvUnsToDecimal(&d, 0xFFFF);
  EXPECT_EQ(str(d), "65535");
  ConvUnsLongToDecimal(&d, 0xFFFFFFFFu);
  EXPECT_EQ(str(d), "4294967295");
  EXPECT_EQ(d.sign, 0);
  HookRecorder hook;
  EXPECT_EQ(ConvLongToDecimal(nullptr, 1), nullptr);
  EXPECT_EQ(hook.last(), -301);
}

// Values and codes are compared with Python's decimal in the differential
// run; here the answer a failed conversion leaves (zero) and the bounds.
TEST(DecimalIntegers, FailuresClearTheAnswerAndBoundsHold) {
  HookRecorder hook;
  struct Row {
    const char* text;
    int kind;  // 0 int16, 1 uint16, 2 int32, 3 uint32
    int64_t want;  // -99 = refused with want_code
    int want_code;
  } rows[] = {
      {"-32768.4", 0, -32768, -308}, {"32767.5", 0, -99, -307}, {"-32768.5", 0, -99, -307},
      {"65535.49", 1, 65535, -308},  {"65535.5", 1, -99, -307}, {"-0.4", 1, 0, -308},
      {"-1", 1, -99, -307},          {"-2147483648", 2, -2147483648LL, 0},
      {"2147483647.5", 2, -99, -307}, {"4294967295", 3, 4294967295LL, 0},
      {"4294967295.5", 3, -99, -307}, {"1e20", 0, -99, -307},
  };
  for (const Row& r : rows) {
    const SHDEC d = dec(r.text);
    int16_t i = 99;
    uint16_t u = 99;
    int32_t l = 99;
    uint32_t ul = 99;
    hook.clear();
    bool ok = false;
    int64_t got = 0;
    switch (r.kind) {
      case 0: ok = ConvDecToInt(&i, &d) == &i; got = i; break;
      case 1: ok = ConvDecToUns(&u, &d) == &u; got = u; break;
      case 2: ok = ConvDecToLong(&l, &d) == &l; got = l; break;
      default: ok = ConvDecToUnsLong(&ul, &d) == &ul; got = ul; break;
    }
    EXPECT_EQ(ok, r.want != -99) << r.text;
    EXPECT_EQ(got, r.want == -99 ? 0 : r.want) << r.text;
    EXPECT_EQ(hook.last(), r.want_code) << r.text;
  }
  int16_t v = 99;
  const SHDEC bad = raw(0, 29, 1);
  EXPECT_EQ(ConvDecToInt(&v, &bad), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(hook.last(), -303);
  v = 99;
  EXPECT_EQ(ConvDecToInt(&v, nullptr), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(hook.last(), -301);
}

// Random doubles go through the differential run; here the special values.
TEST(DecimalFloat, DoubleToDecimalSpecialValues) {
  HookRecorder hook;
  SHDEC d;
  ASSERT_EQ(ConvDoubleToDecimal(&d, -1e-30), &d);
  EXPECT_EQ(d.sign, 0);  // vanished at 28 places: a plain zero
  EXPECT_EQ(hook.seen(), std::vector<int>{-305});
  ConvFloatToDecimal(&d, 0.1f);
  EXPECT_EQ(str(d), "0.10000000149011612");
  hook.clear();
  EXPECT_EQ(ConvDoubleToDecimal(&d, INFINITY), nullptr);
  EXPECT_EQ(ConvDoubleToDecimal(&d, NAN), nullptr);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1.0, 19), nullptr);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1.0, -1), nullptr);
  EXPECT_EQ(hook.seen(), (std::vector<int>{-304, -306, -313, -313}));
  EXPECT_NE(ConvDoubleToDecimalRound(&d, 1.0, 18), nullptr);
}

TEST(DecimalFloat, DecimalToBinaryIsCorrectlyRounded) {
  double x = 0;
  float f = 0;
  // Beyond the exact fast path: 2^53 + 1 is a tie, resolved to even.
  SHDEC d = dec("9007199254740993");
  ASSERT_NE(ConvDecToDouble(&x, &d), nullptr);
  EXPECT_EQ(x, 9007199254740992.0);
  d = dec("9007199254740995");
  ConvDecToDouble(&x, &d);
  EXPECT_EQ(x, 9007199254740996.0);
  d = dec("-0.100000000000000005551115");
  ConvDecToDouble(&x, &d);
  EXPECT_EQ(x, -0.1);
  d = raw(0, 28, (u128(1) << 79) - 1);
  ConvDecToDouble(&x, &d);
  EXPECT_EQ(x, 6.044629098073146e-05);
  d = dec("16777217");
  ASSERT_NE(ConvDecToFloat(&f, &d), nullptr);
  EXPECT_EQ(f, 16777216.0f);
  d = dec("16777219");
  ConvDecToFloat(&f, &d);
  EXPECT_EQ(f, 16777220.0f);
  // Just above a tie between two floats: going through the nearest double
  // would land on the tie and round to even, the wrong way.
  d = dec("16777217.0000000001");
  ConvDecToFloat(&f, &d);
  EXPECT_EQ(f, 16777218.0f);
  // A negative zero is zero: it converts to +0.
  d = raw(1, 2, 0);
  x = 5;
  f = 5;
  ConvDecToDouble(&x, &d);
  ConvDecToFloat(&f, &d);
  EXPECT_TRUE(x == 0 && !std::signbit(x));
  EXPECT_TRUE(f == 0 && !std::signbit(f));
  HookRecorder hook;
  d = raw(0, -1, 1);
  x = 5;
  EXPECT_EQ(ConvDecToDouble(&x, &d), nullptr);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(hook.last(), -303);
}
