/// @file
/// One prepared statement on a SqliteDB: values of every SQLite type bound
/// as parameters, rows streamed one at a time.
///
/// @code
///   VantDRCore::SqliteStatement insert(db, "INSERT INTO file (path, size) VALUES (?, ?)");
///   insert.Bind(1, path);
///   insert.Bind(2, int64_t{5000000000});
///   if (!insert.Exec()) return false;   // db.GetErr() tells why
/// @endcode
///
/// Failures go to the database's error record (GetErr()) with its codes: 401
/// for a bad text, index, name or value; 404 for a SQLite failure; 405 when
/// the database stayed busy or locked; each with one ERR line. Contention is
/// retried as SqliteDB::Exec does. Nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vantdr/export.h"
#include "vantdr/sqlite_db.h"

struct sqlite3_stmt;

namespace VantDRCore {

class SqliteStatement;

/// SQLite's five storage classes, as GetType reports them.
enum SqliteType : int {
  kSqliteInteger = 1,  ///< 64-bit signed integer
  kSqliteFloat = 2,    ///< 64-bit IEEE floating point
  kSqliteText = 3,     ///< text, UTF-8 bytes
  kSqliteBlob = 4,     ///< bytes
  kSqliteNull = 5,     ///< NULL
};

/// The row a statement stands on, valid only inside the ForEachRow callback.
/// Columns are counted from 0. A wrong index or name gives the default value
/// (0, 0.0, "", kSqliteNull for GetType, false for IsNull) and one ERR line.
/// Values convert as SQLite converts them (GetInt64 of a text reads its
/// number); text and blobs come whole, NUL bytes included.
class VANTDR_API SqliteRow {
 public:
  /// Columns of the row.
  int GetColumnCount() const;
  /// The column's name as the query gives it ("count(*)" unless aliased).
  std::string GetColumnName(int index) const;
  /// The storage class of the value (SqliteType).
  int GetType(int index) const;
  /// GetType of the first column named `name`.
  int GetType(const std::string& name) const;
  /// Whether the value is NULL; false for a wrong index.
  bool IsNull(int index) const;
  /// IsNull of the first column named `name`.
  bool IsNull(const std::string& name) const;
  /// The value as a 64-bit integer.
  int64_t GetInt64(int index) const;
  /// GetInt64 of the first column named `name`.
  int64_t GetInt64(const std::string& name) const;
  /// The value as a double.
  double GetDouble(int index) const;
  /// GetDouble of the first column named `name`.
  double GetDouble(const std::string& name) const;
  /// The value as text, every byte; "" for NULL.
  std::string GetText(int index) const;
  /// GetText of the first column named `name`.
  std::string GetText(const std::string& name) const;
  /// The value's bytes; "" for NULL and the empty blob.
  std::string GetBlob(int index) const;
  /// GetBlob of the first column named `name`.
  std::string GetBlob(const std::string& name) const;

 private:
  friend class SqliteStatement;
  explicit SqliteRow(const SqliteStatement& statement) : statement_(statement) {}
  // The column at `index`, or -1 (logged) when there is none.
  int Column(int index, const char* caller) const;
  int Column(const std::string& name, const char* caller) const;
  sqlite3_stmt* Stmt() const;

  const SqliteStatement& statement_;
};

/// A statement prepared once and run many times. The SqliteDB must outlive
/// it. Not copyable. Bindings stay until replaced, across runs and across a
/// Close() of the database (the statement is prepared again and rebound).
class VANTDR_API SqliteStatement {
 public:
  /// Prepares nothing yet: the first Bind or run opens the database (creating
  /// the file, as Exec does) and prepares `sql`. Text holding more than one
  /// statement, or none, is refused there (401).
  SqliteStatement(SqliteDB& db, const std::string& sql);
  /// Finalizes the prepared statement.
  ~SqliteStatement();

  /// Not copyable: the object owns its prepared statement.
  SqliteStatement(const SqliteStatement&) = delete;
  /// Not assignable, for the same reason.
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  // Parameters are numbered from 1 (?, ?NNN) or named (":a", "@a", "$a", the
  // prefix included). A wrong index or name: false, 401, one ERR line.
  // Integers are stored as SQLite's 64-bit INTEGER whatever their C++ type
  // (so the 64-bit values the builders format to "" fit here); an unsigned
  // value above INT64_MAX is refused (401). Binding while the statement
  // runs (from a ForEachRow callback) is refused (401).

