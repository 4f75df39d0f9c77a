// Outside JSON or text of any shape gives a default, never a throw (integers: sqlite_command_test).
#include <limits>
#include <tuple>

#include "support/suite.h"

const std::string kHuge(1 << 20, 'x');
const std::string kNul("a\0b", 3);
const std::string kBadUtf8("\xff\xfe\x80");
const Json::Value kNull;

Json::Value Object(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value object(Json::objectValue);
  for (const auto& member : members) object[member.first] = member.second;
  return object;
}

TEST(HostileInput, WebApiMessagesTakeAnyShape) {
  // clang-format off
  for (const Json::Value& x : std::vector<Json::Value>{
           kNull, true, 0, -1, Json::UInt(2147483648u), Json::UInt64(1ULL << 63),
           Json::Int64(LLONG_MIN), 1e308, "", "x", kHuge, kBadUtf8, kNul,
           Json::Value(Json::objectValue),
           [] { Json::Value a; a.append(5); a.append("x"); return a; }()}) {
    // clang-format on
    SCOPED_TRACE(JsonToString(x).substr(0, 40));
    LogCapture log;  // queries never log; requests warn only about what they refuse
    const bool truthy = (x.isBool() || x.isNumeric()) && x.asBool();
    for (const auto& [answer, valid, ok] : std::vector<std::tuple<Json::Value, bool, bool>>{
             {x, false, false},
             {Object({{"success", x}, {"error", x}, {"data", x}}), true, truthy},
             {Object({{"success", true}, {"error", x}, {"data", x}}), true, true}}) {
      Response r;
      r.setResp(answer);
      EXPECT_TRUE(r.isValid() == valid && r.isSuccess() == ok && r.hasData() == ok &&
                  r.getErrCode() == (ok ? 0 : -1) && r.getData() == (ok ? x : kNull));
      EXPECT_TRUE(r.getErr() == r.getField("data") && r.getErr() == (valid ? x : kNull));
      EXPECT_FALSE(r.hasDataField("finish") || r.isPollFinish() || r.isPollSuccess() ||
                   r.hasAdditional() || r.hasField(nullptr) || r.hasField("success") != valid);
      EXPECT_TRUE(r.getErrMsg().isNull() && r.getAdditional().isNull() &&
                  r.getDataField("task_id").isNull());
      EXPECT_EQ(r.getTaskId() + r.getDataFieldtoStr("task_id"), "");
      r.clear();  // containers are emptied, scalars become null
      const bool container = answer.isArray() || answer.isObject();
      EXPECT_EQ(r.getResp(), Json::Value(container ? answer.type() : Json::nullValue));
    }
    const Response poll(Object(
        {{"success", true}, {"data", Object({{"finish", x}, {"success", x}, {"task_id", x}})}}));
    const std::string text = x.isString() ? x.asString() : "";
    EXPECT_TRUE(poll.isPollFinish() == truthy && poll.isPollSuccess() == truthy &&
                poll.getDataFieldtoStr("task_id") == text);
    const std::string id = poll.getTaskId();  // scalars convert as JsonCpp does
    EXPECT_TRUE(id == text || !(x.isString() || x.isArray() || x.isObject()));
    Response failed(Object({{"success", false}, {"error", Object({{"code", x}, {"errors", x}})}}));
    EXPECT_TRUE(failed.getErrCode() == (x.isInt() ? x.asInt() : -1) && failed.getErrMsg() == x);

    Request bare(x), typed("A", 3, "M", Object({{"k", 1}}));
    typed.setRequest(x);  // a request that is not an object leaves params null
    EXPECT_TRUE(bare.getParams() == (x.isObject() ? x : kNull) &&
                typed.getParams() == bare.getParams());
    EXPECT_EQ(bare.toStr() + " " + typed.toStr(), "//-1 A/M/3");
    typed.setRequest(Object({{"api", x}, {"method", x}, {"version", x}}));
    EXPECT_EQ(typed.toStr(), x.isString() ? text + "/" + text + "/3"
                                          : "A/M/" + std::to_string(x.isInt() ? x.asInt() : 3));

    Request params;
    EXPECT_TRUE(params.addParam("k", x) && !params.addParam("version", x));
    Json::Value merged = params.getParams();
    for (unsigned i = 0; x.isArray() && i < x.size(); ++i) merged[std::to_string(i)] = x[i];
    EXPECT_TRUE(params.addParam(x) && params.getParams() == merged);

    Request stored("A", 1, "M", x);  // params kept as given, whatever their type
    const bool holds = x.isNull() || x.isObject();
    EXPECT_TRUE(stored.addParam("k", 1) == holds && stored.addParam(Object({{"j", 2}})) == holds);
    Json::Value message = Object({{"api", "A"}, {"method", "M"}, {"version", 1}});
    if (holds) message["j"] = 2, message["k"] = 1;
    EXPECT_EQ(stored.toJson(), message);
    const std::string type = std::vector<std::string>{
        "null", "number", "number", "number", "string", "boolean", "array", "object"}[x.type()];
    const std::vector<std::string> warnings = {
        "WARN addParam: cannot add [k]: parameters are a " + type,
        "WARN addParam: cannot merge into parameters that are a " + type,
        "WARN toJson: parameters are a " + type + ", not an object: left out of the message"};
    EXPECT_EQ(log.Summary(), holds ? std::vector<std::string>{} : warnings);
    stored.clear();
    EXPECT_TRUE(stored.getParams().empty());
  }
}

