// Fuzzed bytes bound through SqliteStatement come back identical as text and
// as a blob, and their 8-byte prefix as an integer and a double; a fuzzed
// text and parameter name are prepared and looked up (never run) without
// harm.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"

namespace {

VantDRCore::SqliteDB& Database() {
  static VantDRCore::SqliteDB db(FuzzSupport::WorkDir() + "/statement.db", 0, "fuzz");
  // No sync per row: the target checks values, not durability.
  static const bool created =
      db.Exec("PRAGMA synchronous = OFF; CREATE TABLE IF NOT EXISTS v (k INTEGER PRIMARY KEY, x)");
  if (!created) abort();
  return db;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using VantDRCore::SqliteRow;
  using VantDRCore::SqliteStatement;
  VantDRCore::SqliteDB& db = Database();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  int64_t integer = 0;
  double real = 0;
  std::memcpy(&integer, bytes.data(), std::min(size, sizeof integer));
  std::memcpy(&real, bytes.data(), std::min(size, sizeof real));

  SqliteStatement insert(db, "INSERT OR REPLACE INTO v VALUES (:k, :x)");
  SqliteStatement select(db, "SELECT x FROM v WHERE k = ?");
  std::string back;
  for (int k = 1; k <= 4; ++k) {
    bool bound = insert.Bind(":k", k);
    switch (k) {
      case 1:
        bound = bound && insert.Bind(":x", bytes);
        break;
      case 2:
        bound = bound && insert.BindBlob(":x", bytes.data(), bytes.size());
        break;
      case 3:
        bound = bound && insert.Bind(":x", integer);
        break;
      default:
        bound = bound && insert.Bind(":x", real);
        break;
    }
    if (!bound || !insert.Exec() || !select.Bind(1, k)) abort();
    bool same = false;
    if (!select.ForEachRow([&](const SqliteRow& row) {
          switch (k) {
            case 1:
              same = row.GetText(0) == bytes;
              break;
            case 2:
              same = row.GetBlob("x") == bytes;
              break;
            case 3:
              same = row.GetInt64(0) == integer;
              break;
            default:
              same = std::isnan(real) ? row.IsNull(0) : row.GetDouble(0) == real;
              break;
          }
          return false;
        }) ||
        !same) {
      abort();
    }
  }

  // Text up to the first newline, a parameter name after it: prepared and
  // looked up only, since a fuzzed statement could run for ever.
  const size_t newline = bytes.find('\n');
  SqliteStatement hostile(db, bytes.substr(0, newline));
  const std::string name = newline == std::string::npos ? bytes : bytes.substr(newline + 1);
  hostile.Bind(name, bytes);
  hostile.BindBlob(1, bytes.data(), bytes.size());
  hostile.BindNull(static_cast<int>(integer));
  return 0;
}
