#include "vantdr/sqlite_command.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;
using Lines = std::vector<std::string>;

namespace {

const SqliteTableHandler kJob("job", "id INTEGER PRIMARY KEY, name TEXT");

template <typename Command>
Command On(const SqliteTableHandler& table) {
  Command command;
  command.SetTable(table);
  return command;
}

TEST(SqliteCommand, IncompleteBuildersGiveNothingAndLogEachCall) {
  InsertCommand insert, insertOn = On<InsertCommand>(kJob);
  UpdateCommand update, updateOn = On<UpdateCommand>(kJob);
  SelectCommand select, selectOn = On<SelectCommand>(kJob);
  DeleteCommand remove, removeOn = On<DeleteCommand>(kJob);
  // Complete but for the table, or with a table and nothing else.
  insert.AddFieldValue("a", 1);
  update.AddFieldValue("a", 1);
  select.SelectAll();
  remove.DeleteAll();
  const std::pair<const SqliteCommand*, std::string> builders[] = {
      {&insert, "Bad insert parameter"}, {&insertOn, "Bad insert parameter"},
      {&update, "Bad update command"},   {&updateOn, "Bad update command"},
      {&select, "Bad select command"},   {&selectOn, "Bad select command"},
      {&remove, "Bad delete command"},   {&removeOn, "Bad delete command"}};
  LogCapture log;
  EXPECT_FALSE(selectOn.SetTable(SqliteTableHandler("", "id INTEGER")));  // keeps job
  Lines expected = {"ERR SetTable: Invalid table []"};
  for (const auto& builder : builders) {
    for (int call = 0; call < 2; ++call) {
      EXPECT_EQ("", builder.first->GetCommand());
      expected.push_back("ERR GetCommand: " + builder.second);
    }
  }
  EXPECT_EQ(expected, log.Summary());
  EXPECT_EQ("]condition:[]/fields:[all]|job]condition:[]/fields:[]|() VALUES ()",
            select.ToStr() + "|" + selectOn.ToStr() + "|" + insertOn.ToFormatedInsertValues());
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
  EXPECT_TRUE(typed.AddFieldValue("z", true) && typed.AddFieldValue("a", 1));
  EXPECT_TRUE(typed.AddFieldValue("a", std::string("x")));
  EXPECT_TRUE(typed.AddFieldValue("u", 4000000000U) && typed.AddFieldValue("l", -9L));
  EXPECT_FALSE(typed.AddFieldValue("", 1) || typed.AddFieldValue("", std::string("v")));
  EXPECT_EQ("INSERT INTO job (a,l,u,z) VALUES ('x',-9,4000000000,1);", typed.GetCommand());
  EXPECT_EQ((Lines{"ERR AddFieldValue: Bad Field [] /value[1]",
                   "ERR AddFieldValue: Bad Field [] /value['v']"}),
            log.Summary());

  // A value formatting to "" (beyond 32 bits) adds no separator of its own.
  SqliteValueList record;
  record.AddValue("big", SqliteValue(4294967296LL));
  record.AddValue("id", SqliteValue(3));
  insert.SetFieldValues(record);  // replaces every field
  EXPECT_EQ("(big,id) VALUES (3)", insert.ToFormatedInsertValues());
  record.AddValue("a", SqliteValue(3));
  insert.SetFieldValues(record);
  EXPECT_EQ("INSERT OR REPLACE INTO job (a,big,id) VALUES (3,,3);", insert.GetCommand());
}

TEST(UpdateCommand, SetsFieldsWithOptionalCondition) {
  LogCapture log;
  UpdateCommand update = On<UpdateCommand>(kJob);
  update.AddFieldValue("state", 2);
  update.AddFieldValue("name", std::string("a"));
  EXPECT_EQ("UPDATE job SET name='a',state=2", update.GetCommand());
  EXPECT_TRUE(update.SetCondition(SqliteEqual("id", 3)));
  EXPECT_FALSE(update.SetCondition("") || update.SetCondition(SqliteEqual()));
  EXPECT_EQ("UPDATE job SET name='a',state=2 WHERE id=3", update.GetCommand());
  EXPECT_EQ("job]condition:[id=3]/values:[name='a',state=2]", update.ToStr());
  EXPECT_EQ(Lines{"ERR SetCondition: Invalid condition"}, log.Summary());
}

TEST(SelectCommand, BuildsFieldsConditionOrderAndLimit) {
  LogCapture log;
  SelectCommand all = On<SelectCommand>(kJob);
  all.SelectAll();
  all.SetOrderByASC();
  EXPECT_EQ("SELECT  * FROM job", all.GetCommand());

  SelectCommand some = On<SelectCommand>(kJob);
  EXPECT_FALSE(some.AddField("") || some.AddOrderField(""));
  some.AddField("id");
  some.AddField("name");
  some.SetCondition("state=2");
  some.AddOrderField("id");
  EXPECT_TRUE(some.SetLimit(10));
  // Refused setters change nothing.
  EXPECT_FALSE(some.SetLimit(0) || some.SetLimit(-1) || some.SetLimit(-1, 5) ||
               some.SetLimit(5, 0) || some.SetCondition("") ||
               some.SetCondition(SqliteCondition()));
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
  EXPECT_EQ("job]condition:[state=2]/fields:[id, id]", some.ToStr());
  EXPECT_EQ((Lines{"ERR SetCondition: Empty condition", "ERR SetCondition: Invalid condition"}),
            log.Summary());
}

TEST(DeleteCommand, NeedsConditionOrDeleteAll) {
  LogCapture log;
  DeleteCommand all = On<DeleteCommand>(kJob);
  all.DeleteAll();
  EXPECT_EQ("DELETE FROM job;", all.GetCommand());
  EXPECT_EQ("job]condition:[all]", all.ToStr());

  // A condition survives a later DeleteAll(); a later condition clears the flag.
  DeleteCommand kept = On<DeleteCommand>(kJob);
  EXPECT_FALSE(kept.SetCondition("") || kept.IsValid());
  EXPECT_EQ("job]condition:[]", kept.ToStr());
  EXPECT_TRUE(kept.SetCondition(SqliteIn("id", {3})));
  kept.DeleteAll();
  EXPECT_EQ("DELETE FROM job WHERE id IN ( 3 );", kept.GetCommand());
  EXPECT_EQ("job]condition:[id IN ( 3 )]", kept.ToStr());
  EXPECT_FALSE(all.SetCondition(SqliteEqual()));
  EXPECT_TRUE(all.SetCondition("id=1"));
  EXPECT_EQ("DELETE FROM job WHERE id=1;", all.GetCommand());
  EXPECT_EQ(Lines{"ERR SetCondition: Invalid condition"}, log.Summary());
}

}  // namespace
