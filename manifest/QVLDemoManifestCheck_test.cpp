#include "manifest/QVLDemoManifestCheck.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "manifest/QVLSignedManifestTestSupport.h"
#include "metadata/WhitelistChecker.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/notify/QVLNotificationCenter.h"
#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

using namespace qvl::testing;
using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

const std::string kRun = "-[QVLDemoManifestCheck runSecurityCheck]";
const std::string kEntitlements =
    "-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]";
const std::string kIconState = "/var/mobile/Library/Tessaro/IconState.plist";
constexpr const char* kLink = "NSFileTypeSymbolicLink";

Dictionary component(const char* checkType, Dictionary manifest) {
    Dictionary c;
    c.set("Manifest", std::move(manifest));
    c.set("RigorousCheckType", checkType);
    return c;
}

class FakeContainers : public platform::ContainerLookup {
  public:
    std::optional<platform::ContainerInfo> containerPath(std::string_view id,
                                                         platform::ContainerClass) override {
        return platform::ContainerInfo{"/containers/" + std::string(id), true};
    }
    std::optional<bool> excludedFromBackup(const std::string&) override { return excluded; }
    bool excluded = false;
};

class FakeCodeSignature : public platform::CodeSignatureValidator {
  public:
    int validateCodeSignature(const std::string& path) override {
        validated.push_back(path);
        return status;
    }
    int status = platform::kCodeSignatureUnsigned;
    std::vector<std::string> validated;
};

class QVLDemoManifestCheckTest : public ::testing::Test {
  protected:
    void SetUp() override {
        checker_ = QVLDemoManifestCheck::create({&containers_, &codeSignature_, &center_});
        ASSERT_TRUE(checker_);
    }
    bool checkFiles(const char* sectionName, const Dictionary& manifest) {
        const Value v(manifest);
        return checker_->runSecurityChecksForSection(&v, sectionName);
    }
    bool checkSegmented(Dictionary manifest) {
        return checker_->secureManifestCheckForSegmentedManifest(
            std::make_shared<const Dictionary>(std::move(manifest)));
    }

    FakeContainers containers_;
    FakeCodeSignature codeSignature_;
    platform::QVLNotificationCenter center_;
    std::unique_ptr<QVLDemoManifestCheck> checker_;
};

