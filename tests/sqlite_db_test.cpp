#include "support/suite.h"

using Rows = std::vector<SqliteValueList>;

TEST(SqliteDB, RowsFailuresAndOneConnection) {
  TempDir tmp;
  SqliteDB db(tmp.File("a.db"), 2, "t");
  ASSERT_TRUE(db.Exec("CREATE TEMP TABLE mark (x); INSERT INTO mark VALUES (1);"));
  EXPECT_TRUE(db.Open());  // no reopen: the temp table of this connection survives
  ASSERT_TRUE(db.Exec(
      "CREATE TABLE m (i INTEGER, t TEXT, n TEXT, r REAL, b BLOB);"
      "INSERT INTO m VALUES (8589934592, 'x', NULL, 1.5, x'00ff'), (-7, '', NULL, 2, x'01');"));
  LogCapture log;
  SqliteValueList row;
  row.AddValue("old", SqliteValue(1));
  ASSERT_TRUE(db.SelectByCommand("SELECT * FROM m, temp.mark ORDER BY i DESC", row));
  long long big = 0;
  EXPECT_TRUE(row.GetValue("i", big) && big == 8589934592LL);
  EXPECT_EQ(row.ToStr(), "i:, t:'x', x:1");  // replaced, not merged; 2^33 formats to ""
  EXPECT_EQ(log.Summary(), (Lines{"WARN ParseRecord: field [n] has null value",
                                  "WARN ParseRecord: Not supported type [2] with field [r]",
                                  "WARN ParseRecord: Not supported type [4] with field [b]"}));
  db.SetErr(407);
  EXPECT_TRUE(db.SelectByCommand("SELECT * FROM m WHERE i = 0", row) && db.GetErrCode() == 0);
  // A final failure: no retry although two are allowed, 404 with SQLite's code and text.
  log.Clear();
  Rows rows(1);
  EXPECT_FALSE(db.Exec("SELEC 1") || db.SelectByCommand("SELEC 1", row) ||
               db.SelectByCommand("SELEC 1", rows));
  const std::string err =
      "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":1,\"sqlite_errmsg\":\"near "
      "\\\"SELEC\\\": syntax error\"}}";
  EXPECT_EQ(JsonToString(db.GetErr()), err);
  const std::string tail = "[SELEC 1] with err [" + err + "]";
  const std::string exec = "Reach retry limit [0], failed to exec command " + tail;
  EXPECT_EQ(log.Messages("ERR"),
            (Lines{exec, "Reach retry limit [0], failed to select command" + tail, exec}));
  EXPECT_EQ(row.ToStr(), "i:, t:'x', x:1");  // neither no row nor a failure touched it
  ASSERT_TRUE(db.SelectByCommand("SELECT i, t FROM m ORDER BY i", rows) && rows.size() == 3u);
  EXPECT_EQ(rows[1].ToStr() + "|" + rows[2].ToStr(), "i:-7, t:''|i:, t:'x'");  // appended
}

TEST(SqliteDB, TableAndRecordOperations) {
  TempDir tmp;
  LogCapture log;
  SqliteDB db(tmp.File("jobs.db"), 1, "[jobs]");
  SqliteValueList row;
  EXPECT_TRUE(db.CreateTable(SqliteTableHandler("", "")) && !db.IsExisted());  // nothing sent
  int count = -1;
  EXPECT_FALSE(db.GetCount(kJobs, count) || db.IsTableExisted("job"));
  log.Clear();
  EXPECT_TRUE(!db.InsertRecord(InsertCommand()) && db.GetErrCode() == 401);
  ASSERT_TRUE(db.InsertRecord(Job(1, "backup")));
  EXPECT_EQ(log.Summary(),
            (Lines{"ERR GetCommand: Bad insert parameter", "INFO Exec: [jobs] Exec cmd: ",
                   "INFO Exec: [jobs] Exec cmd: INSERT INTO job (id,name) VALUES (1,'backup');",
                   "INFO Exec: [jobs] Exec cmd success"}));
  // Any text without NUL comes back as it went in; an injection attempt stays a value.
  std::string everyByte;
  for (int c = 1; c < 256; ++c) everyByte += static_cast<char>(c);
  const Lines texts = {"it's", "x'); DROP TABLE job; --", "' OR '1'='1", "", everyByte};
  for (size_t i = 0; i < texts.size(); ++i) ASSERT_TRUE(db.InsertRecord(Job(i + 2, texts[i])));
  for (const std::string& text : texts) {
    std::string name;
    ASSERT_TRUE(db.SelectRecord(AllJobs(SqliteEqual("name", text)), row));
    EXPECT_TRUE(row.GetValue("name", name) && name == text);
  }
  EXPECT_TRUE(!db.DeleteRecord("", kJobs) && db.GetErrCode() == 401);
  EXPECT_TRUE(db.DeleteRecord("id=3", kJobs) && db.GetCount(kJobs, count) && count == 5);
  EXPECT_TRUE(db.DeleteAllRecords(kJobs) && db.GetCount(kJobs, count) && count == 0);
}

