// Each operation failing in each of its system calls in turn (VANTDR_FAULTS=full: every errno).
#include <poll.h>

#include <algorithm>

#include "support/fault_injection.h"
#include "support/suite.h"

const bool kFullWalk = getenv("VANTDR_FAULTS") && std::string(getenv("VANTDR_FAULTS")) == "full";
const size_t kHuge = 1 << 20;  // stands for the gigabyte lines met in the field

Json::Value Doc(int v) {
  Json::Value doc;
  doc["v"] = v;
  doc["text"] = std::string(static_cast<size_t>(v) * 40, 'x');
  return doc;
}

Json::Value ReadDoc(const std::string& path) {
  Json::Value doc;
  return JsonFromString(doc, ReadText(path)) ? doc : Json::Value("unreadable");
}

Json::Value CachedData(const std::string& path) {
  const Json::Value doc = ReadDoc(path);
  return doc.isObject() && doc.isMember("cached_data") ? doc["cached_data"] : "unreadable";
}

// Without the interposed calls, which would count and fail.
bool LockedElsewhere(const std::string& path) {
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDONLY));
  if (fd < 0) return false;
  const bool locked = syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) != 0;
  syscall(SYS_close, fd);
  return locked;
}

struct WalkCache : Cache {  // with a gate (a pipe) the fetch waits for its end of file
  WalkCache(const std::string& dir, bool required, const int* gate = nullptr)
      : Cache(dir, "walk", 100, required, -1), gate(gate) {}
  Json::Value GetCacheInfo() const override { return "walk"; }
  bool GetUpdatedData(Json::Value& data) const override {
    char c;
    if (gate != nullptr) close(gate[1]);
    while (gate != nullptr && read(gate[0], &c, 1) > 0) continue;
    data = Doc(2);
    return true;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
  const int* gate;
};

void StaleCache(const std::string& dir) {
  WalkCache cache(dir, false);
  cache.UpdateWithData(Doc(1));
  const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
  utimensat(AT_FDCWD, cache.GetCachePath().c_str(), old, 0);
  unlink((cache.GetCachePath() + ".pid").c_str());
}

struct Operation {
  std::string name;
  std::function<void()> setup;  // runs without faults, before the descriptor count
  std::function<bool()> run;    // under the fault; true for the success result
  std::function<bool(bool ok, bool clean)> check;  // result and files right (clean: no fault)
  int extraLines = 1;                              // log lines a failure may add to a clean run's
  const char* leftover = "";  // the prefix of names a failure may add to the directory
  bool leftByUnlink = false;  // ... only when the failed call is an unlink
};

class Walker {
 public:
  explicit Walker(const std::string& dir) : dir_(dir) {}

  void Walk(const Operation& op, const std::vector<Faults::Call>& calls) {
    op.setup();  // a first run makes what persists between runs (the lock directory)
    op.check(op.run(), true);
    op.setup();
    size_t cleanLines = 0;
    {
      LogCapture log;
      Faults::Arm();
      const bool ok = op.run();
      Faults::Disarm();
      if (!ok || !op.check(ok, true)) problems.push_back(op.name + " fails without faults");
      cleanLines = log.Lines().size();
    }
    std::map<Faults::Call, int> counts;
    for (Faults::Call call : calls) counts[call] = Faults::Count(call);
    if (calls[0] == Faults::kAllocation && counts[calls[0]] == 0)
      problems.push_back(op.name + " made no large allocation");
    const std::vector<int>& all = Faults::Errnos();
    size_t rotation = 0;
    for (Faults::Call call : calls) {
      for (int nth = 1; nth <= counts[call]; ++nth) {
        for (size_t e = 0; e < (kFullWalk ? all.size() : 1); ++e) {
          const int error =
              call == Faults::kAllocation ? ENOMEM : all[kFullWalk ? e : rotation++ % all.size()];
          Case(op, call, nth, error, cleanLines);
        }
      }
    }
  }

  void Report() const {
    EXPECT_GT(cases, 0);
    for (const std::string& problem : problems) ADD_FAILURE() << problem;
  }

  int cases = 0;
  std::vector<std::string> problems;

