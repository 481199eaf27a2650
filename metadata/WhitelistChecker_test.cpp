#include "metadata/WhitelistChecker.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/containers/ContainerLookup.h"
#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

Value record(std::string_view annotation = {}) {
    Dictionary attributes;
    attributes.set("NSFileType", "NSFileTypeRegular");
    Dictionary xattrs;
    if (!annotation.empty()) xattrs.set("MBRestoreAnnotation", Data(annotation.begin(), annotation.end()));
    Dictionary r;
    r.set("QVLManifestFileAttributes", attributes);
    r.set("QVLManifestFileExtendedAttributes", xattrs);
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
    bool check(const std::string& path, const Value& r = record()) { return checker_.checkFile(path, r); }

    FakeContainers containers_;
    WhitelistChecker checker_{&containers_};
};

TEST_F(WhitelistCheckerTest, AlwaysAllowedPathsAndTheirParents) {
    EXPECT_TRUE(check("/var/mobile/Media/DCIM/100DEMO/IMG_0001.JPG"));
    EXPECT_TRUE(check("/var/mobile/Media"));
    EXPECT_TRUE(check("/var/mobile"));
    EXPECT_TRUE(check("/var"));
    EXPECT_TRUE(check("/"));
    EXPECT_TRUE(check("/var/wireless/Library/Preferences/com.ostrel.kromd.plist"));
    EXPECT_FALSE(check("/etc/passwd"));
    EXPECT_FALSE(check("/var/tmp/payload"));
}

TEST_F(WhitelistCheckerTest, PathsThatClimbOrAreRelativeAreRefused) {
    QVLLogCapture capture;
    EXPECT_FALSE(check("/var/mobile/Media/../../../etc/passwd"));
    EXPECT_FALSE(check("/var/mobile/Media/./x"));
    EXPECT_FALSE(check(""));
    EXPECT_FALSE(check("var/mobile/Media"));
    EXPECT_FALSE(check("/var/mobile/Media/..", record("NotRestored")));
    EXPECT_TRUE(
        capture.contains("/var/mobile/Media/../../../etc/passwd is not an absolute path without \".\" or "
                         "\"..\" parts."));
}

TEST_F(WhitelistCheckerTest, DomainAllowListsDecideAndDenyHitsAreOnlyReported) {
    QVLLogCapture capture;
    EXPECT_TRUE(check("/var/mobile/Library/Preferences/com.example.demo.plist"));
    EXPECT_TRUE(check("/var/db/timezone/localtime"));
    EXPECT_TRUE(check("/var/Keychains/ItemStore.db-wal"));  // an only-encrypted entry
    EXPECT_TRUE(check("/var/db/demo/seed/first.plist"));    // a restore-only entry
    EXPECT_FALSE(check("/var/mobile/Library/SMS/sms.db"));
    EXPECT_TRUE(capture.lines().empty());

    EXPECT_TRUE(check("/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist"));
    EXPECT_TRUE(capture.contains(
        "/var/mobile/Library/Preferences/com.ostrel.Quorvale.plist is black listed in area.mobile-home"));
    // The comment-only domain allows its whole root, and its parents.
    EXPECT_TRUE(check("/var/QVLDemoContent/Videos/loop.mov"));
    EXPECT_TRUE(check("/var/QVLDemoContent"));
}

TEST_F(WhitelistCheckerTest, RestoreAnnotationMustMatchExactly) {
    EXPECT_TRUE(check("/etc/sudoers", record("NotBackedUp")));
    EXPECT_TRUE(check("/etc/sudoers", record("NotRestored")));
    EXPECT_FALSE(check("/etc/sudoers", record("NotRestoredAfterAll")));
    EXPECT_FALSE(check("/etc/sudoers", record(std::string_view("NotRestored\0", 12))));
    // The annotation is bytes; a string value does not count.
    Dictionary r = *record().asDictionary();
    Dictionary xattrs;
    xattrs.set("MBRestoreAnnotation", "NotRestored");
    r.set("QVLManifestFileExtendedAttributes", xattrs);
    EXPECT_FALSE(check("/etc/sudoers", r));
    EXPECT_FALSE(check("/etc/sudoers", Value("not a record")));
}

TEST_F(WhitelistCheckerTest, HandMadeDomains) {
    QVLLogCapture capture;
    Dictionary noAllowArray;
    noAllowArray.set("RootPath", "/var/open");
    noAllowArray.set("RelativePathsToRestoreOnly", Array{Value("only/this")});
    Dictionary noRoot;
    noRoot.set("RelativePathsToBackupAndRestore", Array{Value("x")});
    Dictionary domains;
    domains.set("open", noAllowArray);
    domains.set("broken", noRoot);
    checker_.setDomains(domains);

    // Without the main allow array the whole root is allowed.
    EXPECT_TRUE(check("/var/open/anything/at/all"));
    // A path that no earlier domain allows reaches the broken one and is refused.
    EXPECT_FALSE(check("/var/elsewhere"));
    EXPECT_TRUE(capture.contains("No root path find in domain broken"));
}

