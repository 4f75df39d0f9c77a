#include "vantdr/sqlite_db.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/no_throw.h"
#include "sqlite/sqlite_rows.h"
#include "sqlite/statement_text.h"
#include "vantcore/vlibc.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/utils.h"

namespace VantDRCore {

namespace {

const int kBusyTimeoutMSec = 1000;
const size_t kPreparedQueries = 16;
const unsigned kRetryPauseMinMSec = 1000;
const unsigned kRetryPauseMaxMSec = 2000;

}  // namespace

// Fills the empty `record` from the row `stmt` stands on.
void ParseRecord(sqlite3_stmt* stmt, SqliteValueList& record) {
  if (stmt == nullptr) {
    VLOG_ERR("Null Pointer");
    return;
  }
  const int columns = sqlite3_column_count(stmt);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    if (name == nullptr) name = "";  // out of memory: AddValue refuses the column
    const int type = sqlite3_column_type(stmt, i);
    switch (type) {
      case SQLITE_INTEGER:
        record.AddValue(name, SqliteValue(static_cast<long long>(sqlite3_column_int64(stmt, i))));
        break;
      case SQLITE_TEXT: {
        // Up to the first NUL: the builders' SQL text could not carry the
        // rest, so a record read back can always be written back.
        const unsigned char* text = sqlite3_column_text(stmt, i);
        record.AddValue(
            name, SqliteValue(text == nullptr ? std::string()
                                              : std::string(reinterpret_cast<const char*>(text))));
        break;
      }
      case SQLITE_NULL:
        VLOG_WARN("field [%s] has null value", name);
        break;
      default:
        VLOG_WARN("Not supported type [%d] with field [%s]", type, name);
        break;
    }
  }
}

namespace {

bool IsBusyOrLocked(int sqliteCode) {
  return sqliteCode == SQLITE_BUSY || sqliteCode == SQLITE_LOCKED;
}

}  // namespace

bool SqliteDB::PrepareRetry(unsigned int& retries) const {
  const ErrRecorder raw(*this);
  SetDBErr(raw);
  if (!IsBusyOrLocked(raw.GetErrCode()) || streamed_) return false;
  if (++retries > retryLimit_) return false;
  RandomSleepInMSec(kRetryPauseMinMSec, kRetryPauseMaxMSec);
  return true;
}

SqliteDB::SqliteDB(const std::string& path, unsigned int retryLimit, const std::string& logTag)
    : path_(path), retryLimit_(retryLimit), logTag_(logTag) {}

SqliteDB::~SqliteDB() { Close(); }

bool SqliteDB::Open() {
  if (handle_ != nullptr) return true;
  if (sqlite3_open(path_.c_str(), &handle_) != SQLITE_OK) {
    Close();
    VLOG_WARN("Failed to open db[%s]", path_.c_str());
    return false;
  }
  sqlite3_set_authorizer(handle_, &SqliteDB::Authorize, this);
  // The handle stays open on failure: a later Open() accepts it as it is.
  if (sqlite3_busy_timeout(handle_, kBusyTimeoutMSec) != SQLITE_OK) {
    VLOG_WARN("Failed to set busy timeout with error");
    return false;
  }
  return setup_.empty() || RunConnectionSetup();
}

void SqliteDB::Close() {
  if (handle_ == nullptr) return;
  FinalizeQueries();  // sqlite3_close refuses a connection with live statements
  FinalizeStatements();
  sqlite3_close(handle_);
  handle_ = nullptr;
  schemaChanged_ = false;
  reuseDisabled_ = false;  // attachments end with the connection
}

bool SqliteDB::IsExisted() const { return VLIBCFileExist(path_.c_str()) == 1; }

// --- single attempts ---------------------------------------------------------

