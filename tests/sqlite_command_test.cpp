#include "support/suite.h"

const long long k2p32 = 4294967296LL;

TEST(SqliteValue, FormatsEachPayloadAsSqlLiteral) {
  // Integers outside both 32-bit ranges stay valid and readable, yet format to "".
  Lines texts;
  for (const SqliteValue& value :
       {SqliteValue(), SqliteValue(true), SqliteValue(false), SqliteValue(INT_MIN),
        SqliteValue(UINT_MAX), SqliteValue(k2p32), SqliteValue(-k2p32), SqliteValue(ULLONG_MAX)})
    texts.push_back(value.ToFormatedValue());
  EXPECT_EQ((Lines{"", "1", "0", "-2147483648", "4294967295", "", "", ""}), texts);
  // Assignment moves the payload only, so an IN list filled by assignment is refused.
  std::vector<SqliteValue> assigned(2);
  assigned[0] = SqliteValue(1);
  assigned[1] = SqliteValue(2);
  EXPECT_EQ("5", (assigned[0] = SqliteValue(5)).ToFormatedValue());
  LogCapture log;
  EXPECT_EQ("", SqliteIn("id", assigned).GetText());
  EXPECT_EQ(Lines{"Invalid rvalue [5]"}, log.Messages("ERR"));
}

// No `warn`: T{} silently becomes `want`. Else the read fails, logs `warn`, and `want` stays.
template <typename T>
void ExpectRead(const SqliteValue& value, T want, const std::string& warn = "") {
  LogCapture log;
  T out = warn.empty() ? T{} : want;
  EXPECT_EQ(warn.empty(), value.GetValue(out)) << warn;
  EXPECT_EQ(want, out);
  EXPECT_EQ(warn.empty() ? Lines{} : Lines{"WARN GetValue: " + warn}, log.Summary());
}

TEST(SqliteValue, GetValueAcceptsMatchingPayloadsAndRefusesOthers) {
  const SqliteValue text(std::string("x")), one(1), minus(-1), over31(2147483648LL);
  const SqliteValue over32(k2p32), top(ULLONG_MAX);
  ExpectRead<std::string>(one, "kept", "[1] is not string");
  ExpectRead<int>(text, 7, "[\"x\"] is not int");
  ExpectRead<int>(over31, 7, "[2147483648] is not int");
  ExpectRead<int>(SqliteValue(-2147483649LL), 7, "[-2147483649] is not int");
  ExpectRead<unsigned int>(over31, 2147483648U);
  ExpectRead<unsigned int>(minus, 7U, "[-1] is not int");
  ExpectRead<unsigned int>(over32, 7U, "[4294967296] is not int");
  ExpectRead<long>(SqliteValue(LONG_MIN), LONG_MIN);
  ExpectRead<long long>(over32, k2p32);
  ExpectRead<unsigned long>(SqliteValue(ULONG_MAX), ULONG_MAX);
  ExpectRead<unsigned long long>(top, ULLONG_MAX);
  ExpectRead<unsigned long long>(SqliteValue(LLONG_MIN), 7ULL, "[-9223372036854775808] is not int");
  ExpectRead<bool>(one, true);
  ExpectRead<bool>(SqliteValue(2), true, "[2] is not bool");
  ExpectRead<bool>(minus, true, "[-1] is not bool");
  ExpectRead<bool>(text, false, "[\"x\"] is not bool");
}

struct JobRecord : SqliteRecord {
  SqliteValueList ToSqliteValueList(const std::vector<std::string>& fields) const override {
    SqliteValueList record;
    for (const std::string& field : fields) record.AddValue(field, SqliteValue(field));
    return record;
  }
  std::vector<std::string> GetFieldNames() const override { return {"name", "id"}; }
};

