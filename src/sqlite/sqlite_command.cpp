#include "vantdr/sqlite_command.h"

#include <sstream>

#include "vantdr/log.h"

namespace VantDRCore {
namespace {

// Joins as Container::ToString does (a separator only once the joined text
// is non-empty), appending in place instead of building a vector first.
void AppendJoined(std::string& out, const std::vector<std::string>& items, const char* separator) {
  const size_t start = out.size();
  for (const std::string& item : items) {
    if (out.size() > start) out += separator;
    out += item;
  }
}

// name=value,name=value in field order.
void AppendAssignments(std::string& out, const SqliteValueList& values) {
  bool first = true;
  for (const auto& entry : values.GetValues()) {
    if (!first) out += ',';
    first = false;
    out += entry.first;
    out += '=';
    entry.second.AppendFormatedValue(out);
  }
}

void AppendWhere(std::string& out, const std::string& condition) {
  if (condition.empty()) return;
  out += " WHERE ";
  out += condition;
}

}  // namespace

// --- SqliteTableHandler, SqliteCommand ---------------------------------------

SqliteTableHandler::SqliteTableHandler() = default;
SqliteTableHandler::SqliteTableHandler(const std::string& name,
                                       const std::string& columnDefinitions)
    : name_(name), columnDefinitions_(columnDefinitions) {}
SqliteTableHandler::~SqliteTableHandler() = default;

SqliteCommand::SqliteCommand() = default;
SqliteCommand::~SqliteCommand() = default;

bool SqliteCommand::SetTable(const SqliteTableHandler& table) {
  if (table.GetName().empty()) {
    VLOG_ERR("Invalid table [%s]", table.GetName().c_str());
    return false;
  }
  table_ = table;
  return true;
}

std::string SqliteCommand::ToStr() const {
  std::stringstream out;
  out << table_.GetName() << "]";
  DumpParam(out);
  return out.str();
}

// --- InsertCommand -------------------------------------------------------------

InsertCommand::InsertCommand() : replacable_(false) {}
InsertCommand::~InsertCommand() = default;

void InsertCommand::SetFieldValues(const SqliteValueList& values) { values_ = values; }

void InsertCommand::SetReplacable(bool replacable) { replacable_ = replacable; }

template <typename T>
bool InsertCommand::AddFieldValue(const std::string& field, const T& value, CheckedType) {
  const SqliteValue item(value);
  if (!field.empty() && item.IsValid()) return values_.AddValue(field, item);
  VLOG_ERR("Bad Field [%s] /value[%s]", field.c_str(), item.ToFormatedValue().c_str());
  return false;
}

template bool InsertCommand::AddFieldValue<std::string>(const std::string&, const std::string&,
                                                        CheckedType);
template bool InsertCommand::AddFieldValue<bool>(const std::string&, const bool&, CheckedType);
template bool InsertCommand::AddFieldValue<int>(const std::string&, const int&, CheckedType);
template bool InsertCommand::AddFieldValue<unsigned int>(const std::string&, const unsigned int&,
                                                         CheckedType);
template bool InsertCommand::AddFieldValue<long>(const std::string&, const long&, CheckedType);

std::string InsertCommand::ToFormatedInsertValues() const {
  std::string out;
  AppendInsertValues(out);
  return out;
}

void InsertCommand::AppendInsertValues(std::string& out) const {
  const auto& values = values_.GetValues();
  out += '(';
  size_t start = out.size();
  for (const auto& entry : values) {
    if (out.size() > start) out += ',';
    out += entry.first;
  }
  out += ") VALUES (";
  // A value formatting to "" adds no separator of its own, so the list can
  // end in "," or lose a comma; the joining rule is kept as it is.
  start = out.size();
  for (const auto& entry : values) {
    if (out.size() > start) out += ',';
    entry.second.AppendFormatedValue(out);
  }
  out += ')';
}

std::string InsertCommand::GetCommand() const {
  if (!IsValid()) {
    VLOG_ERR("Bad insert parameter");
    return std::string();
  }
  std::string out;
  out.reserve(64 + 32 * values_.Size());  // one allocation for a typical record
  out += replacable_ ? "INSERT OR REPLACE INTO " : "INSERT INTO ";
  out += GetTable().GetName();
  out += ' ';
  AppendInsertValues(out);
  out += ';';
  return out;
}

bool InsertCommand::IsValid() const { return !GetTable().GetName().empty() && !values_.Empty(); }

void InsertCommand::DumpParam(std::stringstream& out) const {
  std::string text = "values:[";
  AppendAssignments(text, values_);
  text += ']';
  out << text;
}

// --- UpdateCommand -------------------------------------------------------------

UpdateCommand::UpdateCommand() = default;
UpdateCommand::~UpdateCommand() = default;

void UpdateCommand::SetFieldValues(const SqliteValueList& values) { values_ = values; }

bool UpdateCommand::SetCondition(const std::string& condition) {
  if (condition.empty()) return false;
  condition_ = condition;
  return true;
}

bool UpdateCommand::SetCondition(const SqliteCondition& condition) {
  if (!condition.IsValid()) {
    VLOG_ERR("Invalid condition");
    return false;
  }
  return SetCondition(condition.GetText());
}

template <typename T>
bool UpdateCommand::AddFieldValue(const std::string& field, const T& value, CheckedType) {
  const SqliteValue item(value);
  if (!field.empty() && item.IsValid()) return values_.AddValue(field, item);
  VLOG_ERR("Bad Field [%s] /value[%s]", field.c_str(), item.ToFormatedValue().c_str());
  return false;
}

template bool UpdateCommand::AddFieldValue<std::string>(const std::string&, const std::string&,
                                                        CheckedType);
template bool UpdateCommand::AddFieldValue<bool>(const std::string&, const bool&, CheckedType);
template bool UpdateCommand::AddFieldValue<int>(const std::string&, const int&, CheckedType);
template bool UpdateCommand::AddFieldValue<unsigned int>(const std::string&, const unsigned int&,
                                                         CheckedType);
template bool UpdateCommand::AddFieldValue<long>(const std::string&, const long&, CheckedType);

std::string UpdateCommand::GetCommand() const {
  if (!IsValid()) {
    VLOG_ERR("Bad update command");
    return std::string();
  }
  std::string out;
  out.reserve(64 + 32 * values_.Size() + condition_.size());
  out += "UPDATE ";
  out += GetTable().GetName();
  out += " SET ";
  AppendAssignments(out, values_);
  AppendWhere(out, condition_);
  return out;
}

bool UpdateCommand::IsValid() const { return !GetTable().GetName().empty() && !values_.Empty(); }

void UpdateCommand::DumpParam(std::stringstream& out) const {
  std::string text = "condition:[";
  text += condition_;
  text += "]/values:[";
  AppendAssignments(text, values_);
  text += ']';
  out << text;
}

// --- SelectCommand -------------------------------------------------------------

SelectCommand::SelectCommand() : selectAll_(false), ascending_(false), offset_(0), limit_(-1) {}
SelectCommand::~SelectCommand() = default;

void SelectCommand::SelectAll() {
  fields_.clear();
  selectAll_ = true;
}

bool SelectCommand::AddField(const std::string& field) {
  if (field.empty()) return false;
  fields_.push_back(field);
  selectAll_ = false;
  return true;
}

bool SelectCommand::AddOrderField(const std::string& field) {
  if (field.empty()) return false;
  orderFields_.push_back(field);
  return true;
}

void SelectCommand::SetOrderByASC() { ascending_ = true; }
void SelectCommand::SetOrderByDESC() { ascending_ = false; }

bool SelectCommand::SetLimit(int limit) {
  if (limit < 1) return false;
  limit_ = limit;
  return true;
}

bool SelectCommand::SetLimit(int offset, int limit) {
  if (limit < 1 || offset < 0) return false;
  offset_ = offset;
  limit_ = limit;
  return true;
}

bool SelectCommand::SetCondition(const std::string& condition) {
  if (condition.empty()) {
    VLOG_ERR("Empty condition");
    return false;
  }
  condition_ = condition;
  return true;
}

bool SelectCommand::SetCondition(const SqliteCondition& condition) {
  if (!condition.IsValid()) {
    VLOG_ERR("Invalid condition");
    return false;
  }
  return SetCondition(condition.GetText());
}

std::string SelectCommand::GetCommand() const {
  if (!IsValid()) {
    VLOG_ERR("Bad select command");
    return std::string();
  }
  std::string out;
  out.reserve(64 + condition_.size());
  out += "SELECT ";
  if (!fields_.empty()) {
    AppendJoined(out, fields_, ",");
    out += ' ';
  } else {
    out += " * ";  // after "SELECT ": two spaces before the asterisk
  }
  out += "FROM ";
  out += GetTable().GetName();
  AppendWhere(out, condition_);
  if (!orderFields_.empty()) {
    out += " ORDER BY ";
    AppendJoined(out, orderFields_, ",");
    out += ascending_ ? " ASC" : " DESC";
  }
  if (limit_ > 0) {
    // SQLite's "LIMIT offset, count" form: the offset comes first.
    out += " LIMIT ";
    out += std::to_string(offset_);
    out += ", ";
    out += std::to_string(limit_);
  }
  return out;
}

bool SelectCommand::IsValid() const {
  return !GetTable().GetName().empty() && (selectAll_ || !fields_.empty());
}

void SelectCommand::DumpParam(std::stringstream& out) const {
  std::string text = "condition:[";
  text += condition_;
  text += "]/fields:[";
  if (selectAll_) {
    text += "all";
  } else {
    AppendJoined(text, fields_, ", ");
  }
  text += ']';
  out << text;
}

// --- DeleteCommand -------------------------------------------------------------

DeleteCommand::DeleteCommand() : deleteAll_(false) {}
DeleteCommand::~DeleteCommand() = default;

void DeleteCommand::DeleteAll() { deleteAll_ = true; }

bool DeleteCommand::SetCondition(const std::string& condition) {
  if (condition.empty()) return false;
  condition_ = condition;
  deleteAll_ = false;
  return true;
}

bool DeleteCommand::SetCondition(const SqliteCondition& condition) {
  if (!condition.IsValid()) {
    VLOG_ERR("Invalid condition");
    return false;
  }
  return SetCondition(condition.GetText());
}

std::string DeleteCommand::GetCommand() const {
  if (!IsValid()) {
    VLOG_ERR("Bad delete command");
    return std::string();
  }
  std::string out = "DELETE FROM ";
  out += GetTable().GetName();
  AppendWhere(out, condition_);
  out += ';';
  return out;
}

bool DeleteCommand::IsValid() const {
  return !GetTable().GetName().empty() && (deleteAll_ || !condition_.empty());
}

void DeleteCommand::DumpParam(std::stringstream& out) const {
  std::string text = "condition:[";
  if (!condition_.empty()) {
    text += condition_;
  } else if (deleteAll_) {
    text += "all";
  }
  text += ']';
  out << text;
}

}  // namespace VantDRCore
