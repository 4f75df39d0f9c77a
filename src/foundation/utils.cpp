#include "vantdr/utils.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "vantcore/vlibc.h"
#include "vantdr/log.h"
#include "vantrandom/vant_random.h"

namespace VantDRCore {

std::string GenerateUUID() {
  static const char kProgram[] = "/usr/bin/uuidgen";
  FILE* stream = VLIBCPopen(kProgram, "r", static_cast<const char*>(nullptr));
  if (stream == nullptr) {
    VLOG_ERR("Failed to exec the command [%s].", kProgram);
    return std::string();
  }
  std::string result;
  char* line = nullptr;
  size_t capacity = 0;
  if (getline(&line, &capacity, stream) > 0) {
    VLIBCStrTrim(line, 0, 0);
    result = line;
  }
  VLIBCPclose(stream);
  free(line);
  return result;
}

bool RandomSleepInMSec(unsigned min, unsigned max) {
  if (max == 0 || min == 0 || max <= min) {
    VLOG_ERR("Invalid period [%u - %u] to sleep", min, max);
    return false;
  }
  VANT::RANDOM::VANTRandom random;
  const unsigned msec = random.urandom(min, max);
  // usleep takes at most a second on some systems; sleep whole seconds first.
  if (msec >= 1000) sleep(msec / 1000);
  usleep((msec % 1000) * 1000);
  return true;
}

namespace Validator {

bool IsVolPath(const std::string& path) { return path.compare(0, 7, "/volume") == 0; }

}  // namespace Validator

namespace Container {
namespace {

Json::Value ToJson(const std::string& item) { return Json::Value(item); }
Json::Value ToJson(int item) { return Json::Value(Json::Int(item)); }
Json::Value ToJson(bool item) { return Json::Value(item); }
Json::Value ToJson(double item) { return Json::Value(item); }

// Numbers and booleans contribute the single character of their low byte.
void AppendItem(std::string& out, const std::string& item) { out += item; }
void AppendItem(std::string& out, int item) {
  out += static_cast<char>(static_cast<unsigned>(item) & 0xFF);
}
void AppendItem(std::string& out, bool item) { out += static_cast<char>(item ? 1 : 0); }
void AppendItem(std::string& out, double item) {
  // Out-of-range doubles have no defined unsigned value: wrap through a
  // 64-bit integer so the result is defined for every input.
  unsigned long long whole = 0;
  if (item == item && item > -9.2e18 && item < 1.8e19) {
    whole = item < 0 ? static_cast<unsigned long long>(static_cast<long long>(item))
                     : static_cast<unsigned long long>(item);
  }
  out += static_cast<char>(whole & 0xFF);
}

}  // namespace

template <typename T>
Json::Value ToJsonArray(const std::vector<T>& items, CheckedType) {
  Json::Value array(Json::arrayValue);
  for (const T& item : items) array.append(ToJson(item));
  return array;
}

template <typename T>
std::string ToString(const std::vector<T>& items, const std::string& separator, CheckedType) {
  std::string out;
  bool first = true;
  for (const T& item : items) {
    if (!first && !out.empty()) out += separator;
    first = false;
    AppendItem(out, item);
  }
  return out;
}

template VANTDR_API Json::Value ToJsonArray(const std::vector<std::string>&, CheckedType);
template VANTDR_API Json::Value ToJsonArray(const std::vector<int>&, CheckedType);
template VANTDR_API Json::Value ToJsonArray(const std::vector<bool>&, CheckedType);
template VANTDR_API Json::Value ToJsonArray(const std::vector<double>&, CheckedType);
template VANTDR_API std::string ToString(const std::vector<std::string>&, const std::string&,
                                         CheckedType);
template VANTDR_API std::string ToString(const std::vector<int>&, const std::string&, CheckedType);
template VANTDR_API std::string ToString(const std::vector<bool>&, const std::string&, CheckedType);
template VANTDR_API std::string ToString(const std::vector<double>&, const std::string&,
                                         CheckedType);

}  // namespace Container
}  // namespace VantDRCore
