#include "support/suite.h"

const SqliteTableHandler kKinds(
    "kinds",
    "id INTEGER PRIMARY KEY, i INTEGER, n NUMERIC, t TEXT, r REAL, b BLOB, x, "
    "d INTEGER DEFAULT 7, s TEXT DEFAULT 'none', u TEXT UNIQUE");
const SqliteTableHandler kEvents("events", "k TEXT, v INTEGER");

InsertCommand Insert(const SqliteTableHandler& table, const std::string& fields,
                     const std::vector<SqliteValue>& values, bool replace = false) {
  std::istringstream names(fields);
  std::string field;
  SqliteValueList list;
  for (const SqliteValue& value : values) list.AddValue(names >> field ? field : "", value);
  InsertCommand insert;
  insert.SetTable(table);
  insert.SetFieldValues(list);
  insert.SetReplacable(replace);
  return insert;
}

template <typename T>
UpdateCommand Update(const SqliteTableHandler& table, const std::string& field, const T& value,
                     const std::string& condition) {
  UpdateCommand update;
  update.SetTable(table);
  update.AddFieldValue(field, value);
  update.SetCondition(condition);
  return update;
}

std::string Dump(const std::string& path) {
  std::string out;
  for (const std::string table : {"kinds", "events", "job"}) {
    const std::string columns =
        Query(path,
              "SELECT group_concat('typeof(' || name || ') || quote(' || name || ')', ' || \",\" "
              "|| ') FROM pragma_table_info('" +
                  table + "')");
    out += table + ": " +
           Query(path, "SELECT group_concat(" + columns + ", char(10)) FROM (SELECT * FROM " +
                           table + " ORDER BY rowid)") +
           "\n";
  }
  return out;
}

TEST(SqliteBatch, WritesExactlyTheRowsOfOneByOneWrites) {
  TempDir tmp;
  using V = SqliteValue;
  using S = std::string;
  std::vector<InsertCommand> inserts = {
      Insert(kKinds, "id i n t r b x u",  // affinity turns text into numbers
             {V(1), V(S("42")), V(S("1.5")), V(5), V(3), V(S("blob")), V(S("007")), V(S("a"))}),
      Insert(kKinds, "i n t x u",
             {V(true), V(S("abc")), V(S("it's 'quoted'; -- not a comment")), V(-2147483647L - 1),
              V(S("b"))}),
      Insert(kKinds, "i u s", {V(4000000000u), V(S("c")), V(S(":name ?1 @p $v"))}),
      Insert(kEvents, "k v", {V(S("key")), V(0)}),
      Insert(kEvents, "k v", {V(S("")), V(1)}),
      Insert(kEvents, "k v", {V(S("key")), V(2)}),
      Insert(kKinds, "u", {V(S("d"))}),
      Insert(kKinds, "u i", {V(S("d")), V(false)}, true)};  // a new rowid
  inserts.push_back(inserts[3]);                            // the same statement shape twice more
  inserts.push_back(inserts[3]);
  // "?1" in a condition is text, never a parameter: it binds nothing here.
  UpdateCommand marked = Update(kEvents, "k", std::string("key"), "k = ?1");
  marked.AddFieldValue("v", 8);
  const std::vector<UpdateCommand> updates = {
      marked,
      Update(kKinds, "n", std::string("2"), "u='b'"),
      Update(kKinds, "s", std::string("x"), "u != 'c' AND s != 'a:b'"),  // a colon
      Update(kKinds, "d", 1, ""),                                        // every row
      Update(kEvents, "v", 9, SqliteGreater("v", 1).GetText()),
  };
  SqliteDB single(tmp.File("single.db"), 0, "t"), batch(tmp.File("batch.db"), 0, "t");
  for (const InsertCommand& insert : inserts) ASSERT_TRUE(single.InsertRecord(insert));
  for (const UpdateCommand& update : updates) ASSERT_TRUE(single.UpdateRecord(update));
  LogCapture log;
  ASSERT_TRUE(batch.InsertRecords(inserts));
  EXPECT_EQ(batch.GetLastInsertRowId(), single.GetLastInsertRowId());
  ASSERT_TRUE(batch.UpdateRecords(updates));
  EXPECT_EQ(log.Summary(), (Lines{"INFO ExecBatch: t Exec batch of 10 commands success",
                                  "INFO ExecBatch: t Exec batch of 5 commands success"}));
  EXPECT_EQ(Dump(tmp.File("batch.db")), Dump(tmp.File("single.db")));

  // A failing command fails the batch with its one-by-one error and writes nothing.
  Lines errors;
  for (const InsertCommand& failing :
       {Insert(kJobs, "name", {V(S("a\0b", 3))}),
        Insert(kJobs, "id name", {V(1LL << 33), V(S("x"))}), Job(1, "x")}) {
    const std::string n = std::to_string(errors.size());
    SqliteDB alone(tmp.File("alone" + n), 0, "t"), together(tmp.File("together" + n), 0, "t");
    EXPECT_FALSE(alone.InsertRecord(failing) && alone.InsertRecord(Job(1, "dup")));
    EXPECT_FALSE(together.InsertRecords({Job(2, "first"), failing, Job(1, "dup")}));
    errors.push_back(JsonToString(alone.GetErr()));
    EXPECT_EQ(JsonToString(together.GetErr()), errors.back());
    EXPECT_FALSE(together.IsTableExisted("job"));  // created inside, rolled back too
  }
  const std::string head = "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":";
  EXPECT_EQ(errors, (Lines{head + "1,\"sqlite_errmsg\":\"unrecognized token: \\\"'a\\\"\"}}",
                           head + "1,\"sqlite_errmsg\":\"1 values for 2 columns\"}}",
                           head + "19,\"sqlite_errmsg\":\"UNIQUE constraint failed: job.id\"}}"}));
}

