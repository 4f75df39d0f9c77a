#include "vantdr/error.h"

#include <map>
#include <sstream>
#include <string>

#include "gtest/gtest.h"
#include "vantdr/json_text.h"

namespace {

using VantDRCore::ErrRecorder;
namespace ERR = VantDRCore::ERR;

TEST(ErrTest, EveryIntegerHasTheNameOfItsTableEntryOrUnknown) {
  std::istringstream table(
      "400 ERR_DR_MIN 401 BAD_PARAMETER 402 ERR_ALLOCATE_MEMORY 403 ERR_NULL_POINTER 404 "
      "ERR_DATABASE_OPERATION 405 ERR_DATABASE_LOCK 406 ERR_FORK_FAILED 407 ERR_UNKNOWN 500 "
      "ERR_CONNECTION_FAILED 501 ERR_LOGIN_AUTH_INVALID 502 ERR_LOGIN_AUTH_DISABLED 503 "
      "ERR_LOGIN_AUTH_PRIVILEGE 504 ERR_LOGIN_AUTH_REQUIRED_OTP 505 "
      "ERR_LOGIN_AUTH_INVALID_OTP 506 ERR_INIT_CREDENTIAL 507 ERR_NODE_NOT_EXIST 508 "
      "ERR_NODE_EXIST 509 ERR_NODE_INVALID_REMOTE_SESSION_CREATE 510 ERR_NODE_CREATE 511 "
      "ERR_NODE_SESSION_CREATE 512 ERR_NODE_SESSION_REMOVE 513 ERR_NODE_GET 514 "
      "ERR_NODE_SET 515 ERR_NODE_LIST 516 ERR_CRED_NOT_EXIST 517 ERR_INVALID_CONN 518 "
      "ERR_NOT_SAME_NODE 519 ERR_GET_NODE_INFO 520 ERR_INVALID_SENDER 521 "
      "ERR_INVALID_SESSION 522 ERR_NOT_AVALIABLE_CONN 523 ERR_LOGIN_AUTH 524 "
      "ERR_CREDENTIAL_OPERATION 525 ERR_NO_PERMISSION 526 ERR_NO_SUCH_API 527 "
      "ERR_INVALID_USER 528 ERR_SESSION_GET 599 ERR_NODE_UNKNOWN 673 ERR_DR_MAX ");
  std::map<int, std::string> named;
  int number;
  std::string name;
  while (table >> number >> name) named[number] = name;
  ASSERT_EQ(named.size(), 39u);
  for (int code = -2; code <= 700; ++code) {
    auto it = named.find(code);
    EXPECT_EQ(ERR::ToString(code), it == named.end() ? "<UNKNOWN ERR CODE>" : it->second) << code;
  }
  EXPECT_EQ(ERR::ToString(INT32_MIN) + ERR::ToString(INT32_MAX),
            "<UNKNOWN ERR CODE><UNKNOWN ERR CODE>");
  EXPECT_TRUE(ERR::ERR_DATABASE_LOCK == 405 && ERR::ERR_NOT_AVALIABLE_CONN == 522);
}

class NamingRecorder : public ErrRecorder {
 public:
  std::string GetErrCodeStr(int code) const override { return ERR::ToString(code); }
};

TEST(ErrTest, RecorderRendersCodeNameAndMessageOnlyWhenPresent) {
  ErrRecorder record;
  const auto text = [](const ErrRecorder& r) { return VantDRCore::JsonToString(r.GetErr()); };
  EXPECT_EQ(text(record), R"({"err_code":0})");
  record.SetErr(404);
  EXPECT_EQ(text(record), R"({"err_code":404})");
  record.SetErr(404, "disk I/O error");
  EXPECT_EQ(text(record), R"({"err_code":404,"err_msg":"disk I/O error"})");
  Json::Value detail(Json::objectValue);
  detail["sqlite_errcode"] = 5;
  detail["sqlite_errmsg"] = "database is locked";
  record.SetErr(405, detail);
  EXPECT_TRUE(record.GetErr()["err_msg"] == detail && !record.GetErr().isMember("err_code_str"));
  record.SetErr(401);  // a new code without a message drops the old message
  EXPECT_EQ(text(record), R"({"err_code":401})");

  NamingRecorder named;
  named.SetErr(405);
  EXPECT_EQ(text(named), R"({"err_code":405,"err_code_str":"ERR_DATABASE_LOCK"})");
  const ErrRecorder& base = named;  // the override is virtual
  EXPECT_EQ(base.GetErr()["err_code_str"], "ERR_DATABASE_LOCK");
}

}  // namespace
