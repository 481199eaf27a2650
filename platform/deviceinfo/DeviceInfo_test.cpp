// The answers read from the information file, and the disk usage of a data
// folder that neither the file nor the volumes table describes. The file's
// "DiskUsage" and the data volume's are what the resize end-to-end test's
// cases run on.
#include "platform/deviceinfo/DeviceInfo.h"

#include <gtest/gtest.h>

#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using plist::Value;

// Answers are read anew each time; a missing file or key, or a value of
// another kind, is no answer.
TEST(DeviceInfoTest, AnswersComeFromTheFileEachTime) {
    testing::TempTree tree;
    const DeviceInfo info({tree.path("deviceinfo.plist"), tree.path("volumes.plist"), tree.root()});
    auto write = [&](const plist::Dictionary& d) { tree.file("deviceinfo.plist", plist::writeXML(d)); };
    EXPECT_FALSE(info.signingFuse() || info.productName());
    write(testing::dict({{"SigningFuse", false}, {"ProductName", "Kelto OS"}}));
    EXPECT_EQ(info.signingFuse(), false);
    EXPECT_EQ(info.productName(), "Kelto OS");
    write(testing::dict({{"SigningFuse", true}}));
    EXPECT_EQ(info.signingFuse(), true);
    write(testing::dict({{"SigningFuse", "no"}, {"ProductName", 7}}));
    EXPECT_FALSE(info.signingFuse() || info.productName());
    tree.file("deviceinfo.plist", "not a property list");
    EXPECT_FALSE(info.signingFuse());

    const auto usage = info.copyAnswer("DiskUsage");  // from the file system of the data folder
    const plist::Dictionary* d = usage ? usage->asDictionary() : nullptr;
    ASSERT_TRUE(d && d->getInteger("TotalDataCapacity") && d->getInteger("TotalDataAvailable"));
    EXPECT_GT(d->getInteger("TotalDataCapacity")->asSigned(), 0);
}

}  // namespace
}  // namespace qvl::platform
