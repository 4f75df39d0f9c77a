// SQL statement builders: one table, one statement.
//
// GetCommand() returns the whole statement or, when the builder is not
// complete (IsValid() false), "" with one ERR line per call; it never
// returns partial SQL. A refused setter returns false and leaves the
// builder as it was.
//
// Table names, field names and condition texts are inserted verbatim (no
// quoting): never pass untrusted text as any of them. Values are always
// escaped through SqliteValue::ToFormatedValue. Columns of INSERT and UPDATE
// follow the record's order (ascending field name), not the order of adding.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_value.h"
#include "vantdr/supported_types.h"

namespace VantDRCore {

// A table name plus the column definitions used by CREATE TABLE (for
// example "id INTEGER PRIMARY KEY, name TEXT"). No checks: an empty name is
// what callers test for.
class VANTDR_API SqliteTableHandler {
 public:
  SqliteTableHandler();
  SqliteTableHandler(const std::string& name, const std::string& columnDefinitions);
  SqliteTableHandler(const SqliteTableHandler& other) = default;
  SqliteTableHandler& operator=(const SqliteTableHandler& other) = default;
  virtual ~SqliteTableHandler();

  const std::string& GetName() const { return name_; }
  const std::string& GetColumnDefinitions() const { return columnDefinitions_; }

 private:
  std::string name_;
  std::string columnDefinitions_;
};

class VANTDR_API SqliteCommand {
 public:
  SqliteCommand();
  virtual ~SqliteCommand();

  // The complete statement, or "" (with an ERR line) when not valid.
  virtual std::string GetCommand() const = 0;
  // Requires a table name plus the builder's own parts.
  virtual bool IsValid() const = 0;
  // Appends the builder's parameters, for logs.
  virtual void DumpParam(std::stringstream& out) const = 0;

  // Copies the whole handler; refuses (ERR line) an empty name and keeps
  // the current table.
  bool SetTable(const SqliteTableHandler& table);
  const SqliteTableHandler& GetTable() const { return table_; }

  // "<table>]" followed by DumpParam, e.g. "job]condition:[]/fields:[all]".
  std::string ToStr() const;

 private:
  SqliteTableHandler table_;
};

// INSERT [OR REPLACE] INTO t (a,b) VALUES (1,'x');
class VANTDR_API InsertCommand : public SqliteCommand {
 public:
  InsertCommand();
  ~InsertCommand() override;

  // Replaces all field values.
  void SetFieldValues(const SqliteValueList& values);
  // true: INSERT OR REPLACE.
  void SetReplacable(bool replacable);
  // Adds or overwrites one field. T: std::string, bool, int, unsigned int,
  // long. Refuses (ERR line) an empty field name.
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value) {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long>,
                  "InsertCommand::AddFieldValue<T> supports T = std::string, bool, int, unsigned "
                  "int, long");
    return AddFieldValue(field, value, CheckedType());
  }

  // "(a,b) VALUES (1,'x')". A value that formats to "" (a 64-bit integer
  // outside the 32-bit ranges) leaves a gap: "(a,big) VALUES (3,)".
  std::string ToFormatedInsertValues() const;

  // Valid with a table and at least one field value.
  std::string GetCommand() const override;
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

  const SqliteValueList& GetFieldValues() const { return values_; }
  bool IsReplacable() const { return replacable_; }

 private:
  // ToFormatedInsertValues() appended to `out`.
  void AppendInsertValues(std::string& out) const;
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value, CheckedType);

  bool replacable_;
  SqliteValueList values_;
};

// UPDATE t SET a=1,b='x' WHERE cond   (no terminating ";")
class VANTDR_API UpdateCommand : public SqliteCommand {
 public:
  UpdateCommand();
  ~UpdateCommand() override;

  void SetFieldValues(const SqliteValueList& values);
  // An empty text is refused silently.
  bool SetCondition(const std::string& condition);
  // Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);
  // As InsertCommand::AddFieldValue.
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value) {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long>,
                  "UpdateCommand::AddFieldValue<T> supports T = std::string, bool, int, unsigned "
                  "int, long");
    return AddFieldValue(field, value, CheckedType());
  }

  // Valid with a table and at least one field value. The condition is NOT
  // required: without one the statement changes every row.
  std::string GetCommand() const override;
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

  const SqliteValueList& GetFieldValues() const { return values_; }
  const std::string& GetCondition() const { return condition_; }

 private:
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value, CheckedType);

  std::string condition_;
  SqliteValueList values_;
};

// SELECT a,b FROM t WHERE cond ORDER BY a DESC LIMIT offset, limit
// (all fields: "SELECT  * FROM t", two spaces; no terminating ";")
class VANTDR_API SelectCommand : public SqliteCommand {
 public:
  SelectCommand();
  ~SelectCommand() override;

  // Selects every field, dropping fields added before.
  void SelectAll();
  // Appends a field (duplicates kept) and cancels SelectAll. Refuses "".
  bool AddField(const std::string& field);
  // Appends an ordering field. Refuses "". Without any, no ORDER BY.
  bool AddOrderField(const std::string& field);
  // The ordering direction; DESC by default.
  void SetOrderByASC();
  void SetOrderByDESC();
  // Row count, keeping the offset. Refuses a limit below 1.
  bool SetLimit(int limit);
  // Offset FIRST, then row count. Refuses a negative offset or a limit
  // below 1.
  bool SetLimit(int offset, int limit);
  // Refuses an empty text with the ERR line "Empty condition".
  bool SetCondition(const std::string& condition);
  // Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);

  // Valid with a table and either SelectAll or at least one field.
  std::string GetCommand() const override;
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

 private:
  bool selectAll_;
  bool ascending_;
  int offset_;
  int limit_;
  std::vector<std::string> fields_;
  std::vector<std::string> orderFields_;
  std::string condition_;
};

// DELETE FROM t WHERE cond;   or, after DeleteAll(), DELETE FROM t;
class VANTDR_API DeleteCommand : public SqliteCommand {
 public:
  DeleteCommand();
  ~DeleteCommand() override;

  // Allows a statement without condition. A condition set earlier stays
  // and still restricts the statement.
  void DeleteAll();
  // Stores the condition and cancels DeleteAll. An empty text is refused
  // silently.
  bool SetCondition(const std::string& condition);
  // Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);

  // Valid with a table and a condition or DeleteAll: never an unrestricted
  // DELETE by accident.
  std::string GetCommand() const override;
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

 private:
  bool deleteAll_;
  std::string condition_;
};

}  // namespace VantDRCore
