#include "vantdr/sqlite_condition.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;
using Lines = std::vector<std::string>;

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
  EXPECT_TRUE(log.Lines().empty());
}

TEST(SqliteCondition, RefusalsKeepTheTextAndLogOnce) {
  LogCapture log;
  SqliteEqual equal("id", SqliteValue(1));
  EXPECT_FALSE(equal.SetValue("", SqliteValue(5)) || equal.SetValue("id", SqliteValue()));
  EXPECT_EQ("id=1", equal.GetText());
  EXPECT_TRUE(equal.SetValue("b", SqliteValue(true)));  // replaces the text
  EXPECT_FALSE(SqliteNotEqual("", SqliteValue(std::string("v"))).IsValid());
  // And/Or append a group per call, and keep the text when a side is empty.
  SqliteAnd both("a=1", "b=2");
  EXPECT_TRUE(both.SetValue("c=3", "d=4"));
  EXPECT_FALSE(both.SetValue("", "x"));
  EXPECT_FALSE(SqliteOr(SqliteCondition(), SqliteIsNull("b")).IsValid());
  // IsNull never reports success; IsValid() tells whether the text was built.
  SqliteIsNull isNull;
  EXPECT_FALSE(isNull.SetValue("x") || isNull.SetValue(""));
  EXPECT_TRUE(isNull.IsValid());
  EXPECT_EQ((Lines{"b=1", "(a=1) AND (b=2)(c=3) AND (d=4)", "x IS NULL"}),
            (Lines{equal.GetText(), both.GetText(), isNull.GetText()}));
  EXPECT_EQ(
      (Lines{"ERR SetValue: Bad lvalue[] or rvalue[5]", "ERR SetValue: Bad lvalue[id] or rvalue[]",
             "ERR SetValue: Bad lvalue[] or rvalue['v']", "ERR SetValue: Bad lvalue[] or rvalue[x]",
             "ERR SetValue: Bad lvalue[] or rvalue[b IS NULL]", "ERR SetValue: Bad lvalue[]"}),
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
  EXPECT_FALSE(in.SetValue("", {1}) || in.SetValue("id", ""));
  EXPECT_EQ("id IN ( 7 )", in.GetText());
  EXPECT_TRUE(SqliteNotIn("", "1").IsValid());
  SqliteInFamily lower("in", "id", "1");
  EXPECT_FALSE(lower.IsValid());
  EXPECT_EQ("", lower.GetText());
  EXPECT_FALSE(SqliteInFamily("NOT IN ").SetValue("id", {1}));
  EXPECT_EQ(
      (Lines{"ERR SetValue: Invalid rvalue []", "ERR SetValue: Bad lvalue[]",
             "ERR SetValue: Bad lvalue[id] or value[]", "ERR SetValue: Bad lvalue[] or value[1]",
             "ERR SetValue: Bad keyword [in]", "ERR SetValue: Bad keyword [NOT IN ]"}),
      log.Summary());
}

TEST(SqliteCondition, ComparisonsAndLikeFollowEqual) {
  LogCapture log;
  EXPECT_EQ(
      (Lines{"a<5", "a<=-3", "size>4000000000", "ok>=1", "name LIKE 'x%'", "name LIKE 'it''s _%'"}),
      (Lines{SqliteLess("a", 5).GetText(), SqliteLessEqual("a", -3).GetText(),
             SqliteGreater("size", 4000000000u).GetText(), SqliteGreaterEqual("ok", true).GetText(),
             SqliteLike("name", std::string("x%")).GetText(),
             SqliteLike("name", std::string("it's _%")).GetText()}));
  EXPECT_TRUE(log.Lines().empty());
  // Refusals keep the text (empty when constructing) and log from SetValue.
  SqliteLess less("a", 1);
  EXPECT_FALSE(less.SetValue("", 2) || less.SetValue("b", SqliteValue()));
  EXPECT_EQ("a<1", less.GetText());
  EXPECT_TRUE(less.SetValue("b", 2));  // replaces, never appends
  EXPECT_EQ("b<2", less.GetText());
  const SqliteLessEqual noField("", 1);
  const SqliteGreater noValue("a", SqliteValue());
  const SqliteGreaterEqual big("a", SqliteValue(1LL << 33));  // valid: formats to ""
  const SqliteLike noPattern("", std::string("%"));
  EXPECT_FALSE(noField.IsValid() || noValue.IsValid() || noPattern.IsValid());
  EXPECT_EQ("a>=", big.GetText());
  EXPECT_EQ(
      (Lines{"ERR SetValue: Bad lvalue[] or rvalue[2]", "ERR SetValue: Bad lvalue[b] or rvalue[]",
             "ERR SetValue: Bad lvalue[] or rvalue[1]", "ERR SetValue: Bad lvalue[a] or rvalue[]",
             "ERR SetValue: Bad lvalue[] or rvalue['%']"}),
      log.Summary());
}

}  // namespace
