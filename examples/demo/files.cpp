// Files and locks: a JSON settings file, a key=value file read three ways,
// a directory made for the caller, and two processes taking turns on a lock.
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "demo.h"
#include "vantdr/file.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"
#include "vantdr/log.h"

namespace {

using namespace VantDRCore;

std::string ReadRaw(const std::string& path) {
  std::string text;
  if (FILE* file = fopen(path.c_str(), "r")) {
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), file) != nullptr) text += buffer;
    fclose(file);
  }
  return text;
}

std::string Number(double value) {
  char text[32];
  snprintf(text, sizeof(text), "%g", value);
  return text;
}

// Two turns each; a holder keeps the lock 150 ms and then rests 150 ms so
// the other process, polling every 50 ms, gets its turn.
int TakeTurns(const std::string& lockName, const char* who) {
  FileLock lock(lockName);
  for (int turn = 1; turn <= 2; ++turn) {
    if (!lock.lock(LOCK_EX | LOCK_NB, 5)) return 1;
    Demo::Show(std::string(who) + " (pid " + std::to_string(getpid()) + ")",
               "holds the lock, turn " + std::to_string(turn));
    fflush(stdout);
    usleep(150 * 1000);
    lock.unlock();
    usleep(150 * 1000);
  }
  return 0;
}

void Run(const std::string& workDir) {
  Demo::Step("A JSON settings file, written durably and read back");
  const std::string settingsPath = workDir + "/settings.json";
  Json::Value settings;
  JsonFromString(settings,
                 R"({"retention_days":30,"targets":["/volume1/backup"],"compress":true})");
  Demo::Show("File::Write", File::Write(settingsPath, settings) ? "true" : "false");
  Demo::Show("on disk", ReadRaw(settingsPath));
  Json::Value loaded;
  const bool read = File::Read(settingsPath, loaded);
  const Json::Value days =
      loaded.isObject() ? loaded.get("retention_days", Json::Value()) : Json::Value();
  Demo::Show("File::Read",
             std::string(read ? "true" : "false") + ", retention_days " + JsonToString(days));

  Demo::Step("A key=value file read into three map types");
  const std::string confPath = workDir + "/agent.conf";
  const char* confText =
      "host=nas01\nport= 5510x\nratio=0.75\nname = my value\na list line\n"
      "retries=3\nretries=5\n";
  if (FILE* conf = fopen(confPath.c_str(), "w")) {
    fputs(confText, conf);
    fclose(conf);
  }
  for (const char* line = confText; *line != '\0';) {
    const char* end = strchr(line, '\n');
    printf("    | %.*s\n", static_cast<int>(end - line), line);
    line = end + 1;
  }
  std::map<std::string, std::string> texts;
  std::map<std::string, int> ints;
  std::map<std::string, double> reals;
  const int textCount = File::Read(confPath, texts);
  const int oldMask = setlogmask(LOG_UPTO(LOG_WARNING));  // the same two lines again, twice
  const int counts[] = {textCount, File::Read(confPath, ints), File::Read(confPath, reals)};
  setlogmask(oldMask);
  std::vector<std::vector<std::string>> rows;
  for (const auto& entry : texts) {
    rows.push_back({entry.first, "\"" + entry.second + "\"", std::to_string(ints[entry.first]),
                    Number(reals[entry.first])});
  }
  Demo::Table({"key", "string", "int", "double"}, rows);
  Demo::Show("entries read (each map)", std::to_string(counts[0]) + ", " +
                                            std::to_string(counts[1]) + ", " +
                                            std::to_string(counts[2]));
  Demo::Note("each read logs the bad line (shown for the first); values are read as by \">>\":");
  Demo::Note("a string ends at a blank, a number at a non-digit (\"nas01\": 0); the last wins");

  Demo::Step("A directory made with root ids through /bin/mkdir");
  const std::string dir = workDir + "/cache dir/nested";
  struct stat st;
  const bool made = File::CreateDir(dir, 0750) && stat(dir.c_str(), &st) == 0;
  char mode[8] = "?";
  if (made) snprintf(mode, sizeof(mode), "%o", static_cast<unsigned>(st.st_mode & 07777));
  Demo::Show("CreateDir(\"cache dir/nested\")", made ? std::string("mode ") + mode : "failed");
  Demo::Show("CreateDir(..., 01000)", File::CreateDir(workDir + "/x", 01000) ? "true" : "refused");
  Demo::Note("modes with bits beyond 0777 (sticky, setuid, setgid) are refused");

  Demo::Step("Two processes taking turns on one lock");
  const std::string lockName = "vantdr_demo_" + std::to_string(getpid());
  Demo::Show("lock file", FileLock::getLockFilePath(lockName));
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    usleep(50 * 1000);  // let the parent start first
    const int code = TakeTurns(lockName, "child ");
    fflush(stdout);
    _exit(code);
  }
  const int parentCode = TakeTurns(lockName, "parent");
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  const bool ok = parentCode == 0 && child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!ok) Demo::Show("both finished", "no");
  unlink(FileLock::getLockFilePath(lockName).c_str());
}

}  // namespace

VANTDR_DEMO_SECTION(40, "Files and locks", Run);
