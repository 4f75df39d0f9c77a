#include "sqlite/sqlite_batch.h"

#include <sqlite3.h>

#include <climits>
#include <cstring>
#include <exception>
#include <set>
#include <unordered_map>

#include "foundation/no_throw.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/utils.h"

namespace VantDRCore {

namespace {

const char kBegin[] = "BEGIN IMMEDIATE";
const char kCommit[] = "COMMIT";
const char kRollback[] = "ROLLBACK";
// A batch inside the caller's transaction: a savepoint keeps it all or
// nothing without ending that transaction.
const char kSavepoint[] = "SAVEPOINT vantdr_batch";
const char kRelease[] = "RELEASE vantdr_batch";
const char kRollbackSavepoint[] = "ROLLBACK TO vantdr_batch; RELEASE vantdr_batch";

const unsigned kRetryPauseMinMSec = 1000;
const unsigned kRetryPauseMaxMSec = 2000;

// Whether `values` bind as parameters exactly as their literals read:
// texts without NUL, booleans and 32-bit integers.
bool Bindable(const SqliteValueList& values) {
  for (const auto& entry : values.GetValues()) {
    const Json::Value& value = entry.second.GetJsonValue();
    if (value.isString()) {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (!value.getString(&begin, &end) || end - begin > INT_MAX ||
          std::memchr(begin, '\0', static_cast<size_t>(end - begin)) != nullptr) {
        return false;
      }
    } else if (!value.isBool() && !value.isInt() && !value.isUInt()) {
      return false;  // formats to "": the literal statement fails as it is
    }
  }
  return true;
}

// Whether `text` (a name or condition placed verbatim) holds no character
// that could name a parameter, so that the only parameters are ours.
bool PlainText(const std::string& text) {
  // Parameters are written ?, ?NNN, :name, @name, $name (and # internally).
  return text.find_first_of(std::string("?:@$#\0", 6)) == std::string::npos;
}

// "a,b" and "?,?" (or "a=?,b=?") from the field names, in field order.
void AppendParameters(std::string& out, const SqliteValueList& values, bool assignments) {
  std::string marks;
  for (const auto& entry : values.GetValues()) {
    if (!marks.empty()) {
      out += ',';
      marks += ',';
    }
    out += entry.first;
    marks += '?';
    if (assignments) out += "=?";
  }
  if (!assignments) {
    out += ") VALUES (";
    out += marks;
    out += ");";
  }
}

bool PlainFields(const SqliteValueList& values) {
  for (const auto& entry : values.GetValues()) {
    if (!PlainText(entry.first)) return false;
  }
  return true;
}

// INSERT [OR REPLACE] INTO t (a,b) VALUES (?,?);
std::string InsertShape(const InsertCommand& command) {
  const SqliteValueList& values = command.GetFieldValues();
  const std::string& table = command.GetTable().GetName();
  if (!Bindable(values) || !PlainText(table) || !PlainFields(values)) {
    return std::string();
  }
  std::string shape = command.IsReplacable() ? "INSERT OR REPLACE INTO " : "INSERT INTO ";
  shape += table;
  shape += " (";
  AppendParameters(shape, values, false);
  return shape;
}

// UPDATE t SET a=?,b=? WHERE condition
std::string UpdateShape(const UpdateCommand& command) {
  const SqliteValueList& values = command.GetFieldValues();
  const std::string& table = command.GetTable().GetName();
  const std::string& condition = command.GetCondition();
  if (!Bindable(values) || !PlainText(table) || !PlainText(condition) || !PlainFields(values)) {
    return std::string();
  }
  std::string shape = "UPDATE " + table + " SET ";
  AppendParameters(shape, values, true);
  if (!condition.empty()) {
    shape += " WHERE ";
    shape += condition;
  }
  return shape;
}

// The prepared statements of one attempt, one per shape; null for a shape
// that must run as literal text. Finalized with the attempt: after a
// rollback the schema may have changed.
class Statements {
 public:
  explicit Statements(sqlite3* handle) : handle_(handle) {}
  ~Statements() {
    for (const auto& entry : prepared_) sqlite3_finalize(entry.second);
  }
  Statements(const Statements&) = delete;
  Statements& operator=(const Statements&) = delete;