// One file in one section through the general checks: it passes, or fails
// with its log line.
TEST_F(QVLDemoManifestCheckTest, GeneralFileChecks) {
    auto badLink = [](const std::string& path) {
        return "Not a valid fileType(NSFileTypeSymbolicLink) for file:" + path;
    };
    auto notCanonical = [](const std::string& path) {
        return path + " is not an absolute path without empty, \".\" or \"..\" parts.";
    };
    const std::string zone = "/var/db/timezone/localtime";
    const std::string top = "/var/mobile/Library/Backup/SystemContainers/Data/com.example.health";
    Dictionary noAttributes = record();
    noAttributes.erase("QVLManifestFileAttributes");
    Dictionary noTarget = record(kLink);
    noTarget.erase("QVLManifestSymbolicLinkTargetFile");
    Dictionary annotated = record();
    const std::string annotation = "NotRestored";
    annotated.set("QVLManifestFileExtendedAttributes", files({}));
    sub(annotated, "QVLManifestFileExtendedAttributes")
        .set("MBRestoreAnnotation", Data(annotation.begin(), annotation.end()));
    const struct {
        const char* section;
        std::string path;
        Dictionary record;
        std::string logLine;  // "": passes
    } cases[] = {
        {"Backup", "/var/mobile/Media/tool", record("NSFileTypeRegular", 04755),
         "File permissions failed for file:/var/mobile/Media/tool(2541)"},
        {"AppData", "/Documents/tool", record("NSFileTypeRegular", 02755),
         "File permissions failed for file:/Documents/tool(1517)"},
        {"Backup", "/var/mobile/Media/shared", record("NSFileTypeDirectory", 01777), ""},
        {"GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", "0644"),
         "File permissions failed for file:/x(-1)"},
        {"GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", std::nullopt), ""},
        {"ExtensionData", "/s", record("NSFileTypeSocket"),
         "Not a valid fileType(NSFileTypeSocket) for file:/s"},
        {"Backup", "/var/mobile/Media/d", record("NSFileTypeCharacterSpecial"),
         "Not a valid fileType(NSFileTypeCharacterSpecial) for file:/var/mobile/Media/d"},
        {"AppData", "/notype", withAttribute(record(), "NSFileType", std::nullopt),
         "Not a valid fileType((null)) for file:/notype"},
        {"AppData", "/bare", noAttributes, "File attributes are nil for /bare"},
        {"AppData", "Documents/a", record(), notCanonical("Documents/a")},
        {"GroupData", "/Library//a", record(), notCanonical("/Library//a")},
        {"ExtensionData", "/Library/./a", record(), notCanonical("/Library/./a")},
        {"Backup", "/var/mobile/Media/", record(), notCanonical("/var/mobile/Media/")},
        // Backup links by the table, judged by where the target leads.
        {"Backup", zone, record(kLink, 0755, "/var/db/timezone/zoneinfo/Europe/Paris"), ""},
        {"Backup", zone, record(kLink, 0755, "/private/var/db/timezone/zoneinfo/UTC"), ""},
        {"Backup", zone, record(kLink, 0755, "zoneinfo/./UTC"), ""},  // from the link's folder
        {"Backup", zone, record(kLink, 0755, "/etc/shadow"), badLink(zone)},
        {"Backup", zone, record(kLink, 0755, "/var/db/timezone/zoneinfoEvil/UTC"), badLink(zone)},
        {"Backup", zone, record(kLink, 0755, "/etc/x/var/db/timezone/zoneinfo/UTC"), badLink(zone)},
        {"Backup", zone, noTarget, badLink(zone)},
        {"Backup", "/var/mobile/Media/Books/b.epub/cover.jpg", record(kLink, 0755, "OPS/images/c.jpg"), ""},
        {"Backup", "/var/mobile/Media/Books/b.epub/cover.jpg",
         record(kLink, 0755, "../../../Media/OPS/images/c.jpg"),
         badLink("/var/mobile/Media/Books/b.epub/cover.jpg")},
        {"Backup", "/var/mobile/Media/Books/b", record(kLink, 0755, "/var/db/timezone/zoneinfo/UTC"),
         badLink("/var/mobile/Media/Books/b")},  // a target of one row does not serve another
        {"Backup", "/var/mobile/Library/Preferences/com.ostrel.carrier.plist",
         record(kLink, 0755, "/var/mobile/Library/Carrier Bundles/Overlay/x.plist"), ""},
        {"AppData", "/Library/anything", record(kLink, 0755, "/etc/shadow"),
         ""},  // any link in data sections
        // Domains and system containers, for backups only.
        {"Backup", "/etc/passwd", record(),
         "-[WhitelistChecker checkManifest:]:/etc/passwd failed the check."},
        {"AppData", "/etc/passwd", record(), ""},
        {"Backup", "/etc/passwd", annotated, ""},
        {"Backup", top, record("NSFileTypeDirectory", 0755), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.section) + " " + c.path + " " + c.logLine);
        QVLLogCapture capture;
        EXPECT_EQ(checkFiles(c.section, files({{c.path, c.record}})), c.logLine.empty());
        if (!c.logLine.empty()) {
            EXPECT_TRUE(capture.contains(c.logLine))
                << (capture.lines().empty() ? "" : capture.lines().front());
        }
    }
    containers_.excluded = true;
    QVLLogCapture capture;
    EXPECT_FALSE(checkFiles("Backup", files({{top, record("NSFileTypeDirectory", 0755)}})));
    EXPECT_TRUE(capture.contains("System container check failed for file:" + top));
    EXPECT_TRUE(checkFiles("AppData", files({{top, record("NSFileTypeDirectory", 0755)}})));

    EXPECT_FALSE(checkFiles("GroupData",
                            files({{"/Library/l", record(kLink, 0755, "/")}, {"/Library/l/x", record()}})));
    EXPECT_TRUE(capture.contains("File /Library/l/x lies below the symbolic link /Library/l"));
    EXPECT_TRUE(checkFiles("GroupData",
                           files({{"/Library/l", record(kLink, 0755, "/")}, {"/Library/lx", record()}})));

    // A file manifest or record of the wrong kind fails; a missing or empty one passes.
    const Value notAManifest("files");
    EXPECT_FALSE(checker_->runSecurityChecksForSection(&notAManifest, "AppData"));
    Dictionary stringRecord;
    stringRecord.set("/x", "record");
    EXPECT_FALSE(checkFiles("AppData", stringRecord));
    EXPECT_TRUE(checkFiles("Backup", Dictionary()));
    EXPECT_TRUE(checker_->runSecurityChecksForSection(nullptr, "Backup"));
}

