// Each library operation against its baseline (the raw or naive way to do
// the same work), measured in one run of one binary. Prints one line per
// pair, "RATIO <name> library/baseline = <x>", and exits non-zero when a
// ratio is above its target.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "json_text_oracle.h"
#include "vantdr/cache.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/sqlite_command.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/sqlite_statement.h"
#include "vantdr/sqlite_transaction.h"
#include "vantdr/sqlite_value.h"

namespace {

using namespace VantDRCore;

// A scratch directory on tmpfs when there is one: the database benchmarks
// measure the library's cost, not the disk's.
const std::string& ScratchDir() {
  static const std::string dir = [] {
    const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/vantdr_bench.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) std::abort();
    return std::string(buffer.data());
  }();
  return dir;
}

// ---- format_value ----------------------------------------------------------

const std::string kQuoted = [] {
  std::string s(64, 'x');
  s[10] = '\'';
  s[40] = '\'';
  return s;
}();

void FormatValueLibrary(benchmark::State& state) {
  SqliteValue value(kQuoted);
  for (auto _ : state) benchmark::DoNotOptimize(value.ToFormatedValue());
}

void FormatValueBaseline(benchmark::State& state) {
  for (auto _ : state) {
    std::string text = "'" + std::regex_replace(kQuoted, std::regex("'"), "''") + "'";
    benchmark::DoNotOptimize(text);
  }
}

// ---- insert_text -----------------------------------------------------------

InsertCommand EightFieldInsert() {
  InsertCommand command;
  command.SetTable(SqliteTableHandler("job", ""));
  command.AddFieldValue("id", 42);
  command.AddFieldValue("name", std::string("nightly backup of share 'projects'"));
  command.AddFieldValue("state", 2);
  command.AddFieldValue("owner", std::string("admin"));
  command.AddFieldValue("size", 123456789);
  command.AddFieldValue("target", std::string("/volume1/backup"));
  command.AddFieldValue("retries", 3);
  command.AddFieldValue("comment", std::string("weekly, keep 4"));
  return command;
}

void InsertTextLibrary(benchmark::State& state) {
  InsertCommand command = EightFieldInsert();
  for (auto _ : state) benchmark::DoNotOptimize(command.GetCommand());
}

// What a careful programmer writes by hand for the same record: one pass,
// fields already in column order.
struct Field {
  const char* name;
  bool text;
  std::string value;
};

void AppendQuoted(std::string& out, const std::string& text) {
  out += '\'';
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  out += '\'';
}

std::string HandWrittenInsert(const std::vector<Field>& fields) {
  std::string sql = "INSERT INTO job (";
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) sql += ',';
    sql += fields[i].name;
  }
  sql += ") VALUES (";
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) sql += ',';
    if (fields[i].text) {
      AppendQuoted(sql, fields[i].value);
    } else {
      sql += fields[i].value;
    }
  }
  sql += ");";
  return sql;
}

const std::vector<Field> kFields = {
    {"comment", true, "weekly, keep 4"},
    {"id", false, "42"},
    {"name", true, "nightly backup of share 'projects'"},
    {"owner", true, "admin"},
    {"retries", false, "3"},
    {"size", false, "123456789"},
    {"state", false, "2"},
    {"target", true, "/volume1/backup"},
};

void InsertTextBaseline(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(HandWrittenInsert(kFields));
}

// ---- insert_record ---------------------------------------------------------

const SqliteTableHandler kJobs("job", "id INTEGER PRIMARY KEY, name TEXT, state INTEGER");

void InsertRecordLibrary(benchmark::State& state) {
  const std::string path = ScratchDir() + "/insert_library.db";
  std::remove(path.c_str());
  SqliteDB db(path, 0, "bench");
  int id = 0;
  for (auto _ : state) {
    InsertCommand command;
    command.SetTable(kJobs);
    command.AddFieldValue("id", ++id);
    command.AddFieldValue("name", std::string("job"));
    command.AddFieldValue("state", 1);
    if (!db.InsertRecord(command)) state.SkipWithError("insert failed");
  }
}

