#include "common/iniConfig.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tempDirTest.h"

namespace {

class IniConfigTest : public TempDirTest {
 protected:
  iniConfig config(const std::string& content) const {
    writeFile("agent.conf", content);
    return iniConfig(path("agent.conf"));
  }
};

TEST_F(IniConfigTest, HeaderMustMatchWholeLine) {
  EXPECT_EQ(config("[NIVO]\r\nthread=4\r\n").getKey("NIVO", "thread"), "");
  EXPECT_EQ(config("[NIVO] \nthread=4\n").getKey("NIVO", "thread"), "");
  EXPECT_EQ(config("[nivo]\nthread=4\n").getKey("NIVO", "thread"), "");
  EXPECT_EQ(config("thread=1\n  [NIVO]\nthread=4\r\n").getKey("NIVO", "thread"), "4\r");
}

TEST_F(IniConfigTest, ValueIsRawTextAfterFirstEquals) {
  iniConfig ini = config("[S]\nkey = value\nurl=wss://h/?a=b # c \n");
  EXPECT_EQ(ini.getKey("S", "key"), " value");
  EXPECT_EQ(ini.getKey("S", "url"), "wss://h/?a=b # c ");
  EXPECT_EQ(ini.getKey("S", "missing"), "");

  writeFile("agent.conf", "[S]\nkey=edited\n");
  EXPECT_EQ(ini.getKey("S", "key"), "edited");
}

TEST_F(IniConfigTest, OnlyBlanksThenTabsAreStrippedBeforeTheCommentTest) {
  iniConfig ini = config(
      "[NIVO]\n"
      "#server_url=x\n"
      " \t#server_url=z\n"
      "\t #server_url=y\n");
  EXPECT_EQ(ini.getKey("NIVO", "server_url"), "y");
}

TEST_F(IniConfigTest, FirstLineContainingKeyWinsHeaderIncluded) {
  EXPECT_EQ(config("[NIVO]\nthreads_max=9\nthread=4\n").getKey("NIVO", "thread"), "9");
  EXPECT_EQ(config("[thread]\nthread=4\n").getKey("thread", "thread"), "");
  EXPECT_EQ(config("[NIVO]\nthread=4\n").getKey("NIVO", ""), "");
}

TEST_F(IniConfigTest, SectionEndsAtNextHeaderAndIsReadOnce) {
  iniConfig ini = config("[A]\n[B]\nk=1\n[A]\nk=2\n");
  EXPECT_EQ(ini.getKey("A", "k"), "");
  EXPECT_EQ(ini.getKey("B", "k"), "1");
}

TEST_F(IniConfigTest, KeyToIntReadsLeadingNumber) {
  iniConfig ini = config("[S]\none=12abc\ntwo=abc\nneg= -7\n");
  EXPECT_EQ(ini.getKeyToInt("S", "one"), 12);
  EXPECT_EQ(ini.getKeyToInt("S", "two"), 0);
  EXPECT_EQ(ini.getKeyToInt("S", "neg"), -7);
  EXPECT_EQ(ini.getKeyToInt("S", "missing"), 0);
}

TEST_F(IniConfigTest, MissingFileErrorTextsDiffer) {
  const std::string missing = path("none.conf");
  iniConfig ini(missing);
  EXPECT_EQ(thrownText<FileException>([&] { ini.getKey("S", "k"); }),
            "error can't open file: " + missing);
  EXPECT_EQ(thrownText<FileException>([&] { ini.getSection("S"); }),
            "error can't open file " + missing);
}

TEST_F(IniConfigTest, GetSectionKeepsEveryLineLastValueAndAccumulates) {
  iniConfig ini = config("[A]\na=1\n\na=2\nbare\n#c=3\n[B]\nb=3\n");
  using Table = std::map<std::string, std::string>;
  EXPECT_EQ(ini.getSection("A"), (Table{{"[A]", ""}, {"a", "2"}, {"", ""}, {"bare", ""}}));
  EXPECT_EQ(ini.getSection("B"),
            (Table{{"[A]", ""}, {"a", "2"}, {"", ""}, {"bare", ""}, {"[B]", ""}, {"b", "3"}}));
}

}  // namespace
