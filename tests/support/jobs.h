#pragma once

#include <string>
#include <vector>

#include "vantdr/sqlite_db.h"

namespace VantDRTest {

inline const VantDRCore::SqliteTableHandler kJobs("job", "id INTEGER PRIMARY KEY, name TEXT");

// INSERT of (id, name); an id of 0 leaves the id to SQLite.
inline VantDRCore::InsertCommand Job(int id, const std::string& name) {
  VantDRCore::InsertCommand insert;
  insert.SetTable(kJobs);
  if (id > 0) insert.AddFieldValue("id", id);
  insert.AddFieldValue("name", name);
  return insert;
}

inline std::vector<VantDRCore::InsertCommand> Jobs(int first, int n) {
  std::vector<VantDRCore::InsertCommand> jobs;
  for (int id = first; id < first + n; ++id) jobs.push_back(Job(id, "job " + std::to_string(id)));
  return jobs;
}

inline VantDRCore::SelectCommand AllJobs(
    const VantDRCore::SqliteCondition& condition = VantDRCore::SqliteCondition()) {
  VantDRCore::SelectCommand select;
  select.SetTable(kJobs);
  select.SelectAll();
  if (condition.IsValid()) select.SetCondition(condition);
  return select;
}

inline int Count(VantDRCore::SqliteDB& db) {
  int count = -1;
  return db.GetCount(kJobs, count) ? count : -1;
}

}  // namespace VantDRTest
