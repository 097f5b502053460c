// Damaged compiled forms found by the fuzz targets (fuzz/format_*.cpp) that made the formatters read one byte
// past the block (seen under AddressSanitizer only) or hang. Each must be refused with SHFORMAT_E_COMPILED.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "zbshr/format.h"

namespace {

// Applies the compiled form c (kind 1 date, 2 number, 3 string).
int32_t apply(int kind, const unsigned char* c) {
  char out[64];
  const double v = 1.5;
  SHDATETIME dt{};
  shdtBuildTime(&dt, 2003, 1, 2, 14, 5, 9, 0);
  return kind == 1 ? shformatDateTime(out, sizeof out, c, &dt)
         : kind == 2 ? shformatDouble(out, sizeof out, c, &v) : shformatString(out, sizeof out, c, "xyz");
}

// The last token byte is a literal token whose length byte lies one past the block: the mask's closing
// literal "ab" (01 02 61 62) made 01 01 61 01.
TEST(FormatFuzzRegressions, LiteralLengthPastTheEndOfTheCompiledForm) {
  for (auto [kind, mask] : {std::pair{2, "\"ab\""}, std::pair{2, "0\"ab\""}, std::pair{1, "\"ab\""},
                            std::pair{3, "@\"ab\""}}) {
    unsigned char buf[SHFORMAT_BUFSIZE];
    ASSERT_EQ(kind == 2 ? shformatCmplNumericMask(buf, mask, sizeof buf)
              : kind == 1 ? shformatCmplDateTimeMask(buf, mask, sizeof buf) : shformatCmplStringMask(buf, mask, sizeof buf), 0);
    const size_t total = size_t(buf[2] | buf[3] << 8);
    ASSERT_GE(total, 24u);
    ASSERT_TRUE(buf[total - 4] == 1 && buf[total - 3] == 2) << mask;
    std::unique_ptr<unsigned char[]> c(new unsigned char[total]);  // exactly the block's length
    std::memcpy(c.get(), buf, total);
    c[total - 3] = c[total - 1] = 1;
    EXPECT_EQ(apply(kind, c.get()), SHFORMAT_E_COMPILED) << mask;
  }
}

// A block declaring 4 bytes, shorter than the 8-byte header: the section count (byte 4) must not be read.
TEST(FormatFuzzRegressions, CompiledFormShorterThanItsHeader) {
  for (unsigned char kind : {1, 2, 3}) {
    std::unique_ptr<unsigned char[]> c(new unsigned char[4]{0x5A, kind, 4, 0});
    EXPECT_EQ(apply(kind, c.get()), SHFORMAT_E_COMPILED);
  }
}

// A fraction section claiming a 40-digit denominator: the search must not run over 10^40 denominators.
TEST(FormatFuzzRegressions, FractionWithTooManyDenominatorDigits) {
  unsigned char c[SHFORMAT_BUFSIZE];
  ASSERT_EQ(shformatCmplNumericMask(c, "# ?/?", sizeof c), SHFORMAT_OK);
  ASSERT_EQ(c[8 + 15], 1);  // the first section's denominator digits
  c[8 + 15] = 40;
  char out[32];
  const double v = 0.3;
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), SHFORMAT_E_COMPILED);
  EXPECT_STREQ(out, "");
}

}  // namespace
