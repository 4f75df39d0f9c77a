// Each file/process operation run once per system call it makes, that call
// failing with each errno walked (one per call; VANTDR_FAULTS=full: all).
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantcore/vlibc.h"
#include "vantdr/cache.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/response.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

bool FullWalk() {
  const char* mode = getenv("VANTDR_FAULTS");
  return mode != nullptr && std::string(mode) == "full";
}

int OpenDescriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

std::set<std::string> Entries(const std::string& path) {
  std::set<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* entry = readdir(dir)) names.insert(entry->d_name);
    closedir(dir);
  }
  return names;
}

Json::Value Doc(int v) {
  Json::Value doc;
  doc["v"] = v;
  doc["text"] = std::string(static_cast<size_t>(v) * 40, 'x');
  return doc;
}

Json::Value ReadDoc(const std::string& path) {
  Json::Value doc;
  if (!JsonFromString(doc, ReadText(path))) return Json::Value("unreadable");
  return doc;
}

// Observes a lock without the interposed calls: true when `path` is locked.
bool LockedElsewhere(const std::string& path) {
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDONLY));
  if (fd < 0) return false;
  const bool locked = syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) != 0;
  syscall(SYS_close, fd);
  return locked;
}

// Fetches Doc(2); with a gate (a pipe) the fetch waits for its end of file.
struct WalkCache : Cache {
  WalkCache(const std::string& dir, bool required, const int* gate = nullptr)
      : Cache(dir, "walk", 100, required, -1), gate(gate) {}
  Json::Value GetCacheInfo() const override { return "walk"; }
  bool GetUpdatedData(Json::Value& data) const override {
    if (gate != nullptr) {
      char c;
      close(gate[1]);
      while (read(gate[0], &c, 1) > 0) {
      }
    }
    data = Doc(2);
    return true;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
  const int* gate;
};

// The data in a cache file, or "unreadable" for a torn or missing document.
Json::Value CachedData(const std::string& path) {
  const Json::Value doc = ReadDoc(path);
  return doc.isObject() && doc.isMember("cached_data") ? doc["cached_data"]
                                                       : Json::Value("unreadable");
}

void StaleCache(const std::string& dir) {
  WalkCache cache(dir, false);
  cache.UpdateWithData(Doc(1));
  const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
  utimensat(AT_FDCWD, cache.GetCachePath().c_str(), old, 0);
  unlink((cache.GetCachePath() + ".pid").c_str());
}

// One operation of the walk.
struct Operation {
  std::string name;
  std::function<void()> setup;  // runs without faults, before the descriptor count
  std::function<bool()> run;    // under the fault; true for the success result
  // After `run`, without faults: "" when right; `clean` for the fault-free run.
  std::function<std::string(bool ok, bool clean)> check;
  int extraLines = 1;  // log lines a failure may add to a clean run's
  // Entries of the directory a failure may leave, besides those there before.
  std::function<std::set<std::string>(Faults::Call)> leftovers = [](Faults::Call) {
    return std::set<std::string>();
  };
};

struct WalkResult {
  int cases = 0;
  std::vector<std::string> problems;
};

const size_t kHuge = 1 << 20;  // stands for the gigabyte lines met in the field
const size_t kLarge = 256 << 10;

class Walker {
 public:
  Walker(const std::string& dir, const std::vector<Faults::Call>& calls)
      : dir_(dir), calls_(calls) {}

  void Walk(const Operation& op) {
    // A first run makes what persists between runs (the lock directory).
    op.setup();
    op.check(op.run(), true);
    std::map<Faults::Call, int> counts;
    const size_t cleanLines = Clean(
        op, [] { Faults::Arm(); },
        [&] {
          Faults::Disarm();
          for (Faults::Call call : calls_) counts[call] = Faults::Count(call);
        });
    const std::vector<int>& all = Faults::Errnos();
    int rotation = 0;
    for (Faults::Call call : calls_) {
      for (int nth = 1; nth <= counts[call]; ++nth) {
        for (size_t e = 0; e < (FullWalk() ? all.size() : 1); ++e) {
          const int error = FullWalk() ? all[e] : all[rotation++ % all.size()];
          Case(
              op,
              op.name + " with " + Faults::Name(call) + " #" + std::to_string(nth) + " failing " +
                  Faults::ErrnoName(error) + ": ",
              [=] { Faults::Arm(call, nth, error); }, [] { Faults::Disarm(); }, cleanLines, &call);
        }
      }
    }
  }

