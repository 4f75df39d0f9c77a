/// @file
/// A JSON value that is expensive to produce, kept in a file that every
/// process on the machine shares, and refreshed by one process at a time.
///
/// A concrete cache says how to fetch fresh data, how to judge it and how to
/// describe itself; the base keeps the file, judges staleness from the
/// file's modification time, serves readers from memory while the file is
/// unchanged, and coordinates refreshes through a pid file ("<path>.pid")
/// and a lock file ("<path>.lock" in the lock directory).
///
/// The cache file and its pid file are the library's own files: in a
/// directory another user can write (the fallback in /tmp, say), a link, a
/// FIFO or a file owned by neither root nor the effective user at their names
/// is never read as data, counted as a running updater or written through;
/// each refusal is one "Refused [path]: ..." WARN line.
///
/// The cache file holds one object: "timeout", "info", "cached_data",
/// "begin_time_to_update", "finish_time_to_update", "updated_time" and
/// "max_updated_time". Only "cached_data" and "max_updated_time" are read.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

/// The base of every cache: derive, implement GetCacheInfo(),
/// GetUpdatedData() and IsValidData(), and call Read().
class VANTDR_API Cache {
 public:
  /// The file is `dir` + "/" + `file` + ".cached"; `dir` is created (0755)
  /// when missing. An empty argument or an uncreatable directory falls back
  /// to "/tmp/default_dr_cache", which every such object then shares.
  /// `timeout`: age in seconds after which the data is stale.
  /// `requireUpdatedData`: stale reads refresh in place, or wait for the
  /// running updater, instead of serving old data.
  /// `retryLimit`: a limit L allows L + 2 fetches and L + 2 writes.
  Cache(const std::string& dir, const std::string& file, long timeout, bool requireUpdatedData,
        int retryLimit);
  /// Destroys the object; the file and its companions stay.
  virtual ~Cache();

  /// Describes this cache: stored under "info" and printed in log lines.
  virtual Json::Value GetCacheInfo() const = 0;
  /// Served when nothing can be loaded; null here.
  virtual Json::Value GetDefaultValue() const;
  /// Produces fresh data; false when it could not.
  virtual bool GetUpdatedData(Json::Value& data) const = 0;
  /// Whether `data` may be stored, and served without a refresh.
  virtual bool IsValidData(const Json::Value& data) const = 0;
  /// Whether fresh, valid data must be refreshed anyway; false here.
  virtual bool IsNeedUpdate(const Json::Value& data) const;
  /// Whether a reader must wait for fresh data: true when constructed so, or
  /// when GetCachedData() is not valid. That is the default value while no
  /// file exists: with a default that IsValidData() accepts, the first
  /// readers get it at once; with one it refuses (null, say), they wait.
  virtual bool IsUpdatedDataRequired() const;

  /// The data, refreshed first when stale, invalid or IsNeedUpdate says so.
  /// Never fails: at worst the old data, or GetDefaultValue() when there
  /// never was any. A fresh, unchanged file costs one stat and one copy.
  Json::Value Read() const;
  /// The stored data without any freshness decision: the in-memory copy
  /// while the file's modification time is unchanged, else the file's
  /// "cached_data", else GetDefaultValue().
  Json::Value GetCachedData() const;
  /// Rereads the file into memory. False (memory unchanged) when the file is
  /// missing or does not parse.
  bool Load() const;

  /// True when the file is older than `timeout` seconds (an age equal to it
  /// is fresh), missing, or the clock fails.
  bool IsTimeout() const;
  /// The file's "max_updated_time"; 0 when it cannot be read.
  int GetMaxUpdateTime() const;

  /// Writes `data` with its fetch times (0 for both when either is not
  /// positive), retrying failed writes. Invalid data is never written.
  bool UpdateWithData(const Json::Value& data, long begin, long finish) const;
  /// UpdateWithData(data, 0, 0): stored without fetch times.
  bool UpdateWithData(const Json::Value& data) const;

  /// Starts a refresh unless another live process is refreshing. Not
  /// required: the fetch runs in a detached child and this returns at once.
  /// Required: fetches here, or waits until the running updater has gone or
  /// the file is fresh. That wait has no time limit: an updater stuck in
  /// GetUpdatedData() holds its readers as long. False when the refresh
  /// could not be started or failed in this process.
  bool Update() const;
  /// Fetches with retries and stores the result, in this process.
  bool DoUpdate() const;

  /// unlink() of the cache file, result unchanged (0 or -1). The pid and
  /// lock files stay.
  int Remove();

  /// The cache file's path.
  const std::string& GetCachePath() const { return cachePath_; }

 private:
  static std::string GetCachedPath(const std::string& dir, const std::string& file);
  // The file's st_mtime; -1 when it cannot be had. Times are int64_t, not
  // time_t, so that the layout does not depend on the caller's _TIME_BITS.
  int64_t ModifiedTime() const;
  // As the public forms, for a modification time already taken, so that a
  // read of an unchanged file needs only one stat.
  bool IsTimeout(int64_t modified) const;
  Json::Value GetCachedData(int64_t modified) const;
  // UpdateWithData with full-width times: a 32-bit long cannot hold the
  // clock after 2038.
  bool Store(const Json::Value& data, int64_t begin, int64_t finish) const;

  std::string cachePath_;
  long timeout_;
  bool requireUpdatedData_;
  int retryLimit_;
  mutable Json::Value data_;
  // Modification time of the file when data_ was taken from or written to
  // it; -1 before that.
  mutable int64_t loadedModifiedTime_;
};

}  // namespace VantDRCore
