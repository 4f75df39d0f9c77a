#include "vantdr/json_text.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "support/temp_dir.h"

namespace {

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
  for (const char* text : accepted) {
    Json::Value v;
    EXPECT_TRUE(JsonFromString(v, text)) << text;
  }
  Json::Value spaced;
  EXPECT_TRUE(JsonFromString(
      spaced, " \t\r\n{\"a\" : [1, {\"b\": null}], \"c\": \"\\u00e9\\n\\\"\\/\"} \n"));
  // clang-format off
  const char* rejected[] = {
      "", " ", "{", "[1,]", "{\"a\":1,}", "{\"a\" 1}", "{a:1}", "['x']", "01", "1.", ".5", "+1",
      "-", "1e", "0x10", "NaN", "Infinity", "tru", "nul", "{} {}", "1 2", "[1] x", "// c\n1",
      "/* c */ 1", "1 // trailing", "\"tab\there\"", "\"\\x\"", "\"\\u12g4\"", "\"unterminated",
      "[1,,2]", "{\"a\"}",
  };
  // clang-format on
  for (const char* text : rejected) {
    Json::Value v = 5;
    EXPECT_FALSE(JsonFromString(v, text)) << text;
    EXPECT_TRUE(v.isNull()) << text;
  }
  Json::Value v;
  EXPECT_FALSE(JsonFromString(v, std::string("1\0", 2)));             // a NUL after the value
  EXPECT_FALSE(JsonFromString(v, std::string("\"nul\0byte\"", 10)));  // raw control byte
}

TEST(JsonTextTest, NestingIsBoundedWithoutCrashing) {
  Json::Value v;
  EXPECT_TRUE(JsonFromString(v, std::string(500, '[') + std::string(500, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(100000, '[') + std::string(100000, ']')));
  EXPECT_FALSE(JsonFromString(v, std::string(100000, '[')));
}

TEST(JsonTextTest, WritesCompactTextThatParsesBackEqual) {
  Json::Value doc(Json::objectValue);
  doc["int"] = Json::Int64(-9007199254740993LL);
  doc["uint"] = Json::UInt64(18446744073709551615ULL);
  doc["real"] = 0.1;
  doc["text"] = std::string("quote\" backslash\\ newline\n tab\t ctl\x01 h\xc3\xa9 raw\xff", 40);
  doc["list"] = Json::Value(Json::arrayValue);
  doc["list"].append(true);
  doc["list"].append(Json::Value());
  std::string text = JsonToString(doc);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  Json::Value back;
  ASSERT_TRUE(JsonFromString(back, text)) << text;
  EXPECT_EQ(back, doc);
  EXPECT_EQ(JsonToString(Json::Value("a")), "\"a\"");
  EXPECT_EQ(JsonToString(Json::Value()), "null");
  EXPECT_EQ(JsonToString(Json::Value(Json::objectValue)), "{}");
}

TEST(JsonTextTest, FilesAreReplacedWholeAndFailuresLeaveTheOldFile) {
  TempDir dir;
  const std::string path = dir.File("doc.json");
  Json::Value doc(Json::objectValue);
  doc["k"] = "v";
  ASSERT_TRUE(JsonToFile(doc, path));
  EXPECT_EQ(VantDRTest::ReadText(path), "{\"k\":\"v\"}\n");
  Json::Value back;
  ASSERT_TRUE(JsonFromFile(back, path));
  EXPECT_EQ(back, doc);

  // An existing file keeps its permission bits across a rewrite.
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  doc["k"] = "w";
  ASSERT_TRUE(JsonToFile(doc, path));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  // ... and its owner, as a write in place would (only root can give it away).
  if (geteuid() == 0) {
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    ASSERT_TRUE(JsonToFile(doc, path));
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u);
    EXPECT_EQ(st.st_gid, 65534u);
  }
  // A new file gets 0666 less the umask, as fopen would give it.
  const mode_t mask = umask(0);
  ASSERT_TRUE(JsonToFile(doc, dir.File("new.json")));
  umask(mask);
  ASSERT_EQ(stat(dir.File("new.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0666u);

  // A write that cannot happen leaves the old document in place.
  ASSERT_EQ(mkdir(dir.File("blocker.json").c_str(), 0755), 0);
  EXPECT_FALSE(JsonToFile(doc, dir.File("blocker.json")));  // a directory is not writable
  EXPECT_FALSE(JsonToFile(doc, dir.File("missing/doc.json")));
  EXPECT_FALSE(JsonToFile(doc, ""));
  ASSERT_TRUE(JsonFromFile(back, path));
  EXPECT_EQ(back["k"], "w");

  // Unreadable or unparsable files give false and a null value.
  back = 1;
  EXPECT_FALSE(JsonFromFile(back, dir.File("missing.json")));
  EXPECT_TRUE(back.isNull());
  ASSERT_TRUE(VantDRTest::WriteText(path, "{\"k\": \"half"));
  back = 1;
  EXPECT_FALSE(JsonFromFile(back, path));
  EXPECT_TRUE(back.isNull());
  EXPECT_FALSE(JsonFromFile(back, dir.path()));
}

}  // namespace