  sqlite3_stmt* Get(const std::string& shape, size_t parameters) {
    auto found = prepared_.find(shape);
    if (found != prepared_.end()) return found->second;
    sqlite3_stmt* stmt = nullptr;
    const char* tail = nullptr;
    if (sqlite3_prepare_v2(handle_, shape.c_str(), -1, &stmt, &tail) != SQLITE_OK ||
        stmt == nullptr || *tail != '\0' ||
        static_cast<size_t>(sqlite3_bind_parameter_count(stmt)) != parameters) {
      // The literal text then gives exactly the error (or the effect) it
      // gives when run alone.
      sqlite3_finalize(stmt);
      stmt = nullptr;
    }
    prepared_.emplace(shape, stmt);
    return stmt;
  }

 private:
  sqlite3* handle_;
  std::unordered_map<std::string, sqlite3_stmt*> prepared_;
};

// False when SQLite refuses a value (a text over its length limit): the
// literal text then fails as it would alone.
bool Bind(sqlite3_stmt* stmt, const SqliteValueList& values) {
  int index = 0;
  int bound = SQLITE_OK;
  for (const auto& entry : values.GetValues()) {
    if (bound != SQLITE_OK) break;
    const Json::Value& value = entry.second.GetJsonValue();
    ++index;
    // Tested in the order of ToFormatedValue, which the literal follows.
    if (value.isString()) {
      const char* begin = nullptr;
      const char* end = nullptr;
      value.getString(&begin, &end);
      // The value outlives the step: the command is held by the caller.
      bound = sqlite3_bind_text(stmt, index, begin, static_cast<int>(end - begin), SQLITE_STATIC);
    } else if (value.isBool()) {
      bound = sqlite3_bind_int(stmt, index, value.asBool() ? 1 : 0);
    } else if (value.isInt()) {
      bound = sqlite3_bind_int64(stmt, index, value.asInt64());
    } else {
      bound = sqlite3_bind_int64(stmt, index, static_cast<sqlite3_int64>(value.asUInt64()));
    }
  }
  return bound == SQLITE_OK;
}

// Converts the raw SQLite failure in `db`'s record and names what failed.
bool RawFailure(SqliteDB& db, const std::string& what, std::string& failed) {
  const ErrRecorder raw(db);
  db.SetDBErr(raw);
  failed = what;
  return false;
}

}  // namespace

void SqliteDB::Batch::Discard(SqliteDB& db, bool nested) {
  if (db.handle_ == nullptr || sqlite3_get_autocommit(db.handle_) != 0) return;
  const ErrRecorder kept(db);
  if (!db.DoExecSqliteCommand(nested ? kRollbackSavepoint : kRollback)) {
    VLOG_ERR("Failed to roll back on db[%s] with err [%s]", db.path_.c_str(),
             JsonToString(db.GetErr()).c_str());
    if (!nested && sqlite3_get_autocommit(db.handle_) == 0) db.Close();
  }
  db.SetErr(kept.GetErrCode(), kept.GetErrMsg());
}

bool SqliteDB::Batch::Attempt(SqliteDB& db, bool nested, const std::vector<Item>& items,
                              std::string& failed) {
  if (!db.DoExecSqliteCommand(nested ? kSavepoint : kBegin)) {
    return RawFailure(db, nested ? kSavepoint : kBegin, failed);
  }
  bool applied = false;
  try {
    applied = Apply(db, nested, items, failed);
  } catch (const std::exception&) {
    // Whatever failed to allocate, the transaction must not stay open on the
    // connection for the caller's next statements to join.
    db.SetErr(ERR::ERR_ALLOCATE_MEMORY);
    failed = "out of memory";
  }
  if (applied) return true;
  Discard(db, nested);
  return false;
}

bool SqliteDB::Batch::Apply(SqliteDB& db, bool nested, const std::vector<Item>& items,
                            std::string& failed) {
  std::set<std::string> tables;
  for (const Item& item : items) {
    const SqliteTableHandler& table = item.command->GetTable();
    if (!tables.insert(table.GetName()).second) continue;
    if (!db.CreateTable(table)) {  // logs, and leaves its error converted
      failed = "CREATE TABLE " + table.GetName();
      return false;
    }
  }
  Statements statements(db.handle_);
  for (const Item& item : items) {
    sqlite3_stmt* stmt =
        item.shape.empty() ? nullptr : statements.Get(item.shape, item.values->Size());
    if (stmt != nullptr && !Bind(stmt, *item.values)) {
      sqlite3_clear_bindings(stmt);
      stmt = nullptr;
    }
    if (stmt == nullptr) {
      const std::string sql = item.command->GetCommand();
      if (!db.DoExecSqliteCommand(sql)) return RawFailure(db, sql, failed);
      continue;
    }
    const int stepped = sqlite3_step(stmt);
    if (stepped != SQLITE_DONE && stepped != SQLITE_ROW) db.SetDBErr(stepped, nullptr);
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    if (stepped != SQLITE_DONE && stepped != SQLITE_ROW) {
      return RawFailure(db, item.command->GetCommand(), failed);
    }
  }
  if (!db.DoExecSqliteCommand(nested ? kRelease : kCommit)) {
    return RawFailure(db, nested ? kRelease : kCommit, failed);
  }
  return true;
}

bool SqliteDB::Batch::ExecBatch(SqliteDB& db, const std::vector<Item>& items) {
  db.SetErr(ERR::ERR_UNKNOWN);
  for (size_t i = 0; i < items.size(); ++i) {
    if (!items[i].command->IsValid()) {
      db.SetErr(ERR::BAD_PARAMETER);
      VLOG_ERR("Invalid command [%zu] of batch [%s]", i, items[i].command->ToStr().c_str());
      return false;
    }
    if (db.RefuseUnlessSingle(items[i].command->GetCommand(), items[i].command->GetTable())) {
      return false;
    }
  }
  // Nothing to write: the file is not even created.
  const bool empty = items.empty();
  if (!empty && !db.Open()) {
    db.SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("Failed to open db [%s]", db.path_.c_str());
    return false;
  }
  const bool nested = !empty && sqlite3_get_autocommit(db.handle_) == 0;
  unsigned int retries = 0;
  for (;;) {
    std::string failed;
    // Counted per attempt: the changes of a rolled-back one are no result.
    const int64_t before = empty ? 0 : sqlite3_total_changes64(db.handle_);
    if (empty || Attempt(db, nested, items, failed)) {
      db.NoteBatchChanges(empty ? 0 : sqlite3_total_changes64(db.handle_) - before);
      db.SetErr(0);
      if (retries > 0) {
        VLOG_INFO("%s After retry [%u] times, success to exec batch of %zu commands",
                  db.logTag_.c_str(), retries, items.size());
      } else {
        VLOG_INFO("%s Exec batch of %zu commands success", db.logTag_.c_str(), items.size());
      }
      return true;
    }
    // Inside the caller's transaction only its owner can start over.
    if (nested || db.GetErrCode() != ERR::ERR_DATABASE_LOCK || ++retries > db.retryLimit_) {
      VLOG_ERR("Reach retry limit [%u], failed to exec batch of %zu commands at [%s] with err [%s]",
               retries, items.size(), failed.c_str(), JsonToString(db.GetErr()).c_str());
      return false;
    }
    RandomSleepInMSec(kRetryPauseMinMSec, kRetryPauseMaxMSec);
  }
}

template <typename Command>
bool SqliteDB::Batch::ExecBatch(SqliteDB& db, const std::vector<Command>& commands,
                                std::string (*shape)(const Command&)) {
  std::vector<Item> items;
  items.reserve(commands.size());
  for (const Command& command : commands) {
    items.push_back({&command, &command.GetFieldValues(), shape(command)});
  }
  return ExecBatch(db, items);
}

bool SqliteDB::InsertRecords(const std::vector<InsertCommand>& commands) try {
  return Batch::ExecBatch(*this, commands, InsertShape);
}
VANTDR_CATCH_ALL(false)

bool SqliteDB::UpdateRecords(const std::vector<UpdateCommand>& commands) try {
  return Batch::ExecBatch(*this, commands, UpdateShape);
}
VANTDR_CATCH_ALL(false)

// --- counts and row ids ------------------------------------------------------

bool SqliteDB::GetCount(const SqliteTableHandler& table, const SqliteCondition& condition,
                        int& count) {
  // A valid IN condition may still have no text.
  if (!condition.IsValid() || condition.GetText().empty()) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Invalid condition");
    return false;
  }
  return GetCount(
      "SELECT count() as count FROM '" + table.GetName() + "' WHERE " + condition.GetText() + ";",
      count);
}

int64_t SqliteDB::GetLastInsertRowId() const {
  return handle_ == nullptr ? 0 : static_cast<int64_t>(sqlite3_last_insert_rowid(handle_));
}

}  // namespace VantDRCore
