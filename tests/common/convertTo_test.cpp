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

TEST(ConvertToTest, PrintableForLogEscapesAndCapsWithoutCuttingAnEscape) {
  EXPECT_EQ(printableForLog(std::string("a\\b\n\x1b[2J\0\xc3\xa9~", 12), 100),
            "a\\\\b\\x0a\\x1b[2J\\x00\\xc3\\xa9~");
  EXPECT_EQ(printableForLog("abc\ndef", 5), "abc...[4 more bytes]");
  EXPECT_EQ(printableForLog("abc\ndef", 7), "abc\\x0a...[3 more bytes]");
}

// Above 2^31 the first field's sign extension carries into the later ones, as servers expect.
TEST(IpTest, DecimalAddressIsDottedWithTheSignExtensionKept) {
  EXPECT_EQ(IP().IPdecToIP(167772161), "10.0.0.1");
  EXPECT_EQ(IP().IPdecToIP(3232235777), "192.65704.16777217.1");
}

}  // namespace
