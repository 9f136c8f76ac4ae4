#include "Inventory.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Eventually.h"
#include "HostPaths.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

TEST(Inventory, StartsWithoutSegments) {
  EXPECT_TRUE(rig::segments().empty());
}

TEST(Inventory, DescribesASegment) {
  rig::PrivateHost host;
  host.withFile(rig::kKeyFile, "");
  const key_t key = ftok(rig::kKeyFile, 104);
  const int id = shmget(key, 8000, IPC_CREAT | 0640);
  ASSERT_GE(id, 0);
  void* address = shmat(id, nullptr, 0);
  ASSERT_NE(address, reinterpret_cast<void*>(-1));

  const auto segment = rig::segmentOf(rig::kKeyFile, 104);
  ASSERT_TRUE(segment.has_value());
  EXPECT_EQ(segment->id, id);
  EXPECT_EQ(segment->key, key);
  EXPECT_EQ(segment->size, 8000U);
  EXPECT_EQ(segment->mode, 0640U);
  EXPECT_EQ(segment->owner, 0U);
  EXPECT_EQ(segment->attachments, 1U);

  shmid_ds description = {};
  ASSERT_EQ(shmctl(id, IPC_STAT, &description), 0);
  description.shm_perm.uid = rig::kWorkerUid;
  ASSERT_EQ(shmctl(id, IPC_SET, &description), 0);
  EXPECT_EQ(rig::segmentOf(rig::kKeyFile, 104)->owner, rig::kWorkerUid);
  shmctl(id, IPC_RMID, nullptr);
  EXPECT_FALSE(rig::segmentOf(rig::kKeyFile, 104).has_value());
  shmdt(address);
}

TEST(Inventory, CountsAttachments) {
  const int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  const std::size_t before = rig::attachmentCount();
  void* one = shmat(id, nullptr, 0);
  void* two = shmat(id, nullptr, 0);
  EXPECT_EQ(rig::attachmentCount(), before + 2);
  shmdt(one);
  EXPECT_EQ(rig::attachmentCount(), before + 1);
  shmdt(two);
  EXPECT_EQ(rig::attachmentCount(), before);
  shmctl(id, IPC_RMID, nullptr);
}

TEST(Inventory, CountsOpenFiles) {
  const std::size_t before = rig::openFileCount();
  const int file = open("/dev/null", O_RDONLY);
  EXPECT_EQ(rig::openFileCount(), before + 1);
  close(file);
  EXPECT_EQ(rig::openFileCount(), before);
}

TEST(Inventory, CountsThreads) {
  const std::size_t before = rig::threadCount();
  std::atomic<bool> done = false;
  std::thread other([&] {
    while (!done) {
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(rig::threadCount(), before + 1);
  done = true;
  other.join();
  EXPECT_TRUE(rig::eventually([&] { return rig::threadCount() == before; }));
}

TEST(Inventory, LooksBehindASyntheticProc) {
  rig::PrivateHost host;
  const std::size_t before = rig::threadCount();
  host.syntheticProc();
  EXPECT_EQ(rig::threadCount(), before);
}

TEST(Eventually, GivesUpInTheEnd) {
  EXPECT_FALSE(rig::eventually([] { return false; }, std::chrono::milliseconds(20)));
}

}  // namespace
