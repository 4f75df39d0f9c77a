// Web API messages: a request for a polled background task and three answers.
#include <string>
#include <vector>

#include "demo.h"
#include "vantdr/json_text.h"
#include "vantdr/request.h"
#include "vantdr/response.h"

namespace {

std::string YesNo(bool value) { return value ? "yes" : "no"; }

void Run(const std::string&) {
  using namespace VantDRCore;
  Demo::Step("A request that starts a background replication task");
  Request request("VantDR.Replication", 1, "start", Json::Value(Json::objectValue));
  request.addParam("plan_id", 7);
  request.addParam("verify", true);
  const bool reserved = request.addParam("version", 2);
  Demo::Show("toJson()", JsonToString(request.toJson()));
  Demo::Show("toStr()", request.toStr());
  Demo::Show("isValid()", YesNo(request.isValid()));
  Demo::Show("addParam(\"version\", 2)", reserved ? "stored" : "refused: reserved key");

  Demo::Step("Three answers, as Response reads them");
  const std::vector<std::pair<std::string, std::string>> answers = {
      {"task started", R"({"success":true,"data":{"task_id":"repl-7-0001","finish":false}})"},
      {"task finished",
       R"({"success":true,"data":{"task_id":"repl-7-0001","finish":true,"success":true,)"
       R"("additional":{"files":1284}}})"},
      {"call failed",
       R"({"success":false,"error":{"code":105,"errors":{"plan_id":"no such plan"}}})"},
  };
  std::vector<std::vector<std::string>> rows;
  for (const auto& answer : answers) {
    Demo::Show(answer.first, answer.second);
    const Response response(answer.second);
    rows.push_back(
        {answer.first, YesNo(response.isSuccess()), std::to_string(response.getErrCode()),
         response.getTaskId(), YesNo(response.isPollFinish()), YesNo(response.isPollSuccess()),
         JsonToString(response.hasAdditional() ? response.getAdditional() : response.getErrMsg())});
  }
  Demo::Table({"answer", "isSuccess", "getErrCode", "getTaskId", "isPollFinish", "isPollSuccess",
               "additional / errors"},
              rows);
}

}  // namespace

VANTDR_DEMO_SECTION(30, "Web API messages", Run);
