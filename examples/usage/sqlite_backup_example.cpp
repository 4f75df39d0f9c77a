// A database that upgrades its own schema, runs in WAL mode, checks itself
// and keeps a backup that is always whole.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_db.h"

int main() {
  using namespace VantDRCore;
  const std::string path = "/tmp/vantdr_example_jobs_v2.db";
  const std::string backup = "/tmp/vantdr_example_jobs_v2.backup.db";
  SqliteDB db(path, 3 /* retries when busy */, "example");

  // Run on every open of the connection, reopens included.
  db.SetConnectionSetup({"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL"});

  // Step i takes the schema from version i-1 to i; a firmware upgrade only
  // appends steps. Every process may call this at start: each step runs once.
  const std::vector<std::string> steps = {
      "CREATE TABLE job (id INTEGER PRIMARY KEY, name TEXT)",
      "ALTER TABLE job ADD COLUMN state INTEGER DEFAULT 0",
  };
  if (!db.Migrate(steps)) {
    std::printf("migration failed: %s\n", db.GetErr().toStyledString().c_str());
    return 1;
  }
  int version = 0;
  db.GetSchemaVersion(version);
  std::printf("schema version: %d\n", version);

  InsertCommand insert;
  insert.SetTable(SqliteTableHandler("job", ""));
  insert.AddFieldValue("name", std::string("nightly"));
  insert.AddFieldValue("state", 1);
  if (!db.InsertRecord(insert)) return 1;

  std::printf("integrity: %s\n", db.CheckIntegrity() ? "ok" : "damaged");
  // Other processes may go on writing meanwhile; the old backup stays until
  // the new one is complete, synced and checked.
  if (!db.Backup(backup)) {
    std::printf("backup failed: %s\n", db.GetErr().toStyledString().c_str());
    return 1;
  }
  struct stat st;
  stat(backup.c_str(), &st);
  std::printf("backup: %lld bytes\n", static_cast<long long>(st.st_size));

  SqliteDB copy(backup, 0, "example");
  int rows = 0;
  copy.GetCount(SqliteTableHandler("job", ""), rows);
  copy.GetSchemaVersion(version);
  std::printf("backup holds %d job(s), schema version %d\n", rows, version);

  copy.Close();
  db.Close();
  for (const std::string& file : {path, path + "-wal", path + "-shm", backup}) {
    std::remove(file.c_str());
  }
  return rows == 1 ? 0 : 1;
}
