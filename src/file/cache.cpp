#include "vantdr/cache.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>

#include "file/lock_files.h"
#include "fileio/durable_write.h"
#include "fileio/own_files.h"
#include "foundation/json_file.h"
#include "foundation/no_throw.h"
#include "vantcore/vlibc.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"
#include "vantdr/privileged_section.h"
#include "vantdr/utils.h"

namespace VantDRCore {
namespace {

const char kDefaultCachePath[] = "/tmp/default_dr_cache";
const int kCacheDirMode = 0755;
// Detached double fork in a new session: the caller never gets a zombie.
const int kUpdaterForkFlags = 0x41;
const int kInspectLock = LOCK_SH | LOCK_NB;
const int kChangeLock = LOCK_EX | LOCK_NB;
const unsigned kInspectTimeout = 5;
const unsigned kStartTimeout = 5;
const unsigned kEndTimeout = 60;

// The files one update works on; the lock path is the name given to FileLock.
struct UpdatePaths {
  explicit UpdatePaths(const std::string& cachePath)
      : cache(cachePath), pid(cachePath + ".pid"), lock(cachePath + ".lock") {}
  std::string cache;
  std::string pid;
  std::string lock;
};

// The cache's files are opened as the library opens its own files (no link
// or file of another user in a shared directory, no FIFO): a refusal is one
// line, and the file then counts as missing.
int OpenOwn(const std::string& path, int flags, bool logRefusal) {
  VantDROwnRefusal refusal = VANTDR_OWN_ACCEPTED;
  const int fd = VantDROpenOwnFile(path.c_str(), flags, 0, &refusal);
  if (fd < 0 && refusal != VANTDR_OWN_ACCEPTED && logRefusal) {
    VLOG_WARN("Refused [%s]: %s", path.c_str(), VantDROwnRefusalText(refusal));
  }
  return fd;
}

// A pid file naming a dead process (or a zombie) counts as absent, so a
// crashed updater never blocks the cache; so does one the platform refuses.
bool SomeoneUpdating(const std::string& pidPath) {
  const int checked = OpenOwn(pidPath, O_RDONLY | O_NOFOLLOW, true);
  if (checked < 0) return false;
  close(checked);
  const int pid = VLIBCReadPidFile(pidPath.c_str());
  return pid > 0 && VLIBCProcAlive(pid) == 1;
}

// Inspects the pid file under a shared lock. False when the lock could not
// be had; `updating` is then untouched.
bool InspectPidFile(const UpdatePaths& paths, bool& updating) {
  FileLock lock(paths.lock);
  if (!lock.lock(kInspectLock, kInspectTimeout)) return false;
  updating = SomeoneUpdating(paths.pid);
  lock.unlock();
  return true;
}

// Claims the update for this process by writing its pid file.
bool SetUpdating(const UpdatePaths& paths) {
  bool updating = false;
  if (!InspectPidFile(paths, updating) || updating) return false;

  FileLock lock(paths.lock);
  if (!lock.lock(kChangeLock, kStartTimeout)) {
    VLOG_DEBUG("Failed to lock [%s]", lock.getLockFile().c_str());
    return false;
  }
  // Another process may have claimed it between the two locks.
  if (SomeoneUpdating(paths.pid)) {
    VLOG_DEBUG("there is other process to update cache [%s]", paths.cache.c_str());
    lock.unlock();
    return false;
  }
  int ret = 0;
  {
    VANTDR_PRIVILEGED_SECTION(section);
    ret = VLIBCProcPidFileCreate(paths.pid.c_str());
  }
  if (ret != 0) {
    VLOG_DEBUG("Failed to set cache [%s] updating", paths.cache.c_str());
  } else {
    VLOG_DEBUG("---> Start to update cache [%s]", paths.cache.c_str());
  }
  lock.unlock();
  return ret == 0;
}

// Removes the pid file unless it names another live process.
void UnsetUpdating(const UpdatePaths& paths) {
  FileLock lock(paths.lock);
  if (!lock.lock(kChangeLock, kEndTimeout)) {
    VLOG_NOTICE("Failed to lock to unset cache[%s]", paths.cache.c_str());
  }
  if (SomeoneUpdating(paths.pid)) {
    const int pid = VLIBCReadPidFile(paths.pid.c_str());
    if (pid != getpid()) {
      VLOG_DEBUG("Failed to unset updating cache [%s] since different pid[%d]", paths.pid.c_str(),
                 pid);
      lock.unlock();
      return;
    }
  }
  int ret = 0;
  int error = 0;
  {
    VANTDR_PRIVILEGED_SECTION(section);
    ret = unlink(paths.pid.c_str());
    error = errno;
  }
  if (ret != 0) {
    VLOG_NOTICE("Failed to unlink [%s] with ret[%d](%s)", paths.pid.c_str(), ret, strerror(error));
  }
  VLOG_DEBUG("<--- Finish to update cache [%s]", paths.cache.c_str());
  lock.unlock();
}

}  // namespace

Cache::Cache(const std::string& dir, const std::string& file, long timeout, bool requireUpdatedData,
             int retryLimit)
    : cachePath_(GetCachedPath(dir, file)),
      timeout_(timeout),
      requireUpdatedData_(requireUpdatedData),
      retryLimit_(retryLimit),
      data_(),
      loadedModifiedTime_(-1) {}

Cache::~Cache() = default;

std::string Cache::GetCachedPath(const std::string& dir, const std::string& file) try {
  if (dir.empty() || file.empty()) {
    VLOG_WARN("Invalid dir[%s] and file[%s] to cache", dir.c_str(), file.c_str());
    return kDefaultCachePath;
  }
  if (!File::CreateDir(dir, kCacheDirMode)) {
    VLOG_ERR("Failed to create [%s]", dir.c_str());
    return kDefaultCachePath;
  }
  return dir + "/" + file + ".cached";
}
VANTDR_CATCH_ALL(kDefaultCachePath)

Json::Value Cache::GetDefaultValue() const { return Json::Value(); }

bool Cache::IsNeedUpdate(const Json::Value&) const { return false; }

bool Cache::IsUpdatedDataRequired() const try {
  if (requireUpdatedData_) return true;
  return !IsValidData(GetCachedData());
}
VANTDR_CATCH_ALL(false)

int64_t Cache::ModifiedTime() const {
  struct stat st;
  if (cachePath_.empty() || stat(cachePath_.c_str(), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_mtime);
}

bool Cache::IsTimeout() const { return IsTimeout(ModifiedTime()); }

bool Cache::IsTimeout(int64_t modified) const {
  // A missing file is stale whatever the time-out, even one longer than the
  // time since the epoch.
  if (modified == -1) return true;
  const time_t now = time(nullptr);
  if (now == static_cast<time_t>(-1)) return true;
  return static_cast<double>(timeout_) < difftime(now, static_cast<time_t>(modified));
}

int Cache::GetMaxUpdateTime() const try {
  Json::Value doc;
  // Silent: the write that follows reports a refused file.
  if (!JsonFromDescriptor(doc, OpenOwn(cachePath_, O_RDONLY, false)) || !doc.isObject()) return 0;
  const Json::Value& max = doc["max_updated_time"];
  return max.isInt() ? max.asInt() : 0;
}
VANTDR_CATCH_ALL(0)

bool Cache::Load() const try {
  if (VLIBCFileExist(cachePath_.c_str()) != 1) {
    VLOG_DEBUG("no data is cached in [%s]", cachePath_.c_str());
    return false;
  }
  const int64_t modified = ModifiedTime();
  Json::Value doc;
  if (!JsonFromDescriptor(doc, OpenOwn(cachePath_, O_RDONLY, true))) {
    VLOG_DEBUG("Failed to read data from cache [%s]", cachePath_.c_str());
    return false;
  }
  if (doc.isObject() && doc.isMember("cached_data")) data_.swap(doc["cached_data"]);
  loadedModifiedTime_ = modified;
  return true;
}
VANTDR_CATCH_ALL(false)

Json::Value Cache::GetCachedData() const { return GetCachedData(ModifiedTime()); }

Json::Value Cache::GetCachedData(int64_t modified) const try {
  if (modified != -1 && modified == loadedModifiedTime_) return data_;
  if (!Load()) {
    data_ = GetDefaultValue();
    VLOG_DEBUG("Failed to load cache [%s], use default cache data", cachePath_.c_str());
  }
  return data_;
}
VANTDR_CATCH_ALL(Json::Value())

Json::Value Cache::Read() const try {
  const int64_t modified = ModifiedTime();
  const bool unchanged = modified != -1 && modified == loadedModifiedTime_;
  Json::Value data = GetCachedData(modified);
  // After a reload the file may be newer than the first look at it.
  const bool stale = unchanged ? IsTimeout(modified) : IsTimeout();
  if (!stale && IsValidData(data) && !IsNeedUpdate(data)) return data;
  if (Update()) return GetCachedData();
  VLOG_DEBUG("Failed to update cache [%s], use old cache data.",
             JsonToString(GetCacheInfo()).c_str());
  return data;
}
VANTDR_CATCH_ALL(Json::Value())

bool Cache::UpdateWithData(const Json::Value& data) const { return UpdateWithData(data, 0, 0); }

bool Cache::UpdateWithData(const Json::Value& data, long begin, long finish) const {
  return Store(data, begin, finish);
}

// Store is UpdateWithData at full width: its lines carry the public name.
#define VLOG_DEBUG_AS_UPDATE(...)                                                               \
  do {                                                                                          \
    if (LogEnabled(LOG_DEBUG))                                                                  \
      LogPrintf(LOG_DEBUG, VANTDR_FILE_NAME, __LINE__, "UpdateWithData", "DEBUG", __VA_ARGS__); \
  } while (0)

bool Cache::Store(const Json::Value& data, int64_t begin, int64_t finish) const try {
  if (!IsValidData(data)) {
    VLOG_DEBUG_AS_UPDATE("[%s] is not valid to update for cache [%s]", JsonToString(data).c_str(),
                         JsonToString(GetCacheInfo()).c_str());
    return false;
  }
  if (begin <= 0 || finish <= 0) begin = finish = 0;
  const double updatedTime = difftime(static_cast<time_t>(finish), static_cast<time_t>(begin));
  const double clamped = std::min<double>(std::max<double>(updatedTime, INT_MIN), INT_MAX);

  Json::Value doc(Json::objectValue);
  doc["timeout"] = static_cast<Json::Int64>(timeout_);
  doc["info"] = GetCacheInfo();
  doc["cached_data"] = data;
  doc["begin_time_to_update"] = static_cast<Json::Int64>(begin);
  doc["finish_time_to_update"] = static_cast<Json::Int64>(finish);
  doc["updated_time"] = updatedTime;
  doc["max_updated_time"] = std::max(static_cast<int>(clamped), GetMaxUpdateTime());

  const std::string text = JsonToString(doc) + "\n";
  for (long long attempt = 0;; ++attempt) {
    DurableWriteStep step = DurableWriteStep::kOpen;
    if (text.size() > 1) {  // else too deep to read back: JsonToString said so
      VANTDR_PRIVILEGED_SECTION(section);
      step = WriteFileDurably(cachePath_, text, VANTDR_WRITE_OWN_FILE);
    }
    // Nothing planted at the name is written through; retried like any
    // failed write, refused in one line.
    if (step == DurableWriteStep::kRefused && attempt == 0) {
      VLOG_WARN("Refused [%s]: a link, special file or file of another user", cachePath_.c_str());
    }
    if (step == DurableWriteStep::kDone) {
      data_ = data;
      loadedModifiedTime_ = ModifiedTime();
      return true;
    }
    if (retryLimit_ < attempt) {
      VLOG_DEBUG_AS_UPDATE("Failed to write cache to file [%s] and reach retry limit[%d]",
                           cachePath_.c_str(), retryLimit_);
      return false;
    }
    RandomSleepInMSec(300, 1000);
  }
}
VANTDR_CATCH_ALL(false)

bool Cache::DoUpdate() const try {
  const time_t begin = time(nullptr);
  for (long long attempt = 0;; ++attempt) {
    Json::Value data;
    if (GetUpdatedData(data)) {
      const time_t finish = time(nullptr);
      // Not through UpdateWithData's long: on 32-bit ARM that would turn a
      // clock past 2038 into "no fetch times".
      return Store(data, begin, finish);
    }
    if (retryLimit_ < attempt) break;
    RandomSleepInMSec(500, 1000);
  }
  VLOG_DEBUG("Failed to get updated cache [%s] and reach the retry limit[%d]",
             JsonToString(GetCacheInfo()).c_str(), retryLimit_);
  return false;
}
VANTDR_CATCH_ALL(false)

bool Cache::Update() const try {
  const UpdatePaths paths(cachePath_);
  const bool required = IsUpdatedDataRequired();

  // Busy unless the pid file could be inspected and names no live updater.
  // The lock is closed again before any fork, so no child inherits it.
  bool updating = true;
  const bool inspected = InspectPidFile(paths, updating);
  if (inspected && !updating) {
    if (!required) {
      const pid_t pid = VLIBCProcForkEx(kUpdaterForkFlags);
      if (pid < 0) {
        VLOG_WARN("Failed to fork(). errno=[%d/%m]", errno);
        return false;
      }
      if (pid > 0) return true;
      // The updater never returns into the caller's code, whatever happens.
      try {
        // Locks the caller holds must end when the caller lets them go, not
        // when this updater exits.
        CloseInheritedLockFiles();
        if (SetUpdating(paths)) {
          DoUpdate();
          UnsetUpdating(paths);
        }
      } catch (...) {
      }
      _exit(0);
    }
    if (!SetUpdating(paths)) return false;
    const bool result = DoUpdate();
    UnsetUpdating(paths);
    return result;
  }

  if (!required) return true;
  VLOG_DEBUG("start to block wait cache [%s] ", paths.cache.c_str());
  for (;;) {
    RandomSleepInMSec(300, 1000);
    bool busy = true;
    if (!InspectPidFile(paths, busy)) {
      if (IsTimeout()) continue;
      break;
    }
    if (busy && IsTimeout()) continue;
    break;
  }
  VLOG_DEBUG("finish to block wait cache [%s] ", paths.cache.c_str());
  return true;
}
VANTDR_CATCH_ALL(false)

int Cache::Remove() { return unlink(cachePath_.c_str()); }

}  // namespace VantDRCore
