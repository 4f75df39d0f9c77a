// WHERE-clause conditions for the statement builders.
//
// Each object holds one finished condition text, which UpdateCommand,
// SelectCommand and DeleteCommand copy through SetCondition. Right-hand
// values are rendered by SqliteValue::ToFormatedValue (quoted and escaped);
// field names and the texts given to SqliteCondition, SqliteAnd, SqliteOr
// and the string form of the IN family are inserted verbatim: never build
// them from untrusted input.
//
// A failed SetValue logs one ERR line and returns false; constructors call
// SetValue and ignore its result, so check IsValid() before use.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/sqlite_value.h"

namespace VantDRCore {

class VANTDR_API SqliteCondition {
 public:
  SqliteCondition();
  // Takes a finished condition text as it is.
  SqliteCondition(const std::string& text);
  virtual ~SqliteCondition();

  // True when the text is not empty.
  virtual bool IsValid() const;

  const std::string& GetText() const { return text_; }

 protected:
  std::string text_;
};

// field=value
class VANTDR_API SqliteEqual : public SqliteCondition {
 public:
  SqliteEqual();
  SqliteEqual(const std::string& field, const SqliteValue& value);
  // Replaces the text; refuses an empty field or an invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// field!=value
class VANTDR_API SqliteNotEqual : public SqliteCondition {
 public:
  SqliteNotEqual();
  SqliteNotEqual(const std::string& field, const SqliteValue& value);
  // Replaces the text; refuses an empty field or an invalid value.
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// (left) AND (right)
class VANTDR_API SqliteAnd : public SqliteCondition {
 public:
  SqliteAnd();
  SqliteAnd(const std::string& left, const std::string& right);
  // Uses the two texts without checking the conditions' validity.
  SqliteAnd(const SqliteCondition& left, const SqliteCondition& right);
  // APPENDS a group to the current text: a second successful call yields
  // "(a) AND (b)(c) AND (d)". Refuses an empty side.
  bool SetValue(const std::string& left, const std::string& right);
};

// (left) OR (right)
class VANTDR_API SqliteOr : public SqliteCondition {
 public:
  SqliteOr();
  SqliteOr(const std::string& left, const std::string& right);
  // Uses the two texts without checking the conditions' validity.
  SqliteOr(const SqliteCondition& left, const SqliteCondition& right);
  // APPENDS a group to the current text, as SqliteAnd::SetValue does.
  bool SetValue(const std::string& left, const std::string& right);
};

// field IN ( items ) and field NOT IN ( items ).
class VANTDR_API SqliteInFamily : public SqliteCondition {
 public:
  explicit SqliteInFamily(const std::string& keyword);
  SqliteInFamily(const std::string& keyword, const std::string& field,
                 const std::vector<SqliteValue>& values);
  SqliteInFamily(const std::string& keyword, const std::string& field,
                 const std::string& valueList);

  // True when the keyword is exactly "IN" or "NOT IN", whatever the text:
  // an object on which SetValue never succeeded still reports true.
  bool IsValid() const override;

  // Replaces the text with the formatted values joined by ","; an empty
  // vector gives "field IN (  )". An invalid value empties the text.
  bool SetValue(const std::string& field, const std::vector<SqliteValue>& values);
  // Replaces the text, taking `valueList` as already formatted SQL.
  bool SetValue(const std::string& field, const std::string& valueList);
  // Lets SetValue("id", {1, 2}) pick the value form over the string one.
  bool SetValue(const std::string& field, std::initializer_list<SqliteValue> values) {
    return SetValue(field, std::vector<SqliteValue>(values));
  }

 private:
  std::string keyword_;
};

class VANTDR_API SqliteIn : public SqliteInFamily {
 public:
  SqliteIn();
  SqliteIn(const std::string& field, const std::vector<SqliteValue>& values);
  SqliteIn(const std::string& field, const std::string& valueList);
  // SqliteIn("id", {1, 2, 3}): braces alone would also fit std::string.
  SqliteIn(const std::string& field, std::initializer_list<SqliteValue> values)
      : SqliteIn(field, std::vector<SqliteValue>(values)) {}
};

class VANTDR_API SqliteNotIn : public SqliteInFamily {
 public:
  SqliteNotIn();
  SqliteNotIn(const std::string& field, const std::vector<SqliteValue>& values);
  SqliteNotIn(const std::string& field, const std::string& valueList);
  // SqliteNotIn("id", {1, 2, 3}): braces alone would also fit std::string.
  SqliteNotIn(const std::string& field, std::initializer_list<SqliteValue> values)
      : SqliteNotIn(field, std::vector<SqliteValue>(values)) {}
};

// field IS NULL
class VANTDR_API SqliteIsNull : public SqliteCondition {
 public:
  SqliteIsNull();
  explicit SqliteIsNull(const std::string& field);
  // ALWAYS returns false, even when it built the text: ask IsValid().
  bool SetValue(const std::string& field);
};

// Ordered comparisons and LIKE: field, operator, formatted value, as
// SqliteEqual builds them ("a<5", "name LIKE 'x%'"); each SetValue replaces
// the text and refuses an empty field or an invalid value.

// field<value
class VANTDR_API SqliteLess : public SqliteCondition {
 public:
  SqliteLess();
  SqliteLess(const std::string& field, const SqliteValue& value);
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// field<=value
class VANTDR_API SqliteLessEqual : public SqliteCondition {
 public:
  SqliteLessEqual();
  SqliteLessEqual(const std::string& field, const SqliteValue& value);
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// field>value
class VANTDR_API SqliteGreater : public SqliteCondition {
 public:
  SqliteGreater();
  SqliteGreater(const std::string& field, const SqliteValue& value);
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// field>=value
class VANTDR_API SqliteGreaterEqual : public SqliteCondition {
 public:
  SqliteGreaterEqual();
  SqliteGreaterEqual(const std::string& field, const SqliteValue& value);
  bool SetValue(const std::string& field, const SqliteValue& value);
};

// field LIKE value. The pattern's % and _ are LIKE's own wildcards (the
// value is quoted, not escaped for LIKE); SQLite compares ASCII letters
// case-insensitively.
class VANTDR_API SqliteLike : public SqliteCondition {
 public:
  SqliteLike();
  SqliteLike(const std::string& field, const SqliteValue& value);
  bool SetValue(const std::string& field, const SqliteValue& value);
};

}  // namespace VantDRCore
