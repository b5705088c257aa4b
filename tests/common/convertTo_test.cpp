#include "src/common/convertTo.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>

namespace {

// stringToInt is proven through iniConfig::getKeyToInt.
TEST(ConvertToTest, ReadsLeadingNumberAndSaturates) {
  EXPECT_EQ(stringToUnsignedInt("99999999999"), UINT_MAX);
  EXPECT_EQ(stringToLong("-99999999999999999999"), LONG_MIN);
  EXPECT_EQ(stringToLongInt("99999999999999999999"), LONG_MAX);
  EXPECT_EQ(stringToLongLongInt("-99999999999999999999"), LLONG_MIN);
  EXPECT_EQ(stringToDouble(" 2.5kg"), 2.5);
  EXPECT_EQ(stringToDouble("1e999"), DBL_MAX);
  EXPECT_EQ(stringToDouble("kg"), 0.0);
}

TEST(ConvertToTest, WritesDefaultStreamFormat) {
  EXPECT_EQ(doubleToString(1234567.0), "1.23457e+06");
  EXPECT_EQ(doubleToString(2.0), "2");
  EXPECT_EQ(intToString(-7), "-7");
  EXPECT_EQ(longToString(LONG_MIN), "-9223372036854775808");
  EXPECT_EQ(longIntToString(1234567), "1234567");
  EXPECT_EQ(unsignedLongIntToString(ULONG_MAX), "18446744073709551615");
  EXPECT_EQ(unsignedLongLongIntToString(0), "0");
}

TEST(ConvertToTest, TrimsSixWhiteSpaceCharacters) {
  const std::string padded = " \n\r\t\f\vx y \n\r\t\f\v";
  EXPECT_EQ(ltrim(padded), "x y \n\r\t\f\v");
  EXPECT_EQ(rtrim(padded), " \n\r\t\f\vx y");
  EXPECT_EQ(trim(padded), "x y");
  EXPECT_EQ(trim(" \t\v"), "");
}

}  // namespace
