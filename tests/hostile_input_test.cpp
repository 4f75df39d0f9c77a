// Every operation that takes JSON or text from outside, fed with shapes it
// does not expect: no exception, no crash, and the documented default.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "vantdr/cache.h"
#include "vantdr/file.h"
#include "vantdr/json_text.h"
#include "vantdr/request.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_value.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

const std::string kHuge(1 << 20, 'x');
const std::string kNul("a\0b", 3);
const std::string kBadUtf8("\xff\xfe\x80");
const Json::Value kNull;

struct Shape {
  const char* name;
  Json::Value value;
  bool truthy;  // what a boolean reading of it gives
};

std::vector<Shape> Shapes() {
  Json::Value deep, pair(Json::arrayValue), *inner = &deep;
  for (int i = 0; i < 600; ++i) inner = &(*inner = Json::Value(Json::arrayValue)).append(0);
  pair.append(1);
  pair.append(Json::Value(Json::arrayValue)).append(2);
  // clang-format off
  return {{"null", Json::Value(), false}, {"true", true, true}, {"0", 0, false}, {"-1", -1, true},
          {"2^31", Json::UInt(2147483648u), true}, {"2^63", Json::UInt64(1ULL << 63), true},
          {"1e308", 1e308, true}, {"-1e308", -1e308, true}, {"empty string", "", false},
          {"x", "x", false}, {"[]", Json::Value(Json::arrayValue), false}, {"[1,[2]]", pair, false},
          {"{}", Json::Value(Json::objectValue), false}, {"deep", deep, false},
          {"huge", kHuge, false}, {"bad utf-8", kBadUtf8, false}, {"nul", kNul, false}};
  // clang-format on
}

Json::Value Object(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value object(Json::objectValue);
  for (const auto& member : members) object[member.first] = member.second;
  return object;
}

TEST(HostileInput, ResponseQueriesFallBackToDefaults) {
  for (const Shape& s : Shapes()) {
    SCOPED_TRACE(s.name);
    const Json::Value& x = s.value;
    Response bare(x), set;  // the hostile shape as the whole answer: nothing is valid
    set.setResp(x);
    for (const Response* r : {&bare, &set}) {
      EXPECT_FALSE(r->isValid() || r->isSuccess() || r->hasData() || r->hasDataField("finish") ||
                   r->isPollFinish() || r->isPollSuccess() || r->hasAdditional() ||
                   r->hasField("success") || r->hasField(nullptr));
      EXPECT_EQ(r->getErrCode(), -1);
      for (const Json::Value& v : {r->getErrMsg(), r->getErr(), r->getData(), r->getAdditional(),
                                   r->getDataField("task_id"), r->getField("error")}) {
        EXPECT_EQ(v, kNull);
      }
      EXPECT_EQ(r->getTaskId() + r->getDataFieldtoStr("task_id"), "");
    }
    Response top(Object({{"success", x}, {"error", x}, {"data", x}}));  // members of any type
    EXPECT_TRUE(top.isValid());
    EXPECT_EQ(top.isSuccess(), s.truthy);
    EXPECT_EQ(top.getErrCode(), s.truthy ? 0 : -1);
    EXPECT_EQ(top.getErrMsg(), kNull);
    EXPECT_EQ(top.getErr(), x);
    EXPECT_EQ(top.getData(), s.truthy ? x : kNull);
    EXPECT_FALSE(top.hasDataField("finish") || top.isPollFinish() || top.hasAdditional());
    EXPECT_EQ(top.getTaskId() + top.getDataFieldtoStr("task_id"), "");

    Response poll(Object(
        {{"success", true}, {"data", Object({{"finish", x}, {"success", x}, {"task_id", x}})}}));
    EXPECT_EQ(poll.isPollFinish(), s.truthy);
    EXPECT_EQ(poll.isPollSuccess(), s.truthy);
    const std::string text = x.isString() ? x.asString() : "";
    EXPECT_EQ(poll.getDataFieldtoStr("task_id"), text);
    std::string id;
    EXPECT_NO_THROW(id = poll.getTaskId());  // scalars convert as JsonCpp does
    if (x.isString() || x.isArray() || x.isObject()) {
      EXPECT_EQ(id, text);
    }

    Response failed(Object({{"success", false}, {"error", Object({{"code", x}, {"errors", x}})}}));
    EXPECT_EQ(failed.getErrCode(), x.isInt() ? x.asInt() : -1);
    EXPECT_EQ(failed.getErrMsg(), x);
    EXPECT_NO_THROW(failed.clear());
    EXPECT_FALSE(failed.isValid());
  }
}