  // Once per allocation of at least kLarge bytes, with that allocation failing.
  void WalkAllocations(const Operation& op) {
    int large = 0;
    const size_t cleanLines = Clean(
        op, [] { Faults::FailAllocation(kLarge, 0); },
        [&] {
          large = Faults::LargeAllocations();
          Faults::FailAllocation(0, 0);
        });
    if (large == 0) Problem(op.name + " made no large allocation");
    for (int nth = 1; nth <= large; ++nth) {
      Case(
          op, op.name + " with large allocation #" + std::to_string(nth) + " failing: ",
          [=] { Faults::FailAllocation(kLarge, nth); }, [] { Faults::FailAllocation(0, 0); },
          cleanLines, nullptr);
    }
  }

  const WalkResult& result() const { return result_; }

 private:
  void Problem(const std::string& text) { result_.problems.push_back(text); }

  size_t Clean(const Operation& op, const std::function<void()>& arm,
               const std::function<void()>& disarm) {
    op.setup();
    LogCapture log;
    arm();
    const bool ok = op.run();
    disarm();
    const std::string problem = op.check(ok, true);
    if (!ok || !problem.empty()) Problem(op.name + " without faults: " + problem);
    return log.Lines().size();
  }

  // `call` is the kind failed, null for an allocation.
  void Case(const Operation& op, const std::string& where, const std::function<void()>& arm,
            const std::function<void()>& disarm, size_t cleanLines, const Faults::Call* call) {
    ++result_.cases;
    const int descriptors = OpenDescriptors();
    op.setup();
    const std::set<std::string> before = Entries(dir_);
    LogCapture log;
    bool ok = false;
    arm();
    try {
      ok = op.run();
    } catch (...) {
      disarm();
      Problem(where + "an exception escaped");
      return;
    }
    disarm();
    // The calls before the nth are those of the fault-free run.
    if (call != nullptr && !Faults::Fired()) Problem(where + "the call was never made");
    if (log.Lines().size() > cleanLines + static_cast<size_t>(op.extraLines)) {
      Problem(where + std::to_string(log.Lines().size()) +
              " log lines, first: " + log.Lines().front().text.substr(0, 200));
    }
    const std::string problem = op.check(ok, false);
    if (!problem.empty()) Problem(where + problem);
    const int after = OpenDescriptors();
    if (after != descriptors) {
      Problem(where + std::to_string(after - descriptors) + " descriptors leaked");
    }
    const std::set<std::string> allowed =
        call != nullptr ? op.leftovers(*call) : std::set<std::string>();
    for (const std::string& name : Entries(dir_)) {
      if (before.count(name) == 0 && allowed.count(name) == 0) {
        Problem(where + "left " + name);
        unlink((dir_ + "/" + name).c_str());
      }
    }
  }

