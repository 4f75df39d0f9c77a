#include "vantdr/sqlite_value.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "vantdr/json_text.h"
#include "vantdr/log.h"

namespace VantDRCore {
namespace {

// Each reader tests the payload before converting: JsonCpp's as...()
// functions throw when the number does not fit.
bool ReadAs(const Json::Value& value, std::string& out) {
  if (!value.isString()) return false;
  out = value.asString();
  return true;
}

bool ReadAs(const Json::Value& value, bool& out) {
  if (value.isBool()) {
    out = value.asBool();
    return true;
  }
  if (!value.isInt()) return false;
  const unsigned number = static_cast<unsigned>(value.asInt());
  if (number > 1) return false;
  out = number == 1;
  return true;
}

template <typename T>
bool ReadSigned(const Json::Value& value, T& out) {
  if (!value.isIntegral() || !value.isInt64()) return false;
  const Json::Int64 number = value.asInt64();
  if (number < std::numeric_limits<T>::min() || number > std::numeric_limits<T>::max()) {
    return false;
  }
  out = static_cast<T>(number);
  return true;
}

template <typename T>
bool ReadUnsigned(const Json::Value& value, T& out) {
  if (!value.isIntegral() || !value.isUInt64()) return false;
  const Json::UInt64 number = value.asUInt64();
  if (number > std::numeric_limits<T>::max()) return false;
  out = static_cast<T>(number);
  return true;
}

bool ReadAs(const Json::Value& value, int& out) { return ReadSigned(value, out); }
bool ReadAs(const Json::Value& value, long& out) { return ReadSigned(value, out); }
bool ReadAs(const Json::Value& value, long long& out) { return ReadSigned(value, out); }
bool ReadAs(const Json::Value& value, unsigned int& out) { return ReadUnsigned(value, out); }
bool ReadAs(const Json::Value& value, unsigned long& out) { return ReadUnsigned(value, out); }
bool ReadAs(const Json::Value& value, unsigned long long& out) { return ReadUnsigned(value, out); }

// The word in "[%s] is not <word>".
template <typename T>
const char* KindName() {
  return "int";
}
template <>
const char* KindName<std::string>() {
  return "string";
}
template <>
const char* KindName<bool>() {
  return "bool";
}

}  // namespace

SqliteValue::SqliteValue() : valid_(false) {}
SqliteValue::SqliteValue(int value) : valid_(true), value_(Json::Int(value)) {}
SqliteValue::SqliteValue(bool value) : valid_(true), value_(value) {}
SqliteValue::SqliteValue(unsigned int value) : valid_(true), value_(Json::UInt(value)) {}
SqliteValue::SqliteValue(long value) : valid_(true), value_(Json::Int64(value)) {}
SqliteValue::SqliteValue(unsigned long value) : valid_(true), value_(Json::UInt64(value)) {}
SqliteValue::SqliteValue(long long value) : valid_(true), value_(Json::Int64(value)) {}
SqliteValue::SqliteValue(unsigned long long value) : valid_(true), value_(Json::UInt64(value)) {}
SqliteValue::SqliteValue(const std::string& value) : valid_(true), value_(value) {}

SqliteValue& SqliteValue::operator=(const SqliteValue& other) {
  value_ = other.value_;
  return *this;
}

template <typename T>
bool SqliteValue::GetValue(T& out, CheckedType) const {
  if (ReadAs(value_, out)) return true;
  VLOG_WARN("[%s] is not %s", JsonToString(value_).c_str(), KindName<T>());
  return false;
}

template bool SqliteValue::GetValue<std::string>(std::string&, CheckedType) const;
template bool SqliteValue::GetValue<unsigned int>(unsigned int&, CheckedType) const;
template bool SqliteValue::GetValue<int>(int&, CheckedType) const;
template bool SqliteValue::GetValue<long>(long&, CheckedType) const;
template bool SqliteValue::GetValue<unsigned long>(unsigned long&, CheckedType) const;
template bool SqliteValue::GetValue<long long>(long long&, CheckedType) const;
template bool SqliteValue::GetValue<unsigned long long>(unsigned long long&, CheckedType) const;
template bool SqliteValue::GetValue<bool>(bool&, CheckedType) const;

bool SqliteValue::IsValid() const {
  return valid_ && (value_.isString() || value_.isBool() || value_.isIntegral());
}

std::string SqliteValue::ToFormatedValue() const {
  std::string out;
  AppendFormatedValue(out);
  return out;
}

void SqliteValue::AppendFormatedValue(std::string& out) const {
  if (value_.isString()) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value_.getString(&begin, &end);
    out.reserve(out.size() + static_cast<size_t>(end - begin) + 8);
    out += '\'';
    // Same output as regex_replace(text, regex("'"), "''"), without a regex.
    for (const char* quote; (quote = static_cast<const char*>(std::memchr(
                                 begin, '\'', static_cast<size_t>(end - begin)))) != nullptr;
         begin = quote + 1) {
      out.append(begin, quote + 1);
      out += '\'';
    }
    out.append(begin, end);
    out += '\'';
    return;
  }
  if (value_.isBool()) {
    out += value_.asBool() ? '1' : '0';
    return;
  }
  char digits[24];
  std::to_chars_result written{digits, std::errc()};
  if (value_.isInt()) {
    written = std::to_chars(digits, digits + sizeof digits, value_.asInt64());
  } else if (value_.isUInt()) {
    written = std::to_chars(digits, digits + sizeof digits, value_.asUInt64());
  }
  // Null, and 64-bit integers outside both 32-bit ranges, append nothing.
  out.append(digits, written.ptr);
}