TEST(HostileInput, RequestKeepsItsFieldsAgainstWrongTypes) {
  LogCapture quiet;
  for (const Shape& s : Shapes()) {
    SCOPED_TRACE(s.name);
    const Json::Value& x = s.value;
    Request bare(x);
    EXPECT_EQ(bare.getParams(), x.isObject() ? x : kNull);
    EXPECT_EQ(bare.toJson(), Object({{"api", ""}, {"method", ""}, {"version", -1}}));

    Request typed("A", 3, "M", kNull);
    typed.setRequest(Object({{"api", x}, {"method", x}, {"version", x}}));
    const std::string api = x.isString() ? x.asString() : "A";
    const int version = x.isInt() ? x.asInt() : 3;
    EXPECT_EQ(typed.toStr(),
              api + "/" + (x.isString() ? api : "M") + "/" + std::to_string(version));
    EXPECT_EQ(typed.getParams().isMember("api"), !x.isString());
    EXPECT_EQ(typed.getParams().isMember("version"), !x.isInt());
    EXPECT_EQ(typed.toJson()["version"], version);

    Request params;
    EXPECT_TRUE(params.addParam("k", x));
    EXPECT_FALSE(params.addParam("version", x));
    EXPECT_EQ(params.getParams(), Object({{"k", x}}));
    bool merged = false;
    EXPECT_NO_THROW(merged = bare.addParam(x));
    // Null, objects and empty arrays merge cleanly; array elements have no key.
    if (x.isNull() || x.isObject() || x.isArray()) {
      EXPECT_EQ(merged, x.empty());
    }
    EXPECT_TRUE(bare.getParams().empty());

    Request stored("A", 1, "M", x);  // params kept as given, whatever their type
    EXPECT_EQ(stored.toJson()["api"], "A");
    EXPECT_NO_THROW({
      stored.addParam("k", 1);
      stored.addParam(Object({{"k", 2}}));
    });
    EXPECT_NO_THROW(stored.clear());
    EXPECT_TRUE(stored.getParams().empty());
  }
}

struct Payload {
  const char* name;
  SqliteValue value;
  int kind;  // 0 null, 1 string, 2 bool, 3 integer
  __int128 number;
};

// A read as T succeeds exactly when the payload has T's kind and fits T.
template <typename T>
void CheckRead(const Payload& p, const SqliteValueList& list) {
  bool expected = p.kind == 3 && p.number >= std::numeric_limits<T>::min() &&
                  p.number <= std::numeric_limits<T>::max();
  T want = static_cast<T>(p.number), sentinel{};
  if constexpr (std::is_same_v<T, bool>) {
    expected = p.kind == 2 || (p.kind == 3 && (p.number == 0 || p.number == 1));
    sentinel = !want;
  }
  T out = sentinel, listed = sentinel, missing = sentinel;
  bool ok = !expected, listedOk = !expected;
  EXPECT_NO_THROW(ok = p.value.GetValue(out));
  EXPECT_NO_THROW(listedOk = list.GetValue(p.name, listed));
  EXPECT_EQ(ok, expected) << typeid(T).name();
  EXPECT_EQ(listedOk, expected && p.kind != 0) << typeid(T).name();  // null is never stored
  EXPECT_TRUE(out == (ok ? want : sentinel) && listed == (listedOk ? want : sentinel));
  EXPECT_FALSE(list.GetValue("", missing) || list.GetValue("absent", missing));
  EXPECT_TRUE(missing == sentinel);
}

template <typename... T>
void CheckReads(const Payload& p, const SqliteValueList& list) {
  (CheckRead<T>(p, list), ...);
}

