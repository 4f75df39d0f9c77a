#include "vantdr/sqlite_command.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;

namespace {

const SqliteTableHandler kJob("job", "id INTEGER PRIMARY KEY, name TEXT");

template <typename Command>
Command On(const SqliteTableHandler& table) {
  Command command;
  command.SetTable(table);
  return command;
}

TEST(SqliteCommand, SetTableRefusesEmptyNameAndKeepsTheTable) {
  LogCapture log;
  SelectCommand select;
  EXPECT_EQ("]condition:[]/fields:[]", select.ToStr());
  EXPECT_TRUE(select.SetTable(kJob));
  EXPECT_FALSE(select.SetTable(SqliteTableHandler("", "id INTEGER")));
  EXPECT_EQ("job", select.GetTable().GetName());
  EXPECT_EQ("id INTEGER PRIMARY KEY, name TEXT", select.GetTable().GetColumnDefinitions());
  EXPECT_EQ((std::vector<std::string>{"ERR SetTable: Invalid table []"}), log.Summary());
}

TEST(SqliteCommand, IncompleteBuildersGiveNothingAndLogEachCall) {
  LogCapture log;
  InsertCommand insert;
  UpdateCommand update;
  SelectCommand select;
  DeleteCommand remove;
  insert.AddFieldValue("a", 1);
  update.AddFieldValue("a", 1);
  select.SelectAll();
  remove.DeleteAll();
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ("", insert.GetCommand());
    EXPECT_EQ("", update.GetCommand());
    EXPECT_EQ("", select.GetCommand());
    EXPECT_EQ("", remove.GetCommand());
    EXPECT_EQ("", On<InsertCommand>(kJob).GetCommand());
    EXPECT_EQ("", On<UpdateCommand>(kJob).GetCommand());
    EXPECT_EQ("", On<SelectCommand>(kJob).GetCommand());
    EXPECT_EQ("", On<DeleteCommand>(kJob).GetCommand());
  }
  EXPECT_EQ(4, log.Count("Bad insert parameter"));
  EXPECT_EQ(4, log.Count("Bad update command"));
  EXPECT_EQ(4, log.Count("Bad select command"));
  EXPECT_EQ(4, log.Count("Bad delete command"));
  EXPECT_EQ(16u, log.Messages("ERR").size());
  EXPECT_EQ("GetCommand", log.Lines()[0].func);
}

TEST(InsertCommand, BuildsColumnsInFieldOrder) {
  LogCapture log;
  InsertCommand insert = On<InsertCommand>(kJob);
  EXPECT_TRUE(insert.AddFieldValue("name", std::string("it's")));
  EXPECT_TRUE(insert.AddFieldValue("id", 3));
  EXPECT_EQ("INSERT INTO job (id,name) VALUES (3,'it''s');", insert.GetCommand());
  EXPECT_EQ("job]values:[id=3,name='it''s']", insert.ToStr());
  insert.SetReplacable(true);
  EXPECT_EQ("INSERT OR REPLACE INTO job (id,name) VALUES (3,'it''s');", insert.GetCommand());

  InsertCommand typed = On<InsertCommand>(kJob);
  EXPECT_TRUE(typed.AddFieldValue("z", true));
  EXPECT_TRUE(typed.AddFieldValue("a", 1));
  EXPECT_TRUE(typed.AddFieldValue("a", std::string("x")));
  EXPECT_TRUE(typed.AddFieldValue("u", 4000000000U));
  EXPECT_TRUE(typed.AddFieldValue("l", -9L));
  EXPECT_FALSE(typed.AddFieldValue("", 1));
  EXPECT_EQ("INSERT INTO job (a,l,u,z) VALUES ('x',-9,4000000000,1);", typed.GetCommand());

  InsertCommand refused = On<InsertCommand>(kJob);
  EXPECT_FALSE(refused.AddFieldValue("", std::string("v")));
  EXPECT_EQ("", refused.GetCommand());
  EXPECT_EQ("() VALUES ()", refused.ToFormatedInsertValues());
  EXPECT_EQ((std::vector<std::string>{"ERR AddFieldValue: Bad Field [] /value[1]",
                                      "ERR AddFieldValue: Bad Field [] /value['v']",
                                      "ERR GetCommand: Bad insert parameter"}),
            log.Summary());
}

TEST(InsertCommand, ValueFormattingToEmptyKeepsTheJoiningRule) {
  SqliteValueList record;
  record.AddValue("a", SqliteValue(3));
  record.AddValue("big", SqliteValue(4294967296LL));
  InsertCommand insert = On<InsertCommand>(kJob);
  insert.SetFieldValues(record);
  EXPECT_EQ("(a,big) VALUES (3,)", insert.ToFormatedInsertValues());
  SqliteValueList other;
  other.AddValue("big", SqliteValue(4294967296LL));
  other.AddValue("id", SqliteValue(3));
  insert.SetFieldValues(other);
  EXPECT_EQ("INSERT INTO job (big,id) VALUES (3);", insert.GetCommand());
}

