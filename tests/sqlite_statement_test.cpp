#include "support/suite.h"

const SqliteTableHandler kFiles("file", "id INTEGER PRIMARY KEY, path TEXT, size INTEGER");

std::string Shown(const SqliteRow& row) {
  const int type = row.GetType(0);
  if (type == kSqliteInteger) return "i:" + std::to_string(row.GetInt64(0));
  if (type == kSqliteText) return "t:" + row.GetText(0);
  if (type == kSqliteBlob) return "b:" + std::to_string(row.GetBlob(0).size());
  if (type != kSqliteFloat) return row.IsNull(0) ? "null" : "?";
  char text[40];
  std::snprintf(text, sizeof text, "f:%.17g", row.GetDouble(0));
  return text;
}

Lines Column0(SqliteStatement& select,
              const std::function<std::string(const SqliteRow&)>& show = Shown) {
  Lines seen;
  EXPECT_TRUE(select.ForEachRow([&](const SqliteRow& row) {
    seen.push_back(show(row));
    return true;
  }));
  return seen;
}

SelectCommand AllFiles() {
  SelectCommand select;
  select.SetTable(kFiles);
  select.SelectAll();
  return select;
}

std::string ErrText(const SqliteDB& db) { return JsonToString(db.GetErr()); }

TEST(SqliteStatement, EveryTypeRoundTrips) {
  TempDir tmp;
  SqliteDB db(tmp.File("t.db"), 0, "t");
  ASSERT_TRUE(db.Exec("CREATE TABLE v (k INTEGER PRIMARY KEY, x)"));
  SqliteStatement insert(db, "INSERT INTO v (x) VALUES (?)");
  const std::string nul("a\0b", 3), mebibyte(1 << 20, '\x5a');
  Lines expected;
  const auto add = [&](bool bound, const std::string& shown) {
    EXPECT_TRUE(bound && insert.Exec()) << shown << ErrText(db);
    expected.push_back(shown);
  };
  add(insert.Bind(1, INT64_MIN), "i:-9223372036854775808");
  add(insert.Bind(1, 5000000000LL), "i:5000000000");
  add(insert.Bind(1, 4294967295u), "i:4294967295");
  add(insert.Bind(1, true), "i:1");
  add(insert.Bind(1, static_cast<unsigned long long>(INT64_MAX)), "i:9223372036854775807");
  add(insert.Bind(1, 0.1), "f:0.10000000000000001");
  add(insert.Bind(1, std::nan("")), "null");  // as SQLite stores NaN
  add(insert.Bind(1, nul), "t:" + nul);
  add(insert.Bind(1, "text"), "t:text");
  add(insert.BindBlob(1, nullptr, 0), "b:0");
  add(insert.BindBlob(1, mebibyte.data(), mebibyte.size()), "b:1048576");
  add(insert.BindNull(1), "null");
  add(insert.Bind(1, static_cast<const char*>(nullptr)), "null");
  SqliteStatement select(db, "SELECT x FROM v ORDER BY k");
  EXPECT_EQ(Column0(select), expected);
  SqliteStatement bytes(db, "SELECT x, CAST(x AS BLOB) AS raw FROM v WHERE k IN (8, 11)");
  EXPECT_EQ(Column0(bytes, [](const SqliteRow& row) { return row.GetBlob("raw"); }),
            (Lines{nul, mebibyte}));
  // Above INT64_MAX an unsigned value has no INTEGER: refused, the old binding kept.
  LogCapture log;
  EXPECT_TRUE(!insert.Bind(1, 9223372036854775808ULL) && db.GetErrCode() == 401);
  EXPECT_EQ(log.Messages("ERR"),
            Lines{"Value [9223372036854775808] out of range for parameter [1]"});
  ASSERT_TRUE(insert.Exec());
  EXPECT_EQ(Query(tmp.File("t.db"), "SELECT x IS NULL FROM v ORDER BY k DESC"), "1");
}