void InsertRecordBaseline(benchmark::State& state) {
  const std::string path = ScratchDir() + "/insert_baseline.db";
  std::remove(path.c_str());
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_busy_timeout(db, 1000);
  sqlite3_exec(db,
               "CREATE TABLE IF NOT EXISTS job (id INTEGER PRIMARY KEY, name TEXT, state INTEGER)",
               nullptr, nullptr, nullptr);
  int id = 0;
  for (auto _ : state) {
    std::string sql =
        "INSERT INTO job (id,name,state) VALUES (" + std::to_string(++id) + ",'job',1);";
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      state.SkipWithError("insert failed");
    }
  }
  sqlite3_close(db);
}

// ---- batch_insert ----------------------------------------------------------

// On disk, not tmpfs: what a batch saves is the synced commit per row.
const std::string& DiskDir() {
  static const std::string dir = [] {
    char pattern[] = "/tmp/vantdr_bench_disk.XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    return std::string(pattern);
  }();
  return dir;
}

const std::vector<InsertCommand>& ThousandJobs() {
  static const std::vector<InsertCommand> jobs = [] {
    std::vector<InsertCommand> commands(1000);
    for (size_t i = 0; i < commands.size(); ++i) {
      commands[i].SetTable(kJobs);
      commands[i].AddFieldValue("name", "job " + std::to_string(i));
      commands[i].AddFieldValue("state", static_cast<int>(i % 5));
    }
    return commands;
  }();
  return jobs;
}

void BatchInsertLibrary(benchmark::State& state) {
  const std::string path = DiskDir() + "/batch_library.db";
  std::remove(path.c_str());
  SqliteDB db(path, 0, "bench");
  for (auto _ : state) {
    if (!db.InsertRecords(ThousandJobs())) state.SkipWithError("batch failed");
  }
}

void BatchInsertBaseline(benchmark::State& state) {
  const std::string path = DiskDir() + "/batch_baseline.db";
  std::remove(path.c_str());
  SqliteDB db(path, 0, "bench");
  for (auto _ : state) {
    for (const InsertCommand& command : ThousandJobs()) {
      if (!db.InsertRecord(command)) state.SkipWithError("insert failed");
    }
  }
}

// ---- select_records --------------------------------------------------------

const char kRowsTable[] = "rows";

const std::string& RowsDatabase() {
  static const std::string path = [] {
    std::string p = ScratchDir() + "/select.db";
    sqlite3* db = nullptr;
    sqlite3_open(p.c_str(), &db);
    sqlite3_exec(db,
                 "CREATE TABLE rows (id INTEGER PRIMARY KEY, name TEXT, state INTEGER, "
                 "owner TEXT, size INTEGER, target TEXT);BEGIN;",
                 nullptr, nullptr, nullptr);
    for (int i = 0; i < 10000; ++i) {
      std::string sql = "INSERT INTO rows VALUES (" + std::to_string(i) + ",'name " +
                        std::to_string(i) + "'," + std::to_string(i % 5) + ",'admin'," +
                        std::to_string(i * 1000) + ",'/volume1/backup/" + std::to_string(i) + "');";
      sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    }
    sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return p;
  }();
  return path;
}

void SelectRecordsLibrary(benchmark::State& state) {
  SqliteDB db(RowsDatabase(), 0, "bench");
  SelectCommand select;
  select.SetTable(SqliteTableHandler(kRowsTable, "id INTEGER PRIMARY KEY"));
  select.SelectAll();
  for (auto _ : state) {
    std::vector<SqliteValueList> rows;
    if (!db.SelectRecords(select, rows) || rows.size() != 10000) state.SkipWithError("select");
    benchmark::DoNotOptimize(rows);
  }
}

void SelectRecordsBaseline(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(RowsDatabase().c_str(), &db);
  sqlite3_busy_timeout(db, 1000);
  for (auto _ : state) {
    std::vector<std::map<std::string, Json::Value>> rows;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT  * FROM rows", -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      std::map<std::string, Json::Value> row;
      const int n = sqlite3_column_count(stmt);
      for (int i = 0; i < n; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        if (sqlite3_column_type(stmt, i) == SQLITE_INTEGER) {
          row[name] = Json::Int64(sqlite3_column_int64(stmt, i));
        } else {
          row[name] = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
        }
      }
      rows.push_back(std::move(row));
    }
    sqlite3_finalize(stmt);
    if (rows.size() != 10000) state.SkipWithError("select");
    benchmark::DoNotOptimize(rows);
  }
  sqlite3_close(db);
}

