// A catalogue of a million files with 64-bit sizes: written through one
// prepared statement in one transaction, read back a row at a time.
#include <cstdint>
#include <cstdio>
#include <string>

#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"
#include "vantdr/sqlite_transaction.h"

int main() {
  using namespace VantDRCore;
  const char* path = "/tmp/vantdr_example_catalogue.db";
  std::remove(path);
  SqliteDB db(path, 2 /* retries when busy */, "example");
  if (!db.Exec("CREATE TABLE entry (version INTEGER, path TEXT, size INTEGER, hash BLOB)")) {
    return 1;
  }

  SqliteStatement insert(db, "INSERT INTO entry VALUES (:version, :path, :size, :hash)");
  SqliteTransaction transaction(db);
  if (!transaction.Begin() || !insert.Bind(":version", 7)) return 1;
  const unsigned char hash[4] = {0xde, 0xad, 0xbe, 0xef};
  for (int64_t i = 0; i < 1000000; ++i) {
    if (!insert.Bind(":path", "/volume1/share/f" + std::to_string(i)) ||
        !insert.Bind(":size", int64_t{5000000000} + i) ||  // past 4 GiB: bound, not formatted
        !insert.BindBlob(":hash", hash, sizeof hash) || !insert.Exec()) {
      std::printf("insert failed: %s\n", db.GetErr().toStyledString().c_str());
      return 1;
    }
  }
  if (!transaction.Commit()) return 1;

  // Constant memory, however many rows: each is handed over and forgotten.
  SqliteStatement select(db, "SELECT path, size FROM entry WHERE version = ? AND size > ?");
  int64_t count = 0, largest = 0;
  select.Bind(1, 7);
  select.Bind(2, int64_t{5000999990});
  const bool read = select.ForEachRow([&](const SqliteRow& row) {
    ++count;
    if (row.GetInt64("size") > largest) largest = row.GetInt64("size");
    return true;  // false would stop here
  });

  // A worker's claim: GetChanges tells whether this UPDATE took the rows.
  SqliteStatement claim(db, "UPDATE entry SET version = 8 WHERE version = 7 AND size > ?");
  claim.Bind(1, int64_t{5000999990});
  const bool claimed = claim.Exec() && db.GetChanges() == 9;
  std::printf("%lld large entries, largest %lld bytes, claimed: %s\n",
              static_cast<long long>(count), static_cast<long long>(largest),
              claimed ? "yes" : "no");
  db.Close();
  std::remove(path);
  return read && claimed && count == 9 && largest == 5000999999 ? 0 : 1;
}
