#include "manifest/QVLDemoManifestCheck.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "manifest/QVLSignedManifestTestSupport.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/notify/QVLNotificationCenter.h"

namespace qvl {
namespace {

using namespace qvl::testing;
using plist::Array;

const std::string kRun = "-[QVLDemoManifestCheck runSecurityCheck]";
const std::string kEntitlements =
    "-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]";
const std::string kIconState = "/var/mobile/Library/Tessaro/IconState.plist";
constexpr const char *kRegular = "NSFileTypeRegular", *kDirectory = "NSFileTypeDirectory";

Dictionary component(const char* checkType, const Dictionary& manifest = {}) {
    return dict({{"Manifest", manifest}, {"RigorousCheckType", checkType}});
}

Dictionary link(const std::string& target) {
    return record("NSFileTypeSymbolicLink", 0755, target);
}

// Containers that all exist (excluded from backup as the test says) and code
// signatures of the status the test sets, every path validated recorded.
struct FakePlatform : platform::ContainerLookup, platform::CodeSignatureValidator {
    std::optional<platform::ContainerInfo> containerPath(std::string_view id,
                                                         platform::ContainerClass) override {
        return platform::ContainerInfo{"/containers/" + std::string(id), true};
    }
    std::optional<bool> excludedFromBackup(const std::string&) override { return excluded; }
    int validateCodeSignature(const std::string& path) override {
        validated.push_back(path);
        return status;
    }
    bool excluded = false;
    int status = platform::kCodeSignatureValid;
    std::vector<std::string> validated;
};

class QVLDemoManifestCheckTest : public ::testing::Test {
  protected:
    void SetUp() override {
        checker_ = QVLDemoManifestCheck::create({&platform_, &platform_, &center_});
        ASSERT_TRUE(checker_);
    }
    bool checkFiles(const char* section, const Dictionary& manifest) {
        const Value v(manifest);
        return checker_->runSecurityChecksForSection(&v, section);
    }
    bool checkSegmented(const Dictionary& manifest) {
        return checker_->secureManifestCheckForSegmentedManifest(&manifest);
    }

