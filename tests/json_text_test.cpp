#include "support/suite.h"

using VantDRCore::JsonFromFile;
using VantDRCore::JsonFromString;
using VantDRCore::JsonToFile;
using VantDRCore::JsonToString;
using VantDRTest::TempDir;

TEST(JsonTextTest, AcceptsExactlyRfc8259) {
  // clang-format off
  const char* accepted[] = {
      "{}", "[]", "0", "-0", "12.5e-3", "1E+2", "\"text\"", "true", "false", "null",
      "\"\\ud83d\\ude00\"", "[\"h\xc3\xa9\"]", "{\"a\":1,\"a\":2}",
  };
  // clang-format on
  Json::Value v;
  for (const char* text : accepted) EXPECT_TRUE(JsonFromString(v, text)) << text;
  EXPECT_TRUE(
      JsonFromString(v, " \t\r\n{\"a\" : [1, {\"b\": null}], \"c\": \"\\u00e9\\n\\\"\\/\"} \n"));
  // clang-format off
  const char* rejected[] = {
      "", " ", "{", "[1,]", "{\"a\":1,}", "{\"a\" 1}", "{a:1}", "['x']", "01", "1.", ".5", "+1",
      "-", "1e", "0x10", "NaN", "Infinity", "tru", "nul", "{} {}", "1 2", "[1] x", "// c\n1",
      "/* c */ 1", "1 // trailing", "\"tab\there\"", "\"\x01n\"", "\"\\x\"", "\"\\u12g4\"", "\"unterminated",
      "[1,,2]", "{\"a\"}", "1e999", "-1e999", "\"\\ud800\"", "\"\\ud800xxxxxx\"",
      "\"\\ud800\\n\\u0041\"",
  };
  // clang-format on
  for (const char* text : rejected) {
    v = 5;
    EXPECT_FALSE(JsonFromString(v, text)) << text;
    EXPECT_TRUE(v.isNull()) << text;
  }
  EXPECT_FALSE(JsonFromString(v, std::string("1\0", 2)));             // a NUL after the value
  EXPECT_FALSE(JsonFromString(v, std::string("\"nul\0byte\"", 10)));  // raw control byte
}

// Whole numbers take Int64, then UInt64, then real; a lone high surrogate is refused.
TEST(JsonTextTest, ReadsNumbersAndEscapesToTheirTypes) {
  struct Case {
    const char* text;
    Json::ValueType type;
    const char* written;
  };
  // clang-format off
  const Case cases[] = {
      {"0", Json::intValue, "0"},
      {"-0", Json::intValue, "0"},
      {"-0.0", Json::realValue, "-0.0"},
      {"9223372036854775807", Json::intValue, "9223372036854775807"},
      {"9223372036854775808", Json::uintValue, "9223372036854775808"},
      {"18446744073709551615", Json::uintValue, "18446744073709551615"},
      {"18446744073709551616", Json::realValue, "1.8446744073709552e+19"},
      {"-9223372036854775808", Json::intValue, "-9223372036854775808"},
      {"-9223372036854775809", Json::realValue, "-9.2233720368547758e+18"},
      {"1E2", Json::realValue, "100.0"},
      {"0.1", Json::realValue, "0.10000000000000001"},
      {"1e-400", Json::realValue, "0.0"},
      {"4.9e-324", Json::realValue, "4.9406564584124654e-324"},
      {"1.7976931348623157e308", Json::realValue, "1.7976931348623157e+308"},
      {"\"\\ud83d\\ude00\"", Json::stringValue, "\"\xf0\x9f\x98\x80\""},
      {"\"\\ud800\\u0041\"", Json::stringValue, "\"\xf0\x90\x81\x81\""},  // any second half
      {"\"\\udc00\"", Json::stringValue, "\"\xed\xb0\x80\""},
      {"\"\\u007f\\u0080\\u07ff\\u0800\"", Json::stringValue,
       "\"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\""},  // the edges of each UTF-8 length
      {"\"\\u00E9\\uD83D\\uDE00\"", Json::stringValue, "\"\xc3\xa9\xf0\x9f\x98\x80\""},
      {"\"a\\u0000b\\/\"", Json::stringValue, "\"a\\u0000b/\""},
      {"{\"k\":[1],\"k\":{\"x\":2}}", Json::objectValue, "{\"k\":{\"x\":2}}"},
      {" {} ", Json::objectValue, "{}"},
      {"[ ]", Json::arrayValue, "[]"},
      {"null", Json::nullValue, "null"},
      {"[true,false,\"\xff\"]", Json::arrayValue, "[true,false,\"\xff\"]"},
  };
  // clang-format on
  for (const Case& c : cases) {
    Json::Value v;
    ASSERT_TRUE(JsonFromString(v, c.text)) << c.text;
    EXPECT_EQ(v.type(), c.type) << c.text;
    EXPECT_EQ(JsonToString(v), c.written) << c.text;
  }
}

