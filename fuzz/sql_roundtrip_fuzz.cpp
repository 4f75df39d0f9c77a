// A fuzzed text value goes into a real SQLite file through InsertCommand and
// must come back identical through SelectRecord, leaving exactly one row.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_db.h"

namespace {

VantDRCore::SqliteDB& Database() {
  static VantDRCore::SqliteDB db(FuzzSupport::WorkDir() + "/roundtrip.db", 0, "fuzz");
  return db;
}

const VantDRCore::SqliteTableHandler kTable("roundtrip", "id INTEGER PRIMARY KEY, v TEXT");

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // SQL text ends at a NUL byte, so such values cannot be literals at all.
  if (memchr(data, 0, size) != nullptr) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);

  VantDRCore::InsertCommand insert;
  insert.SetTable(kTable);
  insert.SetReplacable(true);
  insert.AddFieldValue("id", 1);
  insert.AddFieldValue("v", text);
  if (!Database().InsertRecord(insert)) abort();

  VantDRCore::SelectCommand select;
  select.SetTable(kTable);
  select.AddField("v");
  VantDRCore::SqliteValueList row;
  std::string back;
  if (!Database().SelectRecord(select, row) || !row.GetValue("v", back) || back != text) abort();
  int count = -1;
  if (!Database().GetCount(kTable, count) || count != 1) abort();
  return 0;
}
