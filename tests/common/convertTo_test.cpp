#include "src/common/convertTo.h"

#include <gtest/gtest.h>

#include <climits>

#include "src/common/ip.h"

namespace {

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

// Above 2^31 the first field's sign extension carries into the later ones, as servers expect.
TEST(IpTest, DecimalAddressIsDottedWithTheSignExtensionKept) {
  EXPECT_EQ(IP().IPdecToIP(167772161), "10.0.0.1");
  EXPECT_EQ(IP().IPdecToIP(3232235777), "192.65704.16777217.1");
}

}  // namespace