// ---- statement_insert --------------------------------------------------------

// Catalogue entries: a path, a size past 4 GiB, a time and a hash.
const char kEntrySchema[] =
    "CREATE TABLE IF NOT EXISTS entry (path TEXT, size INTEGER, mtime INTEGER, hash BLOB)";
const char kEntryInsert[] = "INSERT INTO entry VALUES (?, ?, ?, ?)";
const unsigned char kHash[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

const std::vector<std::string>& EntryPaths() {
  static const std::vector<std::string> paths = [] {
    std::vector<std::string> p;
    for (int i = 0; i < 10000; ++i) p.push_back("/volume1/share/dir/file" + std::to_string(i));
    return p;
  }();
  return paths;
}

void StatementInsertLibrary(benchmark::State& state) {
  const std::string path = ScratchDir() + "/statement_library.db";
  std::remove(path.c_str());
  SqliteDB db(path, 0, "bench");
  db.Exec(kEntrySchema);
  SqliteStatement insert(db, kEntryInsert);
  for (auto _ : state) {
    state.PauseTiming();  // emptying the table is not what is measured
    db.Exec("DELETE FROM entry");
    state.ResumeTiming();
    SqliteTransaction transaction(db);
    bool ok = transaction.Begin();
    int64_t i = 0;
    for (const std::string& entry : EntryPaths()) {
      ok = ok && insert.Bind(1, entry) && insert.Bind(2, int64_t{5000000000} + i) &&
           insert.Bind(3, int64_t{1700000000} + i) && insert.BindBlob(4, kHash, sizeof kHash) &&
           insert.Exec();
      ++i;
    }
    if (!ok || !transaction.Commit()) state.SkipWithError("insert failed");
  }
}

void StatementInsertBaseline(benchmark::State& state) {
  const std::string path = ScratchDir() + "/statement_baseline.db";
  std::remove(path.c_str());
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_busy_timeout(db, 1000);
  sqlite3_exec(db, kEntrySchema, nullptr, nullptr, nullptr);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, kEntryInsert, -1, &stmt, nullptr);
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3_exec(db, "DELETE FROM entry", nullptr, nullptr, nullptr);
    state.ResumeTiming();
    bool ok = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    int64_t i = 0;
    for (const std::string& entry : EntryPaths()) {
      sqlite3_bind_text(stmt, 1, entry.data(), static_cast<int>(entry.size()), SQLITE_STATIC);
      sqlite3_bind_int64(stmt, 2, 5000000000 + i);
      sqlite3_bind_int64(stmt, 3, 1700000000 + i);
      sqlite3_bind_blob(stmt, 4, kHash, sizeof kHash, SQLITE_STATIC);
      ok = ok && sqlite3_step(stmt) == SQLITE_DONE;
      sqlite3_reset(stmt);
      ++i;
    }
    ok = ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!ok) state.SkipWithError("insert failed");
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
}

// ---- select_stream -----------------------------------------------------------

const int kStreamRows = 100000;

const std::string& StreamDatabase() {
  static const std::string path = [] {
    std::string p = ScratchDir() + "/stream.db";
    sqlite3* db = nullptr;
    sqlite3_open(p.c_str(), &db);
    sqlite3_exec(db,
                 "CREATE TABLE rows (id INTEGER PRIMARY KEY, name TEXT, state INTEGER, "
                 "owner TEXT, size INTEGER, target TEXT);"
                 "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 99999) "
                 "INSERT INTO rows SELECT i, 'name ' || i, i % 5, 'admin', i * 1000, "
                 "'/volume1/backup/' || i FROM n;",
                 nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return p;
  }();
  return path;
}

void SelectStreamLibrary(benchmark::State& state) {
  SqliteDB db(StreamDatabase(), 0, "bench");
  SelectCommand select;
  select.SetTable(SqliteTableHandler(kRowsTable, "id INTEGER PRIMARY KEY"));
  select.SelectAll();
  for (auto _ : state) {
    int rows = 0;
    const bool ok = db.ForEachRecord(select, [&rows](const SqliteValueList& record) {
      benchmark::DoNotOptimize(record);
      ++rows;
      return true;
    });
    if (!ok || rows != kStreamRows) state.SkipWithError("select");
  }
}

// The same records, filled one at a time by hand.
void SelectStreamBaseline(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(StreamDatabase().c_str(), &db);
  sqlite3_busy_timeout(db, 1000);
  for (auto _ : state) {
    int rows = 0;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT  * FROM rows", -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      SqliteValueList record;
      const int n = sqlite3_column_count(stmt);
      for (int i = 0; i < n; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        if (sqlite3_column_type(stmt, i) == SQLITE_INTEGER) {
          record.AddValue(name, SqliteValue(static_cast<long long>(sqlite3_column_int64(stmt, i))));
        } else {
          record.AddValue(name, SqliteValue(std::string(
                                    reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)))));
        }
      }
      benchmark::DoNotOptimize(record);
      ++rows;
    }
    sqlite3_finalize(stmt);
    if (rows != kStreamRows) state.SkipWithError("select");
  }
  sqlite3_close(db);
}

