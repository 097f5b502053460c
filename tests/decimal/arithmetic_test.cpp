// SHDEC arithmetic beyond what the differential model sees through the
// driver's text: the sign and scale of zero records, error codes with their
// validation order, the default hook, and arbitrary records.
#include <cstring>
#include <functional>

#include "decimal_test_util.h"

using namespace dectest;

// Zero results carry a sign and a scale the text form hides.
TEST(DecimalZeros, SignAndScaleOfZeroResults) {
  HookRecorder hook;
  const SHDEC p = dec("1.5"), n = dec("-1.5"), nz5 = raw(1, 5, 0), nz15 = raw(1, 15, 0);
  const SHDEC seven = dec("7"), m5 = dec("-5.000000000000000");
  struct Row {
    const char* name;
    std::function<const SHDEC*(SHDEC*)> op;
    uint16_t sign;
    int16_t scale;
  } rows[] = {
      {"1.5 + -1.5", [&](SHDEC* r) { return AddDecimal(r, &p, &n); }, 0, 1},
      {"-1.5 + 1.5 keeps the first sign", [&](SHDEC* r) { return AddDecimal(r, &n, &p); }, 1, 1},
      {"-0 * -5", [&](SHDEC* r) { return MultiplyDecimal(r, &nz15, &m5); }, 0, 18},
      {"-0 * -5 at 3 places", [&](SHDEC* r) { return MultiplyDecimalAndRound(r, &nz15, &m5, 3); }, 0, 3},
      {"-0 / 7 as it stands", [&](SHDEC* r) { return DivideDecimal(r, &nz5, &seven); }, 1, 5},
      {"-0 / 7 at 3 places", [&](SHDEC* r) { return DivideDecimalAndRound(r, &nz5, &seven, 3); }, 0, 3},
      {"abs -0", [&](SHDEC* r) { return AbsoluteDecimal(r, &nz5); }, 1, 5},
      {"neg -0", [&](SHDEC* r) { return ChangeSignDecimal(r, &nz5); }, 0, 5},
      {"round -0", [&](SHDEC* r) { return RoundDecimal(r, &nz5, 2); }, 0, 2},
  };
  for (const Row& row : rows) {
    SHDEC r = raw(1, 9, 99);
    ASSERT_EQ(row.op(&r), &r) << row.name;
    EXPECT_EQ(mag_of(r), 0u) << row.name;
    EXPECT_EQ(r.sign, row.sign) << row.name;
    EXPECT_EQ(r.scale, row.scale) << row.name;
  }
  EXPECT_TRUE(hook.seen().empty());
  EXPECT_EQ(TestSignDecimal(&nz5), 0);
  EXPECT_EQ(TestSignDecimal(&n), -1);
  EXPECT_EQ(TestSignDecimal(&p), 1);
  EXPECT_EQ(DecimalPrecision(&nz5), 5);
  EXPECT_EQ(CompareDecimal(&nz5, &nz15), 0);
  EXPECT_EQ(MagnitudeOfDecimal(&nz5, &p), -1);
  SHDEC r;
  ASSERT_EQ(AbsoluteDecimal(&r, &n), &r);
  EXPECT_EQ(str(r), "1.5");
  ASSERT_EQ(ChangeSignDecimal(&r, &p), &r);
  EXPECT_EQ(str(r), "-1.5");
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
    // Places (0..18) are checked before the divisor.
    const std::string n = name;
    if (n == "mulr" || n == "mult" || n == "divr" || n == "divt") {
      SHDEC r;
      for (int32_t places : {-1, 19}) {
        hook.clear();
        EXPECT_FALSE(op(&r, &good, &zero, places)) << name << places;
        EXPECT_EQ(hook.seen(), std::vector<int>{-313}) << name << places;
      }
      EXPECT_TRUE(op(&r, &good, &good, 18)) << name;
      EXPECT_TRUE(op(&r, &good, &good, 0)) << name;
    }
  }
  // Single-operand operations.
  const SHDEC bad = raw(0, 29, 1);
  SHDEC r;
  struct One {
    const char* name;
    int got;
    int want;
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
  for (const One& o : ones) EXPECT_EQ(o.got, o.want) << o.name;
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
  auto well_formed = [](const SHDEC* r) { return r->sign <= 1 && r->scale >= 0 && r->scale <= 28; };
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
        RoundDecimal(&r, &a, places), TruncateDecimal(&r, &a, places),
        i % 8 == 0 ? PowerDecimal(&r, &a, &b) : nullptr,
    };
    for (const SHDEC* o : out) {
      if (o) {
        ASSERT_TRUE(well_formed(o));
        ASSERT_NE(ConvDecimalToAscii(text, o), nullptr);
        ASSERT_LT(std::strlen(text), static_cast<size_t>(SHDEC_TEXT_SIZE));
      }
    }
    double x;
    int32_t l;
    ConvDecToDouble(&x, &a);
    ConvDecToLong(&l, &a);
  }
}
