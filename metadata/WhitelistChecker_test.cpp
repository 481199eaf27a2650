#include "metadata/WhitelistChecker.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/fs/LinuxFileSystem.h"
#include "tests/support/TestSupport.h"

namespace qvl {
namespace {

using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

using testing::record;

// A regular file whose restore annotation is `annotation`.
Value annotated(std::string_view annotation) {
    Dictionary r = record();
    testing::sub(r, "QVLManifestFileExtendedAttributes")
        .set("MBRestoreAnnotation", Data(annotation.begin(), annotation.end()));
    return r;
}

class FakeContainers : public platform::ContainerLookup {
  public:
    std::optional<platform::ContainerInfo> containerPath(std::string_view identifier,
                                                         platform::ContainerClass cls) override {
        asked.push_back(std::string(identifier) +
                        (cls == platform::ContainerClass::kSystemGroup ? "@13" : "@12"));
        return platform::ContainerInfo{"/containers/" + std::string(identifier), existed};
    }
    std::optional<bool> excludedFromBackup(const std::string&) override { return excluded; }
    bool existed = true;
    std::optional<bool> excluded = true;
    std::vector<std::string> asked;
};

class WhitelistCheckerTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(checker_.loadFromData()); }
    FakeContainers containers_;
    WhitelistChecker checker_{containers_, platform::LinuxFileSystem::sharedInstance()};
};

TEST_F(WhitelistCheckerTest, PathsByPlaceDomainAndAnnotation) {
    const Value folder = record("NSFileTypeDirectory", 0755);
    const std::string above =
        " is a folder above an allowed place, so it must be a directory without group or other write and "
        "without set-id bits.";
    const std::string notCanonical = " is not an absolute path without empty, \".\" or \"..\" parts.";
    Dictionary textAnnotation = record();
    testing::sub(textAnnotation, "QVLManifestFileExtendedAttributes")
        .set("MBRestoreAnnotation", "NotRestored");
    const struct {
        std::string path;
        Value record;
        bool passes;
        std::string logLine;  // "": nothing logged
    } cases[] = {
        {"/var/mobile/Media/DCIM/100DEMO/IMG_0001.JPG", record(), true, ""},
        {"/var/mobile/Media", record(), true, ""},
        {"/var/wireless/Library/Preferences/com.ostrel.kromd.plist", record(), true, ""},
        {"/var/mobile/MediaEvil/x", record(), false, ""},
        // Folders on the way to an allowed place.
        {"/var/mobile", folder, true, ""},
        {"/var/root/Library", folder, true, ""},
        {"/", folder, true, ""},
        {"/var", record("NSFileTypeDirectory", 0775), false, "/var" + above},
        {"/var", record("NSFileTypeDirectory", 02755), false, "/var" + above},
        {"/var/mobile", record(), false, "/var/mobile" + above},
        {"/etc", folder, false, ""},
        {"/var/mobile/Media/../../../etc/passwd", record(), false,
         "/var/mobile/Media/../../../etc/passwd" + notCanonical},
        {"/var/mobile/Media/./x", record(), false, "/var/mobile/Media/./x" + notCanonical},
        {"/var/mobile/Media/", record(), false, "/var/mobile/Media/" + notCanonical},
        {"var/mobile/Media", record(), false, "var/mobile/Media" + notCanonical},
        {"/var/mobile/Media/..", annotated("NotRestored"), false, "/var/mobile/Media/.." + notCanonical},
        // Domains decide; a deny-list hit is only reported.
        {"/var/mobile/Library/Preferences/com.example.demo.plist", record(), true, ""},
        {"/var/Keychains/ItemStore.db-wal", record(), true, ""},  // only-encrypted
        {"/var/db/demo/seed/first.plist", record(), true, ""},    // restore-only
        {"/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist", record(), true,
         "/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist is black listed in area.mobile-home"},
        {"/var/QVLDemoContent/Videos/loop.mov", record(), true, ""},  // a comment-only domain: its whole root
        // The annotation passes anywhere when it is exact bytes.
        {"/etc/sudoers", annotated("NotBackedUp"), true, ""},
        {"/etc/sudoers", annotated("NotRestoredAfterAll"), false, ""},
        {"/etc/sudoers", annotated(std::string_view("NotRestored\0", 12)), false, ""},
        {"/etc/sudoers", textAnnotation, false, ""},
        {"/etc/sudoers", Value("not a record"), false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        QVLLogCapture capture;
        EXPECT_EQ(checker_.checkFile(c.path, c.record), c.passes);
        EXPECT_EQ(capture.lines(), c.logLine.empty() ? std::vector<std::string>{} : std::vector{c.logLine});
    }
}

TEST_F(WhitelistCheckerTest, HandMadeDomainsAndWholeManifests) {
    QVLLogCapture capture;
    EXPECT_FALSE(checker_.checkManifest(testing::dict({{"/var/mobile/Media/a", record()},
                                                       {"/etc/shadow", record()},
                                                       {"/var/mobile/Library/Preferences/b", record()},
                                                       {"/usr/bin/x", record()}})));
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "-[WhitelistChecker checkManifest:]:/etc/shadow failed the check.",
                                   "-[WhitelistChecker checkManifest:]:/usr/bin/x failed the check.",
                               }));
    EXPECT_TRUE(checker_.checkManifest(Dictionary()));

    checker_.setDomains(
        testing::dict({{"open", testing::dict({{"RootPath", "/var/open"},
                                               {"RelativePathsToRestoreOnly", Array{Value("only/this")}}})},
                       {"broken", testing::dict({{"RelativePathsToBackupAndRestore", Array{Value("x")}}})}}));
    EXPECT_TRUE(
        checker_.checkFile("/var/open/anything/at/all", record()));  // no main allow array: the whole root
    EXPECT_FALSE(checker_.checkFile("/var/elsewhere", record()));    // reaches the broken domain
    EXPECT_TRUE(capture.contains("No root path find in domain broken"));

    const Array entries{Value("  Library/Preferences   # comment"), Value("#only a comment"), Value("   "),
                        Value("Documents/"), Value(Data{1, 2})};
    EXPECT_EQ(WhitelistChecker::createFullPathList(entries, "/var/mobile/", true),
              (std::vector<std::string>{"/var/mobile/Library/Preferences", "/var/mobile/Documents"}));
    EXPECT_EQ(WhitelistChecker::createFullPathList(Array{Value("# none")}, "/var/x", true),
              (std::vector<std::string>{"/var/x"}));
    const std::vector<std::string> list{"/var/db/platform"};
    for (const char* path : {"/var/db/platform", "/var/db/platform/nvram/x"}) {
        EXPECT_TRUE(WhitelistChecker::fileBlacklisted(path, list));
        EXPECT_TRUE(WhitelistChecker::fileWhitelisted(path, list));
    }
    EXPECT_FALSE(WhitelistChecker::fileBlacklisted("/var/db/platformx", list));
    EXPECT_FALSE(WhitelistChecker::fileWhitelisted("/var/db/platformx", list));
    EXPECT_TRUE(WhitelistChecker::fileLeadsToWhitelisted("/var/db", list));
    EXPECT_FALSE(WhitelistChecker::fileLeadsToWhitelisted("/var/d", list));
}