  std::string dir_;
  std::vector<Faults::Call> calls_;
  WalkResult result_;
};

std::string Expect(bool holds, const std::string& what) { return holds ? "" : what; }

std::vector<Operation> FileOperations(const std::string& home) {
  const std::string doc = home + "/doc.json", fresh = home + "/fresh.json";
  const std::string kv = home + "/settings.conf", sub = home + "/sub";
  auto fd = std::make_shared<int>(-1);
  auto value = std::make_shared<Json::Value>();
  auto map = std::make_shared<std::map<std::string, int>>();
  auto count = std::make_shared<int>(0);
  // The caller's descriptor is closed exactly when the stream could be made.
  auto descriptorState = [fd](bool opened) -> std::string {
    const bool open = fcntl(*fd, F_GETFD) >= 0;
    if (open) close(*fd);
    return Expect(open != opened, opened ? "descriptor left open" : "descriptor closed");
  };
  auto streamMade = [] { return !Faults::FiredOn(Faults::kOpen); };
  std::vector<Operation> ops;
  ops.push_back({"File::Write(path)", [=] { File::Write(doc, Doc(1)); },
                 [=] { return File::Write(doc, Doc(2)); },
                 [=](bool ok, bool) {
                   return Expect(ReadDoc(doc) == Doc(ok ? 2 : 1),
                                 "document is not the expected one");
                 }});
  ops.push_back({"File::Write(path) of a new file", [=] { unlink(fresh.c_str()); },
                 [=] { return File::Write(fresh, Doc(2)); },
                 [=](bool ok, bool) {
                   return ok ? Expect(ReadDoc(fresh) == Doc(2), "document not written")
                             : Expect(access(fresh.c_str(), F_OK) != 0, "failure left a file");
                 },
                 1, [](Faults::Call) { return std::set<std::string>{"fresh.json"}; }});
  // Written in place through links; a failed open keeps the old document.
  const std::string target = home + "/target.json", link = home + "/link.json";
  const std::string twin = home + "/twin.json";
  auto inPlace = [=](const std::string& path, bool ok) {
    struct stat st;
    const bool links = lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
                       stat(twin.c_str(), &st) == 0 && st.st_nlink == 2;
    const Json::Value now = ReadDoc(path);
    return Expect(links, "a link was replaced") +
           Expect(!ok || now == Doc(2), "document not written") +
           Expect(ok || !Faults::FiredOn(Faults::kOpen) || now == Doc(1),
                  "a failure to open changed the document");
  };
  auto linked = [=] {
    File::Write(target, Doc(1));
    if (access(link.c_str(), F_OK) != 0) (void)!symlink("target.json", link.c_str());
    if (access(twin.c_str(), F_OK) != 0) (void)!::link(target.c_str(), twin.c_str());
  };
  ops.push_back({"File::Write(path) through a symbolic link", linked,
                 [=] { return File::Write(link, Doc(2)); },
                 [=](bool ok, bool) { return inPlace(link, ok); }});
  ops.push_back({"File::Write(path) of a file with two names", linked,
                 [=] { return File::Write(twin, Doc(2)); },
                 [=](bool ok, bool) { return inPlace(target, ok); }});
  ops.push_back({"File::Read(path)",
                 [=] {
                   File::Write(doc, Doc(1));
                   *value = Json::Value("untouched");
                 },
                 [=] { return File::Read(doc, *value); },
                 [=](bool ok, bool) {
                   return Expect(!ok || *value == Doc(1), "read a different document") +
                          Expect(ReadDoc(doc) == Doc(1), "reading changed the file");
                 }});
  ops.push_back({"File::Write(fd)",
                 [=] {
                   File::Write(doc, Doc(1));
                   *fd = open(doc.c_str(), O_WRONLY | O_TRUNC);
                 },
                 [=] { return File::Write(*fd, Doc(2)); },
                 [=](bool ok, bool) {
                   // In place by contract: only a success promises the document.
                   return descriptorState(streamMade()) +
                          Expect(!ok || ReadDoc(doc) == Doc(2), "document not written");
                 }});
  ops.push_back({"File::Read(fd)",
                 [=] {
                   File::Write(doc, Doc(1));
                   *fd = open(doc.c_str(), O_RDONLY);
                   *value = Json::Value();
                 },
                 [=] { return File::Read(*fd, *value); },
                 [=](bool ok, bool) {
                   return descriptorState(streamMade()) +
                          Expect(!ok || *value == Doc(1), "read a different document");
                 }});
  ops.push_back({"File::Read<string,int>",
                 [=] {
                   WriteText(kv, "a=1\nb=2\nbad line\n");
                   *map = {{"stale", 9}};
                 },
                 [=] {
                   *count = File::Read(kv, *map);
                   return *count >= 0;
                 },
                 [=](bool ok, bool clean) {
                   // A read that fails part-way ends the file early, as end of file does.
                   const std::map<std::string, int> all = {{"a", 1}, {"b", 2}};
                   if (!ok) return std::string();
                   if (clean) return Expect(*map == all && *count == 2, "entries differ");
                   for (const auto& entry : *map) {
                     if (all.count(entry.first) == 0 || all.at(entry.first) != entry.second) {
                       return std::string("entry ") + entry.first + " is wrong";
                     }
                   }
                   return Expect(*count == static_cast<int>(map->size()), "count differs");
                 },
                 2});
  ops.push_back({"File::CreateDir", [=] { File::RemoveDir(sub); },
                 [=] { return File::CreateDir(sub + "/leaf", 0750); },
                 [=](bool ok, bool) {
                   struct stat st;
                   return Expect(!ok || (stat((sub + "/leaf").c_str(), &st) == 0 &&
                                         S_ISDIR(st.st_mode) && (st.st_mode & 0777) == 0750),
                                 "directory missing after success");
                 },
                 1, [](Faults::Call) { return std::set<std::string>{"sub"}; }});
  return ops;
}

std::vector<Operation> LockAndCacheOperations(const std::string& home, const std::string& name) {
  const std::string lockPath = FileLock::getLockFilePath(name);
  const std::string cachePath = home + "/walk.cached", pidPath = cachePath + ".pid";
  auto heldWhileLocked = std::make_shared<bool>(false);
  auto served = std::make_shared<Json::Value>();
  std::vector<Operation> ops;
  ops.push_back({"FileLock lock/unlock", [=] { *heldWhileLocked = true; },
                 [=] {
                   FileLock lock(name);
                   const bool locked = lock.lock(LOCK_EX | LOCK_NB, 0);
                   if (locked) *heldWhileLocked = LockedElsewhere(lockPath);
                   lock.unlock();
                   return locked;
                 },
                 [=](bool, bool) {
                   return Expect(*heldWhileLocked, "lock() returned true without the lock") +
                          Expect(!LockedElsewhere(lockPath), "the lock outlived its FileLock");
                 },
                 2});
  ops.push_back({"Cache::UpdateWithData", [=] { StaleCache(home); },
                 [=] { return WalkCache(home, false).UpdateWithData(Doc(2)); },
                 [=](bool ok, bool) {
                   return Expect(CachedData(cachePath) == Doc(ok ? 2 : 1),
                                 "cache file does not hold the expected data");
                 },
                 2});
  // The pid file stays, naming this live process, only when its unlink failed.
  auto pidLeftover = [](Faults::Call call) {
    return call == Faults::kUnlink ? std::set<std::string>{"walk.cached.pid"}
                                   : std::set<std::string>();
  };
  ops.push_back({"Cache::Update in place", [=] { StaleCache(home); },
                 [=] { return WalkCache(home, true).Update(); },
                 [=](bool, bool clean) {
                   unlink(pidPath.c_str());
                   // A failed look at the pid file means waiting for "another" updater.
                   const Json::Value data = CachedData(cachePath);
                   return Expect(data == Doc(2) || (!clean && data == Doc(1)),
                                 "cache file holds " + JsonToString(data));
                 },
                 3, pidLeftover});
  // `quiet` ends when the forked updater does; it fetches once `gate` is closed.
  auto pipes = std::make_shared<std::array<int, 4>>();
  int* quiet = pipes->data();
  int* gate = pipes->data() + 2;
  ops.push_back({"Cache::Read forking the updater",
                 [=] {
                   StaleCache(home);
                   if (pipe(quiet) != 0 || pipe(gate) != 0) pipes->fill(-1);
                 },
                 [=] {
                   *served = WalkCache(home, false, gate).Read();
                   return true;
                 },
                 [=](bool, bool clean) {
                   close(gate[1]);
                   close(quiet[1]);
                   struct pollfd end = {quiet[0], POLLIN, 0};
                   const bool finished = poll(&end, 1, 20000) == 1;
                   close(quiet[0]);
                   close(gate[0]);
                   const Json::Value data = CachedData(cachePath);
                   return Expect(finished, "the updater did not finish") +
                          // A cache file that cannot be read serves the default.
                          Expect(*served == Doc(1) ||
                                     (served->isNull() && (Faults::FiredOn(Faults::kOpen) ||
                                                           Faults::FiredOn(Faults::kRead))),
                                 "served " + JsonToString(*served)) +
                          Expect(data == Doc(2) || (!clean && data == Doc(1)),
                                 "cache file holds " + JsonToString(data)) +
                          Expect(access(pidPath.c_str(), F_OK) != 0, "pid file left");
                 },
                 2});
  ops.push_back({"pid file", [=] { WriteText(pidPath, "1\n"); },
                 [=] { return VLIBCProcPidFileCreate(pidPath.c_str()) == 0; },
                 [=](bool ok, bool) {
                   const std::string text = ReadText(pidPath);
                   unlink(pidPath.c_str());
                   return Expect(text == (ok ? std::to_string(getpid()) + "\n" : "1\n"),
                                 "pid file holds [" + text + "]");
                 },
                 0});
  return ops;
}

const SqliteTableHandler kRows("row", "id INTEGER PRIMARY KEY, name TEXT");

InsertCommand Row(int id) {
  InsertCommand insert;
  insert.SetTable(kRows);
  insert.AddFieldValue("id", id);
  insert.AddFieldValue("name", "row" + std::to_string(id));
  return insert;
}

int RowsIn(const std::string& path) {
  SqliteDB db(path, 0, "walk");
  int count = -1;
  return db.GetCount(kRows, count) ? count : -1;
}

std::vector<Operation> SqliteOperations(const std::string& home) {
  const std::string path = home + "/walk.db";
  auto seed = [path] {
    for (const char* suffix : {"", "-journal"}) unlink((path + suffix).c_str());
    SqliteDB db(path, 0, "walk");
    for (int id = 1; id <= 2; ++id) db.InsertRecord(Row(id));
  };
  auto rows = std::make_shared<std::vector<SqliteValueList>>();
  std::vector<Operation> ops;
  ops.push_back({"SqliteDB::InsertRecord", seed,
                 [=] { return SqliteDB(path, 0, "walk").InsertRecord(Row(3)); },
                 [=](bool ok, bool) {
                   // Another connection rolls back what a failed write left.
                   const int count = RowsIn(path);
                   return Expect(count == (ok ? 3 : 2), "rows: " + std::to_string(count));
                 },
                 3});
  ops.push_back({"SqliteDB::SelectRecords", seed,
                 [=] {
                   rows->clear();
                   SqliteDB db(path, 0, "walk");
                   SelectCommand select;
                   select.SetTable(kRows);
                   select.SelectAll();
                   return db.SelectRecords(select, *rows);
                 },
                 [=](bool ok, bool) {
                   return Expect(!ok || rows->size() == 2,
                                 "rows: " + std::to_string(rows->size())) +
                          Expect(RowsIn(path) == 2, "the database changed");
                 },
                 3});
  // A backup is always whole: the previous one (a single row) or the new one,
  // which only a failed sync of the directory after the swap reports with
  // false.
  const std::string backup = home + "/walk.backup.db";
  ops.push_back({"SqliteDB::Backup",
                 [=] {
                   seed();
                   unlink(backup.c_str());
                   SqliteDB(backup, 0, "walk").InsertRecord(Row(1));
                 },
                 [=] { return SqliteDB(path, 0, "walk").Backup(backup); },
                 [=](bool ok, bool) {
                   const int count = RowsIn(backup);
                   return Expect(count == 2 || (!ok && count == 1),
                                 "backup rows: " + std::to_string(count));
                 },
                 3,
                 // A failed removal leaves the private directory of the copy,
                 // for a later backup once this process is gone.
                 [=](Faults::Call call) {
                   std::set<std::string> left;
                   for (const std::string& name : Entries(home)) {
                     if (call == Faults::kUnlink && name.rfind(".vantdr-backup.", 0) == 0) {
                       left.insert(name);
                     }
                   }
                   return left;
                 }});
  return ops;
}

const std::vector<Faults::Call> kFileCalls = {
    Faults::kOpen,   Faults::kRead,   Faults::kWrite, Faults::kFsync, Faults::kClose,
    Faults::kRename, Faults::kUnlink, Faults::kFlock, Faults::kFork,  Faults::kPipe2};

// In memory when /dev/shm allows: the walk syncs thousands of files.
struct WalkDir : TempDir {
  WalkDir() : TempDir("/dev/shm") {}
  ~WalkDir() {
    std::error_code ignored;
    std::filesystem::remove_all("/tmp/.vantdr_lock" + path(), ignored);
  }
};

class FaultWalk : public ::testing::Test {
 protected:
  FaultWalk() { alarm(FullWalk() ? 1200 : 120); }
  ~FaultWalk() override { alarm(0); }

