/// @file
/// One SQLite database file: a lazily opened connection, statements run with
/// a bounded retry on lock contention, rows returned as records, and the
/// table and record operations that run the statement builders.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vantdr/error.h"
#include "vantdr/export.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace VantDRCore {

class SqliteStatement;
class SqliteTransaction;

/// Every operation reports through its bool result and the error record
/// (GetErr()): 0 after success; 401 bad parameter; 403 no connection; 404 a
/// database failure; 405 the database stayed busy or locked. SQLite failures
/// carry {"sqlite_errcode": code, "sqlite_errmsg": text} as the message.
///
/// Contention with other connections is absorbed by a 1000 ms busy time-out
/// plus up to `retryLimit` further attempts, 1-2 s apart, for SQLITE_BUSY and
/// SQLITE_LOCKED only. One thread at a time per object.
///
/// Rows come back with INTEGER and TEXT columns only: NULL, REAL and BLOB
/// columns are left out of the record (with a WARN line). TEXT ends at its
/// first NUL byte, so any record read can be written back. SqliteStatement
/// binds and reads every type.
///
/// A missing database file is created by Open, Exec, SelectByCommand,
/// CreateTable, GetCount, IsTableExisted, InsertRecord, UpdateRecord, a
/// non-empty batch, SqliteTransaction::Begin and a SqliteStatement's first
/// use. SelectRecord(s) and ForEachRecord refuse
/// it (false, error record untouched); DeleteRecord(s) succeed without
/// creating it.
class VANTDR_API SqliteDB : public ErrRecorder {
 public:
  /// Opens nothing: the file is opened (and created) by the first operation
  /// that needs it. `logTag` prefixes the INFO lines of Exec(command).
  SqliteDB(const std::string& path, unsigned int retryLimit, const std::string& logTag);
  /// Closes the connection.
  virtual ~SqliteDB();

  /// Not copyable: the object owns its connection.
  SqliteDB(const SqliteDB&) = delete;
  /// Not assignable: the object owns its connection.
  SqliteDB& operator=(const SqliteDB&) = delete;

  /// Opens (creating the file if needed) unless open; true when the
  /// connection is open. Touches the error record only when a connection
  /// setup statement fails (see SetConnectionSetup).
  bool Open();
  /// Closes the connection, if open; the next operation opens it again.
  void Close();

  /// Whether the database file exists, links followed (a dangling link is no
  /// database); opening creates it, so the read and delete operations ask
  /// this first.
  bool IsExisted() const;

  /// Runs statements that return no rows, as many as `sql` holds: it is the
  /// caller's own SQL text. Gives up after the first failure that is neither
  /// SQLITE_BUSY nor SQLITE_LOCKED.
  bool Exec(const std::string& sql);

  /// Replaces `record` with the first row; a query without rows succeeds and
  /// leaves `record` as it was. Text without a statement (blanks, ";", only a
  /// comment) fails: 404 with SQLite's misuse code 21, where Exec succeeds.
  bool SelectByCommand(const std::string& sql, SqliteValueList& record);
  /// Appends every row. The vector is never cleared, not even between retries:
  /// pass an empty one.
  bool SelectByCommand(const std::string& sql, std::vector<SqliteValueList>& records);

  // --- table and record operations -----------------------------------------

  /// Row count of `table`; false when the table is missing or cannot be read.
  bool GetCount(const SqliteTableHandler& table, int& count);
  /// A failed look-up counts as missing.
  bool IsTableExisted(const std::string& tableName);
  /// Creates the table from its column definitions unless it exists. A handler
  /// without column definitions needs no table: true, nothing sent. A name or
  /// definitions that make more than one statement are refused (401).
  bool CreateTable(const SqliteTableHandler& table);

  /// Runs a valid builder after creating its table if missing. GetCommand()
  /// is asked twice: for the INFO line, then for the text that runs. Writes
  /// two INFO lines on success ("<tag> Exec cmd: <sql>", "<tag> Exec cmd
  /// success"), one on failure. Like every record operation and batch, it
  /// refuses (401, one ERR line, nothing run) a text, or table creation, that
  /// is not exactly one statement, or is ATTACH, DETACH or VACUUM.
  bool Exec(const SqliteCommand& command);
  /// Exec(command) for an INSERT.
  bool InsertRecord(const InsertCommand& command);
  /// Exec(command) for an UPDATE.
  bool UpdateRecord(const UpdateCommand& command);
  /// Deleting from a database file that does not exist succeeds and creates
  /// nothing.
  bool DeleteRecord(const DeleteCommand& command);
  /// Deletes the rows matching `condition`; an empty condition is refused
  /// (401), never read as "all rows".
  bool DeleteRecord(const std::string& condition, const SqliteTableHandler& table);
  /// Deletes every row of `table`.
  bool DeleteAllRecords(const SqliteTableHandler& table);

