/// @file
/// Response: the JSON answer of one web API call, and the questions callers
/// ask of it. The answer comes from the network, so every query accepts any
/// shape: a missing member or one of the wrong type gives the query's default
/// (false, 0 or -1, "", null), never an exception or a log line.
///
///   {"success": true, "data": {"finish": true, "success": true,
///                              "task_id": "...", "additional": ...}}
///   {"success": false, "error": {"code": 105, "errors": ...}}
#pragma once

#include <json/value.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

/// One web API answer and its queries. Plain value type; no query throws
/// or logs, whatever the answer's shape.
class VANTDR_API Response {
 public:
  /// A null, invalid answer.
  Response();
  /// A copy of `other`'s answer.
  Response(const Response& other);
  /// Replaces the answer with a copy of `other`'s.
  Response& operator=(const Response& other);
  /// Parses `text`; text that is not JSON leaves a null, invalid answer.
  /// Implicit, so text converts.
  Response(const std::string& text);
  /// As the std::string form; nullptr parses as "". Explicit: an implicit
  /// one would make a literal ambiguous between callers' overloads on
  /// std::string and Response.
  explicit Response(const char* text);
  /// Keeps a copy of `answer`, whatever its shape. Implicit, so JSON converts.
  Response(const Json::Value& answer);
  /// Destroys the answer; a derived response is deleted through this base.
  virtual ~Response();

  /// Parses `text` into the answer; false (and a null answer) when it is not
  /// JSON.
  bool setResp(const std::string& text);
  /// As the std::string form; nullptr parses as "".
  bool setResp(const char* text);
  /// Replaces the answer with a copy of `answer`, whatever its shape.
  void setResp(const Json::Value& answer);

  /// Removes every member of the answer; a scalar answer becomes null.
  void clear();

  /// The answer is an object with a "success" member.
  bool isValid() const;
  /// isValid() and "success" read as a boolean (numbers: non-zero; strings,
  /// arrays and objects: false).
  bool isSuccess() const;

  /// 0 for any successful answer; otherwise the 32-bit integer
  /// "error"."code", or -1 when the answer is invalid or the code is absent
  /// or not such an integer.
  int getErrCode() const;
  /// A copy of "error"."errors" for a valid answer, whatever "success" says;
  /// null otherwise.
  Json::Value getErrMsg() const;
  /// A copy of the whole "error" member, or null.
  Json::Value getErr() const;

  // The data queries see "data" only in a successful answer. Null keys give
  // false / null. Returned references stay valid until the answer changes.

  /// Whether a successful answer has a "data" member.
  bool hasData() const;
  /// Whether a successful answer's "data" is an object with member `key`;
  /// false for a null key.
  bool hasDataField(const char* key) const;
  /// The "data" member of a successful answer; null otherwise. The reference
  /// stays valid until the answer changes.
  const Json::Value& getData() const;
  /// "data".`key` of a successful answer; null otherwise and for a null key.
  /// The reference stays valid until the answer changes.
  const Json::Value& getDataField(const char* key) const;
  /// The text of a string member of "data"; other types give "".
  std::string getDataFieldtoStr(const char* key) const;

  // Polling a background task: "data" of a successful answer describes it.

  /// "data"."finish" read as a boolean: the task has ended.
  bool isPollFinish() const;
  /// "data"."success" read as a boolean: the task ended well.
  bool isPollSuccess() const;
  /// "data"."task_id" as text: a string as it is, a number or boolean as
  /// JsonCpp writes it ("42", "true"); "" when absent, an object or an array.
  std::string getTaskId() const;
  /// Whether "data" has an "additional" member.
  bool hasAdditional() const;
  /// "data"."additional"; null when absent.
  const Json::Value& getAdditional() const;

  /// Whether the answer is an object with top-level member `key`, valid or
  /// successful or not; false for a null key.
  bool hasField(const char* key) const;
  /// Top-level member `key`, valid or successful or not; null when absent
  /// and for a null key.
  const Json::Value& getField(const char* key) const;

  /// The whole answer as stored.
  const Json::Value& getResp() const { return resp_; }

 private:
  const Json::Value null_;  // what absent members refer to; never changed
  Json::Value resp_;
};

}  // namespace VantDRCore
