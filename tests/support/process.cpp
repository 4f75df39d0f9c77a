#include "support/process.h"

#include <sys/wait.h>
#include <unistd.h>

namespace VantDRTest {

pid_t StartChild(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int code = 99;
  try {
    code = body();
  } catch (...) {
    code = 99;
  }
  _exit(code);
}

ChildResult WaitChild(pid_t pid) {
  ChildResult result;
  if (pid < 0) return result;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return result;
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

ChildResult RunInChild(const std::function<int()>& body) { return WaitChild(StartChild(body)); }

ChildResult RunUnprivileged(const std::function<int()>& body, bool keepSavedRoot) {
  return RunInChild([&]() -> int {
    const uid_t nobody = 65534;
    if (keepSavedRoot) {
      if (setresgid(-1, nobody, 0) != 0 || setresuid(-1, nobody, 0) != 0) return 98;
    } else {
      if (setresgid(nobody, nobody, nobody) != 0 || setresuid(nobody, nobody, nobody) != 0) {
        return 98;
      }
    }
    return body();
  });
}

}  // namespace VantDRTest
