#include "vantdr/request.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "vantdr/json_text.h"

using VantDRCore::JsonToString;
using VantDRCore::Request;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(VantDRCore::JsonFromString(value, text)) << text;
  return value;
}

std::string State(const Request& r) { return r.toStr() + " " + JsonToString(r.getParams()); }

// Timeout, encryption flag and upload file: what the message itself leaves out.
std::string Transport(const Request& r) {
  const auto& file = r.getUploadFile();
  return std::to_string(r.getTimeout()) + (r.isEncryptRequired() ? " encrypted " : " plain ") +
         file.filePath + "|" + file.fileName;
}

}  // namespace

TEST(Request, EnvelopeRenderingAndValidity) {
  EXPECT_EQ(R"({"api":"","method":"","version":-1})", JsonToString(Request().toJson()));
  EXPECT_EQ("//-1 null", State(Request()));
  // Reserved keys given to the constructor stay in params; toJson overwrites them.
  Request r("A", 1, "M", Parse(R"({"k":0,"api":"X","version":9})"));
  EXPECT_EQ(R"(A/M/1 {"api":"X","k":0,"version":9})", State(r));
  EXPECT_EQ(R"({"api":"A","k":0,"method":"M","version":1})", JsonToString(r.toJson()));
  EXPECT_TRUE(r.isValid());
  r.setVersion(0);
  EXPECT_FALSE(r.isValid());
  r.setVersion(-3);
  EXPECT_FALSE(r.isValid());

  r.setRequest(Parse(R"({"api":5,"method":"get","version":"3","x":true})"));
  EXPECT_EQ(R"(A/get/-3 {"api":5,"version":"3","x":true})", State(r));
  EXPECT_EQ(R"({"api":"A","method":"get","version":-3,"x":true})", JsonToString(r.toJson()));
  r.setRequest(Parse(R"({"y":1,"version":4})"));  // replaces, does not merge
  EXPECT_EQ(R"(A/get/4 {"y":1})", State(r));
}

TEST(Request, ParamsClearAndRoundTrip) {
  Request r("Plan", 3, "list", Parse(R"({"filter":{"a":[1,2]}})"));
  EXPECT_FALSE(r.addParam("version", 7));
  EXPECT_TRUE(r.addParam("Version", 7));
  EXPECT_TRUE(r.addParam("", "e"));
  EXPECT_TRUE(r.addParam(Parse(R"({"method":"X","Version":8})")));  // reserved key skipped
  EXPECT_TRUE(r.addParam(r.getParams()));
  EXPECT_EQ(R"(Plan/list/3 {"":"e","Version":8,"filter":{"a":[1,2]}})", State(r));

  r.setTimeout(5);
  r.setEncryptRequired(true);
  r.setUploadFile({"/tmp/a", "a.bin"});
  EXPECT_EQ("5 encrypted /tmp/a|a.bin", Transport(r));
  Request back(r.toJson());
  EXPECT_EQ(State(r), State(back));
  EXPECT_EQ("120 plain |", Transport(back));

  r.clear();
  EXPECT_EQ("//-1 {}", State(r));
  EXPECT_EQ("120 encrypted |", Transport(r));
}

TEST(Request, HostileShapesNeverThrow) {
  VantDRTest::LogCapture log;
  struct Row {
    Json::Value input;
    std::string params;  // after setRequest; fields are never touched
    bool merged;
    std::string mergedParams;
  };
  const std::vector<Row> rows = {
      {Json::Value(), "null", true, R"({"k":1})"},
      {5, "null", false, R"({"k":1})"},
      {"text", "null", false, R"({"k":1})"},
      {Json::UInt64(1) << 63, "null", false, R"({"k":1})"},
      {Parse(R"([1,{"a":2}])"), "null", false, R"({"k":1})"},
      {Parse("{}"), "{}", true, R"({"k":1})"},
      {Parse(R"({"api":[],"method":{},"version":4294967296})"),
       R"({"api":[],"method":{},"version":4294967296})", true, R"({"k":1})"},
      {Parse(R"({"version":1.5,"k":null})"), R"({"k":null,"version":1.5})", true, R"({"k":null})"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(JsonToString(row.input));
    Request set("A", 2, "M", Parse(R"({"k":1})"));
    EXPECT_NO_THROW(set.setRequest(row.input));
    EXPECT_EQ("A/M/2 " + row.params, State(set));
    EXPECT_NO_THROW(EXPECT_EQ("//-1 " + row.params, State(Request(row.input))));
    Request merge("A", 2, "M", Parse(R"({"k":1})"));
    EXPECT_NO_THROW(EXPECT_EQ(row.merged, merge.addParam(row.input)));
    EXPECT_EQ("A/M/2 " + row.mergedParams, State(merge));
  }

  // Params stored as a non-object refuse members but still render and clear.
  for (const Json::Value& scalar : {Json::Value(5), Json::Value("s"), Parse("[1]")}) {
    Request r("A", 1, "M", scalar);
    EXPECT_NO_THROW(EXPECT_FALSE(r.addParam("k", 1) || r.addParam(Parse(R"({"k":1})"))));
    EXPECT_EQ("A/M/1 " + JsonToString(scalar), State(r));
    EXPECT_NO_THROW(EXPECT_EQ(R"({"api":"A","method":"M","version":1})", JsonToString(r.toJson())));
    EXPECT_NO_THROW(r.clear());
    EXPECT_EQ(scalar.isArray() ? "//-1 []" : "//-1 null", State(r));
  }
  EXPECT_TRUE(log.Has("WARN", "cannot add [k]: parameters are a number"));
  EXPECT_TRUE(log.Has("WARN", "2 of 2 entries have no string key and were not added"));
}