TEST(SqliteValueList, AddsMergesLooksUpAndLogsExactLines) {
  LogCapture log;
  SqliteValueList record = JobRecord().ToSqliteRecord(), other;
  EXPECT_FALSE(record.AddValue("a", SqliteValue()) || record.AddValue("", SqliteValue(5)));
  other.AddValue("id", SqliteValue(3));
  other.AddValue("Z", SqliteValue(true));
  record += other;  // the entries of `other` win; byte order puts Z first
  EXPECT_EQ("Z:1, id:3, name:'name'", record.ToStr());
  int id = 0;
  std::string text;
  EXPECT_FALSE(record.GetValue("").IsValid() || record.GetValue("nope").IsValid());
  EXPECT_TRUE(record.GetValue("id", id) && id == 3 && record.HasField("id"));
  EXPECT_FALSE(record.GetValue("id", text) || record.GetValue("nope", id) ||
               record.GetValue("", id) || record.HasField("nope") || record.HasField(""));
  EXPECT_EQ(
      (Lines{"ERR AddValue: Bad Field[a] or value []", "ERR AddValue: Bad Field[] or value [5]",
             "ERR GetValue: Invalid field []", "WARN GetValue: Failed to find field [nope]",
             "WARN GetValue: [3] is not string", "DEBUG GetValue: field [nope] is not existed",
             "ERR GetValue: Invalid field []", "ERR HasField: Invalid field []"}),
      log.Summary());
}

TEST(SqliteCondition, BuildsTheDocumentedTextsAndRefusesBadSides) {
  LogCapture log;
  EXPECT_EQ((Lines{"id=5", "name!='a''b'", "(id=5) AND (state!=0)", "(a=1) OR (b IS NULL)",
                   "id IN ( 1,2,3 )", "n IN ( 'x','it''s' )", "id NOT IN ( 1,2 )", "id NOT IN (  )",
                   "raw < 3", "a<5", "a<=-3", "size>4000000000", "ok>=1", "name LIKE 'it''s _%'"}),
            (Lines{SqliteEqual("id", SqliteValue(5)).GetText(),
                   SqliteNotEqual("name", SqliteValue(std::string("a'b"))).GetText(),
                   SqliteAnd(SqliteEqual("id", 5), std::string("state!=0")).GetText(),
                   SqliteOr(SqliteEqual("a", 1), SqliteIsNull("b")).GetText(),
                   SqliteIn("id", {1, 2, 3}).GetText(),
                   SqliteIn("n", {std::string("x"), std::string("it's")}).GetText(),
                   SqliteNotIn("id", "1,2").GetText(),
                   SqliteNotIn("id", std::vector<SqliteValue>()).GetText(),
                   SqliteCondition(std::string("raw < 3")).GetText(), SqliteLess("a", 5).GetText(),
                   SqliteLessEqual("a", -3).GetText(), SqliteGreater("size", 4000000000u).GetText(),
                   SqliteGreaterEqual("ok", true).GetText(),
                   SqliteLike("name", std::string("it's _%")).GetText()}));
  EXPECT_TRUE(log.Lines().empty());
  // Refusals keep the text; a later SetValue replaces it, And/Or append a group per call.
  SqliteEqual equal("id", SqliteValue(1));
  EXPECT_FALSE(equal.SetValue("", SqliteValue(5)) || equal.SetValue("id", SqliteValue()));
  EXPECT_EQ("id=1", equal.GetText());
  EXPECT_TRUE(equal.SetValue("b", SqliteValue(true)));
  SqliteAnd both("a=1", "b=2");
  EXPECT_TRUE(both.SetValue("c=3", "d=4"));
  EXPECT_FALSE(both.SetValue("", "x") || SqliteOr(SqliteCondition(), SqliteIsNull("b")).IsValid());
  SqliteIsNull isNull;  // never reports success; IsValid() tells whether the text was built
  EXPECT_TRUE(!isNull.SetValue("x") && !isNull.SetValue("") && isNull.IsValid());
  const SqliteGreaterEqual big("a", SqliteValue(1LL << 33));  // valid: formats to ""
  EXPECT_FALSE(SqliteLessEqual("", 1).IsValid() || SqliteGreater("a", SqliteValue()).IsValid());
  EXPECT_EQ((Lines{"b=1", "(a=1) AND (b=2)(c=3) AND (d=4)", "x IS NULL", "a>="}),
            (Lines{equal.GetText(), both.GetText(), isNull.GetText(), big.GetText()}));
  EXPECT_EQ(
      (Lines{"ERR SetValue: Bad lvalue[] or rvalue[5]", "ERR SetValue: Bad lvalue[id] or rvalue[]",
             "ERR SetValue: Bad lvalue[] or rvalue[x]",
             "ERR SetValue: Bad lvalue[] or rvalue[b IS NULL]", "ERR SetValue: Bad lvalue[]",
             "ERR SetValue: Bad lvalue[] or rvalue[1]", "ERR SetValue: Bad lvalue[a] or rvalue[]"}),
      log.Summary());
}

