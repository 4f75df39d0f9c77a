#include <thread>

#include "support/fault_injection.h"
#include "support/suite.h"

const int kExclusive = LOCK_EX | LOCK_NB;

TEST(FileLock, LockFileStateAndMode) {
  if (geteuid() != 0) GTEST_SKIP();
  LogCapture log;
  FileLock unnamed("");
  EXPECT_FALSE(unnamed.lock(kExclusive, 0));
  EXPECT_EQ(log.Summary(), (std::vector<std::string>{"ERR getLockFilePath: Bad lock file[]",
                                                     "ERR openLockedFile: Bad Lock File",
                                                     "ERR lock: Bad fd [-1] to lock []"}));
  const std::string name = UniqueName("lock_state"), path = FileLock::getLockFilePath(name);
  EXPECT_EQ(path, "/tmp/.vantdr_lock/" + name);
  FileLock holder(name), rival(name);
  const mode_t oldMask = umask(0004);
  ASSERT_TRUE(holder.lock(kExclusive, 0));
  umask(oldMask);
  struct stat st;
  EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 01200u);  // 01204 less umask
  EXPECT_FALSE(rival.tryLock(kExclusive));  // separate open files exclude each other
  EXPECT_TRUE(holder.setLockFile(name) && !holder.setLockFile("other") &&
              holder.getLockFile() == path);
  holder.unlock();
  EXPECT_TRUE(rival.tryLock(kExclusive));
  EXPECT_TRUE(holder.lock(kExclusive, 0));  // tryLock left it free
  unlink(path.c_str());
  // The open file is reused, not reopened.
  EXPECT_TRUE(holder.lock(kExclusive, 0) && access(path.c_str(), F_OK) != 0);
}

// Against a holder, lock(op, T) makes 20 x T + 1 attempts 50 ms apart.
TEST(FileLock, PollingMakesTwentyAttemptsASecondPlusOne) {
  if (geteuid() != 0) GTEST_SKIP();
  const std::string name = UniqueName("lock_poll");
  FileLock holder(name), waiter(name);
  ASSERT_TRUE(holder.lock(kExclusive, 0));
  for (unsigned timeout : {0u, 1u}) {
    Faults::Arm();
    EXPECT_FALSE(waiter.lock(kExclusive, timeout));
    Faults::Disarm();
    EXPECT_EQ(Faults::Count(Faults::kFlock), static_cast<int>(20 * timeout + 1)) << timeout;
    EXPECT_EQ(Faults::Sleeps(), std::vector<unsigned>(20 * timeout, 50000u)) << timeout;
  }
  std::thread release([&] {  // freed while it waits: a later attempt takes it
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    holder.unlock();
  });
  EXPECT_TRUE(waiter.lock(kExclusive, 1));
  release.join();
  waiter.unlock();
  Faults::Arm();
  EXPECT_TRUE(waiter.lock(kExclusive, 1));  // free: the first attempt takes it
  Faults::Disarm();
  EXPECT_TRUE(Faults::Count(Faults::kFlock) == 1 && Faults::Sleeps().empty());
  unlink(FileLock::getLockFilePath(name).c_str());
}

TEST(FileLock, UnlockSkipsDescriptorZeroOnly) {
  if (geteuid() != 0) GTEST_SKIP();
  const std::string name = UniqueName("lock_fd");
  for (int fd : {0, 1}) {
    EXPECT_EQ(RunInChild([&] {
                close(fd);
                FileLock lock(name), rival(name);
                if (!lock.lock(kExclusive, 0) || lock.getFd() != fd) return 1;
                lock.unlock();
                return rival.tryLock(kExclusive) == (fd != 0) ? 0 : 2;  // held on 0 only
              }).exitCode,
              0)
        << "descriptor " << fd;
  }
  unlink(FileLock::getLockFilePath(name).c_str());
}