TEST(HostileInput, TextsJsonFilesCacheFilesAndKeyValueFiles) {
  const Json::Value fallback = "default", good = Object({{"v", 1}}), w = Object({{"w", 1}});
  const std::string doc = "{\"cached_data\":{\"w\":1},\"max_updated_time\":";
  const struct {
    std::string text;
    Json::Value data;
    int max = 0;
  } rows[] = {// clang-format off
      {"", fallback}, {"{\"a\":1}\n{}", fallback}, {std::string(100000, '['), fallback},
      {std::string(400, '[') + std::string(400, ']'), kNull}, {"\"" + kHuge + "\"", kNull},
      {std::string("\0\1\2", 3), fallback}, {"1e999", fallback}, {"18446744073709551616", kNull},
      {"{\"cached_data\":5}", 5}, {doc + "2147483648}", w}, {doc + "-9223372036854775809}", w},
      {doc + "\"7\"}", w}, {"{\"cached_data\":{\"v\":1},\"max_updated_time\":3}", good, 3},
      {"{\"cached_data\":", fallback}, {kBadUtf8, fallback}};
  // clang-format on
  TempDir dir;
  LogCapture quiet;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 40));
    const bool parses = row.data != fallback;
    TestCache cache(dir.path(), true, -1);  // serves "default" when nothing loads; fetches fail
    cache.fallback = fallback;
    cache.fail = true;
    const std::string& path = cache.GetCachePath();
    ASSERT_TRUE(WriteText(path, row.text));
    Json::Value parsed = "old", read = "old", viaFd = "old";
    EXPECT_TRUE(JsonFromString(parsed, row.text) == parses && parsed.isNull() == !parses);
    Response r(row.text);
    EXPECT_TRUE(r.getResp() == parsed && !r.isValid() && r.getErrCode() == -1 &&
                r.setResp(row.text) == parses);
    const int fd = open(path.c_str(), O_RDONLY);
    EXPECT_TRUE(File::Read(path, read) == parses && File::Read(fd, viaFd) == parses &&
                read == parsed && viaFd == parsed);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    EXPECT_TRUE(cache.Read() == row.data && cache.GetMaxUpdateTime() == row.max);
    EXPECT_TRUE(cache.UpdateWithData(good));  // a hostile "max_updated_time" counts as 0
    EXPECT_TRUE(cache.Read() == good && cache.GetMaxUpdateTime() == row.max);
    // Types are checked, not left to JsonCpp's exceptions.
    for (const std::string& line : quiet.Messages("ERR")) {
      EXPECT_EQ(line.find("Unexpected exception"), std::string::npos) << line;
    }
  }
  Json::Value value = "kept";
  ASSERT_TRUE(WriteText(dir.File("doc"), "{}"));
  const int writeOnly = open(dir.File("doc").c_str(), O_WRONLY);
  EXPECT_FALSE(File::Read(dir.path(), value) || File::Read(writeOnly, value));
  EXPECT_EQ(close(writeOnly), 0);  // a failed fdopen leaves the descriptor to the caller
  EXPECT_FALSE(Response(static_cast<const char*>(nullptr)).isValid());
  std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());

  const std::string kv = dir.File("kv");
  ASSERT_TRUE(WriteText(kv, "=\n" + kNul + "=2\n\xff\xfe=\x80\nbig=99999999999999999999\n" +
                                "neg=-99999999999999999999\nhuge=1e999\nlong=" + kHuge + "\n"));
  std::map<std::string, std::string> texts;
  std::map<std::string, int> ints;
  std::map<std::string, double> reals;
  EXPECT_EQ(File::Read(kv, texts) + File::Read(kv, ints) + File::Read(kv, reals), 3 * 6);
  EXPECT_TRUE(texts[kNul] == "2" && texts["\xff\xfe"] == "\x80" &&
              texts["long"].size() == kHuge.size());
  // Out-of-range numbers give what the failed extraction leaves.
  EXPECT_TRUE(ints["big"] == INT_MAX && ints["neg"] == INT_MIN && ints["huge"] == 1);
  EXPECT_TRUE(reals["huge"] == std::numeric_limits<double>::max() && reals["big"] == 1e20);
}