TEST(SqliteCondition, InFamilyValidityFollowsTheKeywordOnly) {
  LogCapture log;
  SqliteIn in;
  EXPECT_TRUE(in.IsValid() && in.SetValue("id", {1, 2}));
  // One invalid value empties the text, not just the new list.
  EXPECT_TRUE(!in.SetValue("id", {SqliteValue(1), SqliteValue(), SqliteValue(3)}) &&
              in.GetText().empty());
  EXPECT_TRUE(in.SetValue("id", "7") && SqliteNotIn("", "1").IsValid());
  EXPECT_FALSE(in.SetValue("", {1}) || in.SetValue("id", ""));
  EXPECT_EQ("id IN ( 7 )", in.GetText());
  SqliteInFamily lower("in", "id", "1");
  EXPECT_FALSE(lower.IsValid() || SqliteInFamily("NOT IN ").SetValue("id", {1}) ||
               !lower.GetText().empty());
  EXPECT_EQ((Lines{"ERR SetValue: Invalid rvalue []", "ERR SetValue: Bad lvalue[] or value[1]",
                   "ERR SetValue: Bad lvalue[]", "ERR SetValue: Bad lvalue[id] or value[]",
                   "ERR SetValue: Bad keyword [in]", "ERR SetValue: Bad keyword [NOT IN ]"}),
            log.Summary());
}

template <typename Command>
Command On(const SqliteTableHandler& table) {
  Command command;
  command.SetTable(table);
  return command;
}

TEST(SqliteCommand, IncompleteBuildersGiveNothingAndLogEachCall) {
  InsertCommand insert, insertOn = On<InsertCommand>(kJobs);
  UpdateCommand update, updateOn = On<UpdateCommand>(kJobs);
  SelectCommand select, selectOn = On<SelectCommand>(kJobs);
  DeleteCommand remove, removeOn = On<DeleteCommand>(kJobs);
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
  for (const auto& [builder, line] : builders) {
    EXPECT_EQ("", builder->GetCommand());
    expected.push_back("ERR GetCommand: " + line);
  }
  EXPECT_EQ(expected, log.Summary());
  EXPECT_EQ("job]condition:[]/fields:[]|() VALUES ()",
            selectOn.ToStr() + "|" + insertOn.ToFormatedInsertValues());
}

