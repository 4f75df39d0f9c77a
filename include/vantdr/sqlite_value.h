/// @file
/// Values and records of the SQLite layer.
///
/// A SqliteValue is one SQL scalar (text, boolean or integer) that knows how
/// to write itself as an SQL literal; a SqliteValueList is one record, field
/// name to value, always iterated in ascending byte order of the names. That
/// order is the column order of every statement built from the record.
///
/// Values are always escaped when they become SQL. Field names are NOT: the
/// builders insert them verbatim, so never use untrusted text as a name.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/supported_types.h"

namespace VantDRCore {

/// One SQL scalar: a string, boolean or integer payload held as a
/// Json::Value, plus a valid flag set only by the typed constructors.
class VANTDR_API SqliteValue {
 public:
  /// Not valid, null payload; formats to "".
  SqliteValue();
  /// Valid values. 64-bit arguments are kept as 64-bit JSON integers.
  ///@{
  SqliteValue(int value);
  SqliteValue(bool value);
  SqliteValue(unsigned int value);
  SqliteValue(long value);
  SqliteValue(unsigned long value);
  SqliteValue(long long value);
  SqliteValue(unsigned long long value);
  SqliteValue(const std::string& value);
  ///@}
  /// A string literal would otherwise silently become the boolean true, and
  /// there is no floating-point payload: both are compile errors.
  ///@{
  SqliteValue(const char* value) = delete;
  SqliteValue(double value) = delete;
  ///@}

  /// A copy of `other`, valid flag included.
  SqliteValue(const SqliteValue& other) = default;
  /// Takes `other`'s payload and valid flag.
  SqliteValue(SqliteValue&& other) = default;
  /// Copies the payload only: the target keeps its own valid flag. So a
  /// default-constructed value stays invalid after `v = SqliteValue(5)`, and
  /// an IN list built by assigning into default values is refused: construct
  /// the elements from typed arguments instead.
  SqliteValue& operator=(const SqliteValue& other);

  /// Reads the payload as T (std::string, int, unsigned int, long, unsigned
  /// long, long long, unsigned long long, bool). On a type mismatch, or an
  /// integer that does not fit T, logs "[<payload JSON>] is not string|int|
  /// bool" at WARN, leaves `out` unchanged and returns false. A bool accepts a
  /// JSON boolean or the integers 0 and 1. The valid flag is not consulted.
  template <typename T>
  bool GetValue(T& out) const {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long, unsigned long, long long,
                          unsigned long long>,
                  "SqliteValue::GetValue<T> supports T = std::string, bool, int, unsigned int, "
                  "long, unsigned long, long long, unsigned long long");
    return GetValue(out, CheckedType());
  }

  /// Built from a typed argument and holding a string, boolean or integer.
  bool IsValid() const;

  /// The SQL literal: 'text' with every apostrophe doubled (nothing else is
  /// escaped), 1/0 for booleans, decimal digits for integers within the
  /// signed or unsigned 32-bit range. Everything else, including a null
  /// payload and a 64-bit integer outside both ranges, gives "" (so the
  /// builders and conditions write "VALUES (1,)" or "size="): 64-bit values,
  /// REAL, BLOB and NULL go through SqliteStatement. Never produces NULL.
  std::string ToFormatedValue() const;

  /// Appends exactly the text of ToFormatedValue() to `out`, without a
  /// temporary string: statement builders use it for every value.
  void AppendFormatedValue(std::string& out) const;

  /// The payload as stored (null for a default-constructed value).
  const Json::Value& GetJsonValue() const { return value_; }

 private:
  template <typename T>
  bool GetValue(T& out, CheckedType) const;

  bool valid_;
  Json::Value value_;
};

/// One record: field name to valid SqliteValue, iterated in ascending byte
/// order of the names.
class VANTDR_API SqliteValueList {
 public:
  /// An empty record.
  SqliteValueList();
  /// A copy of `other`'s entries.
  SqliteValueList(const SqliteValueList& other) = default;
  /// Takes `other`'s entries.
  SqliteValueList(SqliteValueList&& other) = default;
  /// Replaces the entries with copies of `other`'s.
  SqliteValueList& operator=(const SqliteValueList& other);
  /// Replaces the entries with `other`'s.
  SqliteValueList& operator=(SqliteValueList&& other);
  /// Destroys the record; derived records are deleted through this base.
  virtual ~SqliteValueList();

  /// The stored value, or a reference to an invalid value: an empty field
  /// logs at ERR, an unknown one at WARN. The reference lives as long as this
  /// record and the entry.
  const SqliteValue& GetValue(const std::string& field) const;

  /// The stored value read as T (the types of SqliteValue::GetValue). An
  /// empty field logs at ERR; an unknown field is an expected case and logs
  /// at DEBUG only. False leaves `out` unchanged.
  template <typename T>
  bool GetValue(const std::string& field, T& out) const {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long, unsigned long, long long,
                          unsigned long long>,
                  "SqliteValueList::GetValue<T> supports T = std::string, bool, int, unsigned int, "
                  "long, unsigned long, long long, unsigned long long");
    return GetValue(field, out, CheckedType());
  }

  /// False (with an ERR line) for an empty field; no log when it is absent.
  bool HasField(const std::string& field) const;

  /// Stores `value` under `field`, replacing the payload of an existing
  /// entry. Refuses (false, ERR line) an empty field or an invalid value, so
  /// a record never holds an invalid value.
  bool AddValue(const std::string& field, const SqliteValue& value);

  /// Adds every entry of `other`; its entries win over equal-named ones.
  SqliteValueList& operator+=(const SqliteValueList& other);

  /// "name:value, name:value" in field order, for logs; "" when empty.
  std::string ToStr() const;

  /// The entries, in field order.
  const std::map<std::string, SqliteValue>& GetValues() const { return values_; }
  /// The number of fields.
  size_t Size() const { return values_.size(); }
  /// Whether the record has no field.
  bool Empty() const { return values_.empty(); }

 private:
  template <typename T>
  bool GetValue(const std::string& field, T& out, CheckedType) const;

  SqliteValue invalid_;
  std::map<std::string, SqliteValue> values_;
};

/// Implemented by callers' own record types to hand themselves to the
/// statement builders as a SqliteValueList.
class VANTDR_API SqliteRecord {
 public:
  /// The record holding the listed fields of this object.
  virtual SqliteValueList ToSqliteValueList(const std::vector<std::string>& fields) const = 0;
  /// The second slot is the destructor: the library needs no other there.
  virtual ~SqliteRecord();
  /// Every field this object can hand over.
  virtual std::vector<std::string> GetFieldNames() const = 0;

  /// ToSqliteValueList(GetFieldNames()).
  SqliteValueList ToSqliteRecord() const;
};

}  // namespace VantDRCore
