// Fuzzed texts written one by one and as one batch must leave the same rows:
// the same values, the same storage types after column affinity.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_db.h"

namespace {

const VantDRCore::SqliteTableHandler kTable("rows", "v TEXT, n NUMERIC, i INTEGER, a");

VantDRCore::SqliteDB& Database(const std::string& name) {
  static VantDRCore::SqliteDB single(FuzzSupport::WorkDir() + "/single.db", 0, "fuzz");
  static VantDRCore::SqliteDB batch(FuzzSupport::WorkDir() + "/batch.db", 0, "fuzz");
  // Unsynced: the rows, not the disk, are under test.
  static const bool unsynced =
      single.Exec("PRAGMA synchronous=OFF") && batch.Exec("PRAGMA synchronous=OFF");
  if (!unsynced) abort();
  return name == "single" ? single : batch;
}

// Every row, each column as its storage type and quoted value.
std::string Dump(VantDRCore::SqliteDB& db) {
  std::vector<VantDRCore::SqliteValueList> rows;
  if (!db.SelectByCommand("SELECT typeof(v) || quote(v) AS v, typeof(n) || quote(n) AS n, "
                          "typeof(i) || quote(i) AS i, typeof(a) || quote(a) AS a FROM rows "
                          "ORDER BY rowid",
                          rows)) {
    abort();
  }
  std::string out;
  for (const VantDRCore::SqliteValueList& row : rows) out += row.ToStr() + "\n";
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

// The input is split at newlines; each piece is one row, stored in every
// column, so that each affinity sees it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<VantDRCore::InsertCommand> inserts;
  for (size_t start = 0; start <= input.size() && inserts.size() < 16;) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    const std::string text = input.substr(start, end - start);
    VantDRCore::InsertCommand insert;
    insert.SetTable(kTable);
    for (const char* column : {"v", "n", "i", "a"}) insert.AddFieldValue(column, text);
    inserts.push_back(insert);
    start = end + 1;
  }
  VantDRCore::SqliteDB& single = Database("single");
  VantDRCore::SqliteDB& batch = Database("batch");
  VantDRCore::DeleteCommand clear;
  clear.SetTable(kTable);
  clear.DeleteAll();
  if (!single.Exec(clear) || !batch.Exec(clear)) abort();

  bool allWritten = true;
  for (const VantDRCore::InsertCommand& insert : inserts) {
    allWritten = single.InsertRecord(insert) && allWritten;
  }
  if (batch.InsertRecords(inserts) != allWritten) abort();
  if (allWritten ? Dump(batch) != Dump(single) : !Dump(batch).empty()) abort();
  return 0;
}
