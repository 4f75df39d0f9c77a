/// @file
/// WHERE-clause conditions for the statement builders.
///
/// Each object holds one finished condition text, which UpdateCommand,
/// SelectCommand and DeleteCommand copy through SetCondition. Right-hand
/// values are rendered by SqliteValue::ToFormatedValue (quoted and escaped;
/// a 64-bit integer outside the 32-bit ranges renders as "", giving
/// "size=": compare such values with a bound SqliteStatement parameter);
/// field names and the texts given to SqliteCondition, SqliteAnd, SqliteOr
/// and the string form of the IN family are inserted verbatim: never build
/// them from untrusted input.
///
/// A failed SetValue logs one ERR line and returns false; constructors call
/// SetValue and ignore its result, so check IsValid() before use.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/sqlite_value.h"

namespace VantDRCore {

/// A condition text; the base of the condition family, and usable on its
/// own for a hand-written condition.
class VANTDR_API SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteCondition();
  /// Takes a finished condition text as it is. Implicit, so text converts.
  SqliteCondition(const std::string& text);
  /// Destroys the condition; derived conditions are deleted through this base.
  virtual ~SqliteCondition();

  /// True when the text is not empty.
  virtual bool IsValid() const;

  /// The condition text, as the builders embed it after "WHERE ".
  const std::string& GetText() const { return text_; }

 protected:
  std::string text_;  ///< The condition text; derived classes build it.
};

/// field=value
class VANTDR_API SqliteEqual : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteEqual();
  /// SetValue(field, value); check IsValid().
  SqliteEqual(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses an empty field or an invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// field!=value
class VANTDR_API SqliteNotEqual : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteNotEqual();
  /// SetValue(field, value); check IsValid().
  SqliteNotEqual(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses an empty field or an invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// (left) AND (right)
class VANTDR_API SqliteAnd : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteAnd();
  /// SetValue(left, right) on the empty text; check IsValid().
  SqliteAnd(const std::string& left, const std::string& right);
  /// Uses the two texts without checking the conditions' validity.
  SqliteAnd(const SqliteCondition& left, const SqliteCondition& right);
  /// APPENDS a group to the current text: a second successful call yields
  /// "(a) AND (b)(c) AND (d)". Refuses an empty side.
  bool SetValue(const std::string& left, const std::string& right);
};

/// (left) OR (right)
class VANTDR_API SqliteOr : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteOr();
  /// SetValue(left, right) on the empty text; check IsValid().
  SqliteOr(const std::string& left, const std::string& right);
  /// Uses the two texts without checking the conditions' validity.
  SqliteOr(const SqliteCondition& left, const SqliteCondition& right);
  /// APPENDS a group to the current text, as SqliteAnd::SetValue does.
  bool SetValue(const std::string& left, const std::string& right);
};

/// field IN ( items ) and field NOT IN ( items ).
class VANTDR_API SqliteInFamily : public SqliteCondition {
 public:
  /// An empty text with `keyword` ("IN" or "NOT IN") between field and list.
  explicit SqliteInFamily(const std::string& keyword);
  /// SetValue(field, values) with `keyword`; check the text, not IsValid().
  SqliteInFamily(const std::string& keyword, const std::string& field,
                 const std::vector<SqliteValue>& values);
  /// SetValue(field, valueList) with `keyword`.
  SqliteInFamily(const std::string& keyword, const std::string& field,
                 const std::string& valueList);

  /// True when the keyword is exactly "IN" or "NOT IN", whatever the text:
  /// an object on which SetValue never succeeded still reports true.
  bool IsValid() const override;

  /// Replaces the text with the formatted values joined by ","; an empty
  /// vector gives "field IN (  )". An invalid value empties the text and
  /// returns false: values made invalid by assignment (see
  /// SqliteValue::operator=) are refused too.
  bool SetValue(const std::string& field, const std::vector<SqliteValue>& values);
  /// Replaces the text, taking `valueList` as already formatted SQL.
  bool SetValue(const std::string& field, const std::string& valueList);
  /// Lets SetValue("id", {1, 2}) pick the value form over the string one.
  bool SetValue(const std::string& field, std::initializer_list<SqliteValue> values) {
    return SetValue(field, std::vector<SqliteValue>(values));
  }

 private:
  std::string keyword_;
};

/// field IN ( items )
class VANTDR_API SqliteIn : public SqliteInFamily {
 public:
  /// An empty text.
  SqliteIn();
  /// SetValue(field, values).
  SqliteIn(const std::string& field, const std::vector<SqliteValue>& values);
  /// SetValue(field, valueList): `valueList` is inserted verbatim.
  SqliteIn(const std::string& field, const std::string& valueList);
  /// SqliteIn("id", {1, 2, 3}): braces alone would also fit std::string.
  SqliteIn(const std::string& field, std::initializer_list<SqliteValue> values)
      : SqliteIn(field, std::vector<SqliteValue>(values)) {}
};

/// field NOT IN ( items )
class VANTDR_API SqliteNotIn : public SqliteInFamily {
 public:
  /// An empty text.
  SqliteNotIn();
  /// SetValue(field, values).
  SqliteNotIn(const std::string& field, const std::vector<SqliteValue>& values);
  /// SetValue(field, valueList): `valueList` is inserted verbatim.
  SqliteNotIn(const std::string& field, const std::string& valueList);
  /// SqliteNotIn("id", {1, 2, 3}): braces alone would also fit std::string.
  SqliteNotIn(const std::string& field, std::initializer_list<SqliteValue> values)
      : SqliteNotIn(field, std::vector<SqliteValue>(values)) {}
};

/// field IS NULL
class VANTDR_API SqliteIsNull : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteIsNull();
  /// SetValue(field).
  explicit SqliteIsNull(const std::string& field);
  /// ALWAYS returns false, even when it built the text: ask IsValid().
  bool SetValue(const std::string& field);
};

// Ordered comparisons and LIKE: field, operator, formatted value, as
// SqliteEqual builds them ("a<5", "name LIKE 'x%'"); each SetValue replaces
// the text and refuses an empty field or an invalid value.

/// field<value
class VANTDR_API SqliteLess : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteLess();
  /// SetValue(field, value); check IsValid().
  SqliteLess(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses (false, ERR line) an empty field or an
  /// invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// field<=value
class VANTDR_API SqliteLessEqual : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteLessEqual();
  /// SetValue(field, value); check IsValid().
  SqliteLessEqual(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses (false, ERR line) an empty field or an
  /// invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// field>value
class VANTDR_API SqliteGreater : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteGreater();
  /// SetValue(field, value); check IsValid().
  SqliteGreater(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses (false, ERR line) an empty field or an
  /// invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// field>=value
class VANTDR_API SqliteGreaterEqual : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteGreaterEqual();
  /// SetValue(field, value); check IsValid().
  SqliteGreaterEqual(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses (false, ERR line) an empty field or an
  /// invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

/// field LIKE value. The pattern's % and _ are LIKE's own wildcards (the
/// value is quoted, not escaped for LIKE); SQLite compares ASCII letters
/// case-insensitively.
class VANTDR_API SqliteLike : public SqliteCondition {
 public:
  /// An empty, invalid condition.
  SqliteLike();
  /// SetValue(field, value); check IsValid().
  SqliteLike(const std::string& field, const SqliteValue& value);
  /// Replaces the text; refuses (false, ERR line) an empty field or an
  /// invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

}  // namespace VantDRCore
