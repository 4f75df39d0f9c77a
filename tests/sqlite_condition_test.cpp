#include "vantdr/sqlite_condition.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;

namespace {

TEST(SqliteCondition, BuildsTheDocumentedTexts) {
  LogCapture log;
  EXPECT_EQ("id=5", SqliteEqual("id", SqliteValue(5)).GetText());
  EXPECT_EQ("name!='a''b'", SqliteNotEqual("name", SqliteValue(std::string("a'b"))).GetText());
  EXPECT_EQ("(id=5) AND (state=1)", SqliteAnd("id=5", "state=1").GetText());
  EXPECT_EQ("(a=1) OR (b IS NULL)", SqliteOr(SqliteEqual("a", 1), SqliteIsNull("b")).GetText());
  EXPECT_EQ("id IN ( 1,2,3 )", SqliteIn("id", {1, 2, 3}).GetText());
  EXPECT_EQ("n IN ( 'x','it''s' )",
            SqliteIn("n", {std::string("x"), std::string("it's")}).GetText());
  EXPECT_EQ("id NOT IN ( 1,2 )", SqliteNotIn("id", "1,2").GetText());
  EXPECT_EQ("id NOT IN (  )", SqliteNotIn("id", std::vector<SqliteValue>()).GetText());
  EXPECT_EQ("deleted_time IS NULL", SqliteIsNull("deleted_time").GetText());
  EXPECT_EQ("raw < 3", SqliteCondition("raw < 3").GetText());
  EXPECT_TRUE(SqliteCondition("x").IsValid());
  EXPECT_FALSE(SqliteCondition().IsValid());
  EXPECT_TRUE(log.Lines().empty());
}

TEST(SqliteCondition, EqualityRefusalsKeepTheTextAndLogOnce) {
  LogCapture log;
  SqliteEqual equal("id", SqliteValue(1));
  EXPECT_FALSE(equal.SetValue("", SqliteValue(5)));
  EXPECT_FALSE(equal.SetValue("id", SqliteValue()));
  EXPECT_EQ("id=1", equal.GetText());
  EXPECT_TRUE(equal.SetValue("b", SqliteValue(true)));
  EXPECT_EQ("b=1", equal.GetText());
  SqliteNotEqual notEqual("", SqliteValue(std::string("v")));
  EXPECT_FALSE(notEqual.IsValid());
  EXPECT_EQ("", notEqual.GetText());
  EXPECT_EQ((std::vector<std::string>{"ERR SetValue: Bad lvalue[] or rvalue[5]",
                                      "ERR SetValue: Bad lvalue[id] or rvalue[]",
                                      "ERR SetValue: Bad lvalue[] or rvalue['v']"}),
            log.Summary());
  EXPECT_EQ("sqlite_condition.cpp", log.Lines()[0].file);
}

TEST(SqliteCondition, AndOrAppendAndRefuseEmptySides) {
  LogCapture log;
  SqliteAnd both("a=1", "b=2");
  EXPECT_TRUE(both.SetValue("c=3", "d=4"));
  EXPECT_EQ("(a=1) AND (b=2)(c=3) AND (d=4)", both.GetText());
  EXPECT_FALSE(both.SetValue("", "x"));
  EXPECT_EQ("(a=1) AND (b=2)(c=3) AND (d=4)", both.GetText());
  SqliteOr either(SqliteCondition(), SqliteIsNull("b"));
  EXPECT_FALSE(either.IsValid());
  EXPECT_TRUE(either.SetValue("a=1", "b=2"));
  EXPECT_EQ("(a=1) OR (b=2)", either.GetText());
  EXPECT_EQ((std::vector<std::string>{"ERR SetValue: Bad lvalue[] or rvalue[x]",
                                      "ERR SetValue: Bad lvalue[] or rvalue[b IS NULL]"}),
            log.Summary());
}

TEST(SqliteCondition, InFamilyValidityFollowsTheKeywordOnly) {
  LogCapture log;
  SqliteIn in;
  EXPECT_TRUE(in.IsValid());
  EXPECT_EQ("", in.GetText());
  EXPECT_TRUE(in.SetValue("id", {1, 2}));
  // One invalid value empties the text, not just the new list.
  EXPECT_FALSE(in.SetValue("id", {SqliteValue(1), SqliteValue(), SqliteValue(3)}));
  EXPECT_EQ("", in.GetText());
  EXPECT_TRUE(in.SetValue("id", "7"));
  EXPECT_FALSE(in.SetValue("", {1}));
  EXPECT_FALSE(in.SetValue("id", ""));
  EXPECT_EQ("id IN ( 7 )", in.GetText());
  EXPECT_TRUE(SqliteNotIn("", "1").IsValid());
  SqliteInFamily lower("in", "id", "1");
  EXPECT_FALSE(lower.IsValid());
  EXPECT_EQ("", lower.GetText());
  EXPECT_FALSE(SqliteInFamily("NOT IN ").SetValue("id", {1}));
  EXPECT_EQ((std::vector<std::string>{
                "ERR SetValue: Invalid rvalue []", "ERR SetValue: Bad lvalue[]",
                "ERR SetValue: Bad lvalue[id] or value[]", "ERR SetValue: Bad lvalue[] or value[1]",
                "ERR SetValue: Bad keyword [in]", "ERR SetValue: Bad keyword [NOT IN ]"}),
            log.Summary());
}

TEST(SqliteCondition, IsNullNeverReportsSuccess) {
  LogCapture log;
  SqliteIsNull isNull;
  EXPECT_FALSE(isNull.SetValue("x"));
  EXPECT_TRUE(isNull.IsValid());
  EXPECT_EQ("x IS NULL", isNull.GetText());
  EXPECT_FALSE(isNull.SetValue(""));
  EXPECT_EQ("x IS NULL", isNull.GetText());
  EXPECT_FALSE(SqliteIsNull("").IsValid());
  EXPECT_EQ((std::vector<std::string>{"ERR SetValue: Bad lvalue[]", "ERR SetValue: Bad lvalue[]"}),
            log.Summary());
}

}  // namespace
