// SQLite records: a jobs table created on demand, filled, updated, queried,
// and a write that fails because another process holds the database.
#include <sys/wait.h>
#include <unistd.h>

#include "demo.h"
#include "vantdr/json_text.h"
#include "vantdr/sqlite_db.h"

namespace {

using namespace VantDRCore;

// A cell as text, without the WARN a typed read of the wrong type would log.
std::string Cell(const SqliteValueList& row, const std::string& field) {
  const auto& values = row.GetValues();
  const auto found = values.find(field);
  if (found == values.end()) return "(none)";
  const Json::Value& v = found->second.GetJsonValue();
  return v.isString() ? v.asString() : JsonToString(v);
}

void Run(const std::string& workDir) {
  const SqliteTableHandler jobs("job",
                                "id INTEGER PRIMARY KEY, name TEXT, state TEXT, priority INTEGER");
  SqliteDB db(workDir + "/jobs.db", 2, "[demo]");

  Demo::Step("Insert five jobs (the table is created by the first insert)");
  const char* names[] = {"nightly-backup", "replicate-vol1", "snapshot-vol2", "verify-archive",
                         "o'brien-share"};
  for (int i = 0; i < 5; ++i) {
    InsertCommand insert;
    insert.SetTable(jobs);
    insert.AddFieldValue("id", i + 1);
    insert.AddFieldValue("name", std::string(names[i]));
    insert.AddFieldValue("state", std::string("queued"));
    insert.AddFieldValue("priority", (i * 3) % 5);
    db.InsertRecord(insert);
  }
  int count = 0;
  db.GetCount(jobs, count);
  Demo::Show("GetCount(job)", std::to_string(count));

  Demo::Step("Jobs 2 and 4 are done");
  UpdateCommand update;
  update.SetTable(jobs);
  update.AddFieldValue("state", std::string("done"));
  update.SetCondition(SqliteIn("id", std::vector<SqliteValue>{SqliteValue(2), SqliteValue(4)}));
  Demo::Show("UpdateRecord", db.UpdateRecord(update) ? "true" : "false");
  Demo::Show("statement", update.GetCommand());

  Demo::Step("Jobs not done, highest priority first, at most 2");
  SelectCommand select;
  select.SetTable(jobs);
  select.SelectAll();
  select.SetCondition(SqliteNotEqual("state", SqliteValue(std::string("done"))));
  select.AddOrderField("priority");
  select.SetLimit(2);
  std::vector<SqliteValueList> rows;
  Demo::Show("SelectRecords", db.SelectRecords(select, rows) ? "true" : "false");
  Demo::Show("statement", select.GetCommand());
  Demo::Note("\"SELECT  *\" has two spaces: the builder's text, kept byte for byte");
  std::vector<std::vector<std::string>> table;
  for (const SqliteValueList& row : rows) {
    table.push_back(
        {Cell(row, "id"), Cell(row, "name"), Cell(row, "state"), Cell(row, "priority")});
  }
  Demo::Table({"id", "name", "state", "priority"}, table);

  Demo::Step("Another process holds the database; this one may not retry (limit 0)");
  int ready[2], release[2];
  if (pipe(ready) != 0 || pipe(release) != 0) return;
  fflush(stdout);
  const pid_t holder = fork();
  if (holder == 0) {
    SqliteDB other(workDir + "/jobs.db", 0, "[holder]");
    char byte = other.Exec("BEGIN IMMEDIATE") ? 1 : 0;
    if (write(ready[1], &byte, 1) != 1 || read(release[0], &byte, 1) != 1) _exit(1);
    other.Exec("COMMIT");
    other.Close();
    _exit(0);
  }
  char held = 0;
  if (holder < 0 || read(ready[0], &held, 1) != 1 || held != 1) return;
  Demo::Show("holder",
             "pid " + std::to_string(holder) + ", BEGIN IMMEDIATE: a write not yet committed");
  InsertCommand late;
  late.SetTable(jobs);
  late.AddFieldValue("id", 6);
  late.AddFieldValue("name", std::string("late-job"));
  SqliteDB impatient(workDir + "/jobs.db", 0, "[demo]");
  Demo::Show("InsertRecord", impatient.InsertRecord(late) ? "true" : "false (after 1 s busy)");
  Demo::Show("GetErr()", JsonToString(impatient.GetErr()));
  if (write(release[1], &held, 1) != 1) return;
  waitpid(holder, nullptr, 0);
  Demo::Note(
      "405 is ERR_DATABASE_LOCK; \"[1]\" counts the try past the limit 0 (limit n: n+1 tries)");

  Demo::Step("Refused before any SQL is sent");
  Demo::Show("DeleteRecord(\"\", job)", db.DeleteRecord("", jobs) ? "true" : "false");
  Demo::Show("GetErr()", JsonToString(db.GetErr()));
  Demo::Note("an empty condition never means \"every row\" (DeleteAllRecords does)");
}

}  // namespace

VANTDR_DEMO_SECTION(20, "SQLite records", Run);
