/// @file
/// SQL statement builders: one table, one statement.
///
/// GetCommand() returns the whole statement or, when the builder is not
/// complete (IsValid() false), "" with one ERR line per call; it never
/// returns partial SQL. A refused setter returns false and leaves the
/// builder as it was.
///
/// SQL text, inserted verbatim (no quoting): table names and column
/// definitions, field names, conditions, order fields and select fields.
/// Never build any of them from request data or other untrusted text; values
/// are the safe path, always escaped through SqliteValue::ToFormatedValue.
/// As a last guard, SqliteDB runs a builder's text (and its table's creation)
/// only when it is exactly one statement and not ATTACH, DETACH or VACUUM:
/// anything else is refused with 401 and one ERR line, before any SQL runs. Columns of INSERT and UPDATE
/// follow the record's order (ascending field name), not the order of adding.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_value.h"
#include "vantdr/supported_types.h"

namespace VantDRCore {

/// A table name plus the column definitions used by CREATE TABLE (for
/// example "id INTEGER PRIMARY KEY, name TEXT"). No checks: an empty name is
/// what callers test for.
class VANTDR_API SqliteTableHandler {
 public:
  /// Empty name and column definitions.
  SqliteTableHandler();
  /// Stores both texts as given.
  SqliteTableHandler(const std::string& name, const std::string& columnDefinitions);
  /// A copy of both texts.
  SqliteTableHandler(const SqliteTableHandler& other) = default;
  /// Replaces both texts with `other`'s.
  SqliteTableHandler& operator=(const SqliteTableHandler& other) = default;
  /// Destroys the handler; derived handlers are deleted through this base.
  virtual ~SqliteTableHandler();

  /// The table name, inserted verbatim into statements.
  const std::string& GetName() const { return name_; }
  /// The column definitions for CREATE TABLE; "" means no table is needed.
  const std::string& GetColumnDefinitions() const { return columnDefinitions_; }

 private:
  std::string name_;
  std::string columnDefinitions_;
};

/// The base of the four statement builders: a table plus the builder's own
/// parts, turned into one statement by GetCommand().
class VANTDR_API SqliteCommand {
 public:
  /// No table yet: not valid.
  SqliteCommand();
  /// Destroys the builder; builders are deleted through this base too.
  virtual ~SqliteCommand();

  /// The complete statement, or "" (with an ERR line) when not valid.
  virtual std::string GetCommand() const = 0;
  /// Requires a table name plus the builder's own parts.
  virtual bool IsValid() const = 0;
  /// Appends the builder's parameters, for logs.
  virtual void DumpParam(std::stringstream& out) const = 0;

  /// Copies the whole handler; refuses (ERR line) an empty name and keeps
  /// the current table.
  bool SetTable(const SqliteTableHandler& table);
  /// The table set last; an empty handler until then.
  const SqliteTableHandler& GetTable() const { return table_; }

  /// "<table>]" followed by DumpParam, e.g. "job]condition:[]/fields:[all]".
  std::string ToStr() const;

 private:
  SqliteTableHandler table_;
};

/// INSERT [OR REPLACE] INTO t (a,b) VALUES (1,'x');
class VANTDR_API InsertCommand : public SqliteCommand {
 public:
  /// No table, no values, plain INSERT.
  InsertCommand();
  ~InsertCommand() override;  ///< Destroys the builder.

  /// Replaces all field values.
  void SetFieldValues(const SqliteValueList& values);
  /// true: INSERT OR REPLACE.
  void SetReplacable(bool replacable);
  /// Adds or overwrites one field. T: std::string, bool, int, unsigned int,
  /// long. Refuses (ERR line) an empty field name. A `long` outside the
  /// 32-bit ranges (a file size past 4 GiB on amd64) is accepted yet formats
  /// to "", and the statement fails to run: bind it with SqliteStatement.
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value) {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long>,
                  "InsertCommand::AddFieldValue<T> supports T = std::string, bool, int, unsigned "
                  "int, long");
    return AddFieldValue(field, value, CheckedType());
  }

  /// "(a,b) VALUES (1,'x')". A value that formats to "" (a 64-bit integer
  /// outside the 32-bit ranges) leaves a gap: "(a,big) VALUES (3,)".
  std::string ToFormatedInsertValues() const;

  std::string GetCommand() const override;
  /// Valid with a table and at least one field value.
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

  /// The field values set so far.
  const SqliteValueList& GetFieldValues() const { return values_; }
  /// Whether the statement is INSERT OR REPLACE.
  bool IsReplacable() const { return replacable_; }

 private:
  // ToFormatedInsertValues() appended to `out`.
  void AppendInsertValues(std::string& out) const;
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value, CheckedType);

  bool replacable_;
  SqliteValueList values_;
};

