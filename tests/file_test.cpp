#include "vantdr/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantdr/json_text.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

bool IsClosed(int fd) { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }

TEST(FileJson, WritesReadsAndKeepsMissingFilesAsEmptyStores) {
  TempDir dir;
  LogCapture log;
  Json::Value doc, back;
  JsonFromString(doc, R"({"name":"a b","list":[1,2.5,true,null],"nested":{"x":"y"}})");
  ASSERT_TRUE(File::Write(dir.File("doc.json"), doc));
  EXPECT_EQ(ReadText(dir.File("doc.json")), JsonToString(doc));
  ASSERT_TRUE(File::Read(dir.File("doc.json"), back));
  EXPECT_EQ(back, doc);
  WriteText(dir.File("lines.json"), "{\n  \"a\": [1,\n 2],\n  \"b\": \"c\"\n}\n");
  ASSERT_TRUE(File::Read(dir.File("lines.json"), back));
  EXPECT_EQ(JsonToString(back), R"({"a":[1,2],"b":"c"})");
  WriteText(dir.File("broken.json"), "{\"s\":\"a\nb\"}");  // line ends are dropped
  ASSERT_TRUE(File::Read(dir.File("broken.json"), back));
  EXPECT_EQ(JsonToString(back), R"({"s":"ab"})");
  EXPECT_TRUE(File::Read(dir.File("missing.json"), back));  // untouched
  EXPECT_EQ(JsonToString(back), R"({"s":"ab"})");
  WriteText(dir.File("bad.json"), "{\"a\":1} trailing");
  EXPECT_FALSE(File::Read(dir.File("bad.json"), back));
  EXPECT_FALSE(File::Read("", back));
  log.Clear();
  EXPECT_FALSE(File::Write(dir.File("no/such/dir.json"), doc));
  EXPECT_FALSE(File::Write("", doc));
  EXPECT_EQ(log.Summary(), (std::vector<std::string>{"ERR Write: Failed to open file [" +
                                                         dir.File("no/such/dir.json") + "]",
                                                     "ERR Write: Empty path to write."}));
  EXPECT_EQ(ReadText(dir.File("doc.json")), JsonToString(doc));
}

TEST(FileJson, DescriptorFormsCloseTheDescriptor) {
  TempDir dir;
  LogCapture log;
  Json::Value doc(Json::objectValue), back;
  doc["k"] = "v";
  int fd = open(dir.File("fd.json").c_str(), O_RDWR | O_CREAT, 0600);
  EXPECT_TRUE(File::IsRegularFile(fd));
  ASSERT_TRUE(File::Write(fd, doc));
  EXPECT_TRUE(IsClosed(fd));
  EXPECT_EQ(ReadText(dir.File("fd.json")), R"({"k":"v"})");
  fd = open(dir.File("fd.json").c_str(), O_RDONLY);
  ASSERT_TRUE(File::Read(fd, back));
  EXPECT_TRUE(IsClosed(fd));
  EXPECT_EQ(back, doc);
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  EXPECT_FALSE(File::IsRegularFile(pipeFds[0]));
  EXPECT_FALSE(File::Write(pipeFds[1], doc));  // a pipe cannot be synced
  close(pipeFds[0]);
  EXPECT_FALSE(File::IsRegularFile(-1));
  EXPECT_FALSE(File::Read(-1, back));
  EXPECT_EQ(log.Summary(),
            (std::vector<std::string>{"ERR Write: Failed to sync file",
                                      "ERR Read: Failed to open file descriptor [-1]"}));
}

TEST(FileDir, ParentDirCreateAndRemove) {
  EXPECT_EQ(File::GetParentDir("/a/b"), "/a");
  EXPECT_EQ(File::GetParentDir("/a/b/"), "/a/b");
  EXPECT_EQ(File::GetParentDir("/x"), "");
  EXPECT_EQ(File::GetParentDir("file"), "file");
  EXPECT_EQ(File::GetParentDir(""), "");
  TempDir dir;
  LogCapture log;
  mkdir(dir.File("kept").c_str(), 0700);
  EXPECT_TRUE(File::CreateDir(dir.File("kept"), 0755));
  struct stat st;
  ASSERT_EQ(stat(dir.File("kept").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_FALSE(File::CreateDir(dir.File("new"), 01000));
  EXPECT_FALSE(File::CreateDir(dir.File("new"), -1));
  EXPECT_FALSE(File::CreateDir("", 0755));
  EXPECT_EQ(log.Summary(),
            (std::vector<std::string>{"ERR CreateDir: Directory mode error: 1000",
                                      "ERR CreateDir: Directory mode error: 37777777777"}));
  EXPECT_TRUE(File::RemoveDir(dir.File("kept")));
  EXPECT_NE(access(dir.File("kept").c_str(), F_OK), 0);
  EXPECT_TRUE(File::RemoveDir(dir.File("kept")));
}

TEST(FileDir, CreateDirRaisesUnprivilegedCallers) {
  if (geteuid() != 0) GTEST_SKIP();
  TempDir dir;
  const std::string odd = dir.File("a b; touch x"), leaf = odd + "/leaf";
  ChildResult child = RunUnprivileged([&] {
    if (!File::CreateDir(leaf, 0750)) return 1;
    return geteuid() == 65534 && getegid() == 65534 ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode, 0);
  struct stat st;
  ASSERT_EQ(stat(leaf.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_mode & 07777, 0750u);
  std::vector<std::string> entries;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    entries.push_back(entry.path().string());
  }
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{odd, leaf}));
}

TEST(FileKeyValue, ParsesLinesIntoThreeMapTypes) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteText(path, "a=1\na=2\nname = my value\ns=b=c\nport= 80x\n# comment\n\nkey=\n=v\n");
  LogCapture log;
  std::map<std::string, std::string> text{{"old", "x"}};
  EXPECT_EQ(File::Read(path, text), 4);
  EXPECT_EQ(text, (std::map<std::string, std::string>{
                      {"a", "2"}, {"name", "my"}, {"s", "b=c"}, {"port", "80x"}}));
  const std::string tail = " from file [" + path + "]";
  EXPECT_EQ(
      log.Summary(),
      (std::vector<std::string>{
          "NOTICE parseLineKeyValue: Cannot find separator[=] in line[# comment]",
          "NOTICE Read: Failed to parse line[# comment]" + tail,
          "WARN parseLineKeyValue: Bad Parameter.", "NOTICE Read: Failed to parse line[]" + tail,
          "NOTICE Read: Failed to parse line[key=]" + tail,
          "NOTICE Read: Failed to parse line[=v]" + tail}));
  std::map<std::string, int> numbers;
  EXPECT_EQ(File::Read(path, numbers), 4);
  EXPECT_EQ(numbers, (std::map<std::string, int>{{"a", 2}, {"name", 0}, {"s", 0}, {"port", 80}}));
  std::map<std::string, double> reals;
  WriteText(path, "pi = 3.25\ne=-1e3\n");
  EXPECT_EQ(File::Read(path, reals), 2);
  EXPECT_EQ(reals, (std::map<std::string, double>{{"pi", 3.25}, {"e", -1000.0}}));
  log.Clear();
  EXPECT_EQ(File::Read(dir.File("missing"), reals), 0);
  EXPECT_EQ(reals.size(), 2u);
  EXPECT_TRUE(log.Lines().empty());
  WriteText(path, "");
  EXPECT_EQ(File::Read(path, reals), 0);
  EXPECT_TRUE(reals.empty());
  EXPECT_EQ(File::Read("", reals), -1);
  EXPECT_TRUE(log.Has("ERR", "Invalid path"));
}

}  // namespace