// ---- cache_read ------------------------------------------------------------

Json::Value SixtyFourKilobytes() {
  Json::Value data(Json::objectValue);
  for (int i = 0; JsonToString(data).size() < 64 * 1024; ++i) {
    Json::Value entry(Json::objectValue);
    entry["name"] = "share_" + std::to_string(i);
    entry["free"] = Json::UInt64(1099511627776ULL + i);
    entry["path"] = "/volume1/share_" + std::to_string(i);
    data["share_" + std::to_string(i)] = entry;
  }
  return data;
}

class BenchCache : public Cache {
 public:
  BenchCache() : Cache(ScratchDir(), "bench", 3600, false, 0) {}
  Json::Value GetCacheInfo() const override { return "bench"; }
  bool GetUpdatedData(Json::Value& data) const override {
    data = SixtyFourKilobytes();
    return true;
  }
  bool IsValidData(const Json::Value& data) const override { return data.isObject(); }
};

void CacheReadLibrary(benchmark::State& state) {
  BenchCache cache;
  cache.UpdateWithData(SixtyFourKilobytes());
  for (auto _ : state) {
    Json::Value data = cache.Read();
    if (!data.isObject()) state.SkipWithError("cache read");
    benchmark::DoNotOptimize(data);
  }
}

// ---- cache_reread, file_read ---------------------------------------------

// Another process's rewrite shows as a new modification time: each read
// finds one and loads the file again.
void NewModificationTime(const std::string& path) {
  static int flip = 0;
  struct timeval times[2] = {};
  gettimeofday(&times[0], nullptr);
  times[0].tv_sec -= 10 + (++flip & 1);
  times[1] = times[0];
  if (utimes(path.c_str(), times) != 0) std::abort();
}

void CacheRereadLibrary(benchmark::State& state) {
  BenchCache cache;
  cache.UpdateWithData(SixtyFourKilobytes());
  const std::string path = cache.GetCachePath();
  for (auto _ : state) {
    NewModificationTime(path);
    Json::Value data = cache.Read();
    if (!data.isObject()) state.SkipWithError("cache read");
    benchmark::DoNotOptimize(data);
  }
}

std::string ReadWhole(const std::string& path) {
  std::string text;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return text;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
  std::fclose(file);
  return text;
}

// Also the baseline of cache_read: the file read and parsed on every call by
// the previous implementation, which, unlike the library's reader, stays put.
void CacheRereadBaseline(benchmark::State& state) {
  BenchCache cache;
  cache.UpdateWithData(SixtyFourKilobytes());
  const std::string path = cache.GetCachePath();
  for (auto _ : state) {
    NewModificationTime(path);
    Json::Value document;
    if (!JsonOracle::FromString(document, ReadWhole(path))) state.SkipWithError("read");
    Json::Value data = document["cached_data"];
    benchmark::DoNotOptimize(data);
  }
}

const std::string& SixtyFourKilobyteFile() {
  static const std::string path = [] {
    std::string p = ScratchDir() + "/doc.json";
    if (!JsonToFile(SixtyFourKilobytes(), p)) std::abort();
    return p;
  }();
  return path;
}

void FileReadLibrary(benchmark::State& state) {
  const std::string& path = SixtyFourKilobyteFile();
  for (auto _ : state) {
    Json::Value data;
    if (!File::Read(path, data)) state.SkipWithError("read");
    benchmark::DoNotOptimize(data);
  }
}

