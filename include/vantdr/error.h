/// @file
/// The library's named error codes and the error record.
#pragma once

#include <json/value.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

/// The library's named error codes and their names.
namespace ERR {

/// The named error codes. 401-407 name the library's own failures; 500-599 are handed to clients by
/// name only. 400 and 673 bound the range.
enum Code : int {
  ERR_DR_MIN = 400,
  BAD_PARAMETER = 401,
  ERR_ALLOCATE_MEMORY = 402,
  ERR_NULL_POINTER = 403,
  ERR_DATABASE_OPERATION = 404,
  ERR_DATABASE_LOCK = 405,
  ERR_FORK_FAILED = 406,
  ERR_UNKNOWN = 407,
  ERR_CONNECTION_FAILED = 500,
  ERR_LOGIN_AUTH_INVALID = 501,
  ERR_LOGIN_AUTH_DISABLED = 502,
  ERR_LOGIN_AUTH_PRIVILEGE = 503,
  ERR_LOGIN_AUTH_REQUIRED_OTP = 504,
  ERR_LOGIN_AUTH_INVALID_OTP = 505,
  ERR_INIT_CREDENTIAL = 506,
  ERR_NODE_NOT_EXIST = 507,
  ERR_NODE_EXIST = 508,
  ERR_NODE_INVALID_REMOTE_SESSION_CREATE = 509,
  ERR_NODE_CREATE = 510,
  ERR_NODE_SESSION_CREATE = 511,
  ERR_NODE_SESSION_REMOVE = 512,
  ERR_NODE_GET = 513,
  ERR_NODE_SET = 514,
  ERR_NODE_LIST = 515,
  ERR_CRED_NOT_EXIST = 516,
  ERR_INVALID_CONN = 517,
  ERR_NOT_SAME_NODE = 518,
  ERR_GET_NODE_INFO = 519,
  ERR_INVALID_SENDER = 520,
  ERR_INVALID_SESSION = 521,
  ERR_NOT_AVALIABLE_CONN = 522,
  ERR_LOGIN_AUTH = 523,
  ERR_CREDENTIAL_OPERATION = 524,
  ERR_NO_PERMISSION = 525,
  ERR_NO_SUCH_API = 526,
  ERR_INVALID_USER = 527,
  ERR_SESSION_GET = 528,
  ERR_NODE_UNKNOWN = 599,
  ERR_DR_MAX = 673,
};

/// The name of `code` ("ERR_DATABASE_LOCK" for 405); "<UNKNOWN ERR CODE>" for
/// any integer that has no name. Never logs.
VANTDR_API std::string ToString(int code);

}  // namespace ERR

/// The last error of an object: a code (0 for none) and a JSON message (null
/// for none). Readers are const; so is recording, because objects whose
/// operations are const (database reads) still record their outcome.
class VANTDR_API ErrRecorder {
 public:
  /// No error: code 0, null message.
  ErrRecorder() = default;

  /// {"err_code": code, "err_code_str": ... (when GetErrCodeStr is not empty),
  ///  "err_msg": ... (when the message is not null)}.
  virtual Json::Value GetErr() const;

  /// The name recorded under "err_code_str"; the base gives "" for every code.
  virtual std::string GetErrCodeStr(int code) const;

  /// The recorded code; 0 when no error is recorded.
  int GetErrCode() const { return errCode_; }
  /// The recorded message; null when there is none.
  const Json::Value& GetErrMsg() const { return errMsg_; }

  /// Records `code` with `message` (null clears the message).
  void SetErr(int code, const Json::Value& message = Json::Value()) const;

 private:
  mutable int errCode_ = 0;
  mutable Json::Value errMsg_;
};

}  // namespace VantDRCore
