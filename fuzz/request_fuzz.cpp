// A web API request from untrusted JSON: merging and rendering never throw,
// and toJson followed by a new Request gives back the envelope and params.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "vantdr/json_text.h"
#include "vantdr/request.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value value;
  if (!VantDRCore::JsonFromString(value, std::string(reinterpret_cast<const char*>(data), size))) {
    return 0;
  }
  VantDRCore::Request request(value);
  request.addParam(value);
  request.addParam("payload", value);
  request.addParam("version", value);
  request.isValid();
  request.toStr();
  const Json::Value rendered = request.toJson();

  VantDRCore::Request back(rendered);
  if (back.getAPI() != request.getAPI() || back.getMethod() != request.getMethod() ||
      back.getVersion() != request.getVersion() || back.toJson() != rendered) {
    abort();
  }
  request.clear();
  request.toJson();
  return 0;
}
