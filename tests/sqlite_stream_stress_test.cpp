
#include "support/suite.h"

const long kRows = 1000000;

// Peak resident KiB of a child where `body` counts whole rows; -1 unless it saw all of them.
long PeakKiB(const std::function<long()>& body) {
  int fds[2];
  long peak = -1;
  if (pipe(fds) != 0) return -1;
  const int code = VantDRTest::RunInChild([&] {
                     struct rusage usage = {};
                     const long rows = body();
                     getrusage(RUSAGE_SELF, &usage);
                     peak = rows == kRows ? usage.ru_maxrss : -1;
                     return write(fds[1], &peak, sizeof peak) == sizeof peak ? 0 : 1;
                   }).exitCode;
  close(fds[1]);
  if (read(fds[0], &peak, sizeof peak) != sizeof peak || code != 0) peak = -1;
  close(fds[0]);
  return peak;
}

TEST(SqliteStreamMemory, MillionRowsWithinSixteenMebibytesOfTheRawLoop) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "resident sizes under AddressSanitizer measure its shadow memory";
#endif
  VantDRTest::TempDir tmp;
  SqliteDB db(tmp.File("catalogue.db"), 0, "t");
  ASSERT_TRUE(
      db.Exec("CREATE TABLE entry (id INTEGER PRIMARY KEY, path TEXT, size INTEGER);"
              "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000000) "
              "INSERT INTO entry SELECT i, '/volume1/f' || i, 5000000000 + i FROM n;"));
  db.Close();
  const long raw = PeakKiB([&] {
    sqlite3* handle = nullptr;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_open(tmp.File("catalogue.db").c_str(), &handle);
    sqlite3_prepare_v2(handle, "SELECT * FROM entry", -1, &stmt, nullptr);
    long rows = 0;
    for (; sqlite3_step(stmt) == SQLITE_ROW; ++rows) {
      SqliteValueList record;
      record.AddValue("id", SqliteValue(static_cast<long long>(sqlite3_column_int64(stmt, 0))));
      record.AddValue(
          "path",
          SqliteValue(std::string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)))));
      record.AddValue("size", SqliteValue(static_cast<long long>(sqlite3_column_int64(stmt, 2))));
    }
    sqlite3_finalize(stmt);
    sqlite3_close(handle);
    return rows;
  });
  const long records = PeakKiB([&] {
    SelectCommand select;
    select.SetTable(SqliteTableHandler("entry", ""));
    select.SelectAll();
    long rows = 0;
    db.ForEachRecord(select, [&](const SqliteValueList& record) {
      rows += record.Size() == 3 ? 1 : 0;
      return true;
    });
    return rows;
  });
  const long statementRows = PeakKiB([&] {
    long rows = 0;
    SqliteStatement(db, "SELECT * FROM entry").ForEachRow([&](const SqliteRow& row) {
      rows += row.GetInt64(0) > 0 && !row.GetText(1).empty() && row.GetInt64(2) > 5000000000;
      return true;
    });
    return rows;
  });
  std::printf(
      "peak resident KiB over %ld rows: raw step loop %ld, ForEachRecord %ld, ForEachRow %ld\n",
      kRows, raw, records, statementRows);
  ASSERT_TRUE(raw > 0 && records > 0 && statementRows > 0);
  EXPECT_LE(records - raw, 16 * 1024);
  EXPECT_LE(statementRows - raw, 16 * 1024);
}