// Every read is what a statement prepared at that moment returns.
TEST(SqliteDB, ReusedQueriesFollowSchemaChanges) {
  TempDir tmp;
  const std::string path = tmp.File("main.db");
  SqliteDB db(path, 0, "t");
  const std::string text = AllJobs(SqliteEqual("id", 1)).GetCommand();
  auto read = [&](const std::string& sql) {
    SqliteValueList row;
    return db.SelectByCommand(sql, row) ? row.ToStr() : "failed";
  };
  ASSERT_TRUE(db.Exec("CREATE TABLE t (a INTEGER); INSERT INTO t VALUES (1);"));
  EXPECT_EQ(read("SELECT * FROM t"), "a:1");
  ASSERT_EQ(Query(path, "DROP TABLE t; CREATE TABLE t (b TEXT); INSERT INTO t VALUES ('x');"), "");
  EXPECT_EQ(read("SELECT * FROM t"), "b:'x'");
  // More distinct queries than are kept prepared, then an early one again.
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(read("SELECT " + std::to_string(i) + " AS n"), "n:" + std::to_string(i));
  EXPECT_EQ(read("SELECT * FROM t"), "b:'x'");
  // A name found in an attached database, then created in main here or elsewhere.
  ASSERT_TRUE(db.Exec("ATTACH '" + tmp.File("aux.db") +
                      "' AS aux; CREATE TABLE aux.job (id INTEGER, name TEXT);"
                      "INSERT INTO aux.job VALUES (1, 'aux');"));
  EXPECT_EQ(read(text) + "|" + read(text + " "), "id:1, name:'aux'|id:1, name:'aux'");
  ASSERT_EQ(
      Query(path, "CREATE TABLE job (id INTEGER, name TEXT); INSERT INTO job VALUES (1, 'main');"),
      "");
  SqliteValueList row;
  ASSERT_TRUE(
      db.SelectRecord(AllJobs(SqliteEqual("id", 1)), row));  // its table check reads main's schema
  EXPECT_EQ(row.ToStr() + "|" + read(text + " "), "id:1, name:'main'|id:1, name:'main'");
  ASSERT_TRUE(db.Exec("DROP TABLE main.job"));
  EXPECT_EQ(read(text), "id:1, name:'aux'");
  ASSERT_TRUE(db.InsertRecord(Job(1, "here")));  // its table check creates main.job
  EXPECT_EQ(read(text) + "|" + read(text + " "), "id:1, name:'here'|id:1, name:'here'");
  // A temporary table shadows main's; a rollback takes it away again.
  const std::string tempJob =
      "CREATE TEMP TABLE job (id INTEGER, name TEXT); INSERT INTO temp.job VALUES (1, 'temp');";
  ASSERT_TRUE(db.Exec("BEGIN; " + tempJob));
  EXPECT_EQ(read(text), "id:1, name:'temp'");
  ASSERT_TRUE(db.Exec("ROLLBACK"));
  EXPECT_EQ(read(text), "id:1, name:'here'");
  ASSERT_TRUE(db.Exec(tempJob));
  EXPECT_EQ(read(text), "id:1, name:'temp'");
  ASSERT_TRUE(db.Exec("DROP TABLE temp.job; DROP TABLE main.job"));
  EXPECT_EQ(read(text), "id:1, name:'aux'");
  ASSERT_TRUE(db.Exec("DETACH aux"));
  EXPECT_EQ(read(text), "failed");
}

TEST(SqliteDB, TextIsReadUpToItsFirstNul) {
  TempDir tmp;
  SqliteDB db(tmp.File("nul.db"), 0, "t");
  ASSERT_TRUE(db.InsertRecord(Job(1, "placeholder")));
  ASSERT_TRUE(db.Exec("UPDATE job SET name = CAST(x'610062' AS TEXT) WHERE id = 1"));
  SqliteValueList row;
  ASSERT_TRUE(db.SelectRecord(AllJobs(SqliteEqual("id", 1)), row));
  InsertCommand copy;
  copy.SetTable(kJobs);
  copy.SetFieldValues(row);
  copy.SetReplacable(true);
  ASSERT_TRUE(db.InsertRecord(copy));
  ASSERT_TRUE(db.SelectByCommand("SELECT id, name, length(CAST(name AS BLOB)) AS n FROM job", row));
  EXPECT_EQ(row.ToStr(), "id:1, n:1, name:'a'");
}