  /// An INTEGER (booleans bind 0 or 1 through this overload).
  bool Bind(int index, int value);
  /// An INTEGER.
  bool Bind(int index, unsigned int value);
  /// An INTEGER.
  bool Bind(int index, long value);
  /// An INTEGER; refused above INT64_MAX.
  bool Bind(int index, unsigned long value);
  /// An INTEGER (int64_t is this or `long`).
  bool Bind(int index, long long value);
  /// An INTEGER; refused above INT64_MAX.
  bool Bind(int index, unsigned long long value);
  /// A REAL; NaN is stored as NULL, as SQLite does.
  bool Bind(int index, double value);
  /// Text, bytes kept whole (NUL included).
  bool Bind(int index, const std::string& value);
  /// Text up to its NUL; a null pointer binds NULL.
  bool Bind(int index, const char* value);
  /// A BLOB of `size` bytes; (nullptr, 0) is the empty blob.
  bool BindBlob(int index, const void* data, size_t size);
  /// NULL.
  bool BindNull(int index);

  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, int value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, unsigned int value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, long value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, unsigned long value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, long long value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, unsigned long long value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, double value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, const std::string& value);
  /// Bind(index, value) for the parameter named `name`.
  bool Bind(const std::string& name, const char* value);
  /// BindBlob(index, data, size) for the parameter named `name`.
  bool BindBlob(const std::string& name, const void* data, size_t size);
  /// BindNull(index) for the parameter named `name`.
  bool BindNull(const std::string& name);

  /// Runs the statement to its end (rows ignored) under the database's retry
  /// policy, log lines and error record, as SqliteDB::Exec(sql). The
  /// statement is then reset with its bindings kept, ready to run again.
  bool Exec();

  /// Hands each row to `onRow` until it returns false (a success, too).
  /// Contention before the first row is retried as in Exec; once a row has
  /// been handed out a failure ends the call (405 for contention), so no row
  /// is ever handed out twice. A callback that throws ends the call: false,
  /// 407, one ERR line.
  bool ForEachRow(const std::function<bool(const SqliteRow&)>& onRow);

  /// The SQL text given to the constructor.
  const std::string& GetSql() const { return sql_; }

 private:
  friend class SqliteDB;
  friend class SqliteRow;
  struct Value {
    int type = 0;  // 0: never bound
    int64_t integer = 0;
    double real = 0;
    std::string bytes;
  };
  // `allowTail`: the text may go on after the first statement, which alone
  // runs (the builders' SELECT texts, as SqliteDB runs them).
  SqliteStatement(SqliteDB& db, const std::string& sql, bool allowTail);

  // Opens the database and prepares the text. SQLITE_OK; or a raw SQLite
  // code left in the record; or -1 when refused (converted and logged).
  int Prepare();
  // Prepared (and `index` a parameter); false when refused, logged.
  bool Ready(const char* caller);
  bool Ready(int index, const char* caller);
  // Stores and binds a value of SQLite type `type`.
  bool Put(int index, int type, int64_t integer, double real, const void* bytes, size_t size,
           const char* caller);
  bool Refused(int index, const char* caller);  // converts, logs, unbinds
  bool PutInteger(int index, long long value, const char* caller);
  bool PutUnsigned(int index, unsigned long long value, const char* caller);
  int Apply(int index);  // binds the stored value at `index`, 1-based
  int IndexOf(const std::string& name, const char* caller);  // 0 when refused
  // One attempt: SQLITE_OK with the record at 0, -1 when refused, or the
  // raw SQLite failure left in the record. `handedOut`: a row reached the
  // caller.
  int Attempt(const std::function<bool(const SqliteRow&)>& onRow, bool& handedOut);
  // The attempts under the retry policy; `caller` names the log lines.
  bool Run(const std::function<bool(const SqliteRow&)>& onRow, const char* caller);
  void Finalize();  // the connection closes: prepare again on next use

  SqliteDB& db_;
  std::string sql_;
  bool allowTail_ = false;
  bool running_ = false;
  sqlite3_stmt* stmt_ = nullptr;
  std::vector<Value> values_;  // by parameter index - 1
};

}  // namespace VantDRCore