TEST(HostileInput, SqliteValueReadsOnlyWhatFits) {
  // clang-format off
  const std::vector<Payload> payloads = {
      {"null", SqliteValue(), 0, 0}, {"empty", SqliteValue(std::string()), 1, 0},
      {"huge", SqliteValue(kHuge), 1, 0}, {"nul", SqliteValue(kNul), 1, 0},
      {"utf8", SqliteValue(kBadUtf8), 1, 0}, {"true", SqliteValue(true), 2, 1},
      {"false", SqliteValue(false), 2, 0}, {"zero", SqliteValue(0), 3, 0},
      {"one", SqliteValue(1), 3, 1}, {"two", SqliteValue(2), 3, 2}, {"minus", SqliteValue(-1), 3, -1},
      {"int_min", SqliteValue(INT_MIN), 3, INT_MIN}, {"uint_max", SqliteValue(UINT_MAX), 3, UINT_MAX},
      {"2^31", SqliteValue(2147483648LL), 3, 2147483648LL},
      {"below_int", SqliteValue(-2147483649LL), 3, -2147483649LL},
      {"llong_min", SqliteValue(LLONG_MIN), 3, LLONG_MIN},
      {"llong_max", SqliteValue(LLONG_MAX), 3, LLONG_MAX},
      {"2^63", SqliteValue(1ULL << 63), 3, static_cast<__int128>(1ULL << 63)},
      {"ullong_max", SqliteValue(ULLONG_MAX), 3, ULLONG_MAX}};
  // clang-format on
  LogCapture quiet;
  SqliteValueList list;
  for (const Payload& p : payloads) EXPECT_EQ(list.AddValue(p.name, p.value), p.kind != 0);
  for (const Payload& p : payloads) {
    SCOPED_TRACE(p.name);
    CheckReads<bool, int, unsigned, long, unsigned long, long long, unsigned long long>(p, list);
    std::string text = "unchanged", listed = "unchanged";
    EXPECT_EQ(p.value.GetValue(text), p.kind == 1);
    EXPECT_EQ(list.GetValue(p.name, listed), p.kind == 1);
    EXPECT_TRUE(text == listed &&
                text == (p.kind == 1 ? p.value.GetJsonValue().asString() : "unchanged"));
  }
}

TEST(HostileInput, JsonTextAndFilesRejectWhatIsNotJson) {
  const struct {
    std::string text;
    bool parses;
  } texts[] = {// clang-format off
      {"", false}, {" \n ", false}, {"{\"a\":1} x", false}, {"{\"a\":1}\n{}", false},
      {std::string(100000, '['), false}, {std::string(400, '[') + std::string(400, ']'), true},
      {"\"" + kBadUtf8 + "\"", true}, {"\"" + kNul + "\"", false}, {std::string("\0\1\2", 3), false},
      {"\"" + kHuge + "\"", true}, {"1e999", false}, {"18446744073709551616", true},
      {"\"\\ud800\"", false}, {"{\"a\":1,\"a\":2}", true}, {"[1,]", false}, {"// c\n1", false}};
  // clang-format on
  TempDir dir;
  LogCapture quiet;
  const std::string path = dir.File("doc");
  for (const auto& t : texts) {
    SCOPED_TRACE(t.text.substr(0, 40));
    Json::Value parsed = "old", read = "old", viaFd = "old";
    EXPECT_EQ(JsonFromString(parsed, t.text), t.parses);
    EXPECT_EQ(parsed.isNull(), !t.parses);
    Response r(t.text);
    EXPECT_TRUE(r.getResp() == parsed && !r.isValid());
    EXPECT_EQ(r.setResp(t.text), t.parses);
    ASSERT_TRUE(WriteText(path, t.text));
    EXPECT_EQ(File::Read(path, read), t.parses);
    const int fd = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(File::Read(fd, viaFd), t.parses);
    EXPECT_TRUE(read == parsed && viaFd == parsed);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed by Read
  }
  Json::Value value = "kept";
  EXPECT_TRUE(File::Read(dir.File("missing"), value));
  EXPECT_EQ(value, "kept");
  const int writeOnly = open(path.c_str(), O_WRONLY);
  const int directory = open(dir.path().c_str(), O_RDONLY);
  EXPECT_FALSE(File::Read(dir.path(), value) || File::Read(std::string(), value) ||
               File::Read(-1, value) || File::Read(999999, value) || File::Read(writeOnly, value) ||
               File::Read(directory, value));
  EXPECT_EQ(close(writeOnly), 0);  // a failed fdopen leaves the descriptor to the caller
  EXPECT_FALSE(Response(static_cast<const char*>(nullptr)).isValid());
}

