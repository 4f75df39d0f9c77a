#include <sqlite3.h>

#include "foundation/no_throw.h"
#include "sqlite/sqlite_rows.h"
#include "vantdr/log.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"

namespace VantDRCore {

bool SqliteDB::ForEachRecord(const SelectCommand& command,
                             const std::function<bool(const SqliteValueList&)>& onRecord) try {
  if (!onRecord) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Empty callback for select command [%s]", command.ToStr().c_str());
    return false;
  }
  struct Streaming {  // restored even when the callback throws
    bool& flag;
    bool saved;
    ~Streaming() { flag = saved; }
  } streaming{streamed_, streamed_};
  streamed_ = false;
  return SelectRecords(
      command,
      [&](const std::string& sql) {
        // Its own statement, not a reused query: the callback may run anything
        // on this object meanwhile, even what drops the reused ones.
        SqliteStatement statement(*this, sql, true);
        const auto onRow = [&](const SqliteRow&) {
          SqliteValueList record;
          ParseRecord(statement.stmt_, record);
          streamed_ = false;  // the callback's own calls retry as usual
          const bool more = onRecord(record);
          streamed_ = true;
          return more;
        };
        bool handedOut = false;
        // The all-rows select's retry loop, log lines and error record.
        return SelectByCommand(sql, false, [&] {
          const int result = statement.Attempt(onRow, handedOut);
          if (result == -1) {  // not one statement: as SelectRecords fails on it
            SetDBErr(SQLITE_MISUSE, nullptr);
          }
          return result == SQLITE_OK;
        });
      },
      "SelectRecords");  // the same lines as SelectRecords gives
} catch (...) {
  SetErr(ERR::ERR_UNKNOWN);
  VLOG_ERR("Callback failed for select command [%s]", command.ToStr().c_str());
  return false;
}

int64_t SqliteDB::GetChanges() const {
  if (handle_ == nullptr) return 0;
  const int64_t last = sqlite3_changes64(handle_);
  if (batchChanges_ >= 0 && sqlite3_total_changes64(handle_) == batchTotal_ && last == batchLast_) {
    return batchChanges_;
  }
  return last;
}

void SqliteDB::NoteBatchChanges(int64_t changes) {
  if (handle_ == nullptr) return;
  batchChanges_ = changes;
  batchTotal_ = sqlite3_total_changes64(handle_);
  batchLast_ = sqlite3_changes64(handle_);
}

void SqliteDB::FinalizeStatements() {
  while (!statements_.empty()) statements_.back()->Finalize();
  batchChanges_ = -1;
}

}  // namespace VantDRCore
