// Request: one call of the appliance's JSON web API (api, method, version,
// parameters) plus the settings its sender needs. The library builds, checks
// and renders the message; sending it is the caller's business.
#pragma once

#include <json/value.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

// A file to send along with a request. The library only stores and copies
// the two texts; their use is up to the sender.
struct VANTDR_API UploadFileDescription {
  std::string filePath;  // where the file is read from
  std::string fileName;  // the name under which it is sent
};

class VANTDR_API Request {
 public:
  // Version -1, timeout 120 s, empty api and method, null params, not
  // encrypted, no upload file.
  Request();
  // Note the argument order. `params` is stored as given, reserved keys
  // included (toJson overwrites them).
  Request(const std::string& api, int version, const std::string& method,
          const Json::Value& params);
  // Defaults, then setRequest(request).
  Request(const Json::Value& request);
  virtual ~Request();

  // Takes a whole request in the shape toJson writes: params becomes the
  // object, and "api", "method" (strings) and "version" (a 32-bit integer)
  // move from it into their fields. A member of another type stays in
  // params and leaves its field unchanged. A value that is not an object
  // leaves params null. Timeout, encryption and upload file are untouched.
  void setRequest(const Json::Value& request);

  // Back to the defaults, except the encryption flag, which is kept. An
  // object params is emptied rather than nulled.
  void clear();

  // Stored as given, unchecked.
  void setVersion(int version);
  void setTimeout(int timeout);
  void setAPI(const std::string& api);
  void setMethod(const std::string& method);
  void setUploadFile(const UploadFileDescription& file);
  void setEncryptRequired(bool required);

  // False for the envelope keys "api", "method" and "version" (exact case),
  // true for every other key, the empty one included.
  static bool isValidKey(const std::string& key);

  // Sets params[key] to a copy of `value`; false, with nothing changed, for
  // a reserved key or when params holds a non-object value.
  bool addParam(const std::string& key, const Json::Value& value);
  // Merges every entry that iterating `params` yields under its key's text
  // (an array's indices included: [5,6] merges "0" and "1"), skipping
  // reserved keys silently. True when no entry failed, so also for null, a
  // scalar or an empty value, which yield no entries and change nothing.
  // False when some key does not convert to text or, for a value with
  // entries, when the stored params are not an object; whatever could be
  // taken is taken anyway.
  bool addParam(const Json::Value& params);

  // A non-empty api and method and a version above 0.
  bool isValid() const;

  // Params with "api", "method" and "version" set over them. Timeout,
  // encryption and upload file are not part of the message.
  Json::Value toJson() const;
  // "api/method/version", e.g. "VantDR.Plan/list/1"; params left out.
  std::string toStr() const;

  int getVersion() const { return version_; }
  int getTimeout() const { return timeout_; }
  const std::string& getAPI() const { return api_; }
  const std::string& getMethod() const { return method_; }
  const Json::Value& getParams() const { return params_; }
  bool isEncryptRequired() const { return encryptRequired_; }
  const UploadFileDescription& getUploadFile() const { return uploadFile_; }

 private:
  int version_;
  int timeout_;
  std::string api_;
  std::string method_;
  Json::Value params_;
  bool encryptRequired_;
  UploadFileDescription uploadFile_;
};

}  // namespace VantDRCore