TEST_F(WhitelistCheckerTest, SystemContainerTopFolders) {
    QVLLogCapture capture;
    const std::string top = "/var/mobile/Library/Backup/SystemContainers/Data/com.example.settings";
    EXPECT_FALSE(checker_.handleSystemContainerFiles(top, record()));
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "-[WhitelistChecker shouldRestore:shared:]:Not restoring (attribute set "
            "locally):com.example.settings",
            "-[WhitelistChecker handleSystemContainerFiles:withMetadata:]:Container check failed for " + top,
        }));
    // Deeper paths, annotated tops and paths outside the prefixes are not looked up.
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top + "/Library/x.plist", record()));
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, annotated("NotBackedUp")));
    const std::string group = "/var/mobile/Library/Backup/SystemContainers/Shared/group.example";
    EXPECT_FALSE(checker_.handleSystemContainerFiles(group, record()));
    EXPECT_EQ(containers_.asked, (std::vector<std::string>{"com.example.settings@12", "group.example@13"}));

    containers_.excluded = std::nullopt;  // unreadable flag: restore
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record()));
    containers_.excluded = true;
    containers_.existed = false;  // made just now: nothing local to protect
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record()));
}

TEST(WhitelistCheckerFilesTest, LoadingFromFiles) {
    testing::TempTree tree;
    const std::string missing = tree.path("missing.plist"), garbage = tree.file("garbage", "not a plist");
    FakeContainers containers;
    WhitelistChecker checker(containers, platform::LinuxFileSystem::sharedInstance());
    QVLLogCapture capture;
    EXPECT_FALSE(checker.load(missing));
    EXPECT_TRUE(capture.contains(missing + " does not exist."));
    EXPECT_FALSE(checker.load(garbage));
    EXPECT_FALSE(checker.checkManifestFile(garbage));
    EXPECT_TRUE(capture.contains("Cannot load " + garbage));

    const std::string table =
        tree.file("table.plist",
                  "<plist version=\"1.0\"><dict><key>SystemDomains</key><dict><key>d</key><dict>"
                  "<key>RootPath</key><string>/var/d</string><key>RelativePathsToBackupAndRestore</key>"
                  "<array><string>ok</string></array></dict></dict><key>Backup</key><dict>"
                  "<key>/var/d/ok/1</key><dict/><key>/var/d/no</key><dict/></dict></dict></plist>");
    EXPECT_TRUE(checker.load(table));
    EXPECT_EQ(checker.domains().size(), 1u);
    EXPECT_FALSE(checker.checkManifestFile(table));
    EXPECT_TRUE(capture.contains("-[WhitelistChecker checkManifest:]:/var/d/no failed the check."));
}

}  // namespace
}  // namespace qvl
