#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "service/service.h"
#include "serviceTestPeer.h"

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

TEST(ServiceParameters, PluginListIsReplacedAlertingListGrows) {
  service s;
  s.Setparameter("a b");
  s.Setparameter("c");
  EXPECT_EQ(s.getVectorParam(), Args{"c"});
  s.SetAlertingParameter("a");
  s.SetAlertingParameter("b 'c d'");
  EXPECT_EQ(s.getVectorAlertingParam(), (Args{"a", "b", "c d"}));
  EXPECT_EQ(s.Getparameter(), "c");
}

TEST(ServiceCost, IsTruncatedQuotientOfTheInterval) {
  const std::vector<std::pair<int, float>> cases = {
      {60, 5000.0f}, {7, 42857.0f}, {0, 0.0f}, {-60, -5000.0f}, {300001, 0.0f}};
  for (const auto& [interval, cost] : cases) {
    service s;
    s.Setinterval_exec_time(interval);
    EXPECT_EQ(s.GetCost(), cost) << interval;
    EXPECT_EQ(s.Getinterval_exec_time(), interval);
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
  EXPECT_EQ(ServiceTestPeer::storedExecTimeSec(s), (std::int64_t{1} << 32) + 5);
}

TEST(ServiceOrder, BySecondsThenMicroseconds) {
  service early, late;
  ServiceTestPeer::setExecTime(early, 10, 900);
  ServiceTestPeer::setExecTime(late, 11, 0);
  EXPECT_TRUE(early < late && late > early);
  EXPECT_FALSE(late < early || early > late);

  ServiceTestPeer::setExecTime(late, 10, 901);
  EXPECT_TRUE(early < late && late > early);

  ServiceTestPeer::setExecTime(late, 10, 900);
  EXPECT_FALSE(early < late || early > late || late < early || late > early);
}

TEST(ServiceOrder, ReadsTheOtherSideThroughInt) {
  service big, one;
  ServiceTestPeer::setExecTime(big, std::int64_t{1} << 32, 0);  // reads as 0 through the getter
  ServiceTestPeer::setExecTime(one, 1, 0);
  EXPECT_TRUE(big > one);
  EXPECT_TRUE(one > big);
}
