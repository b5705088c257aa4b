#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/service/service.h"
#include "tests/service/serviceTestPeer.h"

using Args = std::vector<std::string>;

TEST(ServiceParameters, SplitOnBlanksWithEitherQuoteAndNoEscape) {
  const std::vector<std::pair<std::string, Args>> cases = {
      {"", {}},
      {"  -H  host ", {"-H", "host"}},
      {"-c \"a b\" -d 'c d'", {"-c", "a b", "-d", "c d"}},
      {"'it''s'", {"its"}},
      {"-w \"a 'b c\"", {"-w", "a b", "c"}},  // ' closes what " opened
      {"a\\ b", {"a\\", "b"}},
      {"x 'y", {"x", "y"}},
      {"a\tb", {"a\tb"}},
      {"x '' \"\" y", {"x", "y"}},
  };
  for (const auto& [text, expected] : cases) {
    service s;
    s.Setparameter(text);
    EXPECT_EQ(s.getVectorParam(), expected) << text;
    EXPECT_EQ(s.Getparameter(), text);
  }
}

TEST(ServiceCopy, CarriesEveryFieldAndNarrowsExecutionTimes) {
  service s;
  s.SetService_id(18446744073709551615ULL);
  s.Setname("load");
  s.Setpath("/opt/load");
  s.Setparameter("-w '5 %'");
  s.SetAlertingParameter("-s $ERROR");
  s.Setinterval_exec_time(60);
  s.SetReturnCode(2);
  ServiceTestPeer::setExecTime(s, (std::int64_t{1} << 32) + 5, std::int64_t{1} << 31);

  const service copy(s);
  EXPECT_EQ(copy.GetService_idStr(), "18446744073709551615");
  EXPECT_EQ(copy.Getname() + copy.Getpath() + copy.Getparameter(), "load/opt/load-w '5 %'");
  EXPECT_EQ(copy.getVectorParam(), (Args{"-w", "5 %"}));
  EXPECT_EQ(copy.getVectorAlertingParam(), (Args{"-s", "$ERROR"}));
  EXPECT_EQ(copy.GetCost(), 5000.0f);
  EXPECT_EQ(copy.GetReturnCode(), 2);
  EXPECT_EQ(ServiceTestPeer::storedExecTimeSec(copy), 5);
  EXPECT_EQ(ServiceTestPeer::storedExecTimeuSec(copy), INT32_MIN);
}

// Each side is read as stored, the other one through its int getter.
TEST(ServiceOrder, BySecondsThenMicroseconds) {
  service a, b;
  ServiceTestPeer::setExecTime(a, 10, 900);
  const std::vector<std::pair<std::int64_t, std::int64_t>> later = {{11, 0}, {10, 901}};
  for (const auto& [seconds, microseconds] : later) {
    ServiceTestPeer::setExecTime(b, seconds, microseconds);
    EXPECT_TRUE(a < b && b > a && !(b < a) && !(a > b)) << seconds << "." << microseconds;
  }
  ServiceTestPeer::setExecTime(b, 10, 900);
  EXPECT_FALSE(a < b || a > b);

  ServiceTestPeer::setExecTime(b, std::int64_t{1} << 32, 0);  // reads as 0 through the getter
  ServiceTestPeer::setExecTime(a, 1, 0);
  EXPECT_TRUE(a > b && b > a);
}
