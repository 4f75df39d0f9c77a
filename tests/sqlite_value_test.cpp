#include "vantdr/sqlite_value.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <regex>

#include "support/log_capture.h"
#include "vantdr/json_text.h"

using namespace VantDRCore;
using VantDRTest::LogCapture;

namespace {

const long long k2p32 = 4294967296LL;

TEST(SqliteValue, FormatsEachPayloadAsSqlLiteral) {
  EXPECT_FALSE(SqliteValue().IsValid());
  EXPECT_EQ("", SqliteValue().ToFormatedValue());
  EXPECT_EQ("1", SqliteValue(true).ToFormatedValue());
  EXPECT_EQ("0", SqliteValue(false).ToFormatedValue());
  EXPECT_EQ("-2147483648", SqliteValue(INT_MIN).ToFormatedValue());
  EXPECT_EQ("4294967295", SqliteValue(UINT_MAX).ToFormatedValue());
  EXPECT_EQ("''", SqliteValue(std::string()).ToFormatedValue());
  EXPECT_EQ("'O''Neil'", SqliteValue(std::string("O'Neil")).ToFormatedValue());
  EXPECT_EQ("'a''b''''c'", SqliteValue(std::string("a'b''c")).ToFormatedValue());
  EXPECT_EQ("'\\\"\n'", SqliteValue(std::string("\\\"\n")).ToFormatedValue());
  // Valid, readable back, but outside both 32-bit ranges: formats to "".
  for (const SqliteValue& big :
       {SqliteValue(k2p32), SqliteValue(-k2p32), SqliteValue(ULLONG_MAX)}) {
    EXPECT_TRUE(big.IsValid());
    EXPECT_EQ("", big.ToFormatedValue());
  }
}

TEST(SqliteValue, ApostropheDoublingMatchesRegexReplace) {
  std::mt19937 random(20240611);
  std::vector<std::string> inputs = {"'", "''", "'a", "a'", "'''x'''", "a'b'c"};
  for (int n = 0; n < 2000; ++n) {
    std::string text(random() % 40, 'x');
    for (char& c : text) {
      // Half apostrophes so that runs and ends occur often; NUL excluded.
      c = random() % 2 ? '\'' : static_cast<char>(1 + random() % 255);
    }
    inputs.push_back(text);
  }
  const std::regex apostrophe("'");
  for (const std::string& text : inputs) {
    ASSERT_EQ("'" + std::regex_replace(text, apostrophe, "''") + "'",
              SqliteValue(text).ToFormatedValue());
  }
}

template <typename T>
T Other(T v) {
  return static_cast<T>(v + 1);
}
bool Other(bool v) { return !v; }
std::string Other(const std::string& v) { return v + "?"; }

// No `warn`: the read succeeds and yields `want`. Otherwise it fails with
// that WARN line and `want`, the sentinel already in `out`, survives.
template <typename T>
void ExpectRead(const SqliteValue& value, T want, const std::string& warn = "") {
  LogCapture log;
  const bool ok = warn.empty();
  T out = ok ? Other(want) : want;
  EXPECT_EQ(ok, value.GetValue(out)) << JsonToString(value.GetJsonValue());
  EXPECT_EQ(want, out);
  EXPECT_EQ(ok ? std::vector<std::string>{} : std::vector<std::string>{"WARN GetValue: " + warn},
            log.Summary());
}

TEST(SqliteValue, GetValueAcceptsMatchingPayloadsAndRefusesOthersWithoutThrowing) {
  const SqliteValue text(std::string("x")), yes(true), one(1), two(2), minus(-1);
  const SqliteValue over31(2147483648LL), over32(k2p32), under31(-2147483649LL);
  const SqliteValue top(ULLONG_MAX), bottom(LLONG_MIN), none;

  ExpectRead<std::string>(text, "x");
  ExpectRead<std::string>(one, "kept", "[1] is not string");
  ExpectRead<std::string>(none, "kept", "[null] is not string");

  ExpectRead<int>(minus, -1);
  ExpectRead<int>(text, 7, "[\"x\"] is not int");
  ExpectRead<int>(over31, 7, "[2147483648] is not int");
  ExpectRead<int>(under31, 7, "[-2147483649] is not int");

  ExpectRead<unsigned int>(over31, 2147483648U);
  ExpectRead<unsigned int>(minus, 7U, "[-1] is not int");
  ExpectRead<unsigned int>(over32, 7U, "[4294967296] is not int");

  ExpectRead<long>(SqliteValue(LONG_MIN), LONG_MIN);
  ExpectRead<long>(top, 7L, "[18446744073709551615] is not int");
  ExpectRead<long long>(under31, -2147483649LL);
  ExpectRead<long long>(over32, k2p32);
  ExpectRead<long long>(top, 7LL, "[18446744073709551615] is not int");

  ExpectRead<unsigned long>(SqliteValue(ULONG_MAX), ULONG_MAX);
  ExpectRead<unsigned long>(minus, 7UL, "[-1] is not int");
  ExpectRead<unsigned long long>(top, ULLONG_MAX);
  ExpectRead<unsigned long long>(bottom, 7ULL, "[-9223372036854775808] is not int");

  ExpectRead<bool>(yes, true);
  ExpectRead<bool>(one, true);
  ExpectRead<bool>(SqliteValue(0U), false);
  ExpectRead<bool>(two, true, "[2] is not bool");
  ExpectRead<bool>(minus, false, "[-1] is not bool");
  ExpectRead<bool>(text, false, "[\"x\"] is not bool");
}

TEST(SqliteValue, AssignmentReplacesPayloadButKeepsTargetFlag) {
  SqliteValue target;
  target = SqliteValue(5);
  EXPECT_FALSE(target.IsValid());
  EXPECT_EQ("5", target.ToFormatedValue());
  SqliteValue copy(SqliteValue(5));
  EXPECT_TRUE(copy.IsValid());
  copy = SqliteValue(std::string("s"));
  EXPECT_TRUE(copy.IsValid());
  EXPECT_EQ("'s'", copy.ToFormatedValue());
}

TEST(SqliteValueList, AddsReplacesAndRefusesWithExactLines) {
  LogCapture log;
  SqliteValueList record;
  EXPECT_FALSE(record.AddValue("a", SqliteValue()));
  EXPECT_FALSE(record.AddValue("", SqliteValue(5)));
  EXPECT_TRUE(record.Empty());
  EXPECT_TRUE(record.AddValue("a", SqliteValue(1)));
  EXPECT_TRUE(record.AddValue("name", SqliteValue(std::string("it's"))));
  EXPECT_TRUE(record.AddValue("a", SqliteValue(std::string("x"))));
  EXPECT_TRUE(record.AddValue("B", SqliteValue(5)));
  EXPECT_EQ("B:5, a:'x', name:'it''s'", record.ToStr());
  EXPECT_EQ((std::vector<std::string>{"ERR AddValue: Bad Field[a] or value []",
                                      "ERR AddValue: Bad Field[] or value [5]"}),
            log.Summary());
  EXPECT_EQ("", SqliteValueList().ToStr());

  SqliteValueList other;
  other.AddValue("a", SqliteValue(9));
  other.AddValue("c", SqliteValue(true));
  record += other;
  EXPECT_EQ("B:5, a:9, c:1, name:'it''s'", record.ToStr());
}

TEST(SqliteValueList, LookupsLogByKindOfMiss) {
  SqliteValueList record;
  record.AddValue("id", SqliteValue(3));
  LogCapture log;
  EXPECT_EQ("3", record.GetValue("id").ToFormatedValue());
  EXPECT_FALSE(record.GetValue("").IsValid());
  EXPECT_FALSE(record.GetValue("nope").IsValid());
  int id = 0;
  EXPECT_TRUE(record.GetValue("id", id));
  EXPECT_EQ(3, id);
  std::string text = "kept";
  EXPECT_FALSE(record.GetValue("id", text));
  EXPECT_FALSE(record.GetValue("nope", id));
  EXPECT_FALSE(record.GetValue("", id));
  EXPECT_EQ("kept", text);
  EXPECT_TRUE(record.HasField("id"));
  EXPECT_FALSE(record.HasField("nope"));
  EXPECT_FALSE(record.HasField(""));
  EXPECT_EQ((std::vector<std::string>{
                "ERR GetValue: Invalid field []", "WARN GetValue: Failed to find field [nope]",
                "WARN GetValue: [3] is not string", "DEBUG GetValue: field [nope] is not existed",
                "ERR GetValue: Invalid field []", "ERR HasField: Invalid field []"}),
            log.Summary());
}

class Job : public SqliteRecord {
 public:
  SqliteValueList ToSqliteValueList(const std::vector<std::string>& fields) const override {
    SqliteValueList record;
    for (const std::string& field : fields) record.AddValue(field, SqliteValue(field));
    return record;
  }
  std::vector<std::string> GetFieldNames() const override { return {"name", "id"}; }
};

TEST(SqliteRecord, ToSqliteRecordConvertsEveryListedField) {
  EXPECT_EQ("id:'id', name:'name'", Job().ToSqliteRecord().ToStr());
}

}  // namespace
