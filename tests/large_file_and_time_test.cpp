// Files over 2 GiB, dates after 2038, and one ABI whatever the caller's large-file/time flags.
#include "support/layout.h"
#include "support/suite.h"

const int64_t k3GiB = int64_t{3} << 30;
const int64_t k2040 = 2208988800;  // 2040-01-01 00:00:00 UTC

TEST(LargeFile, SparseDatabaseOf3GiBIsFoundReadAndWritten) {
  LogCapture quiet;
  TempDir dir;
  const std::string path = dir.File("big.db");
  ASSERT_TRUE(SqliteDB(path, 0, "big").InsertRecords(Jobs(1, 3)));
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(k3GiB)), 0);
  EXPECT_TRUE(VLIBCFileExist(path.c_str()) == 1 && VLIBCFileCheckDir(path.c_str()) == 0);
  Json::Value text = "left";  // natively it would be read, 3 GiB of zeros
  EXPECT_TRUE(sizeof(size_t) != 4 || (!JsonFromFile(text, path) && text.isNull()));
  SqliteDB db(path, 0, "big");
  std::vector<SqliteValueList> rows;
  EXPECT_TRUE(db.IsExisted() && db.SelectRecords(AllJobs(SqliteLess("id", 3)), rows));
  EXPECT_TRUE(rows.size() == 2 && db.DeleteRecord("id=2", kJobs) && Count(db) == 2);
}

class Year2040 : public CacheFixture {};

TEST_F(Year2040, CacheFileIsJudgedByItsRealAge) {
  LogCapture quiet;
  TestCache writer(dir.path());
  ASSERT_TRUE(writer.UpdateWithData(Data(1)));
  ASSERT_TRUE(writer.SetAge(0, static_cast<time_t>(k2040)));
  TestCache reader(dir.path());
  EXPECT_TRUE(!reader.IsTimeout() && reader.GetCachedData() == Data(1) &&
              reader.Read() == Data(1) && reader.Fetches() == 0);
  // One second later in 2040 is a different file: reloaded.
  ASSERT_TRUE(WriteText(writer.GetCachePath(), R"({"cached_data":{"v":2}})"));
  ASSERT_TRUE(writer.SetAge(0, static_cast<time_t>(k2040 + 1)));
  EXPECT_EQ(reader.Read(), Data(2));
  ASSERT_TRUE(reader.SetAge(101));
  EXPECT_TRUE(reader.IsTimeout() && reader.DoUpdate() && !reader.IsTimeout() &&
              reader.Fetches() == 1);
  EXPECT_EQ(TestCache(dir.path()).GetCachedData(), Data(7));
}

TEST(PublicInterface, SharesOneAbiWhateverTheCallersFlags) {
  const std::regex widthFollowsFlags(
      R"(\b(time_t|off_t|off64_t|ino_t|blkcnt_t|fsblkcnt_t|fsfilcnt_t|suseconds_t)\b|)"
      R"(\bstruct\s+(stat|stat64|timespec|timeval|dirent|statfs|statvfs)\b)");
  const std::regex comment(R"(//[^\n]*|/\*[\s\S]*?\*/)");
  int headers = 0;
  for (const char* root : {"/include/vantdr", "/platform/include"}) {
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(std::string(VANTDR_SOURCE_DIR) + root)) {
      if (entry.path().extension() != ".h") continue;
      ++headers;
      const std::string code = std::regex_replace(ReadText(entry.path()), comment, "");
      std::smatch found;
      EXPECT_FALSE(std::regex_search(code, found, widthFollowsFlags))
          << entry.path() << " names " << found.str();
    }
  }
  EXPECT_GE(headers, 15);
  const std::vector<ClassLayout> ours = VANTDR_PUBLIC_LAYOUTS;
  EXPECT_EQ(LayoutsWithDefaultFlags(), ours);
}