bool SqliteDB::DoExecSqliteCommand(const std::string& sql) {
  // What SQLite answers for a null connection: misuse, with the null
  // handle's own message.
  if (handle_ == nullptr) {
    SetDBErr(SQLITE_MISUSE, nullptr);
    return false;
  }
  char* errmsg = nullptr;
  const int result = sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, &errmsg);
  if (result != SQLITE_OK) SetDBErr(result, errmsg);
  if (errmsg != nullptr) sqlite3_free(errmsg);
  return result == SQLITE_OK;
}

bool SqliteDB::DoSelect(const std::string& sql, const std::function<bool(sqlite3_stmt*)>& onRow) {
  SetErr(ERR::ERR_DATABASE_OPERATION);
  if (handle_ == nullptr) {
    SetDBErr(SQLITE_MISUSE, nullptr);  // as DoExecSqliteCommand
    return false;
  }
  sqlite3_stmt* stmt = nullptr;
  const int prepared = PrepareQuery(sql, &stmt);
  if (prepared != SQLITE_OK) {
    SetDBErr(prepared, nullptr);
  } else if (stmt == nullptr) {
    // Text without a statement (blanks, ";", comments): stepping nothing is
    // SQLite's misuse, reported with the connection's current message.
    SetDBErr(SQLITE_MISUSE, nullptr);
  } else {
    int stepped;
    while ((stepped = sqlite3_step(stmt)) == SQLITE_ROW && onRow(stmt)) {
    }
    if (stepped == SQLITE_ROW || stepped == SQLITE_DONE) {
      SetErr(0);
    } else {
      SetDBErr(stepped, nullptr);
    }
  }
  // Reset ends the statement's read transaction; it stays prepared for reuse.
  if (stmt != nullptr) sqlite3_reset(stmt);
  if (reuseDisabled_) FinalizeQueries();
  return GetErrCode() == 0;
}

int SqliteDB::PrepareQuery(const std::string& sql, sqlite3_stmt** stmt) {
  if (schemaChanged_) {
    FinalizeQueries();
    schemaChanged_ = false;
  }
  for (auto it = queries_.begin(); it != queries_.end(); ++it) {
    if (it->sql == sql) {
      *stmt = it->stmt;
      std::rotate(it, it + 1, queries_.end());  // now the most recently used
      return SQLITE_OK;
    }
  }
  *stmt = nullptr;
  const int prepared = sqlite3_prepare_v2(handle_, sql.c_str(), -1, stmt, nullptr);
  if (prepared != SQLITE_OK || *stmt == nullptr) return prepared;
  if (queries_.size() == kPreparedQueries) {
    sqlite3_finalize(queries_.front().stmt);
    queries_.erase(queries_.begin());
  }
  queries_.push_back({sql, *stmt});
  return SQLITE_OK;
}

void SqliteDB::FinalizeQueries() {
  for (const PreparedQuery& query : queries_) sqlite3_finalize(query.stmt);
  queries_.clear();
}

// A statement that changes the schema is flagged when prepared, before it
// runs; the flag is read at the next lookup, after it ran. SQLite itself
// re-prepares a reused statement when a schema it reads changes (here or in
// another connection) and after a rollback that undid a schema change.
int SqliteDB::Authorize(void* self, int action, const char* arg1, const char*, const char*,
                        const char*) {
  SqliteDB& db = *static_cast<SqliteDB*>(self);
  switch (action) {
    case SQLITE_ATTACH:
      db.reuseDisabled_ = true;
      db.schemaChanged_ = true;
      break;
    case SQLITE_CREATE_INDEX:
    case SQLITE_CREATE_TABLE:
    case SQLITE_CREATE_TEMP_INDEX:
    case SQLITE_CREATE_TEMP_TABLE:
    case SQLITE_CREATE_TEMP_TRIGGER:
    case SQLITE_CREATE_TEMP_VIEW:
    case SQLITE_CREATE_TRIGGER:
    case SQLITE_CREATE_VIEW:
    case SQLITE_CREATE_VTABLE:
    case SQLITE_DROP_INDEX:
    case SQLITE_DROP_TABLE:
    case SQLITE_DROP_TEMP_INDEX:
    case SQLITE_DROP_TEMP_TABLE:
    case SQLITE_DROP_TEMP_TRIGGER:
    case SQLITE_DROP_TEMP_VIEW:
    case SQLITE_DROP_TRIGGER:
    case SQLITE_DROP_VIEW:
    case SQLITE_DROP_VTABLE:
    case SQLITE_ALTER_TABLE:
    case SQLITE_DETACH:
    // Plans and settings fixed at prepare time (index choice, row order of
    // unordered queries, LIKE case): a fresh prepare would see the change.
    case SQLITE_ANALYZE:
    case SQLITE_PRAGMA:
      db.schemaChanged_ = true;
      break;
    // A write after a batch: GetChanges reports it, not the batch.
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
      if (arg1 != nullptr && std::strncmp(arg1, "sqlite_", 7) != 0) db.batchChanges_ = -1;
      break;
    default:
      break;
  }
  return SQLITE_OK;
}

