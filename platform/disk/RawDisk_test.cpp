// The write-back open's shared lock, on a plain file (flock works on any
// file; the block-device calls are shown end to end on a loop device).
#include "platform/disk/RawDisk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

TEST(RawDisk, WriteBackHoldsASharedLockUntilClosed) {
    testing::TempTree tree;
    const std::string path = tree.file("disk");
    const int other = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(other, 0);
    RawDisk& disk = RawDisk::sharedInstance();

    ASSERT_EQ(flock(other, LOCK_EX), 0);  // a tool holding the disk alone
    EXPECT_EQ(disk.open(path, RawDisk::Access::writeBack), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    const int reader = disk.open(path, RawDisk::Access::read);  // reading takes no lock
    EXPECT_GE(reader, 0);
    EXPECT_EQ(disk.isBlockDevice(reader), false);
    disk.close(reader);

    ASSERT_EQ(flock(other, LOCK_UN), 0);
    const int writer = disk.open(path, RawDisk::Access::writeBack);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(disk.writeAt(writer, "view", 4, 4096), 4);
    disk.close(writer);
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    close(other);
}

}  // namespace
}  // namespace qvl::platform
