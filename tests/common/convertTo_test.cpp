#include "common/convertTo.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

template <typename T>
constexpr T maxOf() {
  return std::numeric_limits<T>::max();
}
template <typename T>
constexpr T lowestOf() {
  return std::numeric_limits<T>::lowest();
}

TEST(ConvertToTest, ReadsLeadingNumberAndSaturates) {
  EXPECT_EQ(stringToInt(" \t42xyz"), 42);
  EXPECT_EQ(stringToInt("abc"), 0);
  EXPECT_EQ(stringToInt("99999999999"), maxOf<int>());
  EXPECT_EQ(stringToInt("-99999999999"), lowestOf<int>());
  EXPECT_EQ(stringToUnsignedInt("99999999999"), maxOf<unsigned int>());
  EXPECT_EQ(stringToLong("-99999999999999999999"), lowestOf<long>());
  EXPECT_EQ(stringToLongInt("99999999999999999999"), maxOf<long>());
  EXPECT_EQ(stringToLongLongInt("-99999999999999999999"), lowestOf<long long>());
  EXPECT_EQ(stringToDouble(" 2.5kg"), 2.5);
  EXPECT_EQ(stringToDouble("1e999"), maxOf<double>());
  EXPECT_EQ(stringToDouble("kg"), 0.0);
}

TEST(ConvertToTest, WritesDefaultStreamFormat) {
  EXPECT_EQ(doubleToString(1234567.0), "1.23457e+06");
  EXPECT_EQ(doubleToString(2.0), "2");
  EXPECT_EQ(doubleToString(0.1), "0.1");
  EXPECT_EQ(intToString(-7), "-7");
  EXPECT_EQ(longToString(lowestOf<long>()), "-9223372036854775808");
  EXPECT_EQ(longIntToString(1234567), "1234567");
  EXPECT_EQ(unsignedLongIntToString(maxOf<unsigned long>()), "18446744073709551615");
  EXPECT_EQ(unsignedLongLongIntToString(0), "0");
}

TEST(ConvertToTest, TrimsSixWhiteSpaceCharacters) {
  const std::string padded = " \n\r\t\f\vx y \n\r\t\f\v";
  EXPECT_EQ(ltrim(padded), "x y \n\r\t\f\v");
  EXPECT_EQ(rtrim(padded), " \n\r\t\f\vx y");
  EXPECT_EQ(trim(padded), "x y");
  EXPECT_EQ(ltrim(" \t\v"), "");
  EXPECT_EQ(rtrim("\f\n"), "");
  EXPECT_EQ(trim(""), "");
}

}  // namespace