TEST_F(QVLDemoManifestCheckTest, ComponentsAreVisitedUntilTheFirstFailure) {
    QVLLogCapture capture;
    Dictionary manifest;
    manifest.set("App", files({{"com.example.app", component("Bogus", Dictionary())}}));
    manifest.set("AppData", files({{"com.example.ok", component("Skip", Dictionary())},
                                   {"com.example.bad", component("Strict", Dictionary())},
                                   {"com.example.never", component("Also bad", Dictionary())}}));
    EXPECT_FALSE(checkSegmented(manifest));
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "Starting rigorous security checks\n",
            kRun + ": Unknown rigorous check type (Strict) for com.example.bad (from AppData).",
            kRun + ": Failed rigorous check for:com.example.bad (from AppData)\n",
            kRun + ": Security checks failed\n",
            "-[QVLDemoManifestCheck secureManifestCheckForSegmentedManifest:]: Security checks failed\n",
        }));
    // The manifest is kept whatever the verdict; no observer for a failure.
    EXPECT_EQ(checker_->segmentedManifestWithRigorousFlag()->size(), 2u);
    EXPECT_EQ(center_.observerCount(), 0u);

    capture.clear();
    Dictionary good;
    good.set("AppData", files({{"com.example.ok", component("Skip", Dictionary())}}));
    good.set("Backup", files({{"backup.A", component("Default", fileManifest({"/var/mobile/Media/x"}))}}));
    EXPECT_TRUE(checkSegmented(good));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "Starting rigorous security checks\n",
                  kRun + ":Cleared all checks for manifest. Approving future installations\n",
              }));
    EXPECT_EQ(center_.observerCount(), 1u);

    // Nothing checked, or parts of the wrong kind, fail.
    Dictionary onlyApps;
    onlyApps.set("App", files({{"com.example.app", component("Skip", Dictionary())}}));
    onlyApps.set("Backup", Dictionary());
    EXPECT_FALSE(checkSegmented(onlyApps));
    EXPECT_FALSE(checkSegmented(Dictionary()));
    Dictionary badParts;
    badParts.set("ExtensionData", files({{"group.x", files({})}}));
    sub(badParts, "ExtensionData").set("group.x", "not a component");
    EXPECT_FALSE(checkSegmented(badParts));
    EXPECT_TRUE(capture.contains(kRun + ": Failed rigorous check for:group.x (from ExtensionData)\n"));
    Dictionary badSection;
    badSection.set("AppData", Array{});
    EXPECT_FALSE(checkSegmented(badSection));
    EXPECT_TRUE(capture.contains(kRun + ": AppData section is not a dictionary"));
    EXPECT_FALSE(checker_->secureManifestCheckForSegmentedManifest(std::shared_ptr<const Dictionary>()));
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(nullptr));
    for (const char* kind : {"Segmented", "Unsegmented"}) {
        EXPECT_TRUE(capture.contains(std::string("-[QVLDemoManifestCheck secureManifestCheckFor") + kind +
                                     "Manifest:]: Passed a null manifest for security checks"));
    }
}

