#include "vantdr/utils.h"

#include <chrono>
#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "vantdr/json_text.h"

namespace {

using namespace VantDRCore;

TEST(UtilsTest, RandomSleepRefusesEmptyAndZeroBasedRanges) {
  VantDRTest::LogCapture log;
  const unsigned refused[][2] = {{0, 100}, {100, 0}, {50, 50}, {60, 50}, {0, 0}};
  std::vector<std::string> expected;
  for (const auto& range : refused) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RandomSleepInMSec(range[0], range[1]));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    expected.push_back("Invalid period [" + std::to_string(range[0]) + " - " +
                       std::to_string(range[1]) + "] to sleep");
  }
  EXPECT_EQ(log.Messages("ERR"), expected);
  EXPECT_EQ(log.Lines()[0].func, "RandomSleepInMSec");
  log.Clear();
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(RandomSleepInMSec(1, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1));
  EXPECT_TRUE(log.Lines().empty());
}

TEST(UtilsTest, VolumePaths) {
  for (const std::string path : {"/volume", "/volume1/share", "/volumeExt1"})
    EXPECT_TRUE(Validator::IsVolPath(path)) << path;
  for (const std::string path : {"/volum", "", "/Volume1", "volume1"})
    EXPECT_FALSE(Validator::IsVolPath(path)) << path;
  EXPECT_FALSE(Validator::IsVolPath(std::string("/vol\0me1", 8)));
}

TEST(UtilsTest, JoiningSkipsSeparatorsAfterEmptyTextAndNumbersAreSingleCharacters) {
  using Container::ToString;
  EXPECT_EQ(ToString<std::string>({"", "a", "b"}, ","), "a,b");
  EXPECT_EQ(ToString<std::string>({"a", "", "b"}, ","), "a,,b");
  EXPECT_EQ(ToString<std::string>({"a", "b", "c"}, ", "), "a, b, c");
  EXPECT_EQ(ToString<std::string>({}, ",") + ToString<std::string>({"", ""}, ","), "");
  EXPECT_EQ(ToString<int>({65, 66}, "-") + ToString<int>({321}, "-"), "A-BA");
  EXPECT_EQ(ToString<int>({-1}, ""), "\xff");
  EXPECT_EQ(ToString<int>({0, 65}, "-"), std::string("\0-A", 3));  // "\0" is text
  EXPECT_EQ(ToString<bool>({true, false}, "|"), std::string("\x01|\x00", 3));
  EXPECT_EQ(ToString<double>({65.9, 322.0}, "+"), "A+B");
  // Values with no unsigned meaning still give one defined character.
  EXPECT_EQ(ToString<double>({-1.0, 1e300, std::nan("")}, "").size(), 3u);
}

TEST(UtilsTest, JsonArraysHaveTheElementTypes) {
  using Container::ToJsonArray;
  EXPECT_TRUE(JsonToString(ToJsonArray<int>({})) == "[]" && ToJsonArray<std::string>({}).isArray());
  EXPECT_EQ(JsonToString(ToJsonArray<std::string>({"a", ""})), "[\"a\",\"\"]");
  EXPECT_EQ(JsonToString(ToJsonArray<int>({1, -2})), "[1,-2]");
  EXPECT_EQ(JsonToString(ToJsonArray<bool>({true, false})), "[true,false]");
  Json::Value reals = ToJsonArray<double>({1.5, 2.0});
  EXPECT_TRUE(reals[0].isDouble() && reals[0].asDouble() == 1.5 && reals[1].isDouble());
}

TEST(UtilsTest, GenerateUUIDReturnsOneTrimmedUuid) {
  const std::string a = GenerateUUID(), b = GenerateUUID();
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(a, uuid)) << a;
  EXPECT_TRUE(std::regex_match(b, uuid)) << b;
  EXPECT_NE(a, b);
}

}  // namespace