TEST(SqliteStatement, BindsByIndexAndNameAndRefusesWhatIsNotThere) {
  TempDir tmp;
  SqliteDB db(tmp.File("t.db"), 0, "t");
  ASSERT_TRUE(db.Exec("CREATE TABLE p (a, b, c, d)"));
  const std::string sql = "INSERT INTO p VALUES (:a, @b, $c, ?9)";
  SqliteStatement insert(db, sql);
  ASSERT_TRUE(insert.Bind(":a", 1) && insert.Bind("@b", "two") && insert.Bind("$c", 3.5) &&
              insert.Bind(9, 4LL) && insert.Exec());
  ASSERT_TRUE(insert.BindNull("@b") && insert.BindBlob("$c", "xy", 2) && insert.Exec());
  db.Close();  // bindings survive the connection closing under the statement
  ASSERT_TRUE(insert.Exec());
  SqliteStatement select(db, "SELECT a || '|' || quote(b) || '|' || quote(c) || '|' || d FROM p");
  EXPECT_EQ(Column0(select),
            (Lines{"t:1|'two'|3.5|4", "t:1|NULL|X'7879'|4", "t:1|NULL|X'7879'|4"}));
  LogCapture log;
  const auto refused = [&](bool ok, const std::string& line) {
    EXPECT_TRUE(!ok && db.GetErrCode() == 401) << line;
    EXPECT_EQ(log.Messages("ERR"), Lines{line});
    log.Clear();
    db.SetErr(0);
  };
  const std::string of = "] of [" + sql + "]";
  refused(insert.Bind(0, 1), "Invalid parameter index [0" + of);
  refused(insert.Bind(10, 1), "Invalid parameter index [10" + of);
  refused(insert.Bind("a", 1), "Invalid parameter name [a" + of);
  refused(insert.Bind(std::string(":a\0x", 4), 1), "Invalid parameter name [:a" + of);
  refused(insert.BindBlob(1, nullptr, 3), "Null data of [3] bytes for parameter [1]");
  // Texts that are not one statement, refused where they are first used.
  for (const std::string& text :
       {std::string(), std::string(" ;-- nothing"), std::string("SELECT 1; SELECT 2"),
        std::string("SELECT 1\0 x", 11)}) {
    SqliteStatement statement(db, text);
    log.Clear();
    EXPECT_TRUE(!statement.Exec() && db.GetErrCode() == 401 && log.Lines().size() == 1u) << text;
  }
  // A trailing ";" and comment, or one inside a quoted value, are not a statement.
  SqliteStatement tail(db, "SELECT count(*) FROM p WHERE a != ';'; -- done\n");
  EXPECT_EQ(Column0(tail), Lines{"i:3"});
  log.Clear();
  EXPECT_FALSE(SqliteStatement(db, "INSERT INTO missing VALUES (1)").Exec());
  EXPECT_EQ(log.Summary(),
            Lines{"ERR Exec: Reach retry limit [0], failed to exec command [INSERT INTO missing "
                  "VALUES (1)] with err [{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":1,"
                  "\"sqlite_errmsg\":\"no such table: missing\"}}]"});
}