TEST(SqliteDB, TextWithoutStatementOrConnection) {
  TempDir tmp;
  SqliteDB db(tmp.File("empty.db"), 2, "t");
  // Without a connection a single attempt records SQLite's answer for a null handle.
  const std::string closed = "{\"err_code\":21,\"err_msg\":\"out of memory\"}";
  SqliteValueList row;
  Rows rows;
  for (int call = 0; call < 3; ++call) {
    db.SetErr(0);
    EXPECT_FALSE(call == 0   ? db.DoExecSqliteCommand("SELECT 1")
                 : call == 1 ? db.DoSelectSqliteRecord("SELECT 1", row)
                             : db.DoSelectSqliteRecords("SELECT 1", rows));
    EXPECT_EQ(JsonToString(db.GetErr()), closed) << call;
  }
  // Blanks, ";" or a comment run as nothing, but select nothing: misuse, no retry.
  const std::string err =
      "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":21,\"sqlite_errmsg\":\"not an "
      "error\"}}";
  for (const std::string text : {" \n ", ";", "-- only a comment"}) {
    EXPECT_TRUE(db.Exec(text) && db.GetErrCode() == 0) << text;
    LogCapture log;
    EXPECT_FALSE(db.SelectByCommand(text, row) || db.SelectByCommand(text, rows));
    EXPECT_EQ(JsonToString(db.GetErr()), err);
    const std::string tail = "[" + text + "] with err [" + err + "]";
    EXPECT_EQ(
        log.Summary(),
        (Lines{"ERR SelectByCommand: Reach retry limit [0], failed to select command" + tail,
               "ERR SelectByCommand: Reach retry limit [0], failed to exec command " + tail}));
  }
  EXPECT_TRUE(row.Empty() && rows.empty());
}

class ScriptedCommand : public SqliteCommand {
 public:
  explicit ScriptedCommand(const Lines& texts) : texts_(texts) { SetTable(kJobs); }
  std::string GetCommand() const override { return calls_ < 2 ? texts_[calls_++] : ""; }
  bool IsValid() const override { return true; }
  void DumpParam(std::stringstream&) const override {}

 private:
  Lines texts_;
  mutable size_t calls_ = 0;
};

TEST(SqliteDB, CommandIsAskedForTheLogLineAndAgainForTheRun) {
  TempDir tmp;
  SqliteDB db(tmp.File("cmd.db"), 0, "[cmd]");
  LogCapture log;
  ASSERT_TRUE(db.Exec(ScriptedCommand(
      {"INSERT INTO job VALUES (1, 'logged')", "INSERT INTO job VALUES (1, 'run')"})));
  EXPECT_EQ(log.Messages("INFO"), (Lines{"[cmd] Exec cmd: INSERT INTO job VALUES (1, 'logged')",
                                         "[cmd] Exec cmd success"}));
  EXPECT_EQ(Query(tmp.File("cmd.db"), "SELECT name FROM job"), "run");
}

TEST(SqliteDB, DanglingLinkIsNoDatabase) {
  TempDir tmp;
  const std::string target = tmp.File("target.db"), link = tmp.File("link.db");
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  SqliteDB db(link, 0, "t");
  db.SetErr(123, "earlier");
  Rows rows;
  SqliteValueList row;
  const SelectCommand select = AllJobs(SqliteEqual("id", 1));
  EXPECT_FALSE(db.IsExisted() || db.SelectRecords(select, rows) || db.SelectRecord(select, row));
  EXPECT_EQ(JsonToString(db.GetErr()), "{\"err_code\":123,\"err_msg\":\"earlier\"}");
  EXPECT_TRUE(db.DeleteRecord("id=1", kJobs) && db.DeleteAllRecords(kJobs));
  EXPECT_NE(access(target.c_str(), F_OK), 0);
  // Once the target exists the link is the database.
  ASSERT_TRUE(SqliteDB(target, 0, "t").InsertRecord(Job(1, "through")));
  EXPECT_TRUE(db.IsExisted() && db.SelectRecords(select, rows) && rows.size() == 1u);
  EXPECT_EQ(rows[0].ToStr(), "id:1, name:'through'");
}
