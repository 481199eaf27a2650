// Cross-check with Python's plistlib, an implementation no one here wrote:
// plistlib writes property lists of every kind in both encodings, the codec
// reads each and writes it again in both, and plistlib reads those back and
// compares (see testdata/plistlib_differential.py).

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "plist/PropertyList.h"

namespace qvl::plist {
namespace {

namespace fs = std::filesystem;

const std::string kScript = std::string(PLIST_TESTDATA) + "/plistlib_differential.py";

int shell(const std::string& command, std::string* output = nullptr) {
    std::string text;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return -1;
    char buf[4096];
    while (size_t n = fread(buf, 1, sizeof buf, pipe)) text.append(buf, n);
    const int status = pclose(pipe);
    if (output) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

TEST(PlistDifferential, AgreesWithPlistlibBothWays) {
    if (shell("python3 -c 'import plistlib'") != 0) GTEST_SKIP() << "python3 with plistlib is not installed";
    std::string tmpl = (fs::temp_directory_path() / "plist-differential-XXXXXX").string();
    const fs::path dir = mkdtemp(tmpl.data());
    std::string output;
    ASSERT_EQ(shell("python3 " + kScript + " generate " + dir.string(), &output), 0) << output;

    int cases = 0;
    for (; fs::exists(dir / ("case_" + std::to_string(cases) + ".bin")); ++cases) {
        const std::string base = (dir / ("case_" + std::to_string(cases))).string();
        for (const char* source : {"xml", "bin"}) {
            ReadError error;
            auto value = read(readBytes(base + "." + source), &error);
            ASSERT_TRUE(value) << error.message;
            const std::string binary = writeBinary(*value), xml = writeXML(*value);
            ASSERT_FALSE(binary.empty()) << base << "." << source;
            ASSERT_FALSE(xml.empty()) << base << "." << source;
            writeFile(base + ".from-" + source + ".bin", binary);
            writeFile(base + ".from-" + source + ".xml", xml);
            // Our own round trip is exact: reading what we wrote and writing
            // it again gives the same bytes.
            auto again = read(binary);
            ASSERT_TRUE(again);
            EXPECT_EQ(writeBinary(*again), binary) << base << "." << source;
        }
    }
    EXPECT_GT(cases, 50);
    EXPECT_EQ(shell("python3 " + kScript + " check " + dir.string(), &output), 0) << output;
    fs::remove_all(dir);
}

}  // namespace
}  // namespace qvl::plist
