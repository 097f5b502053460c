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

TEST(DecimalText, InputKeepsWrittenScale) {
  struct Case {
    const char* text;
    uint16_t sign;
    int16_t scale;
    const char* mag;
  } cases[] = {
      {"1.50", 0, 2, "150"},        {"  -0012.3400  ", 1, 4, "123400"},
      {".5", 0, 1, "5"},            {"5.", 0, 0, "5"},
      {"1e3", 0, 0, "1000"},        {"1.5E-3", 0, 4, "15"},
      {"12.5e+1", 0, 0, "125"},     {"-0", 1, 0, "0"},
      {"0.0000000000000000000000000001", 0, 28, "1"},
      {"604462909807314587353087", 0, 0, "604462909807314587353087"},
      {"0e-28", 0, 28, "0"},        {"0e99", 0, 0, "0"},
      {"0.0000000000000000000000000000000000000001e38", 0, 2, "1"},
  };
  for (const auto& c : cases) {
    SHDEC d = raw(7, 7, 7);
    ASSERT_EQ(ConvAsciiToDecimal(&d, c.text), &d) << c.text;
    EXPECT_EQ(d.sign, c.sign) << c.text;
    EXPECT_EQ(d.scale, c.scale) << c.text;
    EXPECT_TRUE(mag_of(d) == big(c.mag)) << c.text;
  }
}

