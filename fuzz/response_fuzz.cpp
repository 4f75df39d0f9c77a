// A web API answer from untrusted text: every query must answer without
// throwing, and a parsed answer must agree with one built from its value.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "vantdr/json_text.h"
#include "vantdr/response.h"

namespace {

void Query(const VantDRCore::Response& r) {
  r.isValid();
  r.isSuccess();
  r.getErrCode();
  r.getErrMsg();
  r.hasData();
  r.getData();
  r.isPollFinish();
  r.isPollSuccess();
  r.getTaskId();
  r.hasAdditional();
  r.getAdditional();
  r.getErr();
  for (const char* key : {"success", "data", "error", "task_id", "finish", "additional", ""}) {
    r.hasDataField(key);
    r.getDataField(key);
    r.getDataFieldtoStr(key);
    r.hasField(key);
    r.getField(key);
  }
  r.hasDataField(nullptr);
  r.hasField(nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  VantDRCore::Response fromText(text);
  Query(fromText);

  Json::Value value;
  if (VantDRCore::JsonFromString(value, text)) {
    VantDRCore::Response fromValue(value);
    Query(fromValue);
    if (fromValue.isSuccess() != fromText.isSuccess() ||
        fromValue.getErrCode() != fromText.getErrCode() ||
        fromValue.getTaskId() != fromText.getTaskId()) {
      abort();
    }
  }
  VantDRCore::Response copy(fromText);
  copy.clear();
  Query(copy);
  copy.setResp(text);
  Query(copy);
  return 0;
}
