// Small utilities: UUIDs, random pauses, path checks and vector joining.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/supported_types.h"

namespace VantDRCore {

// A new UUID from "/usr/bin/uuidgen", trimmed; "" (with an ERR line) when
// the program cannot be started. The text is not checked.
VANTDR_API std::string GenerateUUID();

// Sleeps a uniformly random number of milliseconds in [min, max]. Refuses
// (false, ERR line, no sleep) when min or max is 0 or max <= min.
VANTDR_API bool RandomSleepInMSec(unsigned min, unsigned max);

namespace Validator {
// True when `path` starts with "/volume" ("/volume" itself included).
VANTDR_API bool IsVolPath(const std::string& path);
}  // namespace Validator

namespace Container {

// A JSON array (empty, never null, for an empty vector) of the elements as
// JSON strings, integers, booleans or reals. T: std::string, int, bool,
// double.
template <typename T>
VANTDR_API Json::Value ToJsonArray(const std::vector<T>& items, CheckedType);
template <typename T>
Json::Value ToJsonArray(const std::vector<T>& items) {
  static_assert(IsOneOf<T, std::string, int, bool, double>,
                "Container::ToJsonArray<T> supports T = std::string, int, bool, double");
  return ToJsonArray(items, CheckedType());
}

// Joins the elements left to right; the separator goes before an element
// only when the text built so far is not empty. Strings contribute their
// text. Numbers and booleans contribute ONE CHARACTER whose code is their
// low eight bits (65 -> "A", true -> "\x01"), not decimal digits: callers
// who want digits convert first. T: std::string, int, bool, double.
template <typename T>
VANTDR_API std::string ToString(const std::vector<T>& items, const std::string& separator,
                                CheckedType);
template <typename T>
std::string ToString(const std::vector<T>& items, const std::string& separator) {
  static_assert(IsOneOf<T, std::string, int, bool, double>,
                "Container::ToString<T> supports T = std::string, int, bool, double");
  return ToString(items, separator, CheckedType());
}

}  // namespace Container

}  // namespace VantDRCore
