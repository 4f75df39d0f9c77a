#include "vantdr/response.h"

#include <cstring>

#include "foundation/no_throw.h"
#include "vantdr/json_text.h"

namespace VantDRCore {

namespace {

// The member `key` of `value`, or nullptr. Never creates a member and never
// throws: JsonCpp's lookups throw on anything but null and objects.
const Json::Value* Member(const Json::Value& value, const char* key) {
  if (key == nullptr || !value.isObject()) return nullptr;
  return value.find(key, key + std::strlen(key));
}

// asBool throws on strings, arrays and objects; those read as false.
bool ReadBool(const Json::Value* value) {
  if (value == nullptr) return false;
  if (value->isBool() || value->isNumeric() || value->isNull()) return value->asBool();
  return false;
}

}  // namespace

Response::Response() : null_(), resp_() {}

Response::Response(const Response& other) : null_(), resp_(other.resp_) {}

Response& Response::operator=(const Response& other) {
  if (this != &other) resp_ = other.resp_;
  return *this;
}

Response::Response(const std::string& text) : null_(), resp_() { setResp(text); }

Response::Response(const char* text) : null_(), resp_() { setResp(text); }

Response::Response(const Json::Value& answer) : null_(), resp_(answer) {}

Response::~Response() = default;

bool Response::setResp(const std::string& text) { return JsonFromString(resp_, text); }

bool Response::setResp(const char* text) try {
  return JsonFromString(resp_, text == nullptr ? std::string() : std::string(text));
}
VANTDR_CATCH_ALL(false)

void Response::setResp(const Json::Value& answer) try {
  Json::Value copy(answer);  // `answer` may be part of resp_
  resp_.swap(copy);
}
VANTDR_CATCH_ALL()

void Response::clear() {
  // Json::Value::clear throws on a non-null scalar.
  if (resp_.isObject() || resp_.isArray()) {
    resp_.clear();
  } else {
    resp_ = Json::Value();
  }
}

bool Response::isValid() const { return Member(resp_, "success") != nullptr; }

bool Response::isSuccess() const { return ReadBool(Member(resp_, "success")); }

int Response::getErrCode() const {
  if (isSuccess()) return 0;
  if (!isValid()) return -1;
  const Json::Value* code = Member(resp_, "error");
  if (code != nullptr) code = Member(*code, "code");
  // isInt, not isIntegral: asInt throws outside the 32-bit range.
  if (code == nullptr || !code->isInt()) return -1;
  return code->asInt();
}

Json::Value Response::getErrMsg() const try {
  if (!isValid()) return Json::Value();
  const Json::Value* errors = Member(resp_, "error");
  if (errors != nullptr) errors = Member(*errors, "errors");
  return errors != nullptr ? *errors : Json::Value();
}
VANTDR_CATCH_ALL(Json::Value())

Json::Value Response::getErr() const { return getField("error"); }

bool Response::hasData() const { return isSuccess() && Member(resp_, "data") != nullptr; }

bool Response::hasDataField(const char* key) const {
  if (key == nullptr || !isSuccess()) return false;
  const Json::Value* data = Member(resp_, "data");
  return data != nullptr && Member(*data, key) != nullptr;
}

const Json::Value& Response::getData() const {
  if (!isSuccess()) return null_;
  const Json::Value* data = Member(resp_, "data");
  return data != nullptr ? *data : null_;
}

const Json::Value& Response::getDataField(const char* key) const {
  const Json::Value* field = Member(getData(), key);
  return field != nullptr ? *field : null_;
}

std::string Response::getDataFieldtoStr(const char* key) const try {
  const Json::Value& field = getDataField(key);
  return field.isString() ? field.asString() : std::string();
}
VANTDR_CATCH_ALL(std::string())

bool Response::isPollFinish() const { return ReadBool(Member(getData(), "finish")); }

bool Response::isPollSuccess() const { return ReadBool(Member(getData(), "success")); }

std::string Response::getTaskId() const try {
  const Json::Value& id = getDataField("task_id");
  // Scalars convert as JsonCpp's asString does (42 gives "42", true gives
  // "true"); objects and arrays, which it cannot convert, give "".
  if (id.isObject() || id.isArray()) return std::string();
  return id.asString();
}
VANTDR_CATCH_ALL(std::string())

bool Response::hasAdditional() const { return hasDataField("additional"); }

const Json::Value& Response::getAdditional() const { return getDataField("additional"); }

bool Response::hasField(const char* key) const { return Member(resp_, key) != nullptr; }

const Json::Value& Response::getField(const char* key) const {
  const Json::Value* field = Member(resp_, key);
  return field != nullptr ? *field : null_;
}

}  // namespace VantDRCore
