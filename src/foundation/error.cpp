#include "vantdr/error.h"

#include <array>

namespace VantDRCore {
namespace ERR {
namespace {

constexpr const char* kUnknown = "<UNKNOWN ERR CODE>";

struct NameTable {
  std::array<const char*, ERR_DR_MAX - ERR_DR_MIN + 1> names{};
  constexpr NameTable() {
    for (auto& name : names) name = kUnknown;
    Set(ERR_DR_MIN, "ERR_DR_MIN");
    Set(BAD_PARAMETER, "BAD_PARAMETER");
    Set(ERR_ALLOCATE_MEMORY, "ERR_ALLOCATE_MEMORY");
    Set(ERR_NULL_POINTER, "ERR_NULL_POINTER");
    Set(ERR_DATABASE_OPERATION, "ERR_DATABASE_OPERATION");
    Set(ERR_DATABASE_LOCK, "ERR_DATABASE_LOCK");
    Set(ERR_FORK_FAILED, "ERR_FORK_FAILED");
    Set(ERR_UNKNOWN, "ERR_UNKNOWN");
    Set(ERR_CONNECTION_FAILED, "ERR_CONNECTION_FAILED");
    Set(ERR_LOGIN_AUTH_INVALID, "ERR_LOGIN_AUTH_INVALID");
    Set(ERR_LOGIN_AUTH_DISABLED, "ERR_LOGIN_AUTH_DISABLED");
    Set(ERR_LOGIN_AUTH_PRIVILEGE, "ERR_LOGIN_AUTH_PRIVILEGE");
    Set(ERR_LOGIN_AUTH_REQUIRED_OTP, "ERR_LOGIN_AUTH_REQUIRED_OTP");
    Set(ERR_LOGIN_AUTH_INVALID_OTP, "ERR_LOGIN_AUTH_INVALID_OTP");
    Set(ERR_INIT_CREDENTIAL, "ERR_INIT_CREDENTIAL");
    Set(ERR_NODE_NOT_EXIST, "ERR_NODE_NOT_EXIST");
    Set(ERR_NODE_EXIST, "ERR_NODE_EXIST");
    Set(ERR_NODE_INVALID_REMOTE_SESSION_CREATE, "ERR_NODE_INVALID_REMOTE_SESSION_CREATE");
    Set(ERR_NODE_CREATE, "ERR_NODE_CREATE");
    Set(ERR_NODE_SESSION_CREATE, "ERR_NODE_SESSION_CREATE");
    Set(ERR_NODE_SESSION_REMOVE, "ERR_NODE_SESSION_REMOVE");
    Set(ERR_NODE_GET, "ERR_NODE_GET");
    Set(ERR_NODE_SET, "ERR_NODE_SET");
    Set(ERR_NODE_LIST, "ERR_NODE_LIST");
    Set(ERR_CRED_NOT_EXIST, "ERR_CRED_NOT_EXIST");
    Set(ERR_INVALID_CONN, "ERR_INVALID_CONN");
    Set(ERR_NOT_SAME_NODE, "ERR_NOT_SAME_NODE");
    Set(ERR_GET_NODE_INFO, "ERR_GET_NODE_INFO");
    Set(ERR_INVALID_SENDER, "ERR_INVALID_SENDER");
    Set(ERR_INVALID_SESSION, "ERR_INVALID_SESSION");
    Set(ERR_NOT_AVALIABLE_CONN, "ERR_NOT_AVALIABLE_CONN");
    Set(ERR_LOGIN_AUTH, "ERR_LOGIN_AUTH");
    Set(ERR_CREDENTIAL_OPERATION, "ERR_CREDENTIAL_OPERATION");
    Set(ERR_NO_PERMISSION, "ERR_NO_PERMISSION");
    Set(ERR_NO_SUCH_API, "ERR_NO_SUCH_API");
    Set(ERR_INVALID_USER, "ERR_INVALID_USER");
    Set(ERR_SESSION_GET, "ERR_SESSION_GET");
    Set(ERR_NODE_UNKNOWN, "ERR_NODE_UNKNOWN");
    Set(ERR_DR_MAX, "ERR_DR_MAX");
  }
  constexpr void Set(int code, const char* name) { names[code - ERR_DR_MIN] = name; }
};

constexpr NameTable kNames;

}  // namespace

std::string ToString(int code) {
  // Unsigned compare: codes below 400 wrap around and fall out of range.
  const unsigned index = static_cast<unsigned>(code) - static_cast<unsigned>(ERR_DR_MIN);
  return index < kNames.names.size() ? kNames.names[index] : kUnknown;
}

}  // namespace ERR

Json::Value ErrRecorder::GetErr() const {
  Json::Value err(Json::objectValue);
  err["err_code"] = Json::Int(errCode_);
  std::string name = GetErrCodeStr(errCode_);
  if (!name.empty()) err["err_code_str"] = name;
  if (!errMsg_.isNull()) err["err_msg"] = errMsg_;
  return err;
}

std::string ErrRecorder::GetErrCodeStr(int) const { return std::string(); }

void ErrRecorder::SetErr(int code, const Json::Value& message) const {
  errCode_ = code;
  errMsg_ = message;
}

}  // namespace VantDRCore