bool SqliteDB::DoSelectSqliteRecord(const std::string& sql, SqliteValueList& record) {
  // Only the first row is read; it replaces the record's content.
  return DoSelect(sql, [&record](sqlite3_stmt* stmt) {
    SqliteValueList row;
    ParseRecord(stmt, row);
    record = std::move(row);
    return false;
  });
}

bool SqliteDB::DoSelectSqliteRecords(const std::string& sql,
                                     std::vector<SqliteValueList>& records) {
  return DoSelect(sql, [&records](sqlite3_stmt* stmt) {
    records.emplace_back();
    ParseRecord(stmt, records.back());
    return true;
  });
}

// --- error recording -----------------------------------------------------------

void SqliteDB::SetDBErr(int code, const char* message) const {
  if (code == 0) return;
  if (message == nullptr) message = sqlite3_errmsg(handle_);
  SetErr(code, Json::Value(message));
}

void SqliteDB::SetDBErr(const ErrRecorder& sqliteErr) const {
  Json::Value detail(Json::objectValue);
  const int code = sqliteErr.GetErrCode();
  if (code != 0) detail["sqlite_errcode"] = Json::Int(code);
  if (!sqliteErr.GetErrMsg().isNull()) detail["sqlite_errmsg"] = sqliteErr.GetErrMsg();
  SetErr(IsBusyOrLocked(code) ? ERR::ERR_DATABASE_LOCK : ERR::ERR_DATABASE_OPERATION, detail);
}

// --- statements with retry -----------------------------------------------------

bool SqliteDB::Exec(const std::string& sql) {
  SetErr(ERR::ERR_UNKNOWN);
  if (sql.empty()) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("empty command to exec db[%s]", path_.c_str());
    return false;
  }
  if (!Open()) {
    SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("Failed to open db [%s]", path_.c_str());
    return false;
  }
  if (handle_ == nullptr) {
    SetErr(ERR::ERR_NULL_POINTER);
    VLOG_ERR("DB[%s] is not opened", path_.c_str());
    return false;
  }
  unsigned int retries = 0;
  do {
    if (DoExecSqliteCommand(sql)) {
      SetErr(0);
      if (retries > 0) {
        VLOG_INFO("After retry [%u] times, success to exec command [%s]", retries, sql.c_str());
      }
      return true;
    }
  } while (PrepareRetry(retries));
  VLOG_ERR("Reach retry limit [%u], failed to exec command [%s] with err [%s]", retries,
           sql.c_str(), JsonToString(GetErr()).c_str());
  return false;
}

bool SqliteDB::SelectByCommand(const std::string& sql, SqliteValueList& record) {
  return SelectByCommand(sql, true, [&] { return DoSelectSqliteRecord(sql, record); });
}

bool SqliteDB::SelectByCommand(const std::string& sql, std::vector<SqliteValueList>& records) {
  return SelectByCommand(sql, false, [&] { return DoSelectSqliteRecords(sql, records); });
}