void FileReadBaseline(benchmark::State& state) {
  const std::string& path = SixtyFourKilobyteFile();
  for (auto _ : state) {
    Json::Value data;
    if (!JsonOracle::FromString(data, ReadWhole(path))) {
      state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(data);
  }
}

// ---- json_parse, json_write ----------------------------------------------

// Records as services report them: names, paths, sizes past 2^32, ratios,
// flags, absent values, short lists, now and then an escape or a non-ASCII
// name; as many as make `bytes` of text.
Json::Value MixedDocument(size_t bytes) {
  Json::Value doc(Json::arrayValue);
  size_t size = 2;
  for (int i = 0; size < bytes; ++i) {
    Json::Value entry(Json::objectValue);
    entry["id"] = i;
    entry["name"] = "share_" + std::to_string(i) + (i % 7 == 0 ? " \"caf\xc3\xa9\"\n" : "");
    entry["path"] = "/volume1/share_" + std::to_string(i);
    entry["used"] = Json::UInt64(1099511627776ULL * (i % 5 + 1) + i);
    entry["ratio"] = i / 7.0;
    entry["online"] = i % 3 != 0;
    entry["note"] = Json::Value();
    entry["tags"] = Json::Value(Json::arrayValue);
    for (int t = 0; t < i % 4; ++t) entry["tags"].append("t" + std::to_string(t));
    size += JsonToString(entry).size() + 1;
    doc.append(entry);
  }
  return doc;
}

template <size_t kBytes>
const std::string& MixedText() {
  static const std::string text = JsonToString(MixedDocument(kBytes));
  return text;
}

template <size_t kBytes, bool (*Parse)(Json::Value&, const std::string&)>
void JsonParse(benchmark::State& state) {
  const std::string& text = MixedText<kBytes>();
  for (auto _ : state) {
    Json::Value v;
    if (!Parse(v, text)) state.SkipWithError("parse");
    benchmark::DoNotOptimize(v);
  }
}

template <size_t kBytes, std::string (*Write)(const Json::Value&)>
void JsonWrite(benchmark::State& state) {
  const Json::Value v = MixedDocument(kBytes);
  for (auto _ : state) benchmark::DoNotOptimize(Write(v));
}

constexpr size_t k1K = 1024, k64K = 64 * 1024, k1M = 1024 * 1024;

// ---- lock_cycle ------------------------------------------------------------

void LockCycleLibrary(benchmark::State& state) {
  FileLock lock("vantdr_bench_" + std::to_string(getpid()));
  for (auto _ : state) {
    if (!lock.lock(LOCK_EX | LOCK_NB, 0)) state.SkipWithError("lock");
    lock.unlock();
  }
  unlink(lock.getLockFile().c_str());
}

void LockCycleBaseline(benchmark::State& state) {
  const std::string path = ScratchDir() + "/baseline.lock";
  int fd = open(path.c_str(), O_RDONLY | O_CREAT, 0644);
  for (auto _ : state) {
    flock(fd, LOCK_EX);
    flock(fd, LOCK_UN);
  }
  close(fd);
}

// The system calls a lock cycle must make, made raw: the privileged section's
// id reads around each call, the lock directory check, the descriptor check
// and the two flocks. The library's cost over this is its own.
void LockCycleSyscallFloor(benchmark::State& state) {
  const std::string dir = ScratchDir();
  const std::string path = dir + "/floor.lock";
  int fd = open(path.c_str(), O_RDONLY | O_CREAT, 0644);
  struct stat st;
  for (auto _ : state) {
    benchmark::DoNotOptimize(geteuid() + getegid());
    benchmark::DoNotOptimize(stat(dir.c_str(), &st) + fstat(fd, &st));
    flock(fd, LOCK_EX);
    benchmark::DoNotOptimize(geteuid() + getegid());
    benchmark::DoNotOptimize(geteuid() + getegid());
    flock(fd, LOCK_UN);
    benchmark::DoNotOptimize(geteuid() + getegid());
  }
  close(fd);
}

// ---- file_write ------------------------------------------------------------

// A 4 KiB document rewritten in one file. On disk, where callers keep their
// files, the syncs dominate: the replacement adds the directory's sync to the
// file's. On tmpfs the syncs are nearly free, which leaves the writer's own
// checks (link, attribute, access, mount, leftover scan) at their heaviest.
const Json::Value kDocument = [] {
  Json::Value doc;
  for (int i = 0; i < 64; ++i) doc["key" + std::to_string(i)] = std::string(48, 'v');
  return doc;
}();

template <const std::string& (*Dir)()>
void FileWriteLibrary(benchmark::State& state) {
  const std::string path = Dir() + "/write_library.json";
  for (auto _ : state) {
    if (!File::Write(path, kDocument)) state.SkipWithError("write failed");
  }
}

// A write in place: fopen, fprintf, fflush, fsync, fclose.
template <const std::string& (*Dir)()>
void FileWriteBaseline(benchmark::State& state) {
  const std::string path = Dir() + "/write_baseline.json";
  for (auto _ : state) {
    const std::string text = JsonToString(kDocument);
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr || fprintf(file, "%s", text.c_str()) < 0 || fflush(file) != 0 ||
        fsync(fileno(file)) != 0) {
      state.SkipWithError("write failed");
    }
    if (file != nullptr) fclose(file);
  }
}