TEST_F(QVLDemoManifestCheckTest, MonolithicManifestsAreConvertedOnACopy) {
    Dictionary wrapped = files({{"Manifest", fileManifest({"/Documents/a"})}});
    wrapped.set("CFBundleShortVersionString", "2.1");
    Dictionary raw;
    raw.set("Version", 2);
    raw.set("AppData",
            files({{"com.example.app", wrapped}, {"com.example.bare", fileManifest({"/Documents/b"})}}));
    raw.set("GroupData", files({{"group.empty", Dictionary()}, {"group.full", fileManifest({"/g"})}}));
    raw.set("Backup", fileManifest({"/var/mobile/Media/m"}));
    raw.set("InstallationOrder", Array{Value("whatever")});

    Dictionary converted = raw;
    ASSERT_TRUE(checker_->unsegmentedToSegmentedWithRigorousFlag(converted));
    // Every data entry becomes a component of the file manifest its readers use.
    EXPECT_EQ(Value(*converted.getDictionary("AppData")),
              Value(files({{"com.example.app", component("Default", fileManifest({"/Documents/a"}))},
                           {"com.example.bare", component("Default", fileManifest({"/Documents/b"}))}})));
    EXPECT_EQ(Value(*converted.getDictionary("GroupData")),
              Value(files({{"group.full", component("Default", fileManifest({"/g"}))}})));
    EXPECT_EQ(Value(*converted.getDictionary("ExtensionData")), Value(Dictionary()));
    EXPECT_EQ(
        Value(*converted.getDictionary("Backup")),
        Value(files({{"backup.BaseBackup", component("Default", fileManifest({"/var/mobile/Media/m"}))}})));
    EXPECT_EQ(Value(*converted.getArray("InstallationOrder")),
              Value(Array{Value("backup.BaseBackup"), Value("systemappdata")}));

    const Value before(raw);
    EXPECT_TRUE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_EQ(Value(raw), before);
    EXPECT_EQ(Value(*checker_->segmentedManifestWithRigorousFlag()), Value(converted));

    // A data section or entry of the wrong kind survives the conversion and is refused.
    Dictionary odd = raw;
    odd.set("GroupData", Array{Value("group.x")});
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&odd));
    odd = raw;
    sub(odd, "GroupData").set("group.x", "not an entry");
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&odd));

    raw.set("Backup", files({{"/var/mobile/Media/m", record("NSFileTypeRegular", 04755)}}));
    QVLLogCapture capture;
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_TRUE(capture.contains(kRun + ": Failed rigorous check for:backup.BaseBackup (from Backup)\n"));
}

TEST_F(QVLDemoManifestCheckTest, LayoutAllowsOnlyMobileOwnedIconLayoutFiles) {
    auto layoutFailure = [&](const Dictionary& manifest) {
        QVLLogCapture capture;
        const Value v(manifest);
        EXPECT_FALSE(checker_->runAppLayoutSecurityCheck(&v));
        return capture.lines().empty() ? "" : capture.lines().back();
    };
    const Value good(
        files({{kIconState, record()}, {"/var/mobile/Library/Tessaro/DesiredIconState.plist", record()}}));
    EXPECT_TRUE(checker_->runAppLayoutSecurityCheck(&good));
    const std::string other = "/var/mobile/Library/Preferences/x.plist";
    EXPECT_EQ(layoutFailure(files({{kIconState, record()}, {other, record()}})),
              other + " is not allowed in Vantor signed component.");
    EXPECT_EQ(layoutFailure(files({{other, record()}, {kIconState, record()}})),
              other + " is not allowed in Vantor signed component.");
    EXPECT_EQ(layoutFailure(Dictionary()), "");
    EXPECT_FALSE(checker_->runAppLayoutSecurityCheck(nullptr));

    const std::string notMobile =
        "Vantor signed compoennt can only contain mobile owned file - " + kIconState;
    Dictionary extraKey = record();
    extraKey.set("Extra", 1);
    Dictionary missingKey = record();
    missingKey.erase("QVLManifestFileExtendedAttributes");
    Dictionary badAttributes = record();
    badAttributes.set("QVLManifestFileAttributes", "attributes");
    const struct {
        Value record;
        std::string logLine;  // a short text is a wrong format reason
    } cases[] = {
        {Value("record"), "Vantor signed component in wrong format (no manifest) for " + kIconState},
        {extraKey, "manifest keys"},
        {missingKey, "manifest keys"},
        {record("NSFileTypeRegular", 0644, "/etc/shadow"), "symlink target"},
        {badAttributes, "no file attributes"},
        {withAttribute(record(), "NSFileType", 1), "file type"},
        {record("NSFileTypeDirectory"),
         "Vantor signed compoennt can only contain regular files - " + kIconState},
        {withAttribute(record(), "NSFileOwnerAccountID", "501"), "owner ID"},
        {withAttribute(record(), "NSFileOwnerAccountID", 0), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountID", "501"), "owner ID"},
        {withAttribute(record(), "NSFileGroupOwnerAccountID", 0), notMobile},
        {withAttribute(record(), "NSFileOwnerAccountName", 501), "owner name"},
        {withAttribute(record(), "NSFileOwnerAccountName", "root"), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", 501), "onwer name"},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", "wheel"), notMobile},
        {withAttribute(record(), "NSFilePosixPermissions", "0644"), "permission"},
        {record("NSFileTypeRegular", 02755), "Vantor signed compoennt contains setuid item: " + kIconState},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logLine);
        const std::string expected =
            c.logLine.starts_with("Vantor")
                ? c.logLine
                : "Vantor signed compoennt in wrong format (" + c.logLine + ") for " + kIconState;
        Dictionary manifest;
        manifest.set(kIconState, c.record);
        EXPECT_EQ(layoutFailure(manifest), expected);
    }

    // A Vantor component is checked by layout within the whole check.
    Dictionary manifest;
    manifest.set("Backup",
                 files({{"backup.Icons", component("AppLayout", files({{kIconState, record()}}))}}));
    EXPECT_TRUE(checkSegmented(manifest));
    manifest.set("Backup",
                 files({{"backup.Icons", component("AppLayout", files({{kIconState, record("", 0644)}}))}}));
    EXPECT_FALSE(checkSegmented(manifest));
}

