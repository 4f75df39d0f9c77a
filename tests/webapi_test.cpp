#include "support/suite.h"

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

TEST(Request, EnvelopeRenderingAndValidity) {
  EXPECT_EQ(R"({"api":"","method":"","version":-1})", JsonToString(Request().toJson()));
  // Reserved keys given to the constructor stay in params; toJson overwrites them.
  Request r("A", 1, "M", Parse(R"({"k":0,"api":"X","version":9})"));
  EXPECT_EQ(R"(A/M/1 {"api":"X","k":0,"version":9} 120 plain |)", State(r));
  EXPECT_EQ(R"({"api":"A","k":0,"method":"M","version":1})", JsonToString(r.toJson()));
  EXPECT_TRUE(r.isValid());
  for (const int version : {0, -3}) EXPECT_FALSE((r.setVersion(version), r.isValid())) << version;

  r.setRequest(Parse(R"({"api":5,"method":"get","version":"3","x":true})"));
  EXPECT_EQ(R"(A/get/-3 {"api":5,"version":"3","x":true} 120 plain |)", State(r));
  EXPECT_EQ(R"({"api":"A","method":"get","version":-3,"x":true})", JsonToString(r.toJson()));
  r.setRequest(Parse(R"({"version":2.5})"));  // not an int: a parameter
  EXPECT_EQ(R"(A/get/-3 {"version":2.5} 120 plain |)", State(r));
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

// Every query of an answer in one line, in declaration order.
std::string Describe(const Response& r) {
  std::ostringstream s;
  s << r.isValid() << r.isSuccess() << " " << r.getErrCode() << "|" << JsonToString(r.getErrMsg())
    << "|" << JsonToString(r.getErr()) << "|" << r.hasData() << JsonToString(r.getData()) << "|"
    << r.getTaskId() << "|" << r.isPollFinish() << r.isPollSuccess() << "|" << r.hasAdditional()
    << JsonToString(r.getAdditional()) << "|" << r.getDataFieldtoStr("n") << "|"
    << r.hasField("data") << JsonToString(r.getField("data"));
  return s.str();
}

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

// Callers' code using the implicit one-argument constructors still compiles and means the same.
int ErrCode(const Response& response) { return response.getErrCode(); }
std::string Envelope(const Request& request) { return request.toStr(); }

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
