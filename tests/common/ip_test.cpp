#include "src/common/ip.h"

#include <gtest/gtest.h>

namespace {

TEST(IPTest, DottedBelowTwoToThe31SignCarriedAbove) {
  IP ip;
  EXPECT_EQ(ip.IPdecToIP(0), "0.0.0.0");
  EXPECT_EQ(ip.IPdecToIP(167772161), "10.0.0.1");
  EXPECT_EQ(ip.IPdecToIP(2147483647), "127.255.255.255");
  EXPECT_EQ(ip.IPdecToIP(2147483648), "128.65536.16777216.0");
  EXPECT_EQ(ip.IPdecToIP(3232235777), "192.65704.16777217.1");
}

}  // namespace
