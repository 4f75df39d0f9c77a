// Callers' code using the implicit one-argument constructors still compiles and means the same.
#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"
#include "vantdr/json_text.h"
#include "vantdr/request.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"

using namespace VantDRCore;

namespace {

int ErrCode(const Response& response) { return response.getErrCode(); }
std::string Envelope(const Request& request) { return request.toStr(); }
std::string Where(const SqliteCondition& condition) { return condition.GetText(); }

}  // namespace

TEST(ImplicitConstruction, MessagesFromTextAndJson) {
  const std::string text = R"({"success":true,"data":{"task_id":"7"}})";
  Response fromText = text;
  Json::Value failed;
  ASSERT_TRUE(JsonFromString(failed, R"({"success":false,"error":{"code":105}})"));
  Response fromJson = failed;
  EXPECT_TRUE(fromText.getTaskId() == "7" && fromJson.getErrCode() == 105);
  EXPECT_TRUE(ErrCode(text) == 0 && ErrCode(failed) == 105 && ErrCode(std::string("x")) == -1);

  Json::Value call;
  ASSERT_TRUE(JsonFromString(call, R"({"api":"VantDR.Task","method":"list","version":2,"n":1})"));
  Request request = call;
  EXPECT_EQ(JsonToString(request.toJson()),
            R"({"api":"VantDR.Task","method":"list","n":1,"version":2})");
  EXPECT_EQ(Envelope(call), "VantDR.Task/list/2");
}

TEST(ImplicitConstruction, ConditionsFromText) {
  const std::string extra = "state!=0";
  EXPECT_EQ(SqliteAnd(SqliteEqual("id", 5), extra).GetText(), "(id=5) AND (state!=0)");
  EXPECT_EQ(SqliteOr(extra, SqliteIsNull("x")).GetText(), "(state!=0) OR (x IS NULL)");
  SqliteCondition condition = extra;
  EXPECT_TRUE(condition.IsValid() && Where(extra) == "state!=0");

  // Text still picks the text overloads: an empty one is refused silently,
  // an empty condition object with an ERR line.
  UpdateCommand update;
  VantDRTest::LogCapture log;
  EXPECT_FALSE(update.SetCondition(std::string()) || update.SetCondition(""));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_FALSE(update.SetCondition(SqliteCondition()));
  EXPECT_EQ(log.Summary(), std::vector<std::string>{"ERR SetCondition: Invalid condition"});
}
