// A program outside the source tree: installed headers, installed library.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vantdr/response.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/version.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  using namespace VantDRCore;
  SqliteTableHandler table("job", "id INTEGER PRIMARY KEY, name TEXT");
  SqliteDB db(std::string(argv[1]) + "/consumer.db", 0, "consumer");
  InsertCommand insert;
  insert.SetTable(table);
  insert.AddFieldValue("id", 7);
  insert.AddFieldValue("name", std::string("it's installed"));
  if (!db.InsertRecord(insert)) return 3;

  SelectCommand select;
  select.SetTable(table);
  select.SelectAll();
  SqliteValueList row;
  std::string name;
  if (!db.SelectRecord(select, row) || !row.GetValue("name", name) || name != "it's installed") {
    return 4;
  }

  Response answer(std::string(R"({"success":true,"data":{"task_id":"t-1","finish":true}})"));
  if (!answer.isSuccess() || answer.getTaskId() != "t-1" || !answer.isPollFinish()) return 5;
  if (std::strcmp(GetLibraryVersion(), VANTDR_VERSION_STRING) != 0) return 6;
  std::printf("consumer ok: %s, task %s, version %s\n", name.c_str(), answer.getTaskId().c_str(),
              GetLibraryVersion());
  return 0;
}
