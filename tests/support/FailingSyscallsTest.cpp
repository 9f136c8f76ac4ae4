#include "FailingSyscalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

#include "Inventory.h"

using namespace mendline;

namespace {

// Every case fails calls in a child only, so that all of them may also run in one process.

class FailingSyscalls : public testing::Test {
 protected:
  ~FailingSyscalls() override {
    for (const rig::Segment& segment : rig::segments()) {
      shmctl(segment.id, IPC_RMID, nullptr);
    }
  }
};

int privateSegment() {
  return shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
}

TEST_F(FailingSyscalls, FailsTheChosenCallWithTheChosenError) {
  EXPECT_TRUE(rig::inChild([] {
    const int id = privateSegment();
    ASSERT_GE(id, 0);
    rig::failSyscall(SYS_shmat, EMFILE);
    errno = 0;
    EXPECT_EQ(shmat(id, nullptr, 0), reinterpret_cast<void*>(-1));
    EXPECT_EQ(errno, EMFILE);
  }));
}

TEST_F(FailingSyscalls, LeavesOtherCallsAlone) {
  EXPECT_TRUE(rig::inChild([] {
    rig::failSyscall(SYS_shmat, EPERM);
    const int id = privateSegment();
    EXPECT_GE(id, 0);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
  }));
}

TEST_F(FailingSyscalls, ComparesAnArgument) {
  EXPECT_TRUE(rig::inChild([] {
    const int id = privateSegment();
    ASSERT_GE(id, 0);
    rig::failSyscall(SYS_shmctl, EPERM, {rig::whenArgument(1, IPC_SET)});
    shmid_ds description = {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &description), 0);
    EXPECT_EQ(shmctl(id, IPC_SET, &description), -1);
    EXPECT_EQ(errno, EPERM);
  }));
}

TEST_F(FailingSyscalls, ComparesBitsOfAnArgument) {
  EXPECT_TRUE(rig::inChild([] {
    rig::failSyscall(SYS_openat, EMFILE, {rig::whenArgumentHas(2, O_DIRECTORY, O_DIRECTORY)});
    EXPECT_EQ(opendir("/proc"), nullptr);
    EXPECT_EQ(errno, EMFILE);
    const int file = open("/proc/stat", O_RDONLY);
    EXPECT_GE(file, 0);
    close(file);
  }));
}

TEST_F(FailingSyscalls, NeedsAllMatches) {
  EXPECT_TRUE(rig::inChild([] {
    rig::failSyscall(SYS_shmget, ENOSPC,
                     {rig::whenArgument(0, IPC_PRIVATE), rig::whenArgument(1, 8192)});
    EXPECT_GE(privateSegment(), 0);
    EXPECT_EQ(shmget(IPC_PRIVATE, 8192, IPC_CREAT | 0600), -1);
  }));
}

TEST_F(FailingSyscalls, ComparesTheUpperHalfOfAnArgument) {
  EXPECT_TRUE(rig::inChild([] {
    constexpr std::uint64_t kLarge = (std::uint64_t{1} << 32) + 4096;
    rig::failSyscall(SYS_shmget, ENOMEM, {rig::whenArgument(1, kLarge)});
    EXPECT_GE(privateSegment(), 0);
    EXPECT_EQ(shmget(IPC_PRIVATE, kLarge, IPC_CREAT | 0600), -1);
    EXPECT_EQ(errno, ENOMEM);
  }));
}

TEST_F(FailingSyscalls, ReachesThreadsThatRunAlready) {
  EXPECT_TRUE(rig::inChild([] {
    std::atomic<bool> installed = false;
    int result = 0;
    std::thread other([&] {
      while (!installed) {
        std::this_thread::yield();
      }
      result = chmod("/run", 0755);
    });
    rig::failSyscall(SYS_chmod, EROFS);
    installed = true;
    other.join();
    EXPECT_EQ(result, -1);
  }));
}

TEST(InChild, KeepsAFailingCallFromItsParent) {
  EXPECT_TRUE(rig::inChild([] {
    rig::failSyscall(SYS_chmod, EROFS);
    EXPECT_EQ(chmod("/run", 0755), -1);
  }));
  EXPECT_EQ(chmod("/run", 0755), 0);
}

TEST(InChild, TellsHowTheChildEnded) {
  EXPECT_FALSE(rig::inChild([] { _exit(0); }));
  EXPECT_FALSE(rig::inChild([] { raise(SIGKILL); }));
  EXPECT_FALSE(rig::inChild([] { throw std::runtime_error("on purpose"); }));
}

TEST(InChild, FailsWithAFailedCheck) {
  // The child's own report would read like a failure of this test.
  const testing::AssertionResult result = rig::inChild([] {
    close(STDOUT_FILENO);
    EXPECT_TRUE(false);
  });
  EXPECT_FALSE(result);
}

}  // namespace
