// The SHDEC record, its constants and the conversions to and from text,
// integers and floating point: what the differential run's text hides.
#include <cmath>
#include <cstring>
#include <limits>

#include "decimal_test_util.h"

using namespace dectest;

TEST(DecimalRecord, LayoutConstantsAndZero) {
  // -1234567.89: sign 1, scale 2, magnitude 123456789 = 0x075BCD15, words low first.
  const SHDEC d = dec("-1234567.89");
  const unsigned char want[14] = {1, 0, 2, 0, 0x15, 0xCD, 0x5B, 0x07, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(sizeof(SHDEC), 14u);
  EXPECT_EQ(std::memcmp(&d, want, 14), 0);
  const std::pair<const SHDEC*, const char*> constants[] = {
      {&shdecOne, "1"}, {&shdecSevenTenths, "0.7"}, {&shdecLog2E, "1.44269504088896340735992"},
      {&shdecLog10E, "0.43429448190325182765113"}, {&shdecLn2, "0.69314718055994530941723"},
      {&shdecLn10, "2.30258509299404568401799"}, {&shdecExpCeiling, "43"}, {&shdecExpFloor, "-42"}};
  for (const auto& [c, text] : constants) EXPECT_EQ(str(*c), text);
  EXPECT_EQ(shdecLn10.scale, 23);
  SHDEC z = raw(1, 7, 99);
  ASSERT_EQ(ZeroDecimal(&z), &z);
  EXPECT_TRUE(z.sign == 0 && z.scale == 2 && mag_of(z) == 0);
  HookRecorder hook;
  EXPECT_EQ(ZeroDecimal(nullptr), nullptr);
  EXPECT_EQ(hook.last(), -301);
}

TEST(DecimalText, OutputAndItsErrors) {
  const std::pair<SHDEC, const char*> rows[] = {
      {raw(1, 2, 12345), "-123.45"}, {raw(0, 3, 5), "0.005"}, {raw(0, 0, 0), "0"},
      {raw(1, 3, 0), "0.000"},  // negative zero prints as zero
      {raw(1, 28, (u128(1) << 80) - 1), "-0.0001208925819614629174706175"},  // the longest text
  };
  for (const auto& [d, text] : rows) {
    char buf[SHDEC_TEXT_SIZE + 8];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_EQ(ConvDecimalToAscii(buf, &d), buf);
    EXPECT_STREQ(buf, text);
  }
  EXPECT_EQ(std::strlen(rows[4].second) + 1, static_cast<size_t>(SHDEC_TEXT_SIZE));
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
  for (int extra : hook.extras) EXPECT_EQ(extra, 0);
}

TEST(DecimalText, InputSignScaleAndErrors) {
  const struct {
    const char* text;
    uint16_t sign;
    int16_t scale;
  } cases[] = {{"  -0012.3400  ", 1, 4}, {"-0", 1, 0}, {"0e-28", 0, 28}, {"0e99", 0, 0}};
  for (const auto& c : cases) {
    SHDEC d = raw(7, 7, 7);
    ASSERT_EQ(ConvAsciiToDecimal(&d, c.text), &d) << c.text;
    EXPECT_TRUE(d.sign == c.sign && d.scale == c.scale) << c.text;
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

// Integers both ways at their bounds (the differential run draws the values
// and codes around them); a failed conversion leaves zero.
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
  const struct {
    const char* text;
    int kind;      // 0 int16, 1 uint16, 2 int32, 3 uint32
    int64_t want;  // -99: refused
    int code;
  } rows[] = {
      {"-32768.4", 0, -32768, -308}, {"32767.5", 0, -99, -307}, {"-1", 1, -99, -307}, {"65535.49", 1, 65535, -308},
      {"-2147483648", 2, -2147483648LL, 0}, {"2147483647.5", 2, -99, -307}, {"4294967295", 3, 4294967295LL, 0},
      {"4294967295.5", 3, -99, -307},
  };
  for (const auto& r : rows) {
    d = dec(r.text);
    int16_t i = 99;
    uint16_t u = 99;
    int32_t l = 99;
    uint32_t ul = 99;
    hook.codes.clear();
    const bool ok = r.kind == 0 ? ConvDecToInt(&i, &d) == &i : r.kind == 1 ? ConvDecToUns(&u, &d) == &u
                  : r.kind == 2 ? ConvDecToLong(&l, &d) == &l : ConvDecToUnsLong(&ul, &d) == &ul;
    const int64_t got = r.kind == 0 ? i : r.kind == 1 ? u : r.kind == 2 ? l : int64_t{ul};
    EXPECT_EQ(ok, r.want != -99) << r.text;
    EXPECT_EQ(got, r.want == -99 ? 0 : r.want) << r.text;
    EXPECT_EQ(hook.last(), r.code) << r.text;
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
  // Ties and near-ties the random run seldom draws; a negative zero is +0.
  const struct {
    SHDEC d;
    double x;
    float f;
  } rows[] = {
      {dec("9007199254740993"), 9007199254740992.0, 9007199254740992.0f},  // 2^53 + 1: a tie, to even
      {dec("9007199254740995"), 9007199254740996.0, 9007199254740996.0f},
      {dec("-0.100000000000000005551115"), -0.1, -0.1f},
      {raw(0, 28, (u128(1) << 79) - 1), 6.044629098073146e-05, 6.044629098073146e-05f},
      {dec("16777217"), 16777217.0, 16777216.0f},
      {dec("16777219"), 16777219.0, 16777220.0f},
      // just above a float tie: through the nearest double it would land on the tie
      {dec("16777217.0000000001"), 16777217.0, 16777218.0f},
      {raw(1, 2, 0), 0.0, 0.0f},
  };
  for (const auto& r : rows) {
    double x = 5;
    float f = 5;
    ASSERT_EQ(ConvDecToDouble(&x, &r.d), &x);
    ASSERT_EQ(ConvDecToFloat(&f, &r.d), &f);
    EXPECT_TRUE(x == r.x && !std::signbit(x) == !std::signbit(r.x)) << str(r.d) << " " << x;
    EXPECT_TRUE(f == r.f && !std::signbit(f) == !std::signbit(r.f)) << str(r.d) << " " << f;
  }
  d = raw(0, -1, 1);
  double x = 5;
  EXPECT_EQ(ConvDecToDouble(&x, &d), nullptr);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(hook.last(), -303);
}
