#include "vantdr/sqlite_condition.h"

#include <utility>

#include "vantdr/log.h"

namespace VantDRCore {
namespace {

const char kIn[] = "IN";
const char kNotIn[] = "NOT IN";

void AppendGroup(std::string& text, const std::string& left, const char* keyword,
                 const std::string& right) {
  text += '(';
  text += left;
  text += ") ";
  text += keyword;
  text += " (";
  text += right;
  text += ')';
}

}  // namespace

SqliteCondition::SqliteCondition() = default;
SqliteCondition::SqliteCondition(const std::string& text) : text_(text) {}
SqliteCondition::~SqliteCondition() = default;

bool SqliteCondition::IsValid() const { return !text_.empty(); }

SqliteEqual::SqliteEqual() = default;
SqliteEqual::SqliteEqual(const std::string& field, const SqliteValue& value) {
  SetValue(field, value);
}

bool SqliteEqual::SetValue(const std::string& field, const SqliteValue& value) {
  if (field.empty() || !value.IsValid()) {
    VLOG_ERR("Bad lvalue[%s] or rvalue[%s]", field.c_str(), value.ToFormatedValue().c_str());
    return false;
  }
  text_ = field;
  text_ += '=';
  text_ += value.ToFormatedValue();
  return true;
}

SqliteNotEqual::SqliteNotEqual() = default;
SqliteNotEqual::SqliteNotEqual(const std::string& field, const SqliteValue& value) {
  SetValue(field, value);
}

bool SqliteNotEqual::SetValue(const std::string& field, const SqliteValue& value) {
  if (field.empty() || !value.IsValid()) {
    VLOG_ERR("Bad lvalue[%s] or rvalue[%s]", field.c_str(), value.ToFormatedValue().c_str());
    return false;
  }
  text_ = field;
  text_ += "!=";
  text_ += value.ToFormatedValue();
  return true;
}

SqliteAnd::SqliteAnd() = default;
SqliteAnd::SqliteAnd(const std::string& left, const std::string& right) { SetValue(left, right); }
SqliteAnd::SqliteAnd(const SqliteCondition& left, const SqliteCondition& right) {
  SetValue(left.GetText(), right.GetText());
}

bool SqliteAnd::SetValue(const std::string& left, const std::string& right) {
  if (left.empty() || right.empty()) {
    VLOG_ERR("Bad lvalue[%s] or rvalue[%s]", left.c_str(), right.c_str());
    return false;
  }
  AppendGroup(text_, left, "AND", right);
  return true;
}

SqliteOr::SqliteOr() = default;
SqliteOr::SqliteOr(const std::string& left, const std::string& right) { SetValue(left, right); }
SqliteOr::SqliteOr(const SqliteCondition& left, const SqliteCondition& right) {
  SetValue(left.GetText(), right.GetText());
}

bool SqliteOr::SetValue(const std::string& left, const std::string& right) {
  if (left.empty() || right.empty()) {
    VLOG_ERR("Bad lvalue[%s] or rvalue[%s]", left.c_str(), right.c_str());
    return false;
  }
  AppendGroup(text_, left, "OR", right);
  return true;
}

SqliteInFamily::SqliteInFamily(const std::string& keyword) : keyword_(keyword) {}
SqliteInFamily::SqliteInFamily(const std::string& keyword, const std::string& field,
                               const std::vector<SqliteValue>& values)
    : keyword_(keyword) {
  SetValue(field, values);
}
SqliteInFamily::SqliteInFamily(const std::string& keyword, const std::string& field,
                               const std::string& valueList)
    : keyword_(keyword) {
  SetValue(field, valueList);
}

bool SqliteInFamily::IsValid() const { return keyword_ == kIn || keyword_ == kNotIn; }

bool SqliteInFamily::SetValue(const std::string& field, const std::vector<SqliteValue>& values) {
  if (!IsValid()) {
    VLOG_ERR("Bad keyword [%s]", keyword_.c_str());
    return false;
  }
  if (field.empty()) {
    VLOG_ERR("Bad lvalue[%s]", field.c_str());
    return false;
  }
  std::string text = field;
  text += ' ';
  text += keyword_;
  text += " ( ";
  for (size_t i = 0; i < values.size(); ++i) {
    if (!values[i].IsValid()) {
      // The half-built list is dropped, not the previous text alone.
      text_.clear();
      VLOG_ERR("Invalid rvalue [%s]", values[i].ToFormatedValue().c_str());
      return false;
    }
    if (i > 0) text += ',';
    text += values[i].ToFormatedValue();
  }
  text += " )";
  text_ = std::move(text);
  return true;
}

bool SqliteInFamily::SetValue(const std::string& field, const std::string& valueList) {
  if (!IsValid()) {
    VLOG_ERR("Bad keyword [%s]", keyword_.c_str());
    return false;
  }
  if (field.empty() || valueList.empty()) {
    VLOG_ERR("Bad lvalue[%s] or value[%s]", field.c_str(), valueList.c_str());
    return false;
  }
  text_ = field;
  text_ += ' ';
  text_ += keyword_;
  text_ += " ( ";
  text_ += valueList;
  text_ += " )";
  return true;
}

SqliteIn::SqliteIn() : SqliteInFamily(kIn) {}
SqliteIn::SqliteIn(const std::string& field, const std::vector<SqliteValue>& values)
    : SqliteInFamily(kIn, field, values) {}
SqliteIn::SqliteIn(const std::string& field, const std::string& valueList)
    : SqliteInFamily(kIn, field, valueList) {}

SqliteNotIn::SqliteNotIn() : SqliteInFamily(kNotIn) {}
SqliteNotIn::SqliteNotIn(const std::string& field, const std::vector<SqliteValue>& values)
    : SqliteInFamily(kNotIn, field, values) {}
SqliteNotIn::SqliteNotIn(const std::string& field, const std::string& valueList)
    : SqliteInFamily(kNotIn, field, valueList) {}

SqliteIsNull::SqliteIsNull() = default;
SqliteIsNull::SqliteIsNull(const std::string& field) { SetValue(field); }

bool SqliteIsNull::SetValue(const std::string& field) {
  if (field.empty()) {
    VLOG_ERR("Bad lvalue[%s]", field.c_str());
  } else {
    text_ = field + " IS NULL";
  }
  // Reports false even after building the text; callers ask IsValid().
  return false;
}

// The comparisons share one builder; it is named SetValue because log lines
// carry the function name, and every condition logs from "SetValue".
namespace comparison {

bool SetValue(std::string& text, const std::string& field, const char* op,
              const SqliteValue& value) {
  if (field.empty() || !value.IsValid()) {
    VLOG_ERR("Bad lvalue[%s] or rvalue[%s]", field.c_str(), value.ToFormatedValue().c_str());
    return false;
  }
  text = field;
  text += op;
  value.AppendFormatedValue(text);
  return true;
}

}  // namespace comparison

#define VANTDR_COMPARISON(Class, op)                                                           \
  Class::Class() = default;                                                                    \
  Class::Class(const std::string& field, const SqliteValue& value) { SetValue(field, value); } \
  bool Class::SetValue(const std::string& field, const SqliteValue& value) {                   \
    return comparison::SetValue(text_, field, op, value);                                      \
  }

VANTDR_COMPARISON(SqliteLess, "<")
VANTDR_COMPARISON(SqliteLessEqual, "<=")
VANTDR_COMPARISON(SqliteGreater, ">")
VANTDR_COMPARISON(SqliteGreaterEqual, ">=")
VANTDR_COMPARISON(SqliteLike, " LIKE ")

#undef VANTDR_COMPARISON

}  // namespace VantDRCore
