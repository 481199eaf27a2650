// Cross-check with Python's plistlib, an implementation no one here wrote:
// plistlib writes property lists of every kind in both encodings, the codec
// reads each and writes it again in both, and plistlib reads those back and
// compares (see testdata/plistlib_differential.py). A dictionary read from
// plistlib's binary file is written back entry by entry, as manifests are.

#include <gtest/gtest.h>

#include <filesystem>

#include "plist/PlistBinaryDictionaryWriter.h"
#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::plist {
namespace {

using testing::readText;
using testing::writeText;

// `d` through BinaryDictionaryWriter.
std::string streamed(const Dictionary& d) {
    std::string out;
    BinaryDictionaryWriter writer([&](std::span<const uint8_t> bytes) {
        out.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return 0;
    });
    for (const auto& [key, value] : d) writer.add(key, value);
    return writer.finish() ? out : std::string();
}

TEST(PlistDifferential, AgreesWithPlistlibBothWays) {
    if (testing::runTool("python3 -c 'import plistlib'").status != 0)
        GTEST_SKIP() << "python3 with plistlib is not installed";
    const std::string script = "python3 " + testing::sourcePath("plist/testdata/plistlib_differential.py");
    testing::TempTree dir("/tmp");
    const testing::ToolRun generated = testing::runTool(script + " generate " + dir.root());
    ASSERT_EQ(generated.status, 0) << generated.err;

    int cases = 0;
    for (; dir.exists("case_" + std::to_string(cases) + ".bin"); ++cases) {
        const std::string base = dir.path("case_" + std::to_string(cases));
        for (const char* source : {"xml", "bin"}) {
            ReadError error;
            auto value = read(readText(base + "." + source), &error);
            ASSERT_TRUE(value) << error.message;
            const std::string binary = writeBinary(*value), xml = writeXML(*value);
            ASSERT_FALSE(binary.empty() || xml.empty()) << base << "." << source;
            std::string binaryOut = binary;
            if (const Dictionary* d = value->asDictionary(); d && std::string_view(source) == "bin") {
                binaryOut = streamed(*d);
                const auto back = read(binaryOut);
                ASSERT_TRUE(back) << base;
                EXPECT_EQ(writeBinary(*back), binary) << base;  // equal, NaN included
            }
            writeText(base + ".from-" + source + ".bin", binaryOut);
            writeText(base + ".from-" + source + ".xml", xml);
            // Our own round trip is exact: reading what we wrote and writing
            // it again gives the same bytes.
            auto again = read(binary);
            ASSERT_TRUE(again);
            EXPECT_EQ(writeBinary(*again), binary) << base << "." << source;
        }
    }
    EXPECT_GT(cases, 50);
    const testing::ToolRun checked = testing::runTool(script + " check " + dir.root());
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
}

}  // namespace
}  // namespace qvl::plist