// ---- backup ----------------------------------------------------------------

// A 64 MiB database, built once. The library's backup adds to the raw copy
// the sync, the quick check of the copy and the atomic replacement.
const std::string& BackupSource() {
  static const std::string path = [] {
    const std::string p = ScratchDir() + "/backup_source.db";
    sqlite3* db = nullptr;
    sqlite3_open(p.c_str(), &db);
    sqlite3_exec(db,
                 "CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT); CREATE INDEX tv ON t (v);"
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<32768) "
                 "INSERT INTO t SELECT i, printf('%0900d', i) FROM n;",
                 nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return p;
  }();
  return path;
}

void BackupLibrary(benchmark::State& state) {
  SqliteDB db(BackupSource(), 0, "bench");
  const std::string dest = ScratchDir() + "/backup_library.db";
  for (auto _ : state) {
    if (!db.Backup(dest)) state.SkipWithError("backup failed");
  }
  struct stat st;
  if (stat(BackupSource().c_str(), &st) == 0) state.counters["MiB"] = st.st_size / 1048576.0;
}

// sqlite3_backup_step(-1) to a new file, nothing else.
void BackupBaseline(benchmark::State& state) {
  sqlite3* source = nullptr;
  sqlite3_open(BackupSource().c_str(), &source);
  const std::string dest = ScratchDir() + "/backup_baseline.db";
  for (auto _ : state) {
    std::remove(dest.c_str());
    sqlite3* copy = nullptr;
    sqlite3_open(dest.c_str(), &copy);
    sqlite3_backup* backup = sqlite3_backup_init(copy, "main", source, "main");
    if (backup == nullptr || sqlite3_backup_step(backup, -1) != SQLITE_DONE) {
      state.SkipWithError("backup failed");
    }
    sqlite3_backup_finish(backup);
    sqlite3_close(copy);
  }
  sqlite3_close(source);
}

// The longest time one commit of a writer process took while backups of the
// 64 MiB database ran, and its median commit without them (ms).
void PrintWriterPause() {
  const std::string source = BackupSource(), stop = ScratchDir() + "/pause_stop";
  int fds[2];
  if (pipe(fds) != 0) return;
  const pid_t writer = fork();
  if (writer == 0) {
    close(fds[0]);
    sqlite3* db = nullptr;
    sqlite3_open(source.c_str(), &db);
    sqlite3_busy_timeout(db, 60000);
    sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS w (v INTEGER)", nullptr, nullptr, nullptr);
    std::vector<double> alone;
    double longest = 0;
    for (int i = 0; access(stop.c_str(), F_OK) != 0; ++i) {
      struct timeval t0, t1;
      gettimeofday(&t0, nullptr);
      sqlite3_exec(db, "INSERT INTO w VALUES (1)", nullptr, nullptr, nullptr);
      gettimeofday(&t1, nullptr);
      const double ms = (t1.tv_sec - t0.tv_sec) * 1e3 + (t1.tv_usec - t0.tv_usec) / 1e3;
      if (i < 200) alone.push_back(ms);
      if (i >= 200) longest = std::max(longest, ms);
      if (i == 199 && write(fds[1], "r", 1) != 1) _exit(1);  // measured alone: backups start
      usleep(200);
    }
    std::sort(alone.begin(), alone.end());
    const double result[2] = {longest, alone[alone.size() / 2]};
    _exit(write(fds[1], result, sizeof result) == sizeof result ? 0 : 1);
  }
  close(fds[1]);
  char ready;
  double result[2] = {0, 0};
  if (read(fds[0], &ready, 1) == 1) {
    SqliteDB db(source, 3, "bench");
    for (int i = 0; i < 3; ++i) db.Backup(ScratchDir() + "/backup_pause.db");
    FILE* flag = std::fopen(stop.c_str(), "w");
    if (flag != nullptr) std::fclose(flag);
    if (read(fds[0], result, sizeof result) != sizeof result) result[0] = -1;
  }
  close(fds[0]);
  waitpid(writer, nullptr, 0);
  std::printf(
      "FIGURE backup_writer_pause longest commit during backups = %.1f ms "
      "(median commit without: %.2f ms)\n",
      result[0], result[1]);
}

