#include "vantdr/request.h"

#include <cstring>
#include <utility>

#include "foundation/no_throw.h"
#include "vantdr/log.h"

namespace VantDRCore {

namespace {

constexpr int kDefaultVersion = -1;
constexpr int kDefaultTimeout = 120;

const char* TypeName(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::intValue:
    case Json::uintValue:
    case Json::realValue:
      return "number";
    case Json::stringValue:
      return "string";
    case Json::booleanValue:
      return "boolean";
    case Json::arrayValue:
      return "array";
    case Json::objectValue:
      return "object";
  }
  return "unknown";
}

// Only null and objects accept members without JsonCpp throwing.
bool CanHoldMembers(const Json::Value& value) { return value.isNull() || value.isObject(); }

const Json::Value* Member(const Json::Value& object, const char* key) {
  return object.find(key, key + std::strlen(key));
}

// Moves a string member out of `params` into `field`; any other type stays.
void TakeString(Json::Value& params, const char* key, std::string& field) {
  const Json::Value* member = Member(params, key);
  if (member == nullptr || !member->isString()) return;
  field = member->asString();
  params.removeMember(key);
}

}  // namespace

Request::Request()
    : version_(kDefaultVersion),
      timeout_(kDefaultTimeout),
      params_(),
      encryptRequired_(false),
      uploadFile_() {}

Request::Request(const std::string& api, int version, const std::string& method,
                 const Json::Value& params)
    : version_(version),
      timeout_(kDefaultTimeout),
      api_(api),
      method_(method),
      params_(params),
      encryptRequired_(false),
      uploadFile_() {}

Request::Request(const Json::Value& request) : Request() { setRequest(request); }

Request::~Request() = default;

void Request::setRequest(const Json::Value& request) try {
  if (!request.isObject()) {
    // Nothing here can be a parameter: start from an empty request rather
    // than keep a scalar that no later addParam or toJson could use.
    params_ = Json::Value();
    return;
  }
  Json::Value params(request);  // a copy first: `request` may be params_ itself
  TakeString(params, "api", api_);
  TakeString(params, "method", method_);
  const Json::Value* version = Member(params, "version");
  if (version != nullptr && version->isInt()) {
    version_ = version->asInt();
    params.removeMember("version");
  }
  params_ = std::move(params);
}
VANTDR_CATCH_ALL()

void Request::clear() {
  version_ = kDefaultVersion;
  timeout_ = kDefaultTimeout;
  api_.clear();
  method_.clear();
  uploadFile_ = UploadFileDescription();
  // Json::Value::clear throws on a non-null scalar, which the four-argument
  // constructor may have stored.
  if (params_.isObject() || params_.isArray()) {
    params_.clear();
  } else {
    params_ = Json::Value();
  }
}

void Request::setVersion(int version) { version_ = version; }

void Request::setTimeout(int timeout) { timeout_ = timeout; }

void Request::setAPI(const std::string& api) { api_ = api; }

void Request::setMethod(const std::string& method) { method_ = method; }

void Request::setUploadFile(const UploadFileDescription& file) { uploadFile_ = file; }

void Request::setEncryptRequired(bool required) { encryptRequired_ = required; }

bool Request::isValidKey(const std::string& key) {
  return key != "api" && key != "method" && key != "version";
}

bool Request::addParam(const std::string& key, const Json::Value& value) try {
  if (!isValidKey(key)) return false;
  if (!CanHoldMembers(params_)) {
    VLOG_WARN("cannot add [%s]: parameters are a %s", key.c_str(), TypeName(params_));
    return false;
  }
  Json::Value copy(value);  // `value` may live inside params_
  params_[key] = std::move(copy);
  return true;
}
VANTDR_CATCH_ALL(false)

bool Request::addParam(const Json::Value& params) try {
  // A null or scalar value yields no entries, like an empty object or array:
  // nothing to merge, hence nothing that failed.
  if (params.begin() == params.end()) return true;
  if (!CanHoldMembers(params_)) {
    VLOG_WARN("cannot merge into parameters that are a %s", TypeName(params_));
    return false;
  }
  const Json::Value source(params);  // `params` may be params_ or part of it
  int failures = 0;
  for (auto it = source.begin(); it != source.end(); ++it) {
    // Array elements are keyed by their index, which converts to its text:
    // [5,6] merges "0" and "1".
    const Json::Value key = it.key();
    if (!key.isConvertibleTo(Json::stringValue)) {
      ++failures;
      continue;
    }
    const std::string name = key.asString();
    if (isValidKey(name)) params_[name] = *it;
  }
  if (failures > 0) {
    VLOG_WARN("%d of %u entries have no key convertible to text and were not added", failures,
              source.size());
  }
  return failures == 0;
}
VANTDR_CATCH_ALL(false)

bool Request::isValid() const { return !api_.empty() && !method_.empty() && version_ > 0; }

Json::Value Request::toJson() const try {
  Json::Value out(Json::objectValue);
  if (params_.isObject()) {
    out = params_;
  } else if (!params_.isNull()) {
    VLOG_WARN("parameters are a %s, not an object: left out of the message", TypeName(params_));
  }
  out["api"] = api_;
  out["method"] = method_;
  out["version"] = Json::Int(version_);
  return out;
}
VANTDR_CATCH_ALL(Json::Value())

std::string Request::toStr() const try {
  return api_ + "/" + method_ + "/" + std::to_string(version_);
}
VANTDR_CATCH_ALL(std::string())

}  // namespace VantDRCore
