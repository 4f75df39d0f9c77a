// Records in SQLite: the table is created on first use from its handler.
#include <cstdio>
#include <string>
#include <vector>

#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_condition.h"
#include "vantdr/sqlite_db.h"

int main() {
  using namespace VantDRCore;
  SqliteTableHandler jobs("job", "id INTEGER PRIMARY KEY, name TEXT, state INTEGER");
  SqliteDB db("/tmp/vantdr_example_jobs.db", 2 /* retries when busy */, "example");

  InsertCommand insert;
  insert.SetTable(jobs);
  insert.AddFieldValue("id", 1);
  insert.AddFieldValue("name", std::string("nightly 'full' backup"));  // quoted for you
  insert.AddFieldValue("state", 2);
  if (!db.InsertRecord(insert)) {
    std::printf("insert failed: %s\n", db.GetErr().toStyledString().c_str());
    return 1;
  }

  SelectCommand select;
  select.SetTable(jobs);
  select.AddField("name");
  select.SetCondition(SqliteEqual("state", SqliteValue(2)));
  std::vector<SqliteValueList> rows;
  if (!db.SelectRecords(select, rows)) return 1;
  for (const SqliteValueList& row : rows) {
    std::string name;
    row.GetValue("name", name);
    std::printf("job: %s\n", name.c_str());
  }
  db.Close();
  std::remove("/tmp/vantdr_example_jobs.db");
  return rows.size() == 1 ? 0 : 1;
}