constexpr char kExtra[] = "EXTRA";
constexpr char kFull[] = "FULL";
constexpr char kNormal[] = "NORMAL";

// ---- durable commits -------------------------------------------------------

// One INSERT committed per iteration on disk: synchronous=EXTRA against the
// default FULL (rollback journal both).
template <const char* Setting>
void CommitOnDisk(benchmark::State& state) {
  const std::string path = DiskDir() + "/commit_" + Setting + ".db";
  std::remove(path.c_str());
  SqliteDB db(path, 0, "bench");
  db.SetConnectionSetup({std::string("PRAGMA synchronous=") + Setting});
  if (!db.Exec("CREATE TABLE c (v INTEGER)")) state.SkipWithError("setup failed");
  for (auto _ : state) {
    if (!db.Exec("INSERT INTO c VALUES (1)")) state.SkipWithError("commit failed");
  }
}

// ---- contention ------------------------------------------------------------

// 8 processes inserting 200 rows each, one commit per row, on disk: WAL with
// synchronous=`Sync` set through the connection setup, against the default
// rollback journal (synchronous=FULL).
template <bool Wal, const char* Sync>
void Contention(benchmark::State& state) {
  const std::string path = DiskDir() + "/contention_" + (Wal ? "wal_" : "rollback_") + Sync + ".db";
  for (auto _ : state) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
      std::remove((path + suffix).c_str());
    std::vector<pid_t> workers;
    for (int w = 0; w < 8; ++w) {
      const pid_t pid = fork();
      if (pid == 0) {
        setlogmask(LOG_UPTO(LOG_ERR));
        SqliteDB db(path, 100, "bench");
        if (Wal) {
          db.SetConnectionSetup(
              {"PRAGMA journal_mode=WAL", std::string("PRAGMA synchronous=") + Sync});
        }
        for (int i = 0; i < 200; ++i) {
          InsertCommand command;
          command.SetTable(kJobs);
          command.AddFieldValue("name", "worker " + std::to_string(w));
          command.AddFieldValue("state", i);
          if (!db.InsertRecord(command)) _exit(1);
        }
        _exit(0);
      }
      workers.push_back(pid);
    }
    for (pid_t pid : workers) {
      int status = 0;
      if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        state.SkipWithError("a worker failed");
      }
    }
  }
}

// ---- ratios ----------------------------------------------------------------

struct Pair {
  const char* name;
  double target;  // 0: printed for information only
  void (*library)(benchmark::State&);
  void (*baseline)(benchmark::State&);
};