    FakePlatform platform_;
    platform::QVLNotificationCenter center_;
    std::unique_ptr<QVLDemoManifestCheck> checker_;
};

// One file in one section through the general checks: it passes, or fails
// with its log line ("{}" stands for the path).
TEST_F(QVLDemoManifestCheckTest, GeneralFileChecks) {
    const std::string badLink = "Not a valid fileType(NSFileTypeSymbolicLink) for file:{}";
    const std::string notCanonical = "{} is not an absolute path without empty, \".\" or \"..\" parts.";
    const std::string zone = "/var/db/timezone/localtime", book = "/var/mobile/Media/Books/b.epub/cover.jpg";
    const std::string top = "/var/mobile/Library/Backup/SystemContainers/Data/com.example.health";
    Dictionary noAttributes = record(), noTarget = link(""), annotated = record();
    noAttributes.erase("QVLManifestFileAttributes");
    noTarget.erase("QVLManifestSymbolicLinkTargetFile");
    const std::string annotation = "NotRestored";
    annotated.set("QVLManifestFileExtendedAttributes",
                  dict({{"MBRestoreAnnotation", plist::Data(annotation.begin(), annotation.end())}}));
    const struct {
        const char* section;
        std::string path;
        Dictionary record;
        std::string logLine;  // "": passes
    } cases[] = {
        {"Backup", "/var/mobile/Media/tool", record(kRegular, 04755),
         "File permissions failed for file:{}(2541)"},
        {"AppData", "/Documents/tool", record(kRegular, 02755), "File permissions failed for file:{}(1517)"},
        {"Backup", "/var/mobile/Media/shared", record(kDirectory, 01777), ""},
        {"GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", "0644"),
         "File permissions failed for file:{}(-1)"},
        {"GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", std::nullopt), ""},
        {"ExtensionData", "/s", record("NSFileTypeSocket"),
         "Not a valid fileType(NSFileTypeSocket) for file:{}"},
        {"Backup", "/var/mobile/Media/d", record("NSFileTypeCharacterSpecial"),
         "Not a valid fileType(NSFileTypeCharacterSpecial) for file:{}"},
        {"AppData", "/t", withAttribute(record(), "NSFileType", std::nullopt),
         "Not a valid fileType((null)) for file:{}"},
        {"AppData", "/bare", noAttributes, "File attributes are nil for {}"},
        {"AppData", "Documents/a", record(), notCanonical},  // its cases are the whitelist's
        // Backup links by the table, judged by where the target leads.
        {"Backup", zone, link("/private/var/db/timezone/zoneinfo/UTC"), ""},
        {"Backup", zone, link("zoneinfo/./UTC"), ""},  // from the link's folder
        {"Backup", zone, link("/var/db/timezone/zoneinfoEvil/UTC"), badLink},
        {"Backup", zone, link("/etc/x/var/db/timezone/zoneinfo/UTC"), badLink},
        {"Backup", zone, noTarget, badLink},
        {"Backup", book, link("../../../Media/OPS/images/c.jpg"), badLink},
        {"Backup", book, link("/var/db/timezone/zoneinfo/UTC"), badLink},  // another row's target
        {"Backup", "/var/mobile/Library/Preferences/com.ostrel.carrier.plist",
         link("/var/mobile/Library/Carrier Bundles/Overlay/x.plist"), ""},
        {"AppData", "/Library/anything", link("/etc/shadow"), ""},  // any link in data sections
        // Domains and system containers, for backups only.
        {"Backup", "/etc/passwd", record(), "Whitelist checker failed\n"},
        {"Backup", "/etc/passwd", annotated, ""},
        {"Backup", top, record(kDirectory, 0755), ""},
    };
    for (const auto& c : cases) {
        std::string line = c.logLine;
        if (const size_t at = line.find("{}"); at != std::string::npos) line.replace(at, 2, c.path);
        SCOPED_TRACE(std::string(c.section) + " " + c.path + " " + line);
        QVLLogCapture capture;
        EXPECT_EQ(checkFiles(c.section, dict({{c.path, c.record}})), line.empty());
        if (!line.empty()) {
            EXPECT_TRUE(capture.contains(line));
        }
    }
    platform_.excluded = true;
    QVLLogCapture capture;
    EXPECT_FALSE(checkFiles("Backup", dict({{top, record(kDirectory, 0755)}})));
    EXPECT_TRUE(capture.contains("System container check failed for file:" + top));
    EXPECT_TRUE(checkFiles("AppData", dict({{top, record(kDirectory, 0755)}})));
    EXPECT_FALSE(checkFiles("GroupData", dict({{"/Library/l", link("/")}, {"/Library/l/x", record()}})));
    EXPECT_TRUE(capture.contains("File /Library/l/x lies below the symbolic link /Library/l"));
    EXPECT_TRUE(checkFiles("GroupData", dict({{"/Library/l", link("/")}, {"/Library/lx", record()}})));

    // A file manifest or record of the wrong kind fails; a missing or empty one passes.
    const Value notAManifest("files");
    EXPECT_FALSE(checker_->runSecurityChecksForSection(&notAManifest, "AppData"));
    EXPECT_FALSE(checkFiles("AppData", dict({{"/x", "record"}})));
    EXPECT_TRUE(checker_->runSecurityChecksForSection(nullptr, "Backup"));
}

