// SHDEC arithmetic beyond what the differential model sees through the
// driver's text: the sign and scale of zero records, error codes with their
// validation order, the hooks, and arbitrary records.
#include <cstring>
#include <functional>

#include "decimal_test_util.h"

using namespace dectest;

using Op = std::function<const SHDEC*(SHDEC*, const SHDEC*, const SHDEC*, int32_t)>;
#define OP2(f) [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t) { return f(r, a, b); }
#define OP3(f) [](SHDEC* r, const SHDEC* a, const SHDEC* b, int32_t p) { return f(r, a, b, p); }
#define OP1(f) [](SHDEC* r, const SHDEC* a, const SHDEC*, int32_t p) { return f(r, a, p); }
#define OPA(f) [](SHDEC* r, const SHDEC* a, const SHDEC*, int32_t) { return f(r, a); }

// Zero results carry a sign and a scale the text form hides.
TEST(DecimalZeros, SignAndScaleOfZeroResults) {
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
  EXPECT_EQ(CompareDecimal(&nz5, &nz15), 0);
  EXPECT_EQ(MagnitudeOfDecimal(&nz5, &p), -1);
  SHDEC r;
  EXPECT_EQ(str(*AbsoluteDecimal(&r, &n)), "1.5");
  EXPECT_EQ(str(*ChangeSignDecimal(&r, &p)), "-1.5");
}

// Every operation rejects a null operand with -301 and a scale outside
// 0..28 with -303, and validates in order: first operand, second operand,
// result, places, divisor.
TEST(DecimalErrors, ValidationOrder) {
  HookRecorder hook;
  const SHDEC good = dec("1"), zero = dec("0");
  const std::pair<const char*, Op> ops[] = {
      {"add", OP2(AddDecimal)}, {"sub", OP2(SubtractDecimal)}, {"mul", OP2(MultiplyDecimal)},
      {"mulr", OP3(MultiplyDecimalAndRound)}, {"mult", OP3(MultiplyDecimalAndTruncate)},
      {"div", OP2(DivideDecimal)}, {"divr", OP3(DivideDecimalAndRound)},
      {"divt", OP3(DivideDecimalAndTruncate)}, {"mod", OP2(ModuloDecimal)}, {"pow", OP2(PowerDecimal)},
  };
  for (const auto& [name, op] : ops) {
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
  const SHDEC bad = raw(0, 29, 1);
  SHDEC r;
  const struct {
    const char* name;
    int got, want;
  } ones[] = {
      {"round bad", RoundDecimal(&r, &bad, 99) ? 0 : hook.last(), -303},
      {"round places", RoundDecimal(&r, &good, 19) ? 0 : hook.last(), -313},
      {"trunc null", TruncateDecimal(nullptr, &good, 99) ? 0 : hook.last(), -301},
      {"trunc places", TruncateDecimal(&r, &good, -1) ? 0 : hook.last(), -313},
      {"abs bad", AbsoluteDecimal(&r, &bad) ? 0 : hook.last(), -303},
      {"neg null", ChangeSignDecimal(nullptr, &good) ? 0 : hook.last(), -301},
      {"cmp bad", CompareDecimal(&good, &bad), -303},
      {"cmp null", CompareDecimal(nullptr, &bad), -301},
      {"mag bad", MagnitudeOfDecimal(&bad, &good), -303},
      {"sign bad", TestSignDecimal(&bad), -303},
      {"precision null", DecimalPrecision(nullptr), -301},
      {"precision bad", DecimalPrecision(&bad), -303},
  };
  for (const auto& o : ones) EXPECT_EQ(o.got, o.want) << o.name;
  for (int extra : hook.extras) EXPECT_EQ(extra, 0);
}

// The exported attachment sees every code and detaches; the library's own
// hook only lets the call return null.
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

// Arbitrary records (odd sign bits, any scale, magnitudes up to 2^80 - 1)
// through every operation: each answer is either null or a well-formed
// record, and nothing reads or writes outside the records.
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
    SHDEC r;
    char text[SHDEC_TEXT_SIZE];
    const SHDEC* out[] = {
        AddDecimal(&r, &a, &b), SubtractDecimal(&r, &a, &b), MultiplyDecimal(&r, &a, &b),
        MultiplyDecimalAndRound(&r, &a, &b, places), MultiplyDecimalAndTruncate(&r, &a, &b, places),
        DivideDecimal(&r, &a, &b), DivideDecimalAndRound(&r, &a, &b, places),
        DivideDecimalAndTruncate(&r, &a, &b, places), ModuloDecimal(&r, &a, &b),
        RoundDecimal(&r, &a, places), TruncateDecimal(&r, &a, places), i % 8 ? nullptr : PowerDecimal(&r, &a, &b),
    };
    for (const SHDEC* o : out) {
      if (!o) continue;
      ASSERT_TRUE(o->sign <= 1 && o->scale >= 0 && o->scale <= 28);
      ASSERT_NE(ConvDecimalToAscii(text, o), nullptr);
      ASSERT_LT(std::strlen(text), static_cast<size_t>(SHDEC_TEXT_SIZE));
    }
    double x;
    int32_t l;
    ConvDecToDouble(&x, &a);
    ConvDecToLong(&l, &a);
  }
}