TEST(UpdateCommand, SetsFieldsWithOptionalCondition) {
  LogCapture log;
  UpdateCommand update = On<UpdateCommand>(kJob);
  update.AddFieldValue("state", 2);
  update.AddFieldValue("name", std::string("a"));
  EXPECT_EQ("UPDATE job SET name='a',state=2", update.GetCommand());
  EXPECT_TRUE(update.SetCondition(SqliteEqual("id", 3)));
  EXPECT_FALSE(update.SetCondition(""));
  EXPECT_FALSE(update.SetCondition(SqliteEqual()));
  EXPECT_EQ("UPDATE job SET name='a',state=2 WHERE id=3", update.GetCommand());
  EXPECT_EQ("job]condition:[id=3]/values:[name='a',state=2]", update.ToStr());
  EXPECT_EQ((std::vector<std::string>{"ERR SetCondition: Invalid condition"}), log.Summary());
}

TEST(SelectCommand, BuildsFieldsConditionOrderAndLimit) {
  LogCapture log;
  SelectCommand all = On<SelectCommand>(kJob);
  all.SelectAll();
  all.SetOrderByASC();
  EXPECT_EQ("SELECT  * FROM job", all.GetCommand());
  EXPECT_EQ("job]condition:[]/fields:[all]", all.ToStr());

  SelectCommand some = On<SelectCommand>(kJob);
  EXPECT_FALSE(some.AddField(""));
  some.AddField("id");
  some.AddField("name");
  some.SetCondition("state=2");
  some.AddOrderField("id");
  EXPECT_TRUE(some.SetLimit(10));
  EXPECT_EQ("SELECT id,name FROM job WHERE state=2 ORDER BY id DESC LIMIT 0, 10",
            some.GetCommand());
  EXPECT_EQ("job]condition:[state=2]/fields:[id, name]", some.ToStr());
  EXPECT_FALSE(some.SetLimit(0));
  EXPECT_FALSE(some.SetLimit(-1));
  EXPECT_FALSE(some.SetLimit(-1, 5));
  EXPECT_FALSE(some.SetLimit(5, 0));
  EXPECT_FALSE(some.SetCondition(""));
  EXPECT_FALSE(some.SetCondition(SqliteCondition()));
  EXPECT_FALSE(some.AddOrderField(""));
  EXPECT_EQ("SELECT id,name FROM job WHERE state=2 ORDER BY id DESC LIMIT 0, 10",
            some.GetCommand());
  EXPECT_TRUE(some.SetLimit(20, 10));
  some.AddOrderField("name");
  some.SetOrderByASC();
  some.SelectAll();
  EXPECT_EQ("SELECT  * FROM job WHERE state=2 ORDER BY id,name ASC LIMIT 20, 10",
            some.GetCommand());
  EXPECT_TRUE(some.SetLimit(3));
  some.SetOrderByDESC();
  some.AddField("id");
  some.AddField("id");
  EXPECT_EQ("SELECT id,id FROM job WHERE state=2 ORDER BY id,name DESC LIMIT 20, 3",
            some.GetCommand());
  EXPECT_EQ((std::vector<std::string>{"ERR SetCondition: Empty condition",
                                      "ERR SetCondition: Invalid condition"}),
            log.Summary());
}

TEST(DeleteCommand, NeedsConditionOrDeleteAll) {
  LogCapture log;
  DeleteCommand all = On<DeleteCommand>(kJob);
  all.DeleteAll();
  EXPECT_EQ("DELETE FROM job;", all.GetCommand());
  EXPECT_EQ("job]condition:[all]", all.ToStr());

  DeleteCommand keep = On<DeleteCommand>(kJob);
  EXPECT_FALSE(keep.SetCondition(""));
  EXPECT_FALSE(keep.IsValid());
  EXPECT_EQ("job]condition:[]", keep.ToStr());
  EXPECT_TRUE(keep.SetCondition(SqliteIn("id", {3})));
  keep.DeleteAll();
  EXPECT_EQ("DELETE FROM job WHERE id IN ( 3 );", keep.GetCommand());
  EXPECT_EQ("job]condition:[id IN ( 3 )]", keep.ToStr());

  DeleteCommand cleared = On<DeleteCommand>(kJob);
  cleared.DeleteAll();
  EXPECT_FALSE(cleared.SetCondition(SqliteEqual()));
  EXPECT_TRUE(cleared.SetCondition("id=1"));
  EXPECT_EQ("DELETE FROM job WHERE id=1;", cleared.GetCommand());
  EXPECT_EQ((std::vector<std::string>{"ERR SetCondition: Invalid condition"}), log.Summary());
}

}  // namespace