// The two select forms log each other's texts on success and on giving up;
// callers' log filters depend on them as they are.
bool SqliteDB::SelectByCommand(const std::string& sql, bool oneRow,
                               const std::function<bool()>& attempt) {
  if (sql.empty()) {
    SetErr(ERR::BAD_PARAMETER);
    if (oneRow) {
      VLOG_ERR("Empty command to select record");
    } else {
      VLOG_ERR("Empty command to select records");
    }
    return false;
  }
  if (!Open()) {
    VLOG_ERR("Failed to open db [%s]", path_.c_str());
    return false;
  }
  unsigned int retries = 0;
  do {
    if (attempt()) {
      SetErr(0);
      if (retries > 0 && oneRow) {
        VLOG_INFO("After retry [%u] times, success to exec command [%s]", retries, sql.c_str());
      } else if (retries > 0) {
        VLOG_INFO("After retry [%u] times, success to select command", retries);
      }
      return true;
    }
  } while (PrepareRetry(retries));
  if (oneRow) {
    VLOG_ERR("Reach retry limit [%u], failed to select command[%s] with err [%s]", retries,
             sql.c_str(), JsonToString(GetErr()).c_str());
  } else {
    VLOG_ERR("Reach retry limit [%u], failed to exec command [%s] with err [%s]", retries,
             sql.c_str(), JsonToString(GetErr()).c_str());
  }
  return false;
}

// --- tables --------------------------------------------------------------------

bool SqliteDB::GetCount(const SqliteTableHandler& table, int& count) {
  return GetCount("SELECT count() as count FROM '" + table.GetName() + "';", count);
}

bool SqliteDB::GetCount(const std::string& sql, int& count) {
  std::vector<SqliteValueList> rows;
  SelectByCommand(sql, rows);
  if (rows.empty()) {
    VLOG_ERR("Record is empty on command [%s]", sql.c_str());
    return false;
  }
  if (!rows.front().GetValue<int>("count", count)) {
    VLOG_ERR("Record error [%s]", rows.front().ToStr().c_str());
    return false;
  }
  return true;
}

bool SqliteDB::IsTableExisted(const std::string& tableName) {
  std::vector<SqliteValueList> rows;
  SelectByCommand("SELECT 1 FROM sqlite_master WHERE type='table' AND name='" + tableName + "';",
                  rows);
  return !rows.empty();
}

bool SqliteDB::CreateTable(const SqliteTableHandler& table) try {
  const std::string& columns = table.GetColumnDefinitions();
  if (columns.empty()) return true;
  const std::string& name = table.GetName();
  if (name.empty()) {
    VLOG_ERR("Invalid table [%s]", name.c_str());
    return false;
  }
  if (IsTableExisted(name)) return true;
  const std::string sql = "CREATE TABLE IF NOT EXISTS " + name + " (" + columns + ")";
  if (RefuseUnlessSingle(sql)) return false;
  if (Exec(sql)) return true;
  VLOG_ERR("Failed to create table [%s] with cmd[%s]", name.c_str(), sql.c_str());
  return false;
}
VANTDR_CATCH_ALL(false)

// --- records ---------------------------------------------------------------------

bool SqliteDB::RefuseUnlessSingle(const std::string& sql) {
  if (IsSingleStatement(sql)) return false;
  SetErr(ERR::BAD_PARAMETER);
  VLOG_ERR("Refused [%s]: not one statement, or ATTACH, DETACH or VACUUM", sql.c_str());
  return true;
}

bool SqliteDB::RefuseUnlessSingle(const std::string& sql, const SqliteTableHandler& table) {
  // The table's creation runs first, so its text is checked first too.
  const std::string& columns = table.GetColumnDefinitions();
  if (!columns.empty() &&
      RefuseUnlessSingle("CREATE TABLE IF NOT EXISTS " + table.GetName() + " (" + columns + ")")) {
    return true;
  }
  return RefuseUnlessSingle(sql);
}