 private:
  void Case(const Operation& op, Faults::Call call, int nth, int error, size_t cleanLines) {
    const std::string where = op.name + " with " + Faults::Name(call) + " #" + std::to_string(nth) +
                              " failing " + Faults::ErrnoName(error) + ": ";
    ++cases;
    const size_t descriptors = Entries("/proc/self/fd").size();
    op.setup();
    const std::set<std::string> before = Entries(dir_);
    LogCapture log;
    bool ok = false;
    Faults::Arm(call, nth, error);
    try {
      ok = op.run();
    } catch (...) {
      Faults::Disarm();
      problems.push_back(where + "an exception escaped");
      return;
    }
    Faults::Disarm();
    // The calls before the nth are those of the fault-free run (not so for allocations).
    if (call != Faults::kAllocation && !Faults::Fired())
      problems.push_back(where + "the call was never made");
    if (log.Lines().size() > cleanLines + static_cast<size_t>(op.extraLines)) {
      problems.push_back(where + std::to_string(log.Lines().size()) +
                         " log lines, first: " + log.Lines().front().text.substr(0, 200));
    }
    if (!op.check(ok, false)) problems.push_back(where + "wrong result or files");
    const size_t after = Entries("/proc/self/fd").size();
    if (after != descriptors) problems.push_back(where + "descriptors: " + std::to_string(after));
    for (const std::string& name : Entries(dir_)) {
      const bool allowed = *op.leftover != '\0' && name.rfind(op.leftover, 0) == 0 &&
                           (!op.leftByUnlink || call == Faults::kUnlink);
      if (before.count(name) == 0 && !allowed) {
        problems.push_back(where + "left " + name);
        unlink((dir_ + "/" + name).c_str());
      }
    }
  }

