// Durable JSON files, key=value files and a lock shared by processes.
#include <cstdio>
#include <map>
#include <string>

#include "vantdr/file.h"
#include "vantdr/file_lock.h"

int main() {
  using namespace VantDRCore;
  const std::string dir = "/tmp/vantdr_example_files";
  File::CreateDir(dir, 0755);

  Json::Value settings;
  settings["retention_days"] = 30;
  File::Write(dir + "/settings.json", settings);  // flushed and synced
  Json::Value loaded;
  File::Read(dir + "/settings.json", loaded);

  FILE* conf = std::fopen((dir + "/agent.conf").c_str(), "w");
  std::fputs("port=5566\nhost=backup-01\n", conf);
  std::fclose(conf);
  std::map<std::string, int> numbers;
  File::Read(dir + "/agent.conf", numbers);  // "host" is not a number: 0

  FileLock lock("vantdr_example.lock");  // in /tmp/.vantdr_lock
  if (lock.lock(LOCK_EX | LOCK_NB, 5 /* seconds */)) {
    std::printf("locked; retention %d days, port %d\n", loaded["retention_days"].asInt(),
                numbers["port"]);
    lock.unlock();
  }
  File::RemoveDir(dir);
  return numbers["port"] == 5566 ? 0 : 1;
}
