#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TestSupport.h"

namespace qvl::testing {
namespace {

ToolRun qvlplist(const std::string& args) {
    return runTool(QVLPLIST_PATH " " + args);
}

TEST(QvlplistTool, PrintsLintsAndConvertsBothWaysWithoutLoss) {
    TempTree tree;
    const std::string original = readText(QVLPLIST_SAMPLES "/sample-manifest.plist");
    const std::string sample = tree.file("sample.plist", original), binary = tree.path("sample.bplist");
    ToolRun r = qvlplist("print " + sample);
    EXPECT_TRUE(r.status == 0 && r.says("QVLManifestSymbolicLinkTargetFile = Faces/demo-face.bundle;"))
        << r.err;
    EXPECT_EQ(qvlplist("lint " + sample).out, sample + ": OK (XML)\n");

    ASSERT_EQ(qvlplist("convert --to binary -o " + binary + " " + sample).status, 0);
    EXPECT_EQ(readText(binary).substr(0, 8), "bplist00");
    EXPECT_EQ(readText(sample), original);                             // the input is untouched with -o
    ASSERT_EQ(qvlplist("convert " + binary + " --to=xml").status, 0);  // in place
    EXPECT_EQ(readText(binary), original);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.root()), {}), 2);  // no temporary left
}

TEST(QvlplistTool, BadInputsAndUsage) {
    TempTree tree;
    ToolRun r = qvlplist("lint " + tree.path("missing"));
    EXPECT_TRUE(r.status == 1 && r.logs("missing: cannot open")) << r.err;
    const std::string junk = tree.file("junk", "<plist><string>unterminated");
    r = qvlplist("lint " + junk);
    EXPECT_TRUE(r.status == 1 && r.logs("junk: XML property list")) << r.err;
    EXPECT_EQ(qvlplist("convert --to binary -o " + tree.path("never") + " " + junk).status, 1);
    EXPECT_FALSE(tree.exists("never"));

    for (const char* args : {"", "frobnicate x", "print", "print a b", "lint --verbose x", "convert x",
                             "convert --to yaml x", "convert --to xml", "convert --to xml -o"})
        EXPECT_EQ(qvlplist(args).status, 2) << args;
    for (const char* args : {"--help", "print --help", "lint --help", "convert --help"}) {
        r = qvlplist(args);
        EXPECT_TRUE(r.status == 0 && r.says("usage: qvlplist")) << args;
    }
}

}  // namespace
}  // namespace qvl::testing