  /// Reading from a database file that does not exist fails, creates nothing
  /// and leaves the error record as it was.
  bool SelectRecord(const SelectCommand& command, SqliteValueList& record);
  /// Appends to `records` without clearing it.
  bool SelectRecords(const SelectCommand& command, std::vector<SqliteValueList>& records);

  // --- batches and counts ---------------------------------------------------

  /// Runs every command in one transaction: all rows or none, with one INFO
  /// line for the batch. Every command is checked first (an invalid one: 401,
  /// nothing written), each distinct table is created once if missing, and a
  /// BUSY or LOCKED anywhere rolls the whole transaction back and retries it
  /// from BEGIN under the retry limit and pauses of Exec. The rows written are
  /// exactly those the same commands run one by one would write. On a
  /// connection already inside a transaction (a SqliteTransaction, or BEGIN
  /// run by the caller) the batch joins it, all or nothing within it, and
  /// leaves retrying to the owner of that transaction.
  bool InsertRecords(const std::vector<InsertCommand>& commands);
  /// As InsertRecords, for UPDATE commands.
  bool UpdateRecords(const std::vector<UpdateCommand>& commands);

  /// Rows of `table` matching `condition`. A condition without text is
  /// refused (401): counting every row is GetCount(table, count).
  bool GetCount(const SqliteTableHandler& table, const SqliteCondition& condition, int& count);

  /// The rowid of the last row inserted through the current connection; 0
  /// when there is none (or the connection is closed).
  int64_t GetLastInsertRowId() const;

  // --- backups, integrity, schema versions, connection settings ----------

  /// A consistent copy of the whole database at `destPath`, taken in one
  /// read transaction while other connections go on reading and writing
  /// (their commits wait at most one copy's time; a busy source is retried
  /// as in Exec). The copy is written in a private directory with an
  /// unpredictable name beside `destPath`, synced, must pass a quick check,
  /// and then replaces `destPath` atomically. On any failure the previous
  /// backup is intact and nothing is left beside it, except that a failed
  /// sync of the directory after the swap (404) leaves the new, checked
  /// backup in place. What a killed backup left is removed by the next one in
  /// that directory. Refused (401): a path without a file name, a missing
  /// directory or one the caller cannot create in, a destination that is a
  /// link, not a regular file, another user's file or the database itself,
  /// or that changed during the backup; a connection inside a transaction.
  /// SQLite failures: 404/405. A new backup gets the database file's
  /// permission bits; a replaced one keeps its mode and group. A copy of a
  /// WAL database is written in rollback mode.
  bool Backup(const std::string& destPath);

  /// PRAGMA quick_check (or integrity_check): true only when it answers
  /// "ok"; otherwise 404 with the first problem as the message.
  bool CheckIntegrity(bool quick = true);

  /// PRAGMA user_version, 0 for a new database.
  bool GetSchemaVersion(int& version);
  /// Brings the schema to version steps.size(): step i (1-based) takes
  /// version i-1 to i. The missing steps and the new version are written in
  /// one BEGIN IMMEDIATE transaction, retried as Exec when busy, so
  /// processes migrating at once run each step exactly once. A failing step
  /// undoes all of them (404, its number in the ERR line); a database newer
  /// than the steps is refused (401), never downgraded.
  bool Migrate(const std::vector<std::string>& steps);

  /// Statements run in order on every open of the connection, reopens
  /// included (PRAGMA journal_mode=WAL, synchronous, foreign_keys). A failing
  /// one fails the open: the operation that needed it fails with 404, the
  /// statement named in the ERR line. An open connection outside a
  /// transaction is closed so that the next operation applies them.
  void SetConnectionSetup(const std::vector<std::string>& statements);

 private:
  // Runs the setup statements on a fresh connection; false with the record
  // set (404/405) and one ERR line.
  bool RunConnectionSetup();
  // Rolls back a transaction of Migrate, keeping the record.
  void RollBackMigration();
  std::vector<std::string> setup_;

 public:
  // --- single attempts and error recording ---------------------------------

  // One try each; a failure leaves the raw SQLite code and message in the
  // record (Exec and SelectByCommand then convert it). Without a connection:
  // 21 with SQLite's message for a null handle.

  /// One try of Exec(sql); a failure leaves the raw SQLite code and message
  /// (21 without a connection).
  bool DoExecSqliteCommand(const std::string& sql);
  /// One try of SelectByCommand(sql, record); a failure leaves the raw SQLite
  /// code and message (21 without a connection).
  bool DoSelectSqliteRecord(const std::string& sql, SqliteValueList& record);
  /// One try of SelectByCommand(sql, records); a failure leaves the raw
  /// SQLite code and message (21 without a connection).
  bool DoSelectSqliteRecords(const std::string& sql, std::vector<SqliteValueList>& records);