TEST(JsonTextTest, NestingIsBoundedWithoutCrashing) {
  Json::Value v;
  // The root is at depth 0 and nothing may lie deeper than 512.
  EXPECT_TRUE(JsonFromString(v, std::string(513, '[') + std::string(513, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(514, '[') + std::string(514, ']')));
  EXPECT_TRUE(JsonFromString(v, std::string(512, '[') + "1" + std::string(512, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(513, '[') + "1" + std::string(513, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(100000, '[') + std::string(100000, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(100000, '[')));
}

TEST(JsonTextTest, WritesRealsEscapesHolesAndCommentsAsBefore) {
  Json::Value v(Json::arrayValue);
  for (double d : {1.0, -0.0, 1e21, std::nan(""), HUGE_VAL, -HUGE_VAL}) v.append(d);
  v.append(Json::Int64(INT64_MIN));
  v.append(std::string("\x01\x1f\x7f\xff\"\\/\b\f\n\r\t\0", 13));
  EXPECT_EQ(JsonToString(v),
            "[1.0,-0.0,1e+21,null,1e+9999,-1e+9999,-9223372036854775808,"
            "\"\\u0001\\u001f\x7f\xff\\\"\\\\/\\b\\f\\n\\r\\t\\u0000\"]");

  Json::Value holes(Json::arrayValue);
  holes[3] = "x";  // indexes 0 to 2 never set
  EXPECT_EQ(JsonToString(holes), "[null,null,null,\"x\"]");

  Json::Value commented(Json::objectValue);
  commented["a"] = 1;
  commented["b"].append(2), commented["b"].append(3);
  commented.setComment(std::string("/*r*/"), Json::commentBefore);
  commented["a"].setComment(std::string("// same"), Json::commentAfterOnSameLine);
  commented["b"].setComment(std::string("/*b*/"), Json::commentBefore);
  commented["b"][0].setComment(std::string("// after"), Json::commentAfter);
  EXPECT_EQ(JsonToString(commented), "/*r*/{\"a\":1, // same/*b*/\"b\":[2,// after3]}");
}

Json::Value Nested(int depth) {
  Json::Value root(Json::arrayValue);
  Json::Value* leaf = &root;
  for (int i = 1; i < depth; ++i) leaf = &leaf->append(Json::Value(Json::arrayValue));
  return root;
}

// Values are destroyed recursively: a chain this deep must be taken apart level by level.
void Dismantle(Json::Value& v) {
  while (v.isArray() && !v.empty()) {
    Json::Value inner;
    inner.swap(v[0u]);
    v.swap(inner);
  }
}

TEST(JsonTextTest, WritesOnlyWhatReadsBack) {
  TempDir dir;
  VantDRTest::LogCapture log;
  Json::Value deepest = Nested(513);
  const std::string text = JsonToString(deepest);
  EXPECT_EQ(text, std::string(513, '[') + std::string(513, ']'));
  Json::Value back, file, byPath;
  EXPECT_TRUE(JsonFromString(back, text) && back == deepest);
  EXPECT_TRUE(JsonToFile(deepest, dir.File("deepest.json")) &&
              JsonFromFile(file, dir.File("deepest.json")) && file == deepest);
  EXPECT_TRUE(VantDRCore::File::Write(dir.File("by_path"), deepest) &&
              VantDRCore::File::Read(dir.File("by_path"), byPath) && byPath == deepest);
  EXPECT_TRUE(log.Lines().empty());

  const std::string refused =
      "ERR JsonToString: Refused to write a value nested deeper than 512 levels";
  for (int depth : {514, 100000}) {
    SCOPED_TRACE(depth);
    Json::Value deep = Nested(depth);
    log.Clear();
    EXPECT_TRUE(JsonToString(deep).empty() && !JsonToFile(deep, dir.File("deep.json")));
    EXPECT_FALSE(VantDRCore::File::Write(dir.File("by_path"), deep));
    const int fd = open(dir.File("by_fd").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(VantDRCore::File::Write(fd, deep));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed, as after every fdopen
    EXPECT_EQ(log.Summary(), (std::vector<std::string>(4, refused)));
    EXPECT_EQ(access(dir.File("deep.json").c_str(), F_OK), -1);
    EXPECT_EQ(VantDRTest::ReadText(dir.File("by_path")), text);  // the old document stays
    EXPECT_EQ(VantDRTest::ReadText(dir.File("by_fd")), "");
    Dismantle(deep);
  }
}