TEST_F(QVLDemoManifestCheckTest, ComponentsAreVisitedUntilTheFirstFailure) {
    QVLLogCapture capture;
    const auto appData = dict({{"com.example.ok", component("Skip")},
                               {"com.example.bad", component("Strict")},
                               {"com.example.never", component("Also bad")}});
    EXPECT_FALSE(checkSegmented(
        dict({{"App", dict({{"com.example.app", component("Bogus")}})}, {"AppData", appData}})));
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "Starting rigorous security checks\n",
            kRun + ": Unknown rigorous check type (Strict) for com.example.bad (from AppData).",
            kRun + ": Failed rigorous check for:com.example.bad (from AppData)\n",
            kRun + ": Security checks failed\n",
            "-[QVLDemoManifestCheck secureManifestCheckForSegmentedManifest:]: Security checks failed\n",
        }));
    EXPECT_EQ(center_.observerCount(), 0u);

    capture.clear();
    EXPECT_TRUE(checkSegmented(dict(
        {{"AppData", dict({{"com.example.ok", component("Skip")}})},
         {"Backup", dict({{"backup.A", component("Default", fileManifest({"/var/mobile/Media/x"}))}})}})));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "Starting rigorous security checks\n",
                  kRun + ":Cleared all checks for manifest. Approving future installations\n",
              }));

    // Nothing checked, or parts of the wrong kind, fail.
    EXPECT_FALSE(checkSegmented(
        dict({{"App", dict({{"com.example.app", component("Skip")}})}, {"Backup", Dictionary()}})));
    EXPECT_FALSE(checkSegmented(dict({{"ExtensionData", dict({{"group.x", "not a component"}})}})));
    EXPECT_TRUE(capture.contains(kRun + ": Failed rigorous check for:group.x (from ExtensionData)\n"));
    EXPECT_FALSE(checkSegmented(dict({{"AppData", Array{}}})));
    EXPECT_TRUE(capture.contains(kRun + ": AppData section is not a dictionary"));
    EXPECT_FALSE(checker_->secureManifestCheckForSegmentedManifest(std::shared_ptr<const Dictionary>()));
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(nullptr));
    for (const char* kind : {"Segmented", "Unsegmented"}) {
        EXPECT_TRUE(capture.contains(std::string("-[QVLDemoManifestCheck secureManifestCheckFor") + kind +
                                     "Manifest:]: Passed a null manifest for security checks"));
    }
}

TEST_F(QVLDemoManifestCheckTest, MonolithicManifestsAreConvertedOnACopy) {
    const auto wrapped =
        dict({{"Manifest", fileManifest({"/Documents/a"})}, {"CFBundleShortVersionString", "2.1"}});
    Dictionary raw =
        dict({{"Version", 2},
              {"AppData",
               dict({{"com.example.app", wrapped}, {"com.example.bare", fileManifest({"/Documents/b"})}})},
              {"GroupData", dict({{"group.empty", Dictionary()}, {"group.full", fileManifest({"/g"})}})},
              {"Backup", fileManifest({"/var/mobile/Media/m"})},
              {"InstallationOrder", Array{Value("whatever")}}});
    // Every data entry becomes a component of the file manifest its readers use.
    Dictionary expected = raw;
    expected.set("AppData",
                 dict({{"com.example.app", component("Default", fileManifest({"/Documents/a"}))},
                       {"com.example.bare", component("Default", fileManifest({"/Documents/b"}))}}));
    expected.set("GroupData", dict({{"group.full", component("Default", fileManifest({"/g"}))}}));
    expected.set("Backup",
                 dict({{"backup.BaseBackup", component("Default", fileManifest({"/var/mobile/Media/m"}))}}));
    expected.set("InstallationOrder", Array{Value("backup.BaseBackup"), Value("systemappdata")});
    expected.set("ExtensionData", Dictionary());
    Dictionary converted = raw;
    ASSERT_TRUE(checker_->unsegmentedToSegmentedWithRigorousFlag(converted));
    EXPECT_EQ(Value(converted), Value(expected));
    const Value before(raw);
    EXPECT_TRUE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_EQ(Value(raw), before);
    EXPECT_EQ(Value(*checker_->segmentedManifestWithRigorousFlag()), Value(expected));

    // A data section or entry of the wrong kind survives the conversion and is refused.
    for (const Value& odd : {Value(Array{Value("group.x")}), Value(dict({{"group.x", "not an entry"}}))}) {
        Dictionary spoilt = raw;
        spoilt.set("GroupData", odd);
        EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&spoilt));
    }
    raw.set("Backup", dict({{"/var/mobile/Media/m", record(kRegular, 04755)}}));
    QVLLogCapture capture;
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_TRUE(capture.contains(kRun + ": Failed rigorous check for:backup.BaseBackup (from Backup)\n"));
}

