// Integrity checks, schema versions and the statements run on every open.
#include <sqlite3.h>

#include "foundation/no_throw.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/utils.h"

namespace VantDRCore {

namespace {

const unsigned kRetryPauseMinMSec = 1000;
const unsigned kRetryPauseMaxMSec = 2000;

// The raw SQLite failure left in `db`'s record: converted, and whether it was
// contention another attempt may get past.
bool ConvertFailure(const SqliteDB& db) {
  const ErrRecorder raw(db);
  db.SetDBErr(raw);
  return raw.GetErrCode() == SQLITE_BUSY || raw.GetErrCode() == SQLITE_LOCKED;
}

}  // namespace

void SqliteDB::SetConnectionSetup(const std::vector<std::string>& statements) try {
  setup_ = statements;
  if (handle_ != nullptr && sqlite3_get_autocommit(handle_) != 0) Close();
}
VANTDR_CATCH_ALL()

bool SqliteDB::RunConnectionSetup() {
  for (const std::string& sql : setup_) {
    unsigned retries = 0;
    for (;;) {
      if (DoExecSqliteCommand(sql)) break;
      if (!ConvertFailure(*this) || ++retries > retryLimit_) {
        VLOG_ERR("Connection setup [%s] failed on db[%s] with err [%s]", sql.c_str(), path_.c_str(),
                 JsonToString(GetErr()).c_str());
        Close();
        return false;
      }
      RandomSleepInMSec(kRetryPauseMinMSec, kRetryPauseMaxMSec);
    }
  }
  return true;
}

bool SqliteDB::CheckIntegrity(bool quick) try {
  const std::string pragma = quick ? "quick_check" : "integrity_check";
  std::vector<SqliteValueList> rows;
  if (!SelectByCommand("PRAGMA " + pragma, rows)) return false;
  std::string first;
  if (rows.empty() || !rows.front().GetValue<std::string>(pragma, first)) first = "no answer";
  if (rows.size() == 1 && first == "ok") return true;
  SetErr(ERR::ERR_DATABASE_OPERATION, Json::Value(first));
  VLOG_ERR("Integrity check [%s] of db[%s] failed: %s", pragma.c_str(), path_.c_str(),
           first.c_str());
  return false;
}
VANTDR_CATCH_ALL(false)

bool SqliteDB::GetSchemaVersion(int& version) try {
  SqliteValueList row;
  if (!SelectByCommand("PRAGMA user_version", row)) return false;
  if (!row.GetValue<int>("user_version", version)) {
    SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("No schema version in db[%s]", path_.c_str());
    return false;
  }
  return true;
}
VANTDR_CATCH_ALL(false)

void SqliteDB::RollBackMigration() {
  if (handle_ == nullptr || sqlite3_get_autocommit(handle_) != 0) return;
  const ErrRecorder kept(*this);
  // A transaction that cannot be ended must not outlive the call.
  if (!DoExecSqliteCommand("ROLLBACK") && sqlite3_get_autocommit(handle_) == 0) Close();
  SetErr(kept.GetErrCode(), kept.GetErrMsg());
}

bool SqliteDB::Migrate(const std::vector<std::string>& steps) try {
  SetErr(ERR::ERR_UNKNOWN);
  if (!Open()) {
    if (GetErrCode() == ERR::ERR_UNKNOWN) SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("Failed to open db [%s]", path_.c_str());
    return false;
  }
  const int target = static_cast<int>(steps.size());
  unsigned retries = 0;
  for (;; RandomSleepInMSec(kRetryPauseMinMSec, kRetryPauseMaxMSec)) {
    // The version is read inside the write transaction: whoever migrated
    // first is seen by everyone after, so no step runs twice.
    if (!DoExecSqliteCommand("BEGIN IMMEDIATE")) {
      if (ConvertFailure(*this) && ++retries <= retryLimit_) continue;
      VLOG_ERR("Failed to begin migration of db[%s] with err [%s]", path_.c_str(),
               JsonToString(GetErr()).c_str());
      return false;
    }
    SqliteValueList row;
    int version = 0;
    if (!DoSelectSqliteRecord("PRAGMA user_version", row) ||
        !row.GetValue<int>("user_version", version)) {
      const bool busy = ConvertFailure(*this);
      RollBackMigration();
      if (busy && ++retries <= retryLimit_) continue;
      VLOG_ERR("Failed to read the schema version of db[%s] with err [%s]", path_.c_str(),
               JsonToString(GetErr()).c_str());
      return false;
    }
    if (version > target) {
      RollBackMigration();
      SetErr(ERR::BAD_PARAMETER);
      VLOG_ERR("Schema version [%d] of db[%s] is newer than the [%d] steps given", version,
               path_.c_str(), target);
      return false;
    }
    int step = version;
    while (step < target && DoExecSqliteCommand(steps[static_cast<size_t>(step)])) ++step;
    if (step < target) {
      const bool busy = ConvertFailure(*this);
      RollBackMigration();
      if (busy && ++retries <= retryLimit_) continue;
      VLOG_ERR("Migration step [%d] of db[%s] failed with err [%s]", step + 1, path_.c_str(),
               JsonToString(GetErr()).c_str());
      return false;
    }
    if (version == target) {
      RollBackMigration();
      SetErr(0);
      return true;
    }
    if (!DoExecSqliteCommand("PRAGMA user_version = " + std::to_string(target)) ||
        !DoExecSqliteCommand("COMMIT")) {
      const bool busy = ConvertFailure(*this);
      RollBackMigration();
      if (busy && ++retries <= retryLimit_) continue;
      VLOG_ERR("Failed to commit the migration of db[%s] to version [%d] with err [%s]",
               path_.c_str(), target, JsonToString(GetErr()).c_str());
      return false;
    }
    SetErr(0);
    VLOG_INFO("Migrated db[%s] from version [%d] to [%d]", path_.c_str(), version, target);
    return true;
  }
}
VANTDR_CATCH_ALL(false)

}  // namespace VantDRCore