TEST(SqliteStatement, StreamsStopEarlyAndForEachRecordMatchesSelectRecords) {
  TempDir tmp;
  SqliteDB db(tmp.File("t.db"), 0, "t");
  LogCapture log;
  db.SetErr(0);
  EXPECT_FALSE(db.ForEachRecord(AllFiles(), [](const SqliteValueList&) { return true; }));
  EXPECT_TRUE(db.GetErrCode() == 0 && !db.IsExisted() && log.Lines().empty());
  ASSERT_TRUE(
      db.Exec("CREATE TABLE file (id INTEGER PRIMARY KEY, path TEXT, size INTEGER, r REAL, b BLOB);"
              "INSERT INTO file VALUES (1, 'a', 10, 1.5, x'00'), (2, NULL, 5000000000, NULL, NULL),"
              "(3, 'c', NULL, 2, 'x'), (4, 'd', 4, NULL, x'');"));
  SelectCommand bad = AllFiles();
  bad.SetCondition(SqliteEqual("nosuch", 1));
  using Case = std::pair<SelectCommand, bool>;
  for (const auto& [command, ok] : {Case{AllFiles(), true}, Case{bad, false}, Case{{}, false}}) {
    log.Clear();
    std::vector<SqliteValueList> rows;
    EXPECT_EQ(db.SelectRecords(command, rows), ok);
    const Lines selectLines = log.Summary();
    const std::string selectErr = ErrText(db);
    Lines selected, streamed;
    for (const SqliteValueList& row : rows) selected.push_back(row.ToStr());
    log.Clear();
    EXPECT_EQ(db.ForEachRecord(command,
                               [&](const SqliteValueList& row) {
                                 streamed.push_back(row.ToStr());
                                 return true;
                               }),
              ok);
    EXPECT_EQ(log.Summary(), selectLines);
    EXPECT_TRUE(ErrText(db) == selectErr && streamed == selected) << ErrText(db);
    EXPECT_EQ(selectLines.size(), ok ? 9u : 1u);  // WARN lines of NULL, REAL, BLOB cells
  }
  // Early stop: a success, and the next run starts from the first row again.
  SqliteStatement ids(db, "SELECT id FROM file ORDER BY id");
  std::vector<int64_t> got;
  for (int stopAfter : {1, 3}) {
    int run = 0;
    EXPECT_TRUE(ids.ForEachRow([&](const SqliteRow& row) {
      got.push_back(row.GetInt64("id"));
      return ++run < stopAfter;
    }));
  }
  EXPECT_EQ(got, (std::vector<int64_t>{1, 1, 2, 3}));
}

TEST(SqliteStatement, GetChangesAfterEveryKindOfWrite) {
  TempDir tmp;
  SqliteDB db(tmp.File("t.db"), 0, "t");
  const auto update = [](int size) {
    UpdateCommand command;
    command.SetTable(kFiles);
    command.AddFieldValue("path", std::string("p"));
    command.SetCondition(SqliteEqual("size", size));
    return command;
  };
  SqliteStatement claim(db, "UPDATE file SET size = 9 WHERE size = 7");
  const auto changes = [&](bool ok) { return ok ? db.GetChanges() : -1; };
  ASSERT_TRUE(db.CreateTable(kFiles));
  EXPECT_EQ(changes(db.Exec("INSERT INTO file (size) VALUES (7), (7), (8), (8)")), 4);
  EXPECT_EQ(changes(db.Exec("SELECT * FROM file")), 4);  // a read changes nothing
  EXPECT_TRUE(changes(db.UpdateRecord(update(7))) == 2 && changes(claim.Exec()) == 2);
  // After a batch whose last command changed nothing, a write that changes nothing.
  EXPECT_EQ(changes(db.UpdateRecords({update(8), update(7)})), 2);
  EXPECT_EQ(changes(claim.Exec()), 0);  // a second worker's claim finds nothing
  EXPECT_EQ(changes(db.DeleteRecord("size=8", kFiles)), 2);
  db.Close();
  EXPECT_EQ(db.GetChanges(), 0);
}

