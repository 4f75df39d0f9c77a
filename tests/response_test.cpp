#include "vantdr/response.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/log_capture.h"
#include "vantdr/json_text.h"

using VantDRCore::JsonToString;
using VantDRCore::Response;

namespace {

// Every query in one line: isValid isSuccess getErrCode|getErrMsg|getErr|hasData getData|
// getTaskId|isPollFinish isPollSuccess|hasAdditional getAdditional|getDataFieldtoStr("task_id")|
// hasField("data") getField("data").
std::string Describe(const Response& r) {
  std::ostringstream s;
  s << r.isValid() << r.isSuccess() << " " << r.getErrCode() << "|" << JsonToString(r.getErrMsg())
    << "|" << JsonToString(r.getErr()) << "|" << r.hasData() << JsonToString(r.getData()) << "|"
    << r.getTaskId() << "|" << r.isPollFinish() << r.isPollSuccess() << "|" << r.hasAdditional()
    << JsonToString(r.getAdditional()) << "|" << r.getDataFieldtoStr("task_id") << "|"
    << r.hasField("data") << JsonToString(r.getField("data"));
  return s.str();
}

const std::string kNothing = "00 -1|null|null|0null||00|0null||0null";

}  // namespace

TEST(Response, EveryQueryOnWellFormedAndHostileAnswers) {
  VantDRTest::LogCapture log;
  std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"success":true})", "11 0|null|null|0null||00|0null||0null"},
      {R"({"success":false,"error":{"code":105}})",
       "10 105|null|{\"code\":105}|0null||00|0null||0null"},
      {R"({"success":false,"error":{"code":"105"}})",
       "10 -1|null|{\"code\":\"105\"}|0null||00|0null||0null"},
      // Without "success" only the top-level lookups see anything.
      {R"({"data":{"task_id":"t"},"error":{"errors":1}})",
       "00 -1|null|{\"errors\":1}|0null||00|0null||1{\"task_id\":\"t\"}"},
      // The data of a failed answer stays hidden; its errors do not.
      {R"({"success":false,"data":{"finish":true},"error":{"code":7,"errors":["x"]}})",
       "10 7|[\"x\"]|{\"code\":7,\"errors\":[\"x\"]}|0null||00|0null||1{\"finish\":true}"},
      {R"({"success":true,"data":{"task_id":"t-1"}})",
       "11 0|null|null|1{\"task_id\":\"t-1\"}|t-1|00|0null|t-1|1{\"task_id\":\"t-1\"}"},
      {R"({"success":true,"data":{"finish":true}})",
       "11 0|null|null|1{\"finish\":true}||10|0null||1{\"finish\":true}"},
      {R"({"success":true,"data":{"finish":true,"success":true,"additional":3}})",
       "11 0|null|null|1{\"additional\":3,\"finish\":true,\"success\":true}||11|13||"
       "1{\"additional\":3,\"finish\":true,\"success\":true}"},
      {R"({"success":"true","data":{"finish":true}})",
       "10 -1|null|null|0null||00|0null||1{\"finish\":true}"},
      {R"({"success":null,"error":[105]})", "10 -1|null|[105]|0null||00|0null||0null"},
      {R"({"success":false,"error":{"code":9223372036854775808,"errors":"e"}})",
       "10 -1|\"e\"|{\"code\":9223372036854775808,\"errors\":\"e\"}|0null||00|0null||0null"},
      {R"({"success":true,"error":{"code":3},"data":"s"})",
       "11 0|null|{\"code\":3}|1\"s\"||00|0null||1\"s\""},
      {R"({"success":1,"data":{"task_id":{},"finish":"yes","success":[]}})",
       "11 0|null|null|1{\"finish\":\"yes\",\"success\":[],\"task_id\":{}}||00|0null||"
       "1{\"finish\":\"yes\",\"success\":[],\"task_id\":{}}"},
      // Numbers read as booleans and the task id converts; toStr does not convert.
      {R"({"success":2.5,"data":{"task_id":42,"finish":-1,"success":0}})",
       "11 0|null|null|1{\"finish\":-1,\"success\":0,\"task_id\":42}|42|10|0null||"
       "1{\"finish\":-1,\"success\":0,\"task_id\":42}"},
  };
  for (const char* text : {"[1,2]", "\"success\"", "42", "null", "{\"success\":true,}"}) {
    rows.push_back({text, kNothing});
  }
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    Response r;
    EXPECT_NO_THROW(r.setResp(row.first));
    const std::string before = JsonToString(r.getResp());
    std::string described;
    EXPECT_NO_THROW(described = Describe(r));
    EXPECT_EQ(row.second, described);
    EXPECT_EQ(before, JsonToString(r.getResp()));  // queries never add members
    Response copy(r.getResp());
    EXPECT_NO_THROW(copy.clear());
    EXPECT_EQ(kNothing, Describe(copy));
  }
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Response, ParsingNullKeysAndCopies) {
  Response r("{\"success\":true");
  EXPECT_TRUE(r.getResp().isNull());
  EXPECT_FALSE(r.setResp(std::string("{} x")));
  EXPECT_TRUE(r.setResp(R"({"success":true,"data":{"n":5,"s":"v"}})"));
  EXPECT_EQ("|v", r.getDataFieldtoStr("n") + "|" + r.getDataFieldtoStr("s"));
  EXPECT_FALSE(r.hasDataField(nullptr) || r.hasField(nullptr));
  EXPECT_TRUE(r.getDataField(nullptr).isNull() && r.getField(nullptr).isNull());

  Response copy(r);
  r.clear();
  EXPECT_EQ("{}", JsonToString(r.getResp()));
  EXPECT_TRUE(copy.hasData());
  copy = r;
  EXPECT_FALSE(copy.isValid());
  copy.setResp(Json::Value(true));
  EXPECT_EQ("true", JsonToString(copy.getResp()));
}