TEST_F(WhitelistCheckerTest, ManifestReportsEveryFailingPath) {
    QVLLogCapture capture;
    Dictionary manifest;
    manifest.set("/var/mobile/Media/a", record());
    manifest.set("/etc/shadow", record());
    manifest.set("/var/mobile/Library/Preferences/b.plist", record());
    manifest.set("/usr/bin/x", record());
    EXPECT_FALSE(checker_.checkManifest(manifest));
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "-[WhitelistChecker checkManifest:]:/etc/shadow failed the check.",
                                   "-[WhitelistChecker checkManifest:]:/usr/bin/x failed the check.",
                               }));
    EXPECT_TRUE(checker_.checkManifest(Dictionary()));
}

TEST(WhitelistCheckerListsTest, FullPathListsAndPrefixTests) {
    const Array entries{Value("  Library/Preferences   # comment"), Value("#only a comment"), Value("   "),
                        Value("Documents/"), Value(Data{1, 2})};
    EXPECT_EQ(WhitelistChecker::createFullPathList(entries, "/var/mobile/", true),
              (std::vector<std::string>{"/var/mobile/Library/Preferences", "/var/mobile/Documents"}));
    EXPECT_EQ(WhitelistChecker::createFullPathList(Array{Value("# none")}, "/var/x", true),
              (std::vector<std::string>{"/var/x"}));
    EXPECT_TRUE(WhitelistChecker::createFullPathList(Array{Value("# none")}, "/var/x", false).empty());

    const std::vector<std::string> list{"/var/db/platform"};
    EXPECT_TRUE(WhitelistChecker::fileBlacklisted("/var/db/platform", list));
    EXPECT_TRUE(WhitelistChecker::fileBlacklisted("/var/db/platform/nvram/x", list));
    EXPECT_FALSE(WhitelistChecker::fileBlacklisted("/var/db/platformx", list));
    EXPECT_FALSE(WhitelistChecker::fileBlacklisted("/var/db", list));
    // The allow test has no "/" boundary and passes parents too.
    EXPECT_TRUE(WhitelistChecker::fileWhitelisted("/var/db/platformx", list));
    EXPECT_TRUE(WhitelistChecker::fileWhitelisted("/var/d", list));
    EXPECT_FALSE(WhitelistChecker::fileWhitelisted("/var/e", list));
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
    EXPECT_EQ(containers_.asked, (std::vector<std::string>{"com.example.settings@12"}));

    // Deeper paths, annotated tops and paths outside the prefixes are not looked up.
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top + "/Library/x.plist", record()));
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top + "/", record()));
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record("NotBackedUp")));
    EXPECT_TRUE(checker_.handleSystemContainerFiles("/var/mobile/Library/Preferences/x", record()));
    EXPECT_EQ(containers_.asked.size(), 1u);

    const std::string group = "/var/mobile/Library/Backup/SystemContainers/Shared/group.example";
    EXPECT_FALSE(checker_.handleSystemContainerFiles(group, record()));
    EXPECT_EQ(containers_.asked.back(), "group.example@13");

    containers_.excluded = false;
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record()));
    containers_.excluded = std::nullopt;  // unreadable flag: restore
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record()));
    containers_.excluded = true;
    containers_.existed = false;  // made just now: nothing local to protect
    EXPECT_TRUE(checker_.handleSystemContainerFiles(top, record()));
}

TEST(WhitelistCheckerFilesTest, LoadingFromFiles) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("qvl-whitelist-" + std::to_string(getpid()));
    fs::create_directories(dir);
    WhitelistChecker checker;
    QVLLogCapture capture;
    EXPECT_FALSE(checker.load((dir / "missing.plist").string()));
    EXPECT_TRUE(capture.contains((dir / "missing.plist").string() + " does not exist."));
    std::ofstream(dir / "garbage.plist") << "this is not a property list";
    EXPECT_FALSE(checker.load((dir / "garbage.plist").string()));
    EXPECT_TRUE(capture.contains("Cannot load " + (dir / "garbage.plist").string()));
    EXPECT_FALSE(checker.checkManifestFile((dir / "garbage.plist").string()));

    std::ofstream(dir / "table.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist "
           "version=\"1.0\"><dict><key>SystemDomains</key><dict>"
           "<key>d</key><dict><key>RootPath</key><string>/var/d</string>"
           "<key>RelativePathsToBackupAndRestore</key><array><string>ok</string></array></dict></dict>"
           "<key>Backup</key><dict><key>/var/d/ok/1</key><dict/><key>/var/d/no</key><dict/></dict></dict></"
           "plist>";
    EXPECT_TRUE(checker.load((dir / "table.plist").string()));
    EXPECT_EQ(checker.domains().size(), 1u);
    EXPECT_FALSE(checker.checkManifestFile((dir / "table.plist").string()));
    EXPECT_TRUE(capture.contains("-[WhitelistChecker checkManifest:]:/var/d/no failed the check."));
    fs::remove_all(dir);
}

}  // namespace
}  // namespace qvl
