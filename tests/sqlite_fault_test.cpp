#include "support/fault_injection.h"
#include "support/suite.h"

// Contention on the third row: rows read stay; no retry gives 405, one retry appends all rows.
TEST(SqliteFaults, BusyInTheMiddleOfSelectRecords) {
  TempDir dir;
  const std::string path = dir.File("busy.db");
  ASSERT_TRUE(SqliteDB(path, 0, "seed").InsertRecords(Jobs(1, 5)));
  std::vector<SqliteValueList> rows;
  Faults::Arm();
  ASSERT_TRUE(SqliteDB(path, 0, "busy").SelectRecords(AllJobs(), rows));
  const int thirdRow = Faults::Steps() - 6 + 3;  // the query's own steps are its last six
  Faults::Disarm();
  LogCapture log;
  // BUSY and LOCKED are both contention: 405 and a retry.
  for (const int result : {SQLITE_BUSY, SQLITE_LOCKED}) {
    for (unsigned retryLimit : {0u, 1u}) {
      SqliteDB db(path, retryLimit, "busy");
      rows.clear();
      log.Clear();
      Faults::Arm();
      Faults::FailStep(thirdRow, result);
      EXPECT_EQ(db.SelectRecords(AllJobs(), rows), retryLimit == 1);
      Faults::Disarm();
      std::string ids;
      for (const SqliteValueList& row : rows) ids += row.GetValue("id").ToFormatedValue();
      EXPECT_EQ(ids, retryLimit == 0 ? "12" : "1212345");
      const std::string err = R"({"err_code":405,"err_msg":{"sqlite_errcode":)" +
                              std::to_string(result) +
                              R"(,"sqlite_errmsg":"another row available"}})";
      EXPECT_EQ(JsonToString(db.GetErr()), retryLimit == 0 ? err : R"({"err_code":0})");
      EXPECT_EQ(log.Summary(),
                std::vector<std::string>{
                    retryLimit == 0 ? "ERR SelectByCommand: Reach retry limit [1], failed to exec "
                                      "command [" +
                                          AllJobs().GetCommand() + "] with err [" + err + "]"
                                    : "INFO SelectByCommand: After retry [1] times, success to "
                                      "select command"});
    }
  }
}

// Any failed allocation fails the batch, changing nothing; a "?" condition forces literal SQL.
TEST(SqliteFaults, AllocationFailuresInABatch) {
  TempDir dir;
  SqliteDB db(dir.File("alloc.db"), 0, "alloc");
  ASSERT_TRUE(db.InsertRecord(Job(1, "a")));
  UpdateCommand update;
  update.SetTable(kJobs);
  update.AddFieldValue("name", std::string(1 << 20, 'x'));
  update.SetCondition("name != '?'");
  std::string codes;
  for (int nth = 1; nth <= 8; ++nth) {
    db.SetErr(0);
    Faults::FailAllocation(1 << 20, nth);
    const bool ok = db.UpdateRecords({update});
    Faults::FailAllocation(0, 0);
    if (ok) break;
    codes += std::to_string(db.GetErrCode()) + " ";
    EXPECT_EQ(Query(dir.File("alloc.db"), "SELECT name FROM job"), "a") << nth;
  }
  // 407 from the copies made before the batch starts, 402 from inside it.
  EXPECT_TRUE(std::regex_match(codes, std::regex("(407 )*(402 )+"))) << codes;
}