TEST(SqliteStatement, HostileUseThrowsNothing) {
  TempDir tmp;
  SqliteDB db(tmp.File("t.db"), 0, "t");
  ASSERT_TRUE(db.Exec("CREATE TABLE n (x); INSERT INTO n VALUES (1), (2);") &&
              db.CreateTable(kFiles) && db.Exec("INSERT INTO file (size) VALUES (1)"));
  SqliteStatement select(db, "SELECT x FROM n");
  LogCapture log;
  const auto fails = [&](bool ok, int code, const std::string& line) {
    EXPECT_FALSE(ok) << line;
    EXPECT_TRUE(code == 0 || db.GetErrCode() == code) << line << " " << db.GetErrCode();
    EXPECT_TRUE(line.empty() || log.Has("ERR", line)) << line;
    log.Clear();
  };
  const std::string running = "Statement [SELECT x FROM n] is running";
  bool inner = true;
  fails(select.ForEachRow([](const SqliteRow&) -> bool { throw 1; }), 407,
        "Callback failed for [SELECT x FROM n]");
  fails(db.ForEachRecord(AllFiles(),
                         [](const SqliteValueList&) -> bool { throw std::runtime_error("x"); }),
        407, "");
  fails(select.ForEachRow(nullptr), 401, "Empty callback for [SELECT x FROM n]");
  fails(db.ForEachRecord(AllFiles(), nullptr), 401, "");
  // Inside its own callback a statement neither runs nor takes values.
  select.ForEachRow([&](const SqliteRow&) { return inner = select.Exec(); });
  fails(inner, 0, running);
  select.ForEachRow([&](const SqliteRow&) { return inner = select.Bind(1, 1); });
  fails(inner, 0, running);
  fails(select.ForEachRow([&](const SqliteRow&) {
    db.Close();
    return true;
  }),
        404, "");
  Lines got;
  EXPECT_TRUE(select.ForEachRow([&](const SqliteRow& row) {
    got = {std::to_string(row.GetInt64(1)), std::to_string(row.GetDouble("y")),
           row.GetColumnName(7), std::to_string(row.GetType(1))};
    return false;
  }));
  EXPECT_EQ(got, (Lines{"0", "0.000000", "", "5"}));
  EXPECT_EQ(log.Summary(),
            (Lines{"ERR GetInt64: Invalid column [1]", "ERR GetDouble: Failed to find column [y]",
                   "ERR GetColumnName: Invalid column [7]", "ERR GetType: Invalid column [1]"}));
  SqliteDB nowhere(tmp.path() + "/no/such/dir/x.db", 0, "t");
  SqliteStatement lost(nowhere, "SELECT 1");
  log.Clear();
  EXPECT_TRUE(!lost.Bind(1, 1) && nowhere.GetErrCode() == 404 && log.Messages("ERR").size() == 1u);
}

TEST(SqliteStatementContention, RetriedBeforeTheFirstRowRefusedAfterIt) {
  TempDir tmp;
  const std::string path = tmp.File("t.db");
  ASSERT_EQ(Query(path,
                  "CREATE TABLE file (id INTEGER PRIMARY KEY, path TEXT, size INTEGER);"
                  "INSERT INTO file VALUES (1, 'a', 1), (2, 'b', 2), (3, 'c', 3);"),
            "");
  SqliteDB db(path, 2, "t");
  LogCapture log;
  // A writer holds the lock past the busy time-out: retried, every row delivered once.
  std::vector<int64_t> ids;
  const auto collect = [&](const SqliteRow& row) {
    ids.push_back(row.GetInt64(0));
    return true;
  };
  pid_t holder = HoldSqliteLock(path, "BEGIN EXCLUSIVE");
  EXPECT_TRUE(SqliteStatement(db, "SELECT id FROM file ORDER BY id").ForEachRow(collect));
  EXPECT_EQ(WaitChild(holder).exitCode, 0);
  EXPECT_EQ(ids, (std::vector<int64_t>{1, 2, 3}));
  EXPECT_EQ(log.Summary(), Lines{"INFO ForEachRow: After retry [1] times, success to exec command "
                                 "[SELECT id FROM file ORDER BY id]"});
  // Busy only at the commit after the rows came out: a retry would repeat them, so 405.
  log.Clear();
  ids.clear();
  holder = HoldSqliteLock(path, "BEGIN; SELECT count(*) FROM sqlite_master", 2500);
  EXPECT_FALSE(
      SqliteStatement(db, "UPDATE file SET size = size + 10 RETURNING id").ForEachRow(collect));
  EXPECT_EQ(WaitChild(holder).exitCode, 0);
  EXPECT_TRUE(ids.size() == 3u && db.GetErrCode() == 405);
  EXPECT_EQ(log.Summary(),
            Lines{"ERR ForEachRow: Reach retry limit [0], failed to exec command [UPDATE file SET "
                  "size = size + 10 RETURNING id] with err [" +
                  ErrText(db) + "]"});
}