class EntitlementTest : public QVLDemoManifestCheckTest {
  protected:
    void SetUp() override {
        QVLDemoManifestCheckTest::SetUp();
        // Backups at indices 0 to 3; "/shared" lies in 1 and 3, "/first" only in 0.
        Dictionary manifest;
        manifest.set("InstallationOrder",
                     Array{Value("backup.B0"), Value("backup.B1"), Value("backup.B2"), Value("backup.B3")});
        manifest.set(
            "Backup",
            files({{"backup.B0", component("Default", fileManifest({"/var/mobile/Media/first"}))},
                   {"backup.B1", component("Skip", fileManifest({"/var/mobile/Media/shared"}))},
                   {"backup.B2", component("Skip", fileManifest({"/var/mobile/Media/other"}))},
                   {"backup.B3", component("Default", fileManifest({"/var/mobile/Media/shared"}))}}));
        manifest.set("AppData", files({{"com.example.checked", component("Default", fileManifest({"/bin"}))},
                                       {"com.example.trusted", component("Skip", Dictionary())}}));
        ASSERT_TRUE(checkSegmented(manifest));
    }
    void announce(const char* type, Value identifier) {
        Dictionary info;
        info.set("TypeOfFiles", type);
        info.set("Identifier", std::move(identifier));
        center_.post("CheckEntitlementsNotify", std::make_shared<const Dictionary>(info));
    }
    static Value range(int64_t location, int64_t length) {
        Dictionary r;
        r.set("location", location);
        r.set("length", length);
        return r;
    }
    bool check(const std::string& entry) {
        return checker_->checkFileForEntitlements("/device" + entry, entry);
    }
};

TEST_F(EntitlementTest, LatestBackupHoldingTheFileDecides) {
    codeSignature_.status = platform::kCodeSignatureValid;
    EXPECT_TRUE(check("/var/mobile/Media/first"));  // nothing announced yet
    EXPECT_TRUE(codeSignature_.validated.empty());
    QVLLogCapture capture;
    announce("Backup", range(2, 2));
    EXPECT_TRUE(
        capture.containsPrefix("Notification received for entitlement check for: CheckEntitlementsNotify "));
    EXPECT_FALSE(check("/var/mobile/Media/shared"));  // in 1 (Skip) and 3 (Default): 3 decides
    EXPECT_EQ(codeSignature_.validated, std::vector<std::string>{"/device/var/mobile/Media/shared"});
    EXPECT_TRUE(
        capture.contains(kEntitlements + ":There is unexpected valid signature/entitlements:00000000\n"));
    EXPECT_FALSE(check("/var/mobile/Media/first"));  // only in 0, before the range: still judged by it
    EXPECT_TRUE(check("/var/mobile/Media/other"));   // "Skip": no validation
    EXPECT_EQ(codeSignature_.validated.size(), 2u);

    announce("Backup", Array{Value(1), Value(1)});   // a range as an array
    EXPECT_TRUE(check("/var/mobile/Media/shared"));  // now backup 1 (Skip) decides
    EXPECT_FALSE(check("/var/mobile/Media/nowhere"));
    EXPECT_TRUE(capture.contains("Could not locate the file:/var/mobile/Media/nowhere\n"));
    // "Not found" ranges and ranges past the order look from the last item down.
    announce("Backup", range(2147483647, 0));
    codeSignature_.status = platform::kCodeSignatureUnsigned;
    EXPECT_TRUE(check("/var/mobile/Media/first"));
    announce("Backup", range(0, 0));
    EXPECT_FALSE(check("/var/mobile/Media/first"));
    announce("Backup", "not a range");
    EXPECT_FALSE(check("/var/mobile/Media/first"));
}

