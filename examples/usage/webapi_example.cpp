// Web API messages: build a request, read an answer.
#include <cstdio>
#include <string>

#include "vantdr/json_text.h"
#include "vantdr/request.h"
#include "vantdr/response.h"

int main() {
  using namespace VantDRCore;
  Request request("VantDR.Plan", 1, "list", Json::Value(Json::objectValue));
  request.addParam("limit", 20);
  std::printf("%s -> %s\n", request.toStr().c_str(), JsonToString(request.toJson()).c_str());

  Response answer(std::string(R"({"success":false,"error":{"code":105}})"));
  if (!answer.isSuccess()) std::printf("failed with code %d\n", answer.getErrCode());
  return answer.getErrCode() == 105 ? 0 : 1;
}