TEST(DecimalText, InputErrorsPreferSyntaxOverRange) {
  HookRecorder hook;
  const char* malformed[] = {"", "   ", ".", "-", "+1", "1e", "1e+", "1.2.3", "1 2", "abc",
                             "--1", "1-", "e5", "\t1", "1,5", "0x10",
                             "1111111111111111111111111111111.x"};
  for (const char* t : malformed) {
    SHDEC d = raw(0, 3, 42);
    hook.clear();
    EXPECT_EQ(ConvAsciiToDecimal(&d, t), nullptr) << t;
    EXPECT_EQ(hook.seen(), std::vector<int>{-306}) << t;
    EXPECT_EQ(d.scale, 3) << "a failed parse leaves the result alone";
  }
  const char* too_big[] = {"604462909807314587353088", "1234567890123456789012345678901",
                           "0.00000000000000000000000000001", "1e24", "1e100000000000",
                           "1.0000000000000000000000000000",
                           "100000000000000000000000000000000e-30"};
  for (const char* t : too_big) {
    SHDEC d;
    hook.clear();
    EXPECT_EQ(ConvAsciiToDecimal(&d, t), nullptr) << t;
    EXPECT_EQ(hook.seen(), std::vector<int>{-307}) << t;
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

TEST(DecimalIntegers, ToShortRoundsHalfUpAndChecksRange) {
  HookRecorder hook;
  int16_t v = 99;
  SHDEC d = dec("2.5");
  EXPECT_EQ(ConvDecToInt(&v, &d), &v);
  EXPECT_EQ(v, 3);
  EXPECT_EQ(hook.seen(), std::vector<int>{-308});
  d = dec("-2.5");
  EXPECT_EQ(ConvDecToInt(&v, &d), &v);
  EXPECT_EQ(v, -3);
  hook.clear();
  d = dec("-32768");
  EXPECT_EQ(ConvDecToInt(&v, &d), &v);
  EXPECT_EQ(v, -32768);
  EXPECT_TRUE(hook.seen().empty());
  d = dec("-32768.4");
  EXPECT_EQ(ConvDecToInt(&v, &d), &v);
  EXPECT_EQ(v, -32768);
  EXPECT_EQ(hook.last(), -308);
  for (const char* t : {"32767.5", "32768", "-32768.5", "1e20"}) {
    v = 99;
    hook.clear();
    d = dec(t);
    EXPECT_EQ(ConvDecToInt(&v, &d), nullptr) << t;
    EXPECT_EQ(v, 0) << t;
    EXPECT_EQ(hook.seen(), std::vector<int>{-307}) << t;
  }
  d = raw(0, 29, 1);
  v = 99;
  EXPECT_EQ(ConvDecToInt(&v, &d), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(hook.last(), -303);
  v = 99;
  EXPECT_EQ(ConvDecToInt(&v, nullptr), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(hook.last(), -301);
}

TEST(DecimalIntegers, OtherTypesUseTheirOwnBounds) {
  HookRecorder hook;
  uint16_t u;
  int32_t l;
  uint32_t ul;
  SHDEC d = dec("65535.49");
  EXPECT_EQ(ConvDecToUns(&u, &d), &u);
  EXPECT_EQ(u, 65535);
  d = dec("65535.5");
  EXPECT_EQ(ConvDecToUns(&u, &d), nullptr);
  d = dec("-0.4");  // rounds to zero: in range, fraction dropped
  hook.clear();
  EXPECT_EQ(ConvDecToUns(&u, &d), &u);
  EXPECT_EQ(u, 0);
  EXPECT_EQ(hook.seen(), std::vector<int>{-308});
  d = dec("-1");
  EXPECT_EQ(ConvDecToUns(&u, &d), nullptr);
  EXPECT_EQ(hook.last(), -307);
  d = dec("-2147483648");
  EXPECT_EQ(ConvDecToLong(&l, &d), &l);
  EXPECT_EQ(l, std::numeric_limits<int32_t>::min());
  d = dec("2147483647.4999");
  EXPECT_EQ(ConvDecToLong(&l, &d), &l);
  EXPECT_EQ(l, 2147483647);
  d = dec("2147483647.5");
  EXPECT_EQ(ConvDecToLong(&l, &d), nullptr);
  d = dec("4294967295");
  EXPECT_EQ(ConvDecToUnsLong(&ul, &d), &ul);
  EXPECT_EQ(ul, 4294967295u);
  d = dec("4294967295.5");
  EXPECT_EQ(ConvDecToUnsLong(&ul, &d), nullptr);
  EXPECT_EQ(ul, 0u);
}

TEST(DecimalFloat, DoubleToDecimalUsesShortestDigits) {
  HookRecorder hook;
  SHDEC d;
  struct Case {
    double x;
    const char* text;
  } cases[] = {{0.1, "0.1"},
               {-1234.5, "-1234.5"},
               {100.0, "100"},
               {1e23, "100000000000000000000000"},
               {5e-324, "0.0000000000000000000000000000"},
               {1.2345678901234567e-20, "0.0000000000000000000123456789"},
               {0.0, "0"},
               {0.30000000000000004, "0.30000000000000004"},
               // Beyond 28 places the exact binary value is rounded: the
               // double nearest 5e-29 lies below it, and rounding its
               // shortest digits "3.8219104596613935" again would end in 4.
               {5e-29, "0.0000000000000000000000000000"},
               {3.8219104596613935e-13, "0.0000000000003821910459661393"},
               {-1e-30, "0.0000000000000000000000000000"}};
  for (const auto& c : cases) {
    ASSERT_EQ(ConvDoubleToDecimal(&d, c.x), &d) << c.x;
    EXPECT_EQ(str(d), c.text) << c.x;
    if (c.x < 0) {
      EXPECT_EQ(d.sign, c.text[0] == '-' ? 1 : 0) << c.x;  // no negative zero
    }
  }
  // 5e-324, 5e-29 and -1e-30 vanished at 28 places.
  EXPECT_EQ(hook.seen(), (std::vector<int>{-305, -305, -305}));
  ConvFloatToDecimal(&d, 0.1f);
  EXPECT_EQ(str(d), "0.10000000149011612");
  hook.clear();
  EXPECT_EQ(ConvDoubleToDecimal(&d, 1e24), nullptr);
  EXPECT_EQ(ConvDoubleToDecimal(&d, INFINITY), nullptr);
  EXPECT_EQ(ConvDoubleToDecimal(&d, NAN), nullptr);
  EXPECT_EQ(hook.seen(), (std::vector<int>{-304, -304, -306}));
}

TEST(DecimalFloat, DoubleToDecimalRound) {
  HookRecorder hook;
  SHDEC d;
  ASSERT_NE(ConvDoubleToDecimalRound(&d, 1.005, 2), nullptr);
  EXPECT_EQ(str(d), "1.01");
  ASSERT_NE(ConvDoubleToDecimalRound(&d, -2.5, 0), nullptr);
  EXPECT_EQ(str(d), "-3");
  ASSERT_NE(ConvDoubleToDecimalRound(&d, 0.5, 4), nullptr);
  EXPECT_EQ(str(d), "0.5000");
  EXPECT_TRUE(hook.seen().empty());
  ASSERT_NE(ConvDoubleToDecimalRound(&d, 0.001, 2), nullptr);
  EXPECT_EQ(str(d), "0.00");
  EXPECT_EQ(hook.last(), -305);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1.0, 19), nullptr);
  EXPECT_EQ(hook.last(), -313);
  EXPECT_EQ(ConvDoubleToDecimalRound(&d, 1e19, 0), nullptr);
  EXPECT_EQ(hook.last(), -304);
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
