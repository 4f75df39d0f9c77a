// SQLite records: a jobs table created on demand, filled, updated, queried.
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
  std::vector<std::vector<std::string>> table;
  for (const SqliteValueList& row : rows) {
    table.push_back(
        {Cell(row, "id"), Cell(row, "name"), Cell(row, "state"), Cell(row, "priority")});
  }
  Demo::Table({"id", "name", "state", "priority"}, table);

  Demo::Step("All jobs, in id order");
  SelectCommand all;
  all.SetTable(jobs);
  all.AddField("id");
  all.AddField("name");
  all.AddField("state");
  all.AddOrderField("id");
  all.SetOrderByASC();
  rows.clear();
  db.SelectRecords(all, rows);
  table.clear();
  for (const SqliteValueList& row : rows) {
    table.push_back({Cell(row, "id"), Cell(row, "name"), Cell(row, "state")});
  }
  Demo::Table({"id", "name", "state"}, table);

  Demo::Step("Failures leave their reason in GetErr()");
  Demo::Show("Exec(\"SELEC 1\")", db.Exec("SELEC 1") ? "true" : "false");
  Demo::Show("GetErr()", JsonToString(db.GetErr()));
  Demo::Show("DeleteRecord(\"\", job)", db.DeleteRecord("", jobs) ? "true" : "false");
  Demo::Show("GetErr()", JsonToString(db.GetErr()));
}

}  // namespace

VANTDR_DEMO_SECTION(20, "SQLite records", Run);
