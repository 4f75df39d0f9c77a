#include "support/syscall_filter.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace VantDRTest {

namespace {

bool Install(struct sock_filter* code, unsigned short length) {
  struct sock_fprog program = {length, code};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

bool RefuseUnnamedTemporaryFiles(int error) {
  // O_TMPFILE less O_DIRECTORY, in the flags' low word (little-endian, as on both our targets).
  constexpr unsigned kTmpfileBit = 020000000;
  const unsigned refuse = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
  struct sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[2])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kTmpfileBit, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, refuse),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  return Install(code, sizeof code / sizeof code[0]);
}

bool IgnoreModeChanges() {
  struct sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fchmod, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  return Install(code, sizeof code / sizeof code[0]);
}

}  // namespace VantDRTest
