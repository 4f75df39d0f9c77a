#include "vantdr/sqlite_value.h"

#include <gtest/gtest.h>

#include <climits>

#include "support/log_capture.h"
#include "vantdr/sqlite_condition.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;
using Lines = std::vector<std::string>;

namespace {

const long long k2p32 = 4294967296LL;

TEST(SqliteValue, FormatsEachPayloadAsSqlLiteral) {
  // Integers outside both 32-bit ranges stay valid and readable, yet format to "".
  const SqliteValue values[] = {SqliteValue(),        SqliteValue(true),      SqliteValue(false),
                                SqliteValue(INT_MIN), SqliteValue(UINT_MAX),  SqliteValue(k2p32),
                                SqliteValue(-k2p32),  SqliteValue(ULLONG_MAX)};
  Lines texts;
  for (const SqliteValue& value : values) texts.push_back(value.ToFormatedValue());
  EXPECT_EQ((Lines{"", "1", "0", "-2147483648", "4294967295", "", "", ""}), texts);
  // Assignment moves the payload only: the target keeps its own flag.
  SqliteValue target;
  target = SqliteValue(5);
  EXPECT_FALSE(target.IsValid());
  EXPECT_EQ("5", target.ToFormatedValue());
  // So an IN list filled by assignment is refused; typed construction works.
  std::vector<SqliteValue> assigned(2);
  assigned[0] = SqliteValue(1);
  assigned[1] = SqliteValue(2);
  LogCapture log;
  SqliteIn refused("id", assigned);
  EXPECT_EQ("", refused.GetText());
  EXPECT_EQ(std::vector<std::string>{"Invalid rvalue [1]"}, log.Messages("ERR"));
  EXPECT_EQ("id IN ( 1,2 )", SqliteIn("id", {SqliteValue(1), SqliteValue(2)}).GetText());
}

// No `warn`: the read succeeds, silently, and turns `out` from T{} into `want`.
// Otherwise it fails with that WARN line and `want`, already in `out`, survives.
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

  ExpectRead<std::string>(text, "x");
  ExpectRead<std::string>(one, "kept", "[1] is not string");

  ExpectRead<int>(minus, -1);
  ExpectRead<int>(text, 7, "[\"x\"] is not int");
  ExpectRead<int>(over31, 7, "[2147483648] is not int");
  ExpectRead<int>(SqliteValue(-2147483649LL), 7, "[-2147483649] is not int");

  ExpectRead<unsigned int>(over31, 2147483648U);
  ExpectRead<unsigned int>(minus, 7U, "[-1] is not int");
  ExpectRead<unsigned int>(over32, 7U, "[4294967296] is not int");

  ExpectRead<long>(SqliteValue(LONG_MIN), LONG_MIN);
  ExpectRead<long>(top, 7L, "[18446744073709551615] is not int");
  ExpectRead<long long>(over32, k2p32);
  ExpectRead<long long>(top, 7LL, "[18446744073709551615] is not int");

  ExpectRead<unsigned long>(SqliteValue(ULONG_MAX), ULONG_MAX);
  ExpectRead<unsigned long>(minus, 7UL, "[-1] is not int");
  ExpectRead<unsigned long long>(top, ULLONG_MAX);
  ExpectRead<unsigned long long>(SqliteValue(LLONG_MIN), 7ULL, "[-9223372036854775808] is not int");

  ExpectRead<bool>(SqliteValue(true), true);
  ExpectRead<bool>(one, true);
  ExpectRead<bool>(SqliteValue(0), false);
  ExpectRead<bool>(SqliteValue(2), true, "[2] is not bool");
  ExpectRead<bool>(minus, true, "[-1] is not bool");
  ExpectRead<bool>(text, false, "[\"x\"] is not bool");
}

struct Job : SqliteRecord {
  SqliteValueList ToSqliteValueList(const std::vector<std::string>& fields) const override {
    SqliteValueList record;
    for (const std::string& field : fields) record.AddValue(field, SqliteValue(field));
    return record;
  }
  std::vector<std::string> GetFieldNames() const override { return {"name", "id"}; }
};

TEST(SqliteValueList, AddsMergesLooksUpAndLogsExactLines) {
  LogCapture log;
  SqliteValueList record = Job().ToSqliteRecord(), other;
  EXPECT_EQ("id:'id', name:'name'", record.ToStr());
  EXPECT_FALSE(record.AddValue("a", SqliteValue()) || record.AddValue("", SqliteValue(5)));
  EXPECT_EQ("", other.ToStr());
  other.AddValue("id", SqliteValue(3));
  other.AddValue("Z", SqliteValue(true));
  record += other;  // the entries of `other` win; byte order puts Z first
  EXPECT_EQ("Z:1, id:3, name:'name'", record.ToStr());
  int id = 0;
  std::string text;
  EXPECT_EQ("3", record.GetValue("id").ToFormatedValue());
  EXPECT_FALSE(record.GetValue("").IsValid() || record.GetValue("nope").IsValid());
  EXPECT_TRUE(record.GetValue("id", id) && id == 3);
  EXPECT_FALSE(record.GetValue("id", text) || record.GetValue("nope", id) ||
               record.GetValue("", id));
  EXPECT_TRUE(record.HasField("id"));
  EXPECT_FALSE(record.HasField("nope") || record.HasField(""));
  EXPECT_EQ(
      (Lines{"ERR AddValue: Bad Field[a] or value []", "ERR AddValue: Bad Field[] or value [5]",
             "ERR GetValue: Invalid field []", "WARN GetValue: Failed to find field [nope]",
             "WARN GetValue: [3] is not string", "DEBUG GetValue: field [nope] is not existed",
             "ERR GetValue: Invalid field []", "ERR HasField: Invalid field []"}),
      log.Summary());
}

}  // namespace