TEST(SqliteBatch, ChecksEveryCommandFirstAndWritesAllOrNothing) {
  TempDir tmp;
  SqliteDB db(tmp.File("jobs.db"), 2, "[jobs]");
  LogCapture log;
  std::vector<InsertCommand> jobs = Jobs(1, 50);
  jobs[29] = InsertCommand();  // the 30th: no table, no values
  std::vector<UpdateCommand> updates(2);
  updates[1].SetTable(kJobs);  // a table but no values
  EXPECT_FALSE(db.InsertRecords(jobs) || db.UpdateRecords(updates) || db.IsExisted());
  EXPECT_EQ(JsonToString(db.GetErr()), "{\"err_code\":401}");
  EXPECT_EQ(log.Summary(), (Lines{"ERR ExecBatch: Invalid command [29] of batch []values:[]]",
                                  "ERR ExecBatch: Invalid command [0] of batch []condition:[]/"
                                  "values:[]]"}));
  EXPECT_TRUE(db.InsertRecords({}) && db.UpdateRecords({}) && !db.IsExisted());  // nothing to do
  // The 30th row's failure rolls back the 29 before it; a constraint is not contention, no retry.
  ASSERT_TRUE(db.InsertRecords(Jobs(100, 1)));
  jobs[29] = Job(100, "taken");
  log.Clear();
  EXPECT_FALSE(db.InsertRecords(jobs));
  const std::string err =
      "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":19,\"sqlite_errmsg\":\"UNIQUE "
      "constraint failed: job.id\"}}";
  EXPECT_EQ(log.Summary(),
            Lines{"ERR ExecBatch: Reach retry limit [0], failed to exec batch of 50 commands at "
                  "[INSERT INTO job (id,name) VALUES (100,'taken');] with err [" +
                  err + "]"});
  EXPECT_TRUE(JsonToString(db.GetErr()) == err && Count(db) == 1) << JsonToString(db.GetErr());
}

// Texts over 100 bytes are too long for the connections of this process.
int LimitLength(sqlite3* handle, const char**, const sqlite3_api_routines*) {
  sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, 100);
  return SQLITE_OK;
}

TEST(SqliteBatch, AValueSQLiteRefusesFailsTheBatchAsItFailsAlone) {
  TempDir tmp;
  for (const char* name : {"alone.db", "together.db"})  // the limit would refuse the schema
    ASSERT_TRUE(SqliteDB(tmp.File(name), 0, "t").CreateTable(kJobs));
  EXPECT_EQ(RunInChild([&] {
              sqlite3_auto_extension(reinterpret_cast<void (*)()>(LimitLength));
              SqliteDB alone(tmp.File("alone.db"), 0, "t");
              SqliteDB together(tmp.File("together.db"), 0, "t");
              const InsertCommand tooLong = Job(2, std::string(150, 'x'));
              if (alone.InsertRecord(tooLong) || together.InsertRecords({Job(1, "a"), tooLong}))
                return 1;
              if (JsonToString(together.GetErr()) != JsonToString(alone.GetErr())) return 2;
              return alone.GetErrCode() == 404 && Count(together) == 0 ? 0 : 3;
            }).exitCode,
            0);
}

