#include "support/process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace VantDRTest {

pid_t StartChild(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  int code = 99;
  try {
    code = body();
  } catch (...) {
  }
  _exit(code);
}

ChildResult WaitChild(pid_t pid) {
  ChildResult result;
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return result;
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

int RunTogether(int n, const std::function<int(int)>& body) {
  int gate[2];
  if (pipe(gate) != 0) return n;
  std::vector<pid_t> children;
  for (int i = 0; i < n; ++i) {
    children.push_back(StartChild([&, i] {
      close(gate[1]);
      char c;
      return read(gate[0], &c, 1) == 0 ? body(i) : 97;
    }));
  }
  close(gate[1]);
  int failed = 0;
  for (pid_t pid : children) failed += WaitChild(pid).exitCode != 0;
  close(gate[0]);
  return failed;
}

ChildResult RunInChild(const std::function<int()>& body) { return WaitChild(StartChild(body)); }

ChildResult RunUnprivileged(const std::function<int()>& body, bool keepSavedRoot) {
  return RunInChild([&]() -> int {
    const uid_t nobody = 65534, saved = keepSavedRoot ? 0 : nobody,
                real = keepSavedRoot ? static_cast<uid_t>(-1) : nobody;
    if (setresgid(real, nobody, saved) != 0 || setresuid(real, nobody, saved) != 0) return 98;
    return body();
  });
}

}  // namespace VantDRTest