SqliteValueList::SqliteValueList() = default;
SqliteValueList::~SqliteValueList() = default;

SqliteValueList& SqliteValueList::operator=(const SqliteValueList& other) {
  values_ = other.values_;
  return *this;
}

SqliteValueList& SqliteValueList::operator=(SqliteValueList&& other) {
  values_ = std::move(other.values_);
  return *this;
}

const SqliteValue& SqliteValueList::GetValue(const std::string& field) const {
  if (field.empty()) {
    VLOG_ERR("Invalid field [%s]", field.c_str());
    return invalid_;
  }
  const auto found = values_.find(field);
  if (found == values_.end()) {
    VLOG_WARN("Failed to find field [%s]", field.c_str());
    return invalid_;
  }
  return found->second;
}

template <typename T>
bool SqliteValueList::GetValue(const std::string& field, T& out, CheckedType) const {
  if (field.empty()) {
    VLOG_ERR("Invalid field [%s]", field.c_str());
    return false;
  }
  const auto found = values_.find(field);
  if (found == values_.end()) {
    VLOG_DEBUG("field [%s] is not existed", field.c_str());
    return false;
  }
  return found->second.GetValue(out);
}

template bool SqliteValueList::GetValue<std::string>(const std::string&, std::string&,
                                                     CheckedType) const;
template bool SqliteValueList::GetValue<unsigned int>(const std::string&, unsigned int&,
                                                      CheckedType) const;
template bool SqliteValueList::GetValue<int>(const std::string&, int&, CheckedType) const;
template bool SqliteValueList::GetValue<long>(const std::string&, long&, CheckedType) const;
template bool SqliteValueList::GetValue<unsigned long>(const std::string&, unsigned long&,
                                                       CheckedType) const;
template bool SqliteValueList::GetValue<long long>(const std::string&, long long&,
                                                   CheckedType) const;
template bool SqliteValueList::GetValue<unsigned long long>(const std::string&, unsigned long long&,
                                                            CheckedType) const;
template bool SqliteValueList::GetValue<bool>(const std::string&, bool&, CheckedType) const;

bool SqliteValueList::HasField(const std::string& field) const {
  if (field.empty()) {
    VLOG_ERR("Invalid field [%s]", field.c_str());
    return false;
  }
  return values_.count(field) != 0;
}

bool SqliteValueList::AddValue(const std::string& field, const SqliteValue& value) {
  if (field.empty() || !value.IsValid()) {
    VLOG_ERR("Bad Field[%s] or value [%s]", field.c_str(), value.ToFormatedValue().c_str());
    return false;
  }
  // One search serves both the replacement and the insertion.
  const auto slot = values_.lower_bound(field);
  if (slot != values_.end() && slot->first == field) {
    slot->second = value;
  } else {
    values_.emplace_hint(slot, field, value);
  }
  return true;
}

SqliteValueList& SqliteValueList::operator+=(const SqliteValueList& other) {
  for (const auto& entry : other.values_) AddValue(entry.first, entry.second);
  return *this;
}

std::string SqliteValueList::ToStr() const {
  std::string out;
  for (const auto& entry : values_) {
    if (!out.empty()) out += ", ";
    out += entry.first;
    out += ':';
    out += entry.second.ToFormatedValue();
  }
  return out;
}

SqliteRecord::~SqliteRecord() = default;

SqliteValueList SqliteRecord::ToSqliteRecord() const { return ToSqliteValueList(GetFieldNames()); }

}  // namespace VantDRCore