TEST(SqliteDB, CountsMatchingRowsAndTellsTheLastRowId) {
  TempDir tmp;
  SqliteDB db(tmp.File("jobs.db"), 0, "t");
  LogCapture log;
  int count = -1;
  EXPECT_FALSE(db.GetCount(kJobs, SqliteGreater("id", 2), count));
  ASSERT_TRUE(db.InsertRecords(Jobs(1, 5)) && db.InsertRecord(Job(0, "x")));
  EXPECT_EQ(db.GetLastInsertRowId(), 6);
  EXPECT_TRUE(db.GetCount(
      kJobs, SqliteAnd(SqliteGreater("id", 2), SqliteLike("name", std::string("job%"))), count));
  EXPECT_EQ(count, 3);
  count = 42;
  EXPECT_FALSE(db.GetCount(kJobs, SqliteIn(), count) ||
               db.GetCount(kJobs, SqliteLess("", 1), count));
  EXPECT_TRUE(db.GetErrCode() == 401 && count == 42);
  db.Close();
  EXPECT_EQ(db.GetLastInsertRowId(), 0);
  EXPECT_EQ(log.Messages("ERR"),
            (Lines{"Reach retry limit [0], failed to exec command [SELECT count() as count FROM "
                   "'job' WHERE id>2;] with err [{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\""
                   ":1,\"sqlite_errmsg\":\"no such table: job\"}}]",
                   "Record is empty on command [SELECT count() as count FROM 'job' WHERE id>2;]",
                   "Invalid condition", "Bad lvalue[] or rvalue[1]", "Invalid condition"}));
}

TEST(SqliteTransaction, CommitsRollsBackAndAdmitsOneGuardAtATime) {
  TempDir tmp;
  const std::string path = tmp.File("jobs.db");
  SqliteDB db(path, 0, "t"), other(path, 0, "other");
  ASSERT_TRUE(db.InsertRecord(Job(1, "kept")));
  LogCapture log;
  {
    SqliteTransaction transaction(db);
    EXPECT_FALSE(transaction.IsActive());
    ASSERT_TRUE(transaction.Begin());
    EXPECT_TRUE(db.InsertRecord(Job(2, "a")) && db.InsertRecords(Jobs(3, 2)));
    EXPECT_EQ(Count(db), 4);     // its own writes are visible to it
    EXPECT_EQ(Count(other), 1);  // and to nobody else yet
    SqliteTransaction second(db);
    EXPECT_TRUE(!second.Begin() && !second.IsActive() && !transaction.Begin() &&
                db.GetErrCode() == 401);
    EXPECT_TRUE(transaction.IsActive());
  }  // not committed: rolled back
  EXPECT_EQ(Count(other), 1);
  {
    SqliteTransaction transaction(db);
    ASSERT_TRUE(transaction.Begin() && db.InsertRecord(Job(2, "a")));
    EXPECT_TRUE(!db.InsertRecords({Job(3, "b"), Job(2, "again")}) && db.GetErrCode() == 404);
    EXPECT_TRUE(db.InsertRecords(Jobs(4, 2)));
    EXPECT_FALSE(db.InsertRecord(Job(1, "duplicate")));
    const std::string err = JsonToString(db.GetErr());
    EXPECT_TRUE(transaction.Rollback() && JsonToString(db.GetErr()) == err);
    EXPECT_FALSE(transaction.IsActive() || transaction.Rollback() || transaction.Commit());
    ASSERT_TRUE(transaction.Begin());  // a guard may start again once done
    ASSERT_TRUE(db.InsertRecord(Job(2, "a")) && db.InsertRecords(Jobs(4, 2)));
    EXPECT_TRUE(transaction.Commit() && !transaction.IsActive());
    EXPECT_TRUE(SqliteTransaction(db).Begin());  // the slot is free again
  }
  EXPECT_EQ(Count(other), 4);
  // SQLite's own refusal of a nested BEGIN goes through the retry policy.
  ASSERT_TRUE(db.Exec("BEGIN"));
  EXPECT_TRUE(!SqliteTransaction(db).Begin() && db.GetErrCode() == 404);
  EXPECT_TRUE(db.Exec("ROLLBACK"));
  const std::string on = " on db[" + path + "]";
  EXPECT_EQ(log.Count("Transaction already active" + on), 2);
  EXPECT_TRUE(log.Has("ERR", "No active transaction to roll back" + on) &&
              log.Has("ERR", "No active transaction to commit" + on));
}

