// The exported hook attachment sees every error code and can be detached.
#include <gtest/gtest.h>

#include <vector>

#include "zbshr/decimal.h"

namespace {
std::vector<int> g_codes;
void ZBSHR_CALL Record(int16_t code, int32_t) { g_codes.push_back(code); }
}  // namespace

TEST(DecimalHookExport, AttachSeesErrorsAndDetachRestores) {
  g_codes.clear();
  SHDEC_ERROR_HOOK old = zbshr_set_decimal_error_hook(&Record);
  SHDEC d;
  EXPECT_EQ(ConvAsciiToDecimal(&d, "1.2.3"), nullptr);
  EXPECT_EQ(zbshr_set_decimal_error_hook(old), &Record);
  EXPECT_EQ(ConvAsciiToDecimal(&d, "x"), nullptr);
  ASSERT_EQ(g_codes.size(), 1u);
  EXPECT_EQ(g_codes[0], -306);
}