bool SqliteDB::Exec(const SqliteCommand& command) try {
  SetErr(ERR::ERR_UNKNOWN);
  // Logged before validation: an invalid builder logs its own refusal and
  // shows here with its empty text.
  VLOG_INFO("%s Exec cmd: %s", logTag_.c_str(), command.GetCommand().c_str());
  if (!command.IsValid()) {
    SetErr(ERR::BAD_PARAMETER);
    return false;
  }
  // Asked again for the run: a caller's builder may answer differently.
  const std::string sql = command.GetCommand();
  if (RefuseUnlessSingle(sql, command.GetTable())) return false;
  SetErr(ERR::ERR_DATABASE_OPERATION);
  if (!CreateTable(command.GetTable())) {
    VLOG_ERR("Failed to create table [%s]", command.GetTable().GetName().c_str());
    return false;
  }
  if (!Exec(sql)) {
    VLOG_ERR("Failed to exec [%s] in db[%s]", sql.c_str(), path_.c_str());
    return false;
  }
  VLOG_INFO("%s Exec cmd success", logTag_.c_str());
  SetErr(0);
  return true;
}
VANTDR_CATCH_ALL(false)

bool SqliteDB::InsertRecord(const InsertCommand& command) { return Exec(command); }

bool SqliteDB::UpdateRecord(const UpdateCommand& command) { return Exec(command); }

bool SqliteDB::DeleteRecord(const DeleteCommand& command) {
  // Nothing to delete; the error record is left as it was, like a select on
  // a missing file.
  if (!IsExisted()) return true;
  return Exec(command);
}

bool SqliteDB::DeleteRecord(const std::string& condition, const SqliteTableHandler& table) try {
  if (condition.empty()) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("invalid delete command: condition[%s]", condition.c_str());
    return false;
  }
  DeleteCommand command;
  // A refused table leaves the command invalid, and Exec refuses it with 401.
  command.SetTable(table);
  command.SetCondition(condition);
  return DeleteRecord(command);
}
VANTDR_CATCH_ALL(false)

bool SqliteDB::DeleteAllRecords(const SqliteTableHandler& table) {
  DeleteCommand command;
  command.SetTable(table);
  command.DeleteAll();
  return DeleteRecord(command);
}

// The public name leads every line, as if each form had its own body.
#define VLOG_ERR_AS(caller, ...)                                                  \
  do {                                                                            \
    if (LogEnabled(LOG_ERR))                                                      \
      LogPrintf(LOG_ERR, VANTDR_FILE_NAME, __LINE__, caller, "ERR", __VA_ARGS__); \
  } while (0)

bool SqliteDB::SelectRecords(const SelectCommand& command,
                             const std::function<bool(const std::string& sql)>& select,
                             const char* caller) {
  if (!command.IsValid()) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR_AS(caller, "invalid select command [%s]", command.ToStr().c_str());
    return false;
  }
  if (!IsExisted()) return false;
  const std::string sql = command.GetCommand();
  if (RefuseUnlessSingle(sql, command.GetTable())) return false;
  SetErr(ERR::ERR_DATABASE_OPERATION);
  if (!CreateTable(command.GetTable())) {
    VLOG_ERR_AS(caller, "Failed to create table");
    return false;
  }
  if (!select(sql)) return false;
  SetErr(0);
  return true;
}

bool SqliteDB::SelectRecord(const SelectCommand& command, SqliteValueList& record) try {
  return SelectRecords(
      command, [&](const std::string& sql) { return SelectByCommand(sql, record); }, __func__);
}
VANTDR_CATCH_ALL(false)

bool SqliteDB::SelectRecords(const SelectCommand& command,
                             std::vector<SqliteValueList>& records) try {
  // Shared with ForEachRecord (sqlite_stream.cpp), which must fail alike.
  return SelectRecords(
      command, [&](const std::string& sql) { return SelectByCommand(sql, records); }, __func__);
}
VANTDR_CATCH_ALL(false)

}  // namespace VantDRCore