/// UPDATE t SET a=1,b='x' WHERE cond   (no terminating ";")
class VANTDR_API UpdateCommand : public SqliteCommand {
 public:
  /// No table, no values, no condition.
  UpdateCommand();
  ~UpdateCommand() override;  ///< Destroys the builder.

  /// Replaces all field values.
  void SetFieldValues(const SqliteValueList& values);
  /// An empty text is refused silently.
  bool SetCondition(const std::string& condition);
  /// Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);
  /// As InsertCommand::AddFieldValue.
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value) {
    static_assert(IsOneOf<T, std::string, bool, int, unsigned int, long>,
                  "UpdateCommand::AddFieldValue<T> supports T = std::string, bool, int, unsigned "
                  "int, long");
    return AddFieldValue(field, value, CheckedType());
  }

  std::string GetCommand() const override;
  /// Valid with a table and at least one field value. The condition is NOT
  /// required: without one the statement changes every row.
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

  /// The field values set so far.
  const SqliteValueList& GetFieldValues() const { return values_; }
  /// The condition text; "" when none is set.
  const std::string& GetCondition() const { return condition_; }

 private:
  template <typename T>
  bool AddFieldValue(const std::string& field, const T& value, CheckedType);

  std::string condition_;
  SqliteValueList values_;
};

/// SELECT a,b FROM t WHERE cond ORDER BY a DESC LIMIT offset, limit
/// (all fields: "SELECT  * FROM t", two spaces; no terminating ";")
class VANTDR_API SelectCommand : public SqliteCommand {
 public:
  /// No table, no fields, DESC order, no limit.
  SelectCommand();
  ~SelectCommand() override;  ///< Destroys the builder.

  /// Selects every field, dropping fields added before.
  void SelectAll();
  /// Appends a field (duplicates kept) and cancels SelectAll. Refuses "".
  bool AddField(const std::string& field);
  /// Appends an ordering field. Refuses "". Without any, no ORDER BY. The
  /// direction is written once, after the last field: "ORDER BY a,b DESC"
  /// sorts `a` ascending (SQLite's default) and only `b` descending.
  bool AddOrderField(const std::string& field);
  /// Orders ascending (the default is DESC).
  void SetOrderByASC();
  /// Orders descending, the default.
  void SetOrderByDESC();
  /// Row count, keeping the offset. Refuses a limit below 1.
  bool SetLimit(int limit);
  /// Offset FIRST, then row count. Refuses a negative offset or a limit
  /// below 1.
  bool SetLimit(int offset, int limit);
  /// Refuses an empty text with the ERR line "Empty condition".
  bool SetCondition(const std::string& condition);
  /// Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);

  std::string GetCommand() const override;
  /// Valid with a table and either SelectAll or at least one field.
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

/// DELETE FROM t WHERE cond;   or, after DeleteAll(), DELETE FROM t;
class VANTDR_API DeleteCommand : public SqliteCommand {
 public:
  /// No table, no condition, DeleteAll not called: not valid.
  DeleteCommand();
  ~DeleteCommand() override;  ///< Destroys the builder.

  /// Allows a statement without condition. A condition set earlier stays
  /// and still restricts the statement.
  void DeleteAll();
  /// Stores the condition and cancels DeleteAll. An empty text is refused
  /// silently.
  bool SetCondition(const std::string& condition);
  /// Refuses (ERR "Invalid condition") a condition that is not valid.
  bool SetCondition(const SqliteCondition& condition);

  std::string GetCommand() const override;
  /// Valid with a table and a condition or DeleteAll: never an unrestricted
  /// DELETE by accident.
  bool IsValid() const override;
  void DumpParam(std::stringstream& out) const override;

 private:
  bool deleteAll_;
  std::string condition_;
};

}  // namespace VantDRCore