TEST(SqliteCommand, InsertAndUpdateBuildColumnsInFieldOrder) {
  LogCapture log;
  InsertCommand insert = On<InsertCommand>(kJobs);
  EXPECT_TRUE(insert.AddFieldValue("name", std::string("it's")) && insert.AddFieldValue("id", 3));
  EXPECT_EQ("INSERT INTO job (id,name) VALUES (3,'it''s');", insert.GetCommand());
  EXPECT_EQ("job]values:[id=3,name='it''s']", insert.ToStr());
  insert.SetReplacable(true);
  EXPECT_EQ("INSERT OR REPLACE INTO job (id,name) VALUES (3,'it''s');", insert.GetCommand());
  InsertCommand typed = On<InsertCommand>(kJobs);
  EXPECT_TRUE(typed.AddFieldValue("z", true) && typed.AddFieldValue("a", 1) &&
              typed.AddFieldValue("a", std::string("x")) && typed.AddFieldValue("u", 4000000000U) &&
              typed.AddFieldValue("l", -9L));
  EXPECT_FALSE(typed.AddFieldValue("", 1) || typed.AddFieldValue("", std::string("v")));
  EXPECT_EQ("INSERT INTO job (a,l,u,z) VALUES ('x',-9,4000000000,1);", typed.GetCommand());
  // A value formatting to "" (beyond 32 bits) adds no separator of its own.
  SqliteValueList record;
  record.AddValue("big", SqliteValue(k2p32));
  record.AddValue("id", SqliteValue(3));
  insert.SetFieldValues(record);  // replaces every field
  EXPECT_EQ("(big,id) VALUES (3)", insert.ToFormatedInsertValues());

  UpdateCommand update = On<UpdateCommand>(kJobs);
  update.AddFieldValue("state", 2);
  update.AddFieldValue("name", std::string("a"));
  EXPECT_EQ("UPDATE job SET name='a',state=2", update.GetCommand());
  EXPECT_TRUE(update.SetCondition(SqliteEqual("id", 3)));
  // Text picks the text overloads: an empty one is refused silently, an empty object logs.
  EXPECT_FALSE(update.SetCondition("") || update.SetCondition(std::string()) ||
               update.SetCondition(SqliteEqual()));
  EXPECT_EQ("UPDATE job SET name='a',state=2 WHERE id=3", update.GetCommand());
  EXPECT_EQ("job]condition:[id=3]/values:[name='a',state=2]", update.ToStr());
  EXPECT_EQ(
      (Lines{"ERR AddFieldValue: Bad Field [] /value[1]",
             "ERR AddFieldValue: Bad Field [] /value['v']", "ERR SetCondition: Invalid condition"}),
      log.Summary());
}

TEST(SqliteCommand, SelectBuildsFieldsConditionOrderAndLimit) {
  LogCapture log;
  SelectCommand some = On<SelectCommand>(kJobs);
  EXPECT_FALSE(some.AddField("") || some.AddOrderField(""));
  for (const char* field : {"id", "name"}) some.AddField(field);
  some.SetCondition("state=2");
  some.AddOrderField("id");
  EXPECT_TRUE(some.SetLimit(10));
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
  some.SetOrderByDESC();
  for (int twice = 0; twice < 2; ++twice) some.AddField("id");
  EXPECT_EQ("SELECT id,id FROM job WHERE state=2 ORDER BY id,name DESC LIMIT 20, 10",
            some.GetCommand());
  EXPECT_EQ("job]condition:[state=2]/fields:[id, id]", some.ToStr());
  EXPECT_EQ((Lines{"ERR SetCondition: Empty condition", "ERR SetCondition: Invalid condition"}),
            log.Summary());
}

TEST(SqliteCommand, DeleteNeedsConditionOrDeleteAll) {
  LogCapture log;
  DeleteCommand all = On<DeleteCommand>(kJobs);
  all.DeleteAll();
  EXPECT_EQ("DELETE FROM job;|job]condition:[all]", all.GetCommand() + "|" + all.ToStr());
  // A condition survives a later DeleteAll(); a later condition clears the flag.
  DeleteCommand kept = On<DeleteCommand>(kJobs);
  EXPECT_FALSE(kept.SetCondition("") || kept.IsValid());
  EXPECT_TRUE(kept.SetCondition(SqliteIn("id", {3})));
  kept.DeleteAll();
  EXPECT_EQ("DELETE FROM job WHERE id IN ( 3 );", kept.GetCommand());
  EXPECT_TRUE(!all.SetCondition(SqliteEqual()) && all.SetCondition("id=1"));
  EXPECT_EQ("DELETE FROM job WHERE id=1;", all.GetCommand());
  EXPECT_EQ(Lines{"ERR SetCondition: Invalid condition"}, log.Summary());
}