  void Report(const WalkResult& result) {
    EXPECT_GT(result.cases, 0);
    for (const std::string& problem : result.problems) ADD_FAILURE() << problem;
  }
};

TEST_F(FaultWalk, FilesLocksCachesAndDatabases) {
  if (geteuid() != 0) GTEST_SKIP() << "the lock directory and the cache need root";
  WalkDir dir;
  const std::string lock = UniqueName("walk_lock");
  Walker walker(dir.path(), kFileCalls);
  for (const auto& ops : {FileOperations(dir.path()), LockAndCacheOperations(dir.path(), lock),
                          SqliteOperations(dir.path())}) {
    for (const Operation& op : ops) walker.Walk(op);
  }
  Report(walker.result());
  unlink(FileLock::getLockFilePath(lock).c_str());
}

// The privileged raise and restore failed, in a process not effectively root.
TEST_F(FaultWalk, PrivilegedSectionsOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
  WalkDir dir;
  chmod(dir.path().c_str(), 0777);
  const std::string report = dir.path() + "/report", lock = UniqueName("walk_lock");
  const ChildResult child = RunUnprivileged([&] {
    Walker walker(dir.path(), {Faults::kSetresuid, Faults::kSetresgid});
    std::vector<Operation> ops = FileOperations(dir.path());
    std::vector<Operation> locks = LockAndCacheOperations(dir.path(), lock);
    std::vector<Operation> walked = {ops[8], locks[0], locks[1]};  // CreateDir, lock, cache write
    for (Operation& op : walked) {
      // A failed raise runs the operation with the caller's ids and logs two
      // lines; a failed restore leaves root, which the next case undoes.
      op.extraLines += 4;
      const auto setup = op.setup;
      op.setup = [setup] {
        if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) _exit(97);
        setup();
        if (setresgid(-1, 65534, -1) != 0 || setresuid(-1, 65534, -1) != 0) _exit(97);
      };
      walker.Walk(op);
    }
    std::string out = std::to_string(walker.result().cases) + "\n";
    for (const std::string& problem : walker.result().problems) out += problem + "\n";
    return WriteText(report, out) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
  std::istringstream lines(ReadText(report));
  std::string cases, problem;
  std::getline(lines, cases);
  EXPECT_GT(std::atoi(cases.c_str()), 0) << "no case walked";
  while (std::getline(lines, problem)) ADD_FAILURE() << problem;
  unlink(FileLock::getLockFilePath(lock).c_str());
}

// EINTR is no failure: the interrupted read or write is made again.
TEST(Interrupted, ReadsAndWritesAreMadeAgain) {
  WalkDir dir;
  const std::string doc = dir.path() + "/doc.json", pid = dir.path() + "/pid";
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
    const bool ok = row.run();
    const bool fired = Faults::Fired();
    Faults::Disarm();
    EXPECT_TRUE(ok && fired) << row.name;
  }
  EXPECT_EQ(ReadDoc(doc), Doc(2));
}

// What no result shows: a replacement syncs the new file, then its directory;
// writing in place syncs the file once.
TEST(Durability, ReplacementsSyncTheFileAndTheDirectory) {
  WalkDir dir;
  const std::string doc = dir.path() + "/doc.json", link = dir.path() + "/link";
  ASSERT_EQ(symlink(doc.c_str(), link.c_str()), 0);
  for (const auto& row :
       {std::make_pair(doc, 2), std::make_pair(doc, 2), std::make_pair(link, 1)}) {
    Faults::Arm();
    const bool ok = File::Write(row.first, Doc(1));
    Faults::Disarm();
    EXPECT_TRUE(ok);
    EXPECT_EQ(Faults::Count(Faults::kFsync), row.second) << row.first;
  }
}

class HugeInput : public ::testing::Test {
 protected:
  std::string File(const std::string& name) const { return dir.path() + "/" + name; }
  WalkDir dir;
};

// Each input-sized allocation fails in turn: a result, no throw, old document kept.
TEST_F(HugeInput, FailedAllocationsBecomeFailureResults) {
  const std::string kv = File("kv"), doc = File("doc.json"), cachePath = File("walk.cached");
  const std::string huge(kHuge, 'x');
  Json::Value big, read, served, answer;
  big["v"] = huge;
  answer["success"] = true;
  answer["data"] = big;
  const std::string answerText = JsonToString(answer);
  std::map<std::string, std::string> map;
  int count = 0;
  Response response;
  const std::vector<Operation> ops = {
      {"File::Read<string,string>",
       [&] { WriteText(kv, "a=1\nk=" + huge + "\n" + huge + "\nb=2\n"); },
       [&] {
         count = File::Read(kv, map);
         return count >= 0;
       },
       [&](bool ok, bool) {
         // A line that could not be held ends the read, as a failed read does.
         if (!ok) return std::string();
         for (const auto& entry : map) {
           const bool right = (entry.first == "a" && entry.second == "1") ||
                              (entry.first == "k" && entry.second == huge) ||
                              (entry.first == "b" && entry.second == "2");
           if (!right) return "wrong entry " + entry.first;
         }
         return Expect(static_cast<int>(map.size()) == count, "count differs");
       },
       2},  // the line that could not be held is a parse failure, logged as such
      {"File::Read(path)", [&] { WriteText(doc, JsonToString(big)); },
       [&] { return File::Read(doc, read); },
       [&](bool ok, bool) { return Expect(!ok || read == big, "read a different document"); }},
      {"File::Write(path)", [&] { File::Write(doc, Doc(1)); },
       [&] { return File::Write(doc, big); },
       [&](bool ok, bool) { return Expect(ReadDoc(doc) == (ok ? big : Doc(1)), "document lost"); }},
      {"Cache::UpdateWithData", [&] { StaleCache(dir.path()); },
       [&] { return WalkCache(dir.path(), false).UpdateWithData(big); },
       [&](bool ok, bool) {
         return Expect(CachedData(cachePath) == (ok ? big : Doc(1)), "document lost");
       },
       2},  // and the line of the failed write
      {"Cache::GetCachedData", [&] { WalkCache(dir.path(), false).UpdateWithData(big); },
       [&] {
         served = WalkCache(dir.path(), false).GetCachedData();
         return !served.isNull();
       },
       [&](bool ok, bool) { return Expect(!ok || served == big, "served a different value"); },
       3},  // and the two lines of the failed load
      {"SqliteDB::InsertRecords", [&] { unlink(File("huge.db").c_str()); },
       [&] {
         InsertCommand insert;
         insert.SetTable(SqliteTableHandler("t", "v TEXT"));
         insert.AddFieldValue("v", huge);
         return SqliteDB(File("huge.db"), 0, "t").InsertRecords({insert});
       },
       [&](bool, bool) { return std::string(); }, 2},
      {"Response::setResp", [&] { response.clear(); },
       [&] { return response.setResp(answerText.c_str()); },
       [&](bool ok, bool) {
         return Expect(!ok || response.getData() == big, "answer half parsed");
       }},
  };
  Walker walker(dir.path(), {});
  for (const Operation& op : ops) walker.WalkAllocations(op);
  for (const std::string& problem : walker.result().problems) ADD_FAILURE() << problem;
}

}  // namespace
