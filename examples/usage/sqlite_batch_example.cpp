// Many writes, one transaction: a batch, and a guard around statements of
// your own. Both are all or nothing, and retried as a whole when busy.
#include <cstdio>
#include <string>
#include <vector>

#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_transaction.h"

int main() {
  using namespace VantDRCore;
  SqliteTableHandler files("file", "id INTEGER PRIMARY KEY, path TEXT, size INTEGER");
  SqliteDB db("/tmp/vantdr_example_batch.db", 2 /* retries when busy */, "example");

  // A batch: one fsync for the lot instead of one per row.
  std::vector<InsertCommand> batch;
  for (int i = 1; i <= 100; ++i) {
    InsertCommand insert;
    insert.SetTable(files);
    insert.AddFieldValue("path", "/volume1/share/file" + std::to_string(i));
    insert.AddFieldValue("size", i * 1024);
    batch.push_back(insert);
  }
  if (!db.InsertRecords(batch)) {
    std::printf("batch failed: %s\n", db.GetErr().toStyledString().c_str());
    return 1;
  }

  // A guard: whatever runs through `db` until Commit is one transaction;
  // leaving the scope without Commit rolls it back.
  {
    SqliteTransaction transaction(db);
    if (!transaction.Begin()) return 1;
    DeleteCommand small;
    small.SetTable(files);
    small.SetCondition(SqliteLess("size", 10 * 1024));
    UpdateCommand big;
    big.SetTable(files);
    big.AddFieldValue("path", std::string("/volume1/archive"));
    big.SetCondition(SqliteGreaterEqual("size", 90 * 1024));
    if (!db.DeleteRecord(small) || !db.UpdateRecord(big) || !transaction.Commit()) return 1;
  }

  int archived = 0;
  db.GetCount(files, SqliteLike("path", std::string("/volume1/archive%")), archived);
  std::printf("%d files archived, last row id %lld\n", archived,
              static_cast<long long>(db.GetLastInsertRowId()));
  db.Close();
  std::remove("/tmp/vantdr_example_batch.db");
  return archived == 11 ? 0 : 1;
}