  /// Records a raw SQLite failure: `code` with `message`, or the connection's
  /// own message when null. Code 0 records nothing.
  void SetDBErr(int code, const char* message) const;
  /// Converts a raw SQLite failure held in `sqliteErr` into 405 (busy or
  /// locked) or 404 with the {"sqlite_errcode", "sqlite_errmsg"} object.
  void SetDBErr(const ErrRecorder& sqliteErr) const;

 private:
  // One attempt of a query: `onRow` sees each row while it returns true.
  // Records 0, or the raw SQLite failure.
  bool DoSelect(const std::string& sql, const std::function<bool(sqlite3_stmt*)>& onRow);
  // The retry loop around `attempt`, shared by both public forms; `oneRow`
  // picks the form's own log texts. (Named like them: log lines carry the
  // function name.)
  bool SelectByCommand(const std::string& sql, bool oneRow, const std::function<bool()>& attempt);
  // A prepared statement for `sql`, reused while it is among the most
  // recently used queries (the same table checks and counts run on every
  // command). Returns the prepare result; `*stmt` may be null for text
  // without a statement. Callers reset, never finalize, what they get.
  int PrepareQuery(const std::string& sql, sqlite3_stmt** stmt);
  void FinalizeQueries();
  // Sees every statement this connection prepares: flags those after which
  // a fresh prepare could resolve a name differently. Never denies.
  static int Authorize(void* self, int action, const char* arg1, const char* arg2,
                       const char* database, const char* trigger);

  struct PreparedQuery {
    std::string sql;
    sqlite3_stmt* stmt;
  };
  std::vector<PreparedQuery> queries_;  // least recently used first
  // Schema, attachment or planner settings changed: drop the reused queries.
  bool schemaChanged_ = false;
  // SQLite re-checks only the schemas a statement reads, so one that found a
  // table in an attached database would miss the same name created in main
  // by another connection: with attachments, nothing is reused.
  bool reuseDisabled_ = false;

  sqlite3* handle_ = nullptr;
  std::string path_;
  unsigned int retryLimit_;
  std::string logTag_;

  // Refuses (401, one ERR line) text that is not exactly one statement, or
  // is ATTACH, DETACH or VACUUM; with a table, its creation text first.
  bool RefuseUnlessSingle(const std::string& sql);
  bool RefuseUnlessSingle(const std::string& sql, const SqliteTableHandler& table);

  // The count query `sql` read into `count`. (Named like the public forms:
  // log lines carry the function name.)
  bool GetCount(const std::string& sql, int& count);

  // Batches (sqlite_batch.cpp) and the transaction guard work on the
  // connection directly.
  class Batch;
  friend class SqliteTransaction;
  // The guard whose transaction is open on this object, if any.
  SqliteTransaction* transaction_ = nullptr;

  // --- statements, streamed rows and change counts -------------------------
  // (sqlite_statement.cpp, sqlite_stream.cpp)

 public:
  /// SelectRecords one record at a time, in constant memory: the same
  /// statement, records, failures, error record and log lines. `onRecord`
  /// returning false stops early (a success). Contention before the first
  /// record is retried; once one has been handed out a failure ends the call
  /// (405 for contention), so no record is handed out twice. Records come as
  /// SelectRecords gives them: INTEGER and TEXT columns only; SqliteStatement
  /// reads every type.
  bool ForEachRecord(const SelectCommand& command,
                     const std::function<bool(const SqliteValueList&)>& onRecord);

  /// Rows changed by the last INSERT, UPDATE or DELETE run through this
  /// object (a builder, Exec(sql), a SqliteStatement; for InsertRecords and
  /// UpdateRecords the batch's total). 0 when the connection is closed.
  int64_t GetChanges() const;

 private:
  friend class SqliteStatement;
  // After a failed attempt: converts the raw SQLite error in the record and
  // decides (pausing first) whether another attempt is allowed.
  bool PrepareRetry(unsigned int& retries) const;
  // A streamed record reached the caller: the failing attempt is not retried.
  bool streamed_ = false;
  // Statements prepared on this connection, finalized when it closes.
  std::vector<SqliteStatement*> statements_;
  // The last batch's total while no write ran after it (-1: none); the
  // connection's counters as the batch left them tell that nothing did.
  int64_t batchChanges_ = -1;
  int64_t batchTotal_ = 0;
  int64_t batchLast_ = 0;
  void NoteBatchChanges(int64_t changes);
  // SelectRecord(s) and ForEachRecord up to the query, which `select` runs;
  // its lines carry `caller`, the public name.
  bool SelectRecords(const SelectCommand& command,
                     const std::function<bool(const std::string& sql)>& select,
                     const char* caller);
  void FinalizeStatements();
};

}  // namespace VantDRCore
