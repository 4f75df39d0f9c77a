#include "support/private_tmpfs.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace VantDRTest {
namespace {

// Exit code of a child whose mount was refused; the reason is in the pipe.
constexpr int kRefused = 97;

std::string Reason(const char* step) { return std::string(step) + ": " + strerror(errno); }

}  // namespace

int RunOnPrivateTmpfs(std::size_t bytes, const std::function<int(const std::string& dir)>& body,
                      std::string& refused) {
  refused.clear();
  char pattern[] = "/tmp/vantdr_tmpfs.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    refused = Reason("mkdtemp");
    return -1;
  }
  const std::string dir = pattern;
  int report[2];
  if (pipe(report) != 0) {
    refused = Reason("pipe");
    rmdir(dir.c_str());
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    close(report[0]);
    std::string why;
    const std::string size = "size=" + std::to_string(bytes);
    if (unshare(CLONE_NEWNS) != 0) {
      why = Reason("unshare(CLONE_NEWNS)");
    } else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      why = Reason("making / private");
    } else if (mount("tmpfs", dir.c_str(), "tmpfs", 0, size.c_str()) != 0) {
      why = Reason("mount -t tmpfs");
    }
    if (!why.empty()) {
      (void)!write(report[1], why.data(), why.size());
      _exit(kRefused);
    }
    close(report[1]);
    int code = 99;
    try {
      code = body(dir);
    } catch (...) {
    }
    _exit(code);
  }
  close(report[1]);
  int code = -1;
  if (pid < 0) {
    refused = Reason("fork");
  } else {
    char buffer[256];
    ssize_t n;
    while ((n = read(report[0], buffer, sizeof buffer)) > 0) refused.append(buffer, n);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) code = WEXITSTATUS(status);
  }
  close(report[0]);
  rmdir(dir.c_str());
  return code;
}

}  // namespace VantDRTest
