#include "vantdr/request.h"

#include <gtest/gtest.h>

#include "vantdr/json_text.h"

using VantDRCore::JsonToString;
using VantDRCore::Request;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(VantDRCore::JsonFromString(value, text)) << text;
  return value;
}

// The message, then what it leaves out: timeout, encryption flag and upload file.
std::string State(const Request& r) {
  const auto& file = r.getUploadFile();
  return r.toStr() + " " + JsonToString(r.getParams()) + " " + std::to_string(r.getTimeout()) +
         (r.isEncryptRequired() ? " encrypted " : " plain ") + file.filePath + "|" + file.fileName;
}

}  // namespace

TEST(Request, EnvelopeRenderingAndValidity) {
  EXPECT_EQ(R"({"api":"","method":"","version":-1})", JsonToString(Request().toJson()));
  // Reserved keys given to the constructor stay in params; toJson overwrites them.
  Request r("A", 1, "M", Parse(R"({"k":0,"api":"X","version":9})"));
  EXPECT_EQ(R"(A/M/1 {"api":"X","k":0,"version":9} 120 plain |)", State(r));
  EXPECT_EQ(R"({"api":"A","k":0,"method":"M","version":1})", JsonToString(r.toJson()));
  EXPECT_TRUE(r.isValid());
  for (const int version : {0, -3}) {
    r.setVersion(version);
    EXPECT_FALSE(r.isValid()) << version;
  }

  r.setRequest(Parse(R"({"api":5,"method":"get","version":"3","x":true})"));
  EXPECT_EQ(R"(A/get/-3 {"api":5,"version":"3","x":true} 120 plain |)", State(r));
  EXPECT_EQ(R"({"api":"A","method":"get","version":-3,"x":true})", JsonToString(r.toJson()));
  r.setRequest(Parse(R"({"y":1,"version":4})"));  // replaces, does not merge
  EXPECT_EQ(R"(A/get/4 {"y":1} 120 plain |)", State(r));
}

TEST(Request, ParamsMergeClearAndRoundTrip) {
  Request r("Plan", 3, "list", Parse(R"({"filter":{"a":[1,2]}})"));
  EXPECT_TRUE(!r.addParam("version", 7) && r.addParam("Version", 7) && r.addParam("", "e"));
  // Reserved keys are skipped, each of the three.
  EXPECT_TRUE(r.addParam(Parse(R"({"api":"Y","method":"X","Version":8,"version":2})")));
  EXPECT_TRUE(r.addParam(Parse("[5,6]")));  // entries keyed by their index
  EXPECT_TRUE(r.addParam(r.getParams()));
  const std::string merged = R"({"":"e","0":5,"1":6,"Version":8,"filter":{"a":[1,2]}})";
  r.setTimeout(5), r.setEncryptRequired(true), r.setUploadFile({"/tmp/a", "a.bin"});
  EXPECT_EQ("Plan/list/3 " + merged + " 5 encrypted /tmp/a|a.bin", State(r));
  EXPECT_EQ("Plan/list/3 " + merged + " 120 plain |", State(Request(r.toJson())));
  r.clear();
  EXPECT_EQ("//-1 {} 120 encrypted |", State(r));
}