TEST_F(QVLDemoManifestCheckTest, LayoutAllowsOnlyMobileOwnedIconLayoutFiles) {
    auto layout = [&](const Dictionary& manifest) {
        QVLLogCapture capture;
        const Value v(manifest);
        const bool passed = checker_->runAppLayoutSecurityCheck(&v);
        return passed ? "passed" : capture.lines().empty() ? "" : capture.lines().back();
    };
    EXPECT_EQ(layout(dict({{kIconState, record()},
                           {"/var/mobile/Library/Tessaro/DesiredIconState.plist", record()}})),
              "passed");
    const std::string other = "/var/mobile/Library/Preferences/x.plist";
    EXPECT_EQ(layout(dict({{kIconState, record()}, {other, record()}})),
              other + " is not allowed in Vantor signed component.");
    EXPECT_EQ(layout(Dictionary()), "");
    EXPECT_FALSE(checker_->runAppLayoutSecurityCheck(nullptr));

    const std::string notMobile =
        "Vantor signed compoennt can only contain mobile owned file - " + kIconState;
    Dictionary extraKey = record(), badAttributes = record();
    extraKey.set("Extra", 1);
    badAttributes.set("QVLManifestFileAttributes", "attributes");
    const struct {
        Value record;
        std::string logLine;  // a short text is a wrong format reason
    } cases[] = {
        {"record", "Vantor signed component in wrong format (no manifest) for " + kIconState},
        {extraKey, "manifest keys"},
        {record(kRegular, 0644, "/etc/shadow"), "symlink target"},
        {badAttributes, "no file attributes"},
        {withAttribute(record(), "NSFileType", 1), "file type"},
        {record(kDirectory), "Vantor signed compoennt can only contain regular files - " + kIconState},
        {withAttribute(record(), "NSFileOwnerAccountID", "501"), "owner ID"},
        {withAttribute(record(), "NSFileOwnerAccountID", 0), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountID", 0), notMobile},
        {withAttribute(record(), "NSFileOwnerAccountName", 501), "owner name"},
        {withAttribute(record(), "NSFileOwnerAccountName", "root"), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", 501), "onwer name"},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", "wheel"), notMobile},
        {withAttribute(record(), "NSFilePosixPermissions", "0644"), "permission"},
        {record(kRegular, 02755), "Vantor signed compoennt contains setuid item: " + kIconState},
    };
    for (const auto& c : cases) {
        const bool full = c.logLine.starts_with("Vantor");
        EXPECT_EQ(layout(dict({{kIconState, c.record}})),
                  full ? c.logLine
                       : "Vantor signed compoennt in wrong format (" + c.logLine + ") for " + kIconState);
    }
    // A Vantor component is checked by layout within the whole check.
    EXPECT_TRUE(checkSegmented(
        dict({{"Backup", dict({{"b", component("AppLayout", dict({{kIconState, record()}}))}})}})));
    EXPECT_FALSE(checkSegmented(
        dict({{"Backup", dict({{"b", component("AppLayout", dict({{kIconState, record(kDirectory)}}))}})}})));
}