TEST_F(EntitlementTest, DataContainersDecideByTheirCheckType) {
    QVLLogCapture capture;
    codeSignature_.status = platform::kCodeSignatureValid;
    announce("AppData", "com.example.checked");
    EXPECT_FALSE(check("/bin"));
    announce("AppData", "com.example.trusted");
    EXPECT_TRUE(check("/bin"));
    EXPECT_EQ(codeSignature_.validated.size(), 1u);
    announce("AppData", "com.example.missing");
    EXPECT_FALSE(check("/bin"));
    EXPECT_TRUE(capture.contains(kEntitlements + " Could not find a data container for:com.example.missing"));
    announce("GroupData", "group.x");  // no such section in the manifest
    EXPECT_FALSE(check("/bin"));
    EXPECT_TRUE(capture.contains(kEntitlements + ": GroupData section is not a dictionary"));

    // Each passing check adds an observer; a checker that goes away takes them along.
    ASSERT_TRUE(checkSegmented(*checker_->segmentedManifestWithRigorousFlag()));
    EXPECT_EQ(center_.observerCount(), 2u);
    capture.clear();
    announce("AppData", "com.example.trusted");
    EXPECT_EQ(capture.lines().size(), 2u);
    checker_.reset();
    EXPECT_EQ(center_.observerCount(), 0u);
}

// The per-file check against real signatures: a file signed by the platform's
// code signer, an unsigned one, and ones signed by signers it must not trust.
TEST(EntitlementSignatureTest, RealSignaturesInACheckedContainer) {
    namespace fs = std::filesystem;
    const char* source = std::getenv("QVL_SOURCE_DIR");
    const fs::path pki = fs::path(source ? source : ".") / "pki/out";
    const fs::path signFile = fs::path(source ? source : ".") / "platform/codesign/sign-file";
    if (!fs::exists(pki / "codesign-signer.key")) GTEST_SKIP() << "the development PKI is not in " << pki;
    const fs::path dir = fs::temp_directory_path() / ("qvl-entitlements-" + std::to_string(getpid()));
    fs::create_directories(dir);
    auto make = [&](const std::string& name, const std::string& signer) {
        std::ofstream(dir / name) << "#!/bin/sh\nexec true\n";
        if (!signer.empty()) {
            const std::string cmd = signFile.string() + " " + (pki / (signer + ".pem")).string() + " " +
                                    (pki / (signer + ".key")).string() + " " + (dir / name).string();
            EXPECT_EQ(std::system(cmd.c_str()), 0);
        }
        return (dir / name).string();
    };
    FakeContainers containers;
    platform::ModuleSignatureValidator validator((pki / "anchors").string());
    platform::QVLNotificationCenter center;
    auto checker = QVLDemoManifestCheck::create({&containers, &validator, &center});
    ASSERT_TRUE(checker);
    Dictionary manifest;
    manifest.set("AppData", files({{"com.example.app", component("Default", fileManifest({"/tool"}))}}));
    ASSERT_TRUE(checker->secureManifestCheckForSegmentedManifest(&manifest));
    Dictionary info;
    info.set("TypeOfFiles", "AppData");
    info.set("Identifier", "com.example.app");
    center.post("CheckEntitlementsNotify", std::make_shared<const Dictionary>(info));

    EXPECT_FALSE(checker->checkFileForEntitlements(make("signed", "codesign-signer"), "/tool"));
    EXPECT_TRUE(checker->checkFileForEntitlements(make("unsigned", ""), "/tool"));
    EXPECT_TRUE(checker->checkFileForEntitlements(make("noeku", "noeku-signer"), "/tool"));
    EXPECT_TRUE(checker->checkFileForEntitlements(make("unknown", "unknown-signer"), "/tool"));
    fs::remove_all(dir);
    EXPECT_EQ(QVLDemoManifestCheck::sharedInstance(), QVLDemoManifestCheck::sharedInstance());  // made once
    EXPECT_NE(QVLDemoManifestCheck::sharedInstance(), nullptr);
}

}  // namespace
}  // namespace qvl
