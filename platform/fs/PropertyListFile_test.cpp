#include "platform/fs/PropertyListFile.h"

#include <gtest/gtest.h>

#include "platform/fs/LinuxFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using plist::Format;
using plist::ReadError;
using plist::Value;
using testing::TempTree;

TEST(PropertyListFile, RoundTripAndErrorsNamingThePath) {
    TempTree t;
    FileSystem& files = LinuxFileSystem::sharedInstance();
    plist::Dictionary d;
    d.set("k", Value("v"));
    for (Format format : {Format::Binary, Format::XML}) {
        ASSERT_TRUE(writePropertyListFile(files, t.path("out.plist"), Value(d), format));
        Format read;
        EXPECT_EQ(readPropertyListFile(files, t.path("out.plist"), nullptr, &read), Value(d));
        EXPECT_EQ(read, format);
    }

    t.file("junk.plist", "junk");
    t.fifo("fifo");
    const struct {
        std::string name;
        int code;
        std::string message;
    } failures[] = {
        {"missing.plist", ReadError::kIO, ": cannot open: No such file or directory"},
        {"fifo", ReadError::kIO, ": not a regular file"},
        {"junk.plist", ReadError::kUnknownFormat, ": not a property list"},
    };
    for (const auto& f : failures) {
        ReadError error;
        EXPECT_FALSE(readPropertyListFile(files, t.path(f.name), &error));
        EXPECT_EQ(error.code, f.code) << f.name;
        EXPECT_TRUE(error.message.starts_with(t.path(f.name) + f.message)) << error.message;
    }

    // A value that cannot be written leaves the old file as it was.
    const std::string before = testing::readText(t.path("out.plist"));
    std::string error;
    EXPECT_FALSE(writePropertyListFile(files, t.path("out.plist"), Value("\x01"), Format::XML, &error));
    EXPECT_TRUE(error.starts_with(t.path("out.plist") + ": the value cannot be encoded")) << error;
    EXPECT_EQ(testing::readText(t.path("out.plist")), before);
    EXPECT_FALSE(writePropertyListFile(files, t.path("no/folder.plist"), Value(1), Format::Binary, &error));
    EXPECT_EQ(error, t.path("no/folder.plist") + ": cannot write: No such file or directory");
}

}  // namespace
}  // namespace qvl::platform
