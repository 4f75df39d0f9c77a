// Response: the JSON answer of one web API call, and the questions callers
// ask of it. The answer comes from the network, so every query accepts any
// shape: a missing member or one of the wrong type gives the query's default
// (false, 0 or -1, "", null), never an exception or a log line.
//
//   {"success": true, "data": {"finish": true, "success": true,
//                              "task_id": "...", "additional": ...}}
//   {"success": false, "error": {"code": 105, "errors": ...}}
#pragma once

#include <json/value.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

class VANTDR_API Response {
 public:
  Response();
  Response(const Response& other);
  Response& operator=(const Response& other);
  // Parses `text`; text that is not JSON leaves a null, invalid answer.
  Response(const std::string& text);
  // As std::string; nullptr parses as "". Explicit: an implicit one would make
  // a literal ambiguous between callers' overloads on std::string and Response.
  explicit Response(const char* text);
  Response(const Json::Value& answer);
  virtual ~Response();

  // Parses `text` into the answer; false (and a null answer) when it is not
  // JSON.
  bool setResp(const std::string& text);
  bool setResp(const char* text);
  void setResp(const Json::Value& answer);

  // Removes every member of the answer; a scalar answer becomes null.
  void clear();

  // The answer is an object with a "success" member.
  bool isValid() const;
  // isValid() and "success" read as a boolean (numbers: non-zero; strings,
  // arrays and objects: false).
  bool isSuccess() const;

  // 0 for any successful answer; otherwise the 32-bit integer
  // "error"."code", or -1 when the answer is invalid or the code is absent
  // or not such an integer.
  int getErrCode() const;
  // A copy of "error"."errors" for a valid answer, whatever "success" says;
  // null otherwise.
  Json::Value getErrMsg() const;
  // A copy of the whole "error" member, or null.
  Json::Value getErr() const;

  // The data queries see "data" only in a successful answer. Null keys give
  // false / null. Returned references stay valid until the answer changes.
  bool hasData() const;
  bool hasDataField(const char* key) const;
  const Json::Value& getData() const;
  const Json::Value& getDataField(const char* key) const;
  // The text of a string member of "data"; other types give "".
  std::string getDataFieldtoStr(const char* key) const;

  // Polling a background task: "data"."finish", "data"."success" read as
  // booleans, "data"."task_id" as text.
  bool isPollFinish() const;
  bool isPollSuccess() const;
  std::string getTaskId() const;
  bool hasAdditional() const;
  const Json::Value& getAdditional() const;

  // Top-level members, whether or not the answer is valid or successful.
  bool hasField(const char* key) const;
  const Json::Value& getField(const char* key) const;

  const Json::Value& getResp() const { return resp_; }

 private:
  const Json::Value null_;  // what absent members refer to; never changed
  Json::Value resp_;
};

}  // namespace VantDRCore