const Pair kPairs[] = {
    {"format_value", 0.05, FormatValueLibrary, FormatValueBaseline},
    {"insert_text", 1.5, InsertTextLibrary, InsertTextBaseline},
    {"insert_record", 1.5, InsertRecordLibrary, InsertRecordBaseline},
    {"select_records", 1.3, SelectRecordsLibrary, SelectRecordsBaseline},
    {"batch_insert", 0.01, BatchInsertLibrary, BatchInsertBaseline},
    {"statement_insert", 1.2, StatementInsertLibrary, StatementInsertBaseline},
    {"select_stream", 1.3, SelectStreamLibrary, SelectStreamBaseline},
    {"cache_read", 0.2, CacheReadLibrary, CacheRereadBaseline},
    {"cache_reread", 0, CacheRereadLibrary, CacheRereadBaseline},
    {"file_read", 0, FileReadLibrary, FileReadBaseline},
    {"json_parse_1k", 0.75, JsonParse<k1K, JsonFromString>, JsonParse<k1K, JsonOracle::FromString>},
    {"json_parse_64k", 0.75, JsonParse<k64K, JsonFromString>,
     JsonParse<k64K, JsonOracle::FromString>},
    {"json_parse_1m", 0.75, JsonParse<k1M, JsonFromString>, JsonParse<k1M, JsonOracle::FromString>},
    {"json_write_1k", 0.6, JsonWrite<k1K, JsonToString>, JsonWrite<k1K, JsonOracle::ToString>},
    {"json_write_64k", 0.6, JsonWrite<k64K, JsonToString>, JsonWrite<k64K, JsonOracle::ToString>},
    {"json_write_1m", 0.6, JsonWrite<k1M, JsonToString>, JsonWrite<k1M, JsonOracle::ToString>},
    {"file_write", 2.5, FileWriteLibrary<DiskDir>, FileWriteBaseline<DiskDir>},
    {"file_write_tmpfs", 0, FileWriteLibrary<ScratchDir>, FileWriteBaseline<ScratchDir>},
    // The privileged section and the lock directory check cost a dozen
    // system calls a raw flock pair does not make: the target is against
    // those calls made raw.
    {"lock_cycle", 0, LockCycleLibrary, LockCycleBaseline},
    {"lock_cycle_syscall_floor", 1.1, LockCycleLibrary, LockCycleSyscallFloor},
    {"backup", 2.0, BackupLibrary, BackupBaseline},
    {"commit_extra", 0, CommitOnDisk<kExtra>, CommitOnDisk<kFull>},
    {"contention_wal", 0, Contention<true, kNormal>, Contention<false, kFull>},
    {"contention_wal_full", 0, Contention<true, kFull>, Contention<false, kFull>},
};

// Keeps the time per iteration of every run, by name.
class Collector : public benchmark::ConsoleReporter {
 public:
  Collector() : ConsoleReporter(OO_Tabular) {}  // plain text: the output is grepped
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      ran.insert(run.benchmark_name());
      if (run.error_occurred || run.iterations == 0) continue;
      times[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
  }
  std::set<std::string> ran;  // failed runs too
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  // As in a production daemon: INFO and DEBUG lines are masked out.
  setlogmask(LOG_UPTO(LOG_NOTICE));
  for (const Pair& pair : kPairs) {
    benchmark::RegisterBenchmark((std::string(pair.name) + "/library").c_str(), pair.library);
    benchmark::RegisterBenchmark((std::string(pair.name) + "/baseline").c_str(), pair.baseline);
  }
  benchmark::Initialize(&argc, argv);
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);

  // A pair left out by --benchmark_filter is not judged; one that ran but
  // failed misses its target.
  int missed = 0;
  for (const Pair& pair : kPairs) {
    const std::string library = std::string(pair.name) + "/library";
    const std::string baseline = std::string(pair.name) + "/baseline";
    if (collector.ran.count(library) + collector.ran.count(baseline) == 0) continue;
    const bool measured = collector.times.count(library) + collector.times.count(baseline) == 2;
    char shown[32] = "failed";
    if (measured) {
      std::snprintf(shown, sizeof shown, "%.3f",
                    collector.times[library] / collector.times[baseline]);
    }
    if (pair.target == 0) {
      std::printf("RATIO %s library/baseline = %s (for information)\n", pair.name, shown);
      continue;
    }
    const bool met =
        measured && collector.times[library] / collector.times[baseline] <= pair.target;
    std::printf("RATIO %s library/baseline = %s (target <= %.2f%s)\n", pair.name, shown,
                pair.target, met ? "" : ", MISSED");
    missed += met ? 0 : 1;
  }
  if (collector.ran.count("backup/library") != 0) PrintWriterPause();
  std::string cleanup = "rm -rf '" + ScratchDir() + "' '" + DiskDir() + "'";
  if (std::system(cleanup.c_str()) != 0) std::fprintf(stderr, "could not remove scratch\n");
  return missed == 0 ? 0 : 1;
}