class EntitlementTest : public QVLDemoManifestCheckTest {
  protected:
    // Backups at indices 0 to 3; "/shared" lies in 1 (Skip) and 3 (Default), "/first" only in 0.
    void SetUp() override {
        QVLDemoManifestCheckTest::SetUp();
        checker_->setSegmentedManifestWithRigorousFlag(std::make_shared<const Dictionary>(
            dict({{"InstallationOrder",
                   Array{Value("backup.B0"), Value("backup.B1"), Value("backup.B2"), Value("backup.B3")}},
                  {"Backup", dict({{"backup.B0", component("Default", fileManifest({"/first"}))},
                                   {"backup.B1", component("Skip", fileManifest({"/shared"}))},
                                   {"backup.B2", component("Skip", fileManifest({"/other"}))},
                                   {"backup.B3", component("Default", fileManifest({"/shared"}))}})},
                  {"AppData", dict({{"com.example.checked", component("Default", fileManifest({"/bin"}))},
                                    {"com.example.trusted", component("Skip")}})}})));
        checker_->registerEntitlementNotificationHandler();
    }
    void announce(const char* type, Value identifier) {
        center_.post(
            "CheckEntitlementsNotify",
            std::make_shared<const Dictionary>(dict({{"TypeOfFiles", type}, {"Identifier", identifier}})));
    }
    static Value range(int64_t location, int64_t length) {
        return dict({{"location", location}, {"length", length}});
    }
    bool check(const std::string& entry) {
        return checker_->checkFileForEntitlements("/device" + entry, entry);
    }
};

TEST_F(EntitlementTest, LatestBackupHoldingTheFileDecides) {
    EXPECT_TRUE(check("/first"));  // nothing announced yet
    EXPECT_TRUE(platform_.validated.empty());
    QVLLogCapture capture;
    announce("Backup", range(2, 2));
    EXPECT_TRUE(
        capture.containsPrefix("Notification received for entitlement check for: CheckEntitlementsNotify "));
    EXPECT_FALSE(check("/shared"));  // 3 decides
    EXPECT_EQ(platform_.validated, std::vector<std::string>{"/device/shared"});
    EXPECT_TRUE(
        capture.contains(kEntitlements + ":There is unexpected valid signature/entitlements:00000000\n"));
    EXPECT_FALSE(check("/first"));  // only in 0, before the range: still judged by it
    EXPECT_TRUE(check("/other"));   // "Skip": no validation
    EXPECT_EQ(platform_.validated.size(), 2u);
    announce("Backup", Array{Value(1), Value(1)});  // a range as an array: now 1 decides
    EXPECT_TRUE(check("/shared"));
    EXPECT_FALSE(check("/nowhere"));
    EXPECT_TRUE(capture.contains("Could not locate the file:/nowhere\n"));
    // "Not found" ranges and ranges past the order look from the last item down.
    announce("Backup", range(2147483647, 0));
    platform_.status = platform::kCodeSignatureUnsigned;
    EXPECT_TRUE(check("/first"));
    announce("Backup", Value("not a range"));
    EXPECT_FALSE(check("/first"));
}

TEST_F(EntitlementTest, DataContainersDecideByTheirCheckType) {
    QVLLogCapture capture;
    announce("AppData", "com.example.checked");
    EXPECT_FALSE(check("/bin"));
    announce("AppData", "com.example.trusted");
    EXPECT_TRUE(check("/bin"));
    announce("AppData", "com.example.missing");
    EXPECT_FALSE(check("/bin"));
    EXPECT_TRUE(capture.contains(kEntitlements + " Could not find a data container for:com.example.missing"));
    announce("GroupData", "group.x");  // no such section in the manifest
    EXPECT_FALSE(check("/bin"));
    EXPECT_TRUE(capture.contains(kEntitlements + ": GroupData section is not a dictionary"));

    // Each passing check adds an observer; a checker that goes away takes them along.
    ASSERT_TRUE(checkSegmented(dict({{"AppData", dict({{"com.example.trusted", component("Skip")}})}})));
    capture.clear();
    announce("AppData", "com.example.trusted");
    EXPECT_EQ(capture.lines().size(), 2u);
    checker_.reset();
    EXPECT_EQ(center_.observerCount(), 0u);
}

}  // namespace
}  // namespace qvl
