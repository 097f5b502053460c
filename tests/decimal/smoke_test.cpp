#include <gtest/gtest.h>
#include "zbshr/decimal.h"
TEST(DecimalSmoke, Add) {
  SHDEC a, b, r; char t[SHDEC_TEXT_SIZE];
  ConvAsciiToDecimal(&a, "1.5"); ConvAsciiToDecimal(&b, "2.25");
  ASSERT_NE(AddDecimal(&r, &a, &b), nullptr);
  EXPECT_STREQ(ConvDecimalToAscii(t, &r), "3.75");
}
