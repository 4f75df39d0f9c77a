#include "support/suite.h"

TEST(File, JsonByPathAndByDescriptor) {
  TempDir dir;
  LogCapture log;
  const std::string text = R"({"a":[1,2.5,null],"s":"x y"})";
  Json::Value doc, back;
  ASSERT_TRUE(JsonFromString(doc, text) && File::Write(dir.File("doc"), doc));
  const int fd = open(dir.File("by_fd").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_TRUE(File::Write(fd, doc));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed by Write
  EXPECT_EQ(ReadText(dir.File("doc")) + ReadText(dir.File("by_fd")), text + text);
  WriteText(dir.File("lines"), "{\"a\":[1,2.5,\nnull],\n\"s\":\"x\ny\"}\n");
  ASSERT_TRUE(File::Read(dir.File("lines"), back));  // lines are joined without line ends
  EXPECT_TRUE(File::Read(dir.File("missing"), back));
  EXPECT_EQ(JsonToString(back), R"({"a":[1,2.5,null],"s":"xy"})");
  EXPECT_FALSE(File::Read(-1, back) || File::Write(dir.File("no/dir"), doc));
  EXPECT_EQ(log.Summary(), (Lines{"DEBUG Read: file[" + dir.File("missing") + "] is not existed",
                                  "ERR Read: Failed to open file descriptor [-1]",
                                  "ERR Write: Failed to open file [" + dir.File("no/dir") + "]"}));
}

TEST(File, ParentDirAndDirectories) {
  EXPECT_EQ(File::GetParentDir("/a/b") + "|" + File::GetParentDir("/a/b/") + "|" +
                File::GetParentDir("/x") + "|" + File::GetParentDir("file"),
            "/a|/a/b||file");
  TempDir dir;
  LogCapture log;
  mkdir(dir.File("kept").c_str(), 0700);
  EXPECT_TRUE(File::CreateDir(dir.File("kept"), 0755));
  EXPECT_EQ(fs::status(dir.File("kept")).permissions(), fs::perms(0700));  // left as it was
  EXPECT_FALSE(File::CreateDir(dir.File("new"), 01000) || File::CreateDir(dir.File("new"), -1));
  EXPECT_EQ(log.Summary(), (Lines{"ERR CreateDir: Directory mode error: 1000",
                                  "ERR CreateDir: Directory mode error: 37777777777"}));
  EXPECT_TRUE(File::RemoveDir(dir.File("kept")) && File::RemoveDir(dir.File("kept")) &&
              access(dir.File("kept").c_str(), F_OK) != 0);
  // No directory, nothing to remove: a plain file at the path stays.
  EXPECT_TRUE(WriteText(dir.File("plain"), "x") && File::RemoveDir(dir.File("plain")) &&
              ReadText(dir.File("plain")) == "x");
}

TEST(File, KeyValueFiles) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteText(path, "a=1\na=2\nname = my value\ns=b=c\nport= 80x\nnoeq\n\nkey=\n");
  LogCapture log;
  std::map<std::string, std::string> text{{"old", "x"}};
  EXPECT_EQ(File::Read(path, text), 4);
  EXPECT_EQ(text, (std::map<std::string, std::string>{
                      {"a", "2"}, {"name", "my"}, {"s", "b=c"}, {"port", "80x"}}));
  const std::string tail = " from file [" + path + "]";
  EXPECT_EQ(
      log.Summary(),
      (Lines{"NOTICE parseLineKeyValue: Cannot find separator[=] in line[noeq]",
             "NOTICE Read: Failed to parse line[noeq]" + tail,
             "WARN parseLineKeyValue: Bad Parameter.", "NOTICE Read: Failed to parse line[]" + tail,
             "NOTICE Read: Failed to parse line[key=]" + tail}));
  std::map<std::string, int> numbers;
  EXPECT_EQ(File::Read(path, numbers), 4);
  EXPECT_EQ(numbers, (std::map<std::string, int>{{"a", 2}, {"name", 0}, {"s", 0}, {"port", 80}}));
  log.Clear();
  EXPECT_TRUE(File::Read(dir.File("missing"), numbers) == 0 && numbers.size() == 4);  // kept
  WriteText(path, "");
  EXPECT_TRUE(File::Read(path, numbers) == 0 && numbers.empty());
  EXPECT_EQ(File::Read("", numbers), -1);
  EXPECT_EQ(log.Summary(), Lines{"ERR Read: Invalid path"});
}
