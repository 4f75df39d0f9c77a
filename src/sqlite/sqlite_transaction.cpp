#include "vantdr/sqlite_transaction.h"

#include <sqlite3.h>

#include "sqlite/sqlite_batch.h"
#include "vantdr/log.h"

namespace VantDRCore {

SqliteTransaction::SqliteTransaction(SqliteDB& db) : db_(db) {}

SqliteTransaction::~SqliteTransaction() {
  if (IsActive()) Abandon();
}

bool SqliteTransaction::IsActive() const { return db_.transaction_ == this; }

bool SqliteTransaction::Begin() {
  if (db_.transaction_ != nullptr) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Transaction already active on db[%s]", db_.path_.c_str());
    return false;
  }
  // IMMEDIATE: the write lock is taken here, under the retry policy, rather
  // than by the first write, where a BUSY could not be retried.
  if (!db_.Exec("BEGIN IMMEDIATE")) return false;
  db_.transaction_ = this;
  return true;
}

bool SqliteTransaction::Commit() {
  if (!IsActive()) {
    db_.SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("No active transaction to commit on db[%s]", db_.path_.c_str());
    return false;
  }
  if (db_.Exec("COMMIT")) {
    db_.transaction_ = nullptr;
    return true;
  }
  // Some failures (an I/O error, a full disk) end the transaction in SQLite.
  if (db_.handle_ == nullptr || sqlite3_get_autocommit(db_.handle_) != 0) {
    db_.transaction_ = nullptr;
  }
  return false;
}

bool SqliteTransaction::Rollback() {
  if (!IsActive()) {
    VLOG_ERR("No active transaction to roll back on db[%s]", db_.path_.c_str());
    return false;
  }
  Abandon();
  return true;
}

void SqliteTransaction::Abandon() {
  SqliteDB::Batch::Discard(db_, false);
  db_.transaction_ = nullptr;
}

}  // namespace VantDRCore