  std::string dir_;
};

struct Home {
  explicit Home(const std::string& dir) : dir(dir) {}
  const std::string dir;
  std::string File(const std::string& name) const { return dir + "/" + name; }
  int fd = -1, count = 0;
  bool held = false;
  Json::Value value;
  std::map<std::string, int> map;
  int pipes[4] = {-1, -1, -1, -1};  // quiet, gate
  std::vector<SqliteValueList> rows;
};

std::vector<Operation> FileOperations(Home& h) {
  const std::string doc = h.File("doc.json"), fresh = h.File("fresh.json"), sub = h.File("sub");
  const std::string kv = h.File("settings.conf"), target = h.File("target.json");
  const std::string link = h.File("link.json"), twin = h.File("twin.json");
  // The caller's descriptor is closed exactly when the stream could be made.
  auto descriptor = [&h] {
    const bool opened = !Faults::FiredOn(Faults::kOpen), open = fcntl(h.fd, F_GETFD) >= 0;
    if (open) close(h.fd);
    return open != opened;
  };
  auto writes = [](const std::string& path) { return [=] { return File::Write(path, Doc(2)); }; };
  auto linked = [=] {  // written in place through links; a failed open keeps the old document
    File::Write(target, Doc(1));
    if (access(link.c_str(), F_OK) != 0) (void)!symlink("target.json", link.c_str());
    if (access(twin.c_str(), F_OK) != 0) (void)!::link(target.c_str(), twin.c_str());
  };
  // No result shows it: a replacement syncs file and directory, writing in place the file once.
  auto synced = [](bool clean, int n) { return !clean || Faults::Count(Faults::kFsync) == n; };
  auto inPlace = [=](const std::string& path) {
    return [=](bool ok, bool clean) {
      struct stat st;
      const bool links = lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
                         stat(twin.c_str(), &st) == 0 && st.st_nlink == 2;
      const Json::Value now = ReadDoc(path);
      return links && synced(clean, 1) &&
             (ok ? now == Doc(2) : !Faults::FiredOn(Faults::kOpen) || now == Doc(1));
    };
  };
  return {
      {"File::Write(path)", [=] { File::Write(doc, Doc(1)); }, writes(doc),
       [=](bool ok, bool clean) { return ReadDoc(doc) == Doc(ok ? 2 : 1) && synced(clean, 2); }},
      {"File::Write(path) of a new file", [=] { unlink(fresh.c_str()); }, writes(fresh),
       [=](bool ok, bool clean) {
         return ok ? ReadDoc(fresh) == Doc(2) && synced(clean, 2)
                   : access(fresh.c_str(), F_OK) != 0;
       },
       1, "fresh.json"},
      {"File::Write(path) through a symbolic link", linked, writes(link), inPlace(link)},
      {"File::Write(path) of a file with two names", linked, writes(twin), inPlace(target)},
      {"File::Read(path)",
       [=, &h] {
         File::Write(doc, Doc(1));
         h.value = "untouched";
       },
       [=, &h] { return File::Read(doc, h.value); },
       [=, &h](bool ok, bool) { return (!ok || h.value == Doc(1)) && ReadDoc(doc) == Doc(1); }},
      {"File::Write(fd)",  // in place by contract: only a success promises the document
       [=, &h] {
         File::Write(doc, Doc(1));
         h.fd = open(doc.c_str(), O_WRONLY | O_TRUNC);
       },
       [&h] { return File::Write(h.fd, Doc(2)); },
       [=](bool ok, bool) { return descriptor() && (!ok || ReadDoc(doc) == Doc(2)); }},
      {"File::Read(fd)",
       [=, &h] {
         File::Write(doc, Doc(1));
         h.fd = open(doc.c_str(), O_RDONLY);
         h.value = Json::Value();
       },
       [&h] { return File::Read(h.fd, h.value); },
       [=, &h](bool ok, bool) { return descriptor() && (!ok || h.value == Doc(1)); }},
      // A read that fails part-way ends the file early, as end of file does.
      {"File::Read<string,int>",
       [=, &h] {
         WriteText(kv, "a=1\nb=2\nbad line\n");
         h.map = {{"stale", 9}};
       },
       [=, &h] { return (h.count = File::Read(kv, h.map)) >= 0; },
       [&h](bool ok, bool clean) {
         const std::map<std::string, int> all = {{"a", 1}, {"b", 2}};
         const bool part = std::includes(all.begin(), all.end(), h.map.begin(), h.map.end());
         return !ok || ((clean ? h.map == all : part) && h.count == static_cast<int>(h.map.size()));
       },
       2},
      {"File::CreateDir", [=] { File::RemoveDir(sub); },
       [=] { return File::CreateDir(sub + "/leaf", 0750); },
       [=](bool ok, bool) {
         struct stat st;
         return !ok || (stat((sub + "/leaf").c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
                        (st.st_mode & 0777) == 0750);
       },
       1, "sub"},
  };
}

std::vector<Operation> LockAndCacheOperations(Home& h, const std::string& name) {
  const std::string lockPath = FileLock::getLockFilePath(name), home = h.dir;
  const std::string cachePath = h.File("walk.cached"), pidPath = cachePath + ".pid";
  // `quiet` ends when the forked updater does; it fetches once `gate` is closed.
  int *const quiet = h.pipes, *const gate = h.pipes + 2;
  return {
      {"FileLock lock/unlock", [&h] { h.held = true; },
       [=, &h] {
         FileLock lock(name);
         const bool locked = lock.lock(LOCK_EX | LOCK_NB, 0);
         if (locked) h.held = LockedElsewhere(lockPath);
         lock.unlock();
         return locked;
       },
       [=, &h](bool, bool) { return h.held && !LockedElsewhere(lockPath); }, 2},
      {"Cache::UpdateWithData", [=] { StaleCache(home); },
       [=] { return WalkCache(home, false).UpdateWithData(Doc(2)); },
       [=](bool ok, bool) { return CachedData(cachePath) == Doc(ok ? 2 : 1); }, 2},
      // A failed look at the pid file waits for "another" updater; a failed unlink keeps it.
      {"Cache::Update in place", [=] { StaleCache(home); },
       [=] { return WalkCache(home, true).Update(); },
       [=](bool, bool clean) {
         unlink(pidPath.c_str());
         const Json::Value data = CachedData(cachePath);
         return data == Doc(2) || (!clean && data == Doc(1));
       },
       3, "walk.cached.pid", true},
      {"Cache::Read forking the updater",
       [=] {
         StaleCache(home);
         if (pipe(quiet) != 0 || pipe(gate) != 0) std::fill(quiet, quiet + 4, -1);
       },
       [=, &h] {
         h.value = WalkCache(home, false, gate).Read();
         return true;
       },
       [=, &h](bool, bool clean) {
         close(gate[1]);
         close(quiet[1]);
         struct pollfd end = {quiet[0], POLLIN, 0};
         const bool finished = poll(&end, 1, 20000) == 1;
         close(quiet[0]);
         close(gate[0]);
         const Json::Value data = CachedData(cachePath);
         return finished && access(pidPath.c_str(), F_OK) != 0 &&
                (h.value == Doc(1) || (h.value.isNull() && (Faults::FiredOn(Faults::kOpen) ||
                                                            Faults::FiredOn(Faults::kRead)))) &&
                (data == Doc(2) || (!clean && data == Doc(1)));
       },
       2},
      {"pid file", [=] { WriteText(pidPath, "1\n"); },
       [=] { return VLIBCProcPidFileCreate(pidPath.c_str()) == 0; },
       [=](bool ok, bool) {
         const std::string text = ReadText(pidPath);
         unlink(pidPath.c_str());
         return text == (ok ? std::to_string(getpid()) + "\n" : "1\n");
       },
       0},
  };
}

const SqliteTableHandler kRows("row", "id INTEGER PRIMARY KEY, name TEXT");

InsertCommand Row(int id) {
  InsertCommand insert;
  insert.SetTable(kRows);
  insert.AddFieldValue("id", id);
  insert.AddFieldValue("name", "row" + std::to_string(id));
  return insert;
}

int RowsIn(const std::string& path) {  // another connection rolls back a failed write's rest
  int count = -1;
  return SqliteDB(path, 0, "walk").GetCount(kRows, count) ? count : -1;
}

std::vector<Operation> SqliteOperations(Home& h) {
  const std::string path = h.File("walk.db"), backup = h.File("walk.backup.db");
  auto seed = [path] {
    for (const char* suffix : {"", "-journal"}) unlink((path + suffix).c_str());
    SqliteDB db(path, 0, "walk");
    for (int id = 1; id <= 2; ++id) db.InsertRecord(Row(id));
  };
  return {
      {"SqliteDB::InsertRecord", seed,
       [=] { return SqliteDB(path, 0, "walk").InsertRecord(Row(3)); },
       [=](bool ok, bool) { return RowsIn(path) == (ok ? 3 : 2); }, 3},
      {"SqliteDB::SelectRecords", seed,
       [=, &h] {
         h.rows.clear();
         SelectCommand select;
         select.SetTable(kRows);
         select.SelectAll();
         return SqliteDB(path, 0, "walk").SelectRecords(select, h.rows);
       },
       [=, &h](bool ok, bool) { return (!ok || h.rows.size() == 2) && RowsIn(path) == 2; }, 3},
      // Always whole, old or new; a failed removal leaves the copy's directory for a later backup.
      {"SqliteDB::Backup",
       [=] {
         seed();
         unlink(backup.c_str());
         SqliteDB(backup, 0, "walk").InsertRecord(Row(1));
       },
       [=] { return SqliteDB(path, 0, "walk").Backup(backup); },
       [=](bool ok, bool) { return RowsIn(backup) == 2 || (!ok && RowsIn(backup) == 1); }, 3,
       ".vantdr-backup.", true},
  };
}

struct WalkDir : TempDir {  // in memory when /dev/shm allows: the walk syncs thousands of files
  WalkDir() : TempDir("/dev/shm") {}
  ~WalkDir() {
    std::error_code ignored;
    std::filesystem::remove_all("/tmp/.vantdr_lock" + path(), ignored);
  }
};

class FaultWalk : public ::testing::Test {
 protected:
  FaultWalk() { alarm(kFullWalk ? 1200 : 120); }
  ~FaultWalk() override {
    alarm(0);
    unlink(FileLock::getLockFilePath(lock).c_str());
  }
  WalkDir dir;
  Home home{dir.path()};
  const std::string lock = UniqueName("walk_lock");
};

TEST_F(FaultWalk, FilesLocksCachesAndDatabases) {
  if (geteuid() != 0) GTEST_SKIP() << "the lock directory and the cache need root";
  Walker walker(dir.path());
  const std::vector<Faults::Call> calls = {
      Faults::kOpen,   Faults::kRead,   Faults::kWrite, Faults::kFsync, Faults::kClose,
      Faults::kRename, Faults::kUnlink, Faults::kFlock, Faults::kFork,  Faults::kPipe2};
  for (const auto& ops :
       {FileOperations(home), LockAndCacheOperations(home, lock), SqliteOperations(home)})
    for (const Operation& op : ops) walker.Walk(op, calls);
  walker.Report();
}

TEST_F(FaultWalk, PrivilegedSectionsOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
  chmod(dir.path().c_str(), 0777);
  const ChildResult child = RunUnprivileged([&] {
    Walker walker(dir.path());
    for (Operation op : {FileOperations(home)[8], LockAndCacheOperations(home, lock)[0],
                         LockAndCacheOperations(home, lock)[1]}) {
      // A failed raise runs with the caller's ids (two lines); a failed restore stays root.
      op.extraLines += 4;
      op.setup = [setup = op.setup] {
        if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) _exit(97);
        setup();
        if (setresgid(-1, 65534, -1) != 0 || setresuid(-1, 65534, -1) != 0) _exit(97);
      };
      walker.Walk(op, {Faults::kSetresuid, Faults::kSetresgid});
    }
    for (const std::string& problem : walker.problems) fprintf(stderr, "%s\n", problem.c_str());
    return walker.cases > 0 && walker.problems.empty() ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << "the child printed its problems";
}

TEST(Interrupted, ReadsAndWritesAreMadeAgain) {
  WalkDir dir;
  const std::string doc = dir.File("doc.json"), pid = dir.File("pid");
  Json::Value read;
  const struct {
    const char* name;
    Faults::Call call;
    std::function<bool()> run;
  } rows[] = {
      {"JsonToFile", Faults::kWrite, [&] { return JsonToFile(Doc(2), doc); }},
      {"JsonFromFile", Faults::kRead, [&] { return JsonFromFile(read, doc) && read == Doc(2); }},
      {"pid file", Faults::kWrite, [&] { return VLIBCProcPidFileCreate(pid.c_str()) == 0; }},
      {"VLIBCReadPidFile", Faults::kRead,
       [&] { return VLIBCReadPidFile(pid.c_str()) == getpid(); }},
      {"VLIBCExec", Faults::kRead,
       [] { return VLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr) == 0; }},
  };
  for (const auto& row : rows) {
    Faults::Arm(row.call, 1, EINTR);
    EXPECT_TRUE(row.run() && Faults::Fired()) << row.name;
    Faults::Disarm();
  }
  EXPECT_EQ(ReadDoc(doc), Doc(2));
}

TEST(HugeInput, FailedAllocationsBecomeFailureResults) {
  WalkDir dir;
  const std::string kv = dir.File("kv"), doc = dir.File("doc.json");
  const std::string cachePath = dir.File("walk.cached"), huge(kHuge, 'x');
  Json::Value big, read, served;
  big["v"] = huge;
  const std::string answerText = "{\"success\":true,\"data\":" + JsonToString(big) + "}";
  std::map<std::string, std::string> map;
  int count = 0;
  Response response;
  const std::vector<Operation> ops = {
      // A line that could not be held ends the read, as a failed read does.
      {"File::Read<string,string>",
       [&] { WriteText(kv, "a=1\nk=" + huge + "\n" + huge + "\nb=2\n"); },
       [&] { return (count = File::Read(kv, map)) >= 0; },
       [&](bool ok, bool) {
         const std::map<std::string, std::string> all = {{"a", "1"}, {"b", "2"}, {"k", huge}};
         return !ok || (std::includes(all.begin(), all.end(), map.begin(), map.end()) &&
                        static_cast<int>(map.size()) == count);
       },
       2},
      {"File::Read(path)", [&] { WriteText(doc, JsonToString(big)); },
       [&] { return File::Read(doc, read); }, [&](bool ok, bool) { return !ok || read == big; }},
      {"File::Write(path)", [&] { File::Write(doc, Doc(1)); },
       [&] { return File::Write(doc, big); },
       [&](bool ok, bool) { return ReadDoc(doc) == (ok ? big : Doc(1)); }},
      {"Cache::UpdateWithData", [&] { StaleCache(dir.path()); },
       [&] { return WalkCache(dir.path(), false).UpdateWithData(big); },
       [&](bool ok, bool) { return CachedData(cachePath) == (ok ? big : Doc(1)); }, 2},
      {"Cache::GetCachedData", [&] { WalkCache(dir.path(), false).UpdateWithData(big); },
       [&] { return !(served = WalkCache(dir.path(), false).GetCachedData()).isNull(); },
       [&](bool ok, bool) { return !ok || served == big; }, 3},
      {"SqliteDB::InsertRecords", [&] { unlink(dir.File("huge.db").c_str()); },
       [&] {
         InsertCommand insert;
         insert.SetTable(SqliteTableHandler("t", "v TEXT"));
         insert.AddFieldValue("v", huge);
         return SqliteDB(dir.File("huge.db"), 0, "t").InsertRecords({insert});
       },
       [](bool, bool) { return true; }, 2},
      {"Response::setResp", [&] { response.clear(); },
       [&] { return response.setResp(answerText.c_str()); },
       [&](bool ok, bool) { return !ok || response.getData() == big; }},
  };
  Walker walker(dir.path());
  for (const Operation& op : ops) walker.Walk(op, {Faults::kAllocation});
  walker.Report();
}