TEST(HostileInput, KeyValueFilesKeepWhatParses) {
  TempDir dir;
  const std::string path = dir.File("kv");
  ASSERT_TRUE(WriteText(path, "\nnoequals\n=\n=v\nk=\na=1\n" + kNul + "=2\n\xff\xfe=\x80\n" +
                                  "big=99999999999999999999\nneg=-99999999999999999999\n" +
                                  "huge=1e999\n   =   \nlong=" + kHuge + "\n#c\na=2"));
  LogCapture quiet;
  std::map<std::string, std::string> texts;
  std::map<std::string, int> ints;
  std::map<std::string, double> reals;
  EXPECT_EQ(File::Read(path, texts) + File::Read(path, ints) + File::Read(path, reals), 3 * 8);
  EXPECT_EQ(quiet.Count("Failed to parse line[=] from file [" + path + "]"), 3);
  EXPECT_TRUE(texts[kNul] == "2" && texts["\xff\xfe"] == "\x80" && texts[""].empty() &&
              texts["long"].size() == kHuge.size());
  // Out-of-range numbers give what the failed extraction leaves.
  EXPECT_TRUE(ints["a"] == 2 && ints["big"] == INT_MAX && ints["neg"] == INT_MIN &&
              ints["huge"] == 1 && ints["\xff\xfe"] == 0);
  EXPECT_TRUE(reals["huge"] == DBL_MAX && reals["big"] == 1e20);
  EXPECT_EQ(File::Read(std::string(), ints), -1);
}

// Serves "default" when nothing loads; its fetch always fails, at once.
class HostileCache : public Cache {
 public:
  explicit HostileCache(const std::string& dir) : Cache(dir, "c", 100, true, -1) {}
  Json::Value GetCacheInfo() const override { return "hostile"; }
  Json::Value GetDefaultValue() const override { return "default"; }
  bool GetUpdatedData(Json::Value&) const override { return false; }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
};

TEST(HostileInput, CacheFilesOfEveryShape) {
  const Json::Value fallback = "default", good = Object({{"v", 1}}), w = Object({{"w", 1}});
  const auto doc = [](const char* max) {
    return std::string("{\"cached_data\":{\"w\":1},\"max_updated_time\":") + max + "}";
  };
  const struct {
    std::string text;
    Json::Value data;
    int max;
  } rows[] = {// clang-format off
      {"[1,2]", kNull, 0}, {"\"text\"", kNull, 0}, {"42", kNull, 0}, {"{}", kNull, 0},
      {"{\"cached_data\":5}", 5, 0}, {"{\"cached_data\":\"s\"}", "s", 0},
      {"{\"cached_data\":[]}", Json::Value(Json::arrayValue), 0},
      {doc("9223372036854775808"), w, 0}, {doc("-9223372036854775809"), w, 0},
      {doc("2147483648"), w, 0}, {doc("1e308"), w, 0}, {doc("\"7\""), w, 0}, {doc("{}"), w, 0},
      {"{\"cached_data\":{\"v\":1},\"max_updated_time\":3}", good, 3},
      {"{\"cached_data\":", fallback, 0}, {"", fallback, 0}, {kBadUtf8, fallback, 0},
      {std::string(100000, '['), fallback, 0}};
  // clang-format on
  TempDir dir;
  LogCapture quiet;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 40));
    HostileCache cache(dir.path());
    ASSERT_TRUE(WriteText(cache.GetCachePath(), row.text));
    Json::Value data;
    EXPECT_NO_THROW(data = cache.Read());
    EXPECT_EQ(data, row.data);
    EXPECT_EQ(cache.GetMaxUpdateTime(), row.max);
    EXPECT_TRUE(cache.UpdateWithData(good));  // a hostile "max_updated_time" counts as 0
    EXPECT_EQ(cache.GetMaxUpdateTime(), row.max);
    EXPECT_EQ(cache.Read(), good);
  }
  std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());
}

}  // namespace
