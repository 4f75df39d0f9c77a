#include "vantdr/response.h"

#include <gtest/gtest.h>

#include <sstream>

#include "vantdr/json_text.h"

using VantDRCore::JsonToString;
using VantDRCore::Response;

namespace {

// Every query in one line: isValid isSuccess getErrCode|getErrMsg|getErr|hasData getData|
// getTaskId|isPollFinish isPollSuccess|hasAdditional getAdditional|getDataFieldtoStr("n")|
// hasField("data") getField("data").
std::string Describe(const Response& r) {
  std::ostringstream s;
  s << r.isValid() << r.isSuccess() << " " << r.getErrCode() << "|" << JsonToString(r.getErrMsg())
    << "|" << JsonToString(r.getErr()) << "|" << r.hasData() << JsonToString(r.getData()) << "|"
    << r.getTaskId() << "|" << r.isPollFinish() << r.isPollSuccess() << "|" << r.hasAdditional()
    << JsonToString(r.getAdditional()) << "|" << r.getDataFieldtoStr("n") << "|"
    << r.hasField("data") << JsonToString(r.getField("data"));
  return s.str();
}

}  // namespace

TEST(Response, EveryQueryOnDocumentedAnswersAndTheirCopies) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({"success":true})", "11 0|null|null|0null||00|0null||0null"},
      {R"({"success":false,"error":{"code":105}})",
       R"(10 105|null|{"code":105}|0null||00|0null||0null)"},
      {R"({"success":false,"error":{"code":"105"}})",
       R"(10 -1|null|{"code":"105"}|0null||00|0null||0null)"},
      // Without "success" only the top-level lookups see anything.
      {R"({"data":{"n":"t"},"error":{"errors":1}})",
       R"(00 -1|null|{"errors":1}|0null||00|0null||1{"n":"t"})"},
      // The data of a failed answer stays hidden; its errors do not.
      {R"({"success":false,"data":{"finish":true},"error":{"code":7,"errors":["x"]}})",
       R"(10 7|["x"]|{"code":7,"errors":["x"]}|0null||00|0null||1{"finish":true})"},
      {R"({"success":true,"data":{"finish":true}})",
       R"(11 0|null|null|1{"finish":true}||10|0null||1{"finish":true})"},
      {R"({"success":true,"data":{"n":5,"task_id":"t-1","success":true,"additional":[3]}})",
       R"(11 0|null|null|1{"additional":[3],"n":5,"success":true,"task_id":"t-1"}|t-1|01|1[3]||)"
       R"(1{"additional":[3],"n":5,"success":true,"task_id":"t-1"})"},
  };
  for (const auto& [text, described] : rows) {
    SCOPED_TRACE(text);
    Response r(text), assigned;
    const std::string before = JsonToString(r.getResp());
    EXPECT_EQ(described, Describe(r));
    EXPECT_TRUE(!r.hasDataField(nullptr) && !r.hasField(nullptr) &&
                r.getDataField(nullptr).isNull() && r.getField(nullptr).isNull());
    Response copied(r);
    assigned = r, r.clear();
    EXPECT_EQ(described, Describe(copied));
    EXPECT_EQ(before, JsonToString(assigned.getResp()));  // queries never add members
  }
}