// Holders keep the lock 1.5 s (readers 2.5 s): past the 1 s busy time-out, within one retry.
TEST(SqliteTransactionContention, BeginCommitAndBatchesAreRetriedWhenBusy) {
  const char kWriter[] = "BEGIN EXCLUSIVE", kReader[] = "BEGIN; SELECT count(*) FROM job";
  TempDir tmp;
  const std::string path = tmp.File("jobs.db");
  SqliteDB db{path, 2, "t"}, impatient{path, 0, "t"};
  ASSERT_TRUE(db.InsertRecord(Job(1, "a")));
  LogCapture log;
  const auto whileHeld = [&](const char* begin, int holdMs, const std::function<void()>& body) {
    const pid_t holder = HoldSqliteLock(path, begin, holdMs);
    ASSERT_GT(holder, 0);
    body();
    EXPECT_EQ(WaitChild(holder).exitCode, 0);
  };
  whileHeld(kWriter, 1500, [&] {
    SqliteTransaction transaction(impatient);
    EXPECT_TRUE(!transaction.Begin() && !transaction.IsActive() && impatient.GetErrCode() == 405);
  });
  whileHeld(kWriter, 1500, [&] { EXPECT_FALSE(impatient.InsertRecords(Jobs(2, 3))); });
  SqliteTransaction transaction(db);
  whileHeld(kWriter, 1500, [&] { EXPECT_TRUE(transaction.Begin()); });
  EXPECT_TRUE(transaction.Rollback());
  whileHeld(kReader, 2500, [&] {
    ASSERT_TRUE(transaction.Begin() && db.InsertRecord(Job(2, "b")));
    EXPECT_TRUE(transaction.Commit());
  });
  // A batch starts over from BEGIN, and from BEGIN again when busy at COMMIT.
  whileHeld(kWriter, 1500, [&] { EXPECT_TRUE(db.InsertRecords(Jobs(3, 3))); });
  whileHeld(kReader, 2500, [&] { EXPECT_TRUE(db.InsertRecords(Jobs(6, 3))); });
  EXPECT_EQ(Count(impatient), 8);
  const std::string locked =
      "with err [{\"err_code\":405,\"err_msg\":{\"sqlite_errcode\":5,"
      "\"sqlite_errmsg\":\"database is locked\"}}]";
  EXPECT_EQ(
      log.Messages("ERR"),
      (Lines{"Reach retry limit [1], failed to exec command [BEGIN IMMEDIATE] " + locked,
             "Reach retry limit [1], failed to exec batch of 3 commands at [BEGIN IMMEDIATE] " +
                 locked}));
  EXPECT_EQ(log.Count("After retry [1] times, success to exec command [BEGIN IMMEDIATE]") +
                log.Count("After retry [1] times, success to exec command [COMMIT]") +
                log.Count("t After retry [1] times, success to exec batch of 3 commands"),
            4);
  // A COMMIT failing with the transaction still open leaves the guard active for its rollback.
  SqliteTransaction held(impatient);
  whileHeld(kReader, 1500, [&] {
    ASSERT_TRUE(held.Begin() && impatient.InsertRecord(Job(9, "c")));
    EXPECT_TRUE(!held.Commit() && held.IsActive());
  });
  EXPECT_TRUE(held.Rollback());
  // A batch in the caller's plain BEGIN takes its write lock late: contention fails it, no retry.
  whileHeld("BEGIN IMMEDIATE", 1500, [&] {
    ASSERT_TRUE(db.Exec("BEGIN"));
    EXPECT_TRUE(!db.InsertRecords(Jobs(9, 2)) && db.GetErrCode() == 405);
    EXPECT_TRUE(db.Exec("ROLLBACK"));
  });
  EXPECT_EQ(Count(db), 8);
}
