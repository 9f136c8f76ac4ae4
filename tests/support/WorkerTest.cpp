#include "Worker.h"

#include <sys/shm.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>

#include "Error.h"
#include "HostPaths.h"
#include "Inventory.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

// What the product does on its side, done here by the outside contract.
class WorkerTest : public testing::Test {
 protected:
  void createSegment(int records, uid_t owner) {
    host.withFile(rig::kKeyFile, "");
    id_ =
        shmget(ftok(rig::kKeyFile, 104), static_cast<std::size_t>(records) * 80, IPC_CREAT | 0600);
    ASSERT_GE(id_, 0);
    shmid_ds description = {};
    ASSERT_EQ(shmctl(id_, IPC_STAT, &description), 0);
    description.shm_perm.uid = owner;
    ASSERT_EQ(shmctl(id_, IPC_SET, &description), 0);
    bytes = static_cast<char*>(shmat(id_, nullptr, 0));
  }

  ~WorkerTest() override {
    if (id_ >= 0) {
      shmdt(bytes);
      shmctl(id_, IPC_RMID, nullptr);
    }
  }

  rig::PrivateHost host;
  char* bytes = nullptr;

 private:
  int id_ = -1;
};

TEST_F(WorkerTest, WritesARecordWhereItsDisplayBelongs) {
  createSegment(10, rig::kWorkerUid);
  rig::Worker worker = host.worker();
  rig::SessionRecord record;
  record.rtt = 18.0;
  record.cdrTransmitted = 0x1122334455667788;
  worker.writes(103, record);

  double rtt = 0;
  std::uint64_t transmitted = 0;
  std::memcpy(&rtt, bytes + 3 * 80 + 8, sizeof rtt);
  std::memcpy(&transmitted, bytes + 3 * 80 + 72, sizeof transmitted);
  EXPECT_EQ(rtt, 18.0);
  EXPECT_EQ(transmitted, 0x1122334455667788U);
  EXPECT_EQ(worker.reads(103), record);
  EXPECT_EQ(worker.reads(102), rig::SessionRecord{});
}

TEST_F(WorkerTest, CountsFromTheLowestDisplay) {
  createSegment(10, rig::kWorkerUid);
  rig::Worker worker = host.worker(50);
  rig::SessionRecord record;
  record.frameRate = 1.5;
  worker.writes(50, record);
  double frameRate = 0;
  std::memcpy(&frameRate, bytes, sizeof frameRate);
  EXPECT_EQ(frameRate, 1.5);
}

TEST_F(WorkerTest, RefusesADisplayOutsideTheSegment) {
  createSegment(2, rig::kWorkerUid);
  rig::Worker worker = host.worker();
  EXPECT_THROW(worker.writes(102, {}), rig::Error);
  EXPECT_THROW(worker.writes(99, {}), rig::Error);
}

TEST_F(WorkerTest, IsTheWorkersAccount) {
  rig::Worker worker = host.worker();
  struct stat attributes = {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(worker.pid())).c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, rig::kWorkerUid);
  EXPECT_NE(worker.process().stat().find("(FlareWorker)"), std::string::npos);
}

TEST_F(WorkerTest, MayNotWriteASegmentOfSomebodyElse) {
  createSegment(10, 0);
  rig::Worker worker = host.worker();
  EXPECT_THROW(worker.attach(), rig::Error);
}

TEST_F(WorkerTest, CannotWriteWithoutASegment) {
  rig::Worker worker = host.worker();
  EXPECT_THROW(worker.writes(100, {}), rig::Error);
}

TEST_F(WorkerTest, StaysAttachedUntilTold) {
  createSegment(10, rig::kWorkerUid);
  rig::Worker worker = host.worker();
  worker.attach();
  EXPECT_EQ(rig::segmentOf(rig::kKeyFile, 104)->attachments, 2U);
  worker.detach();
  EXPECT_EQ(rig::segmentOf(rig::kKeyFile, 104)->attachments, 1U);
}

}  // namespace
