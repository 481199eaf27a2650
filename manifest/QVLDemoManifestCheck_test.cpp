#include "manifest/QVLDemoManifestCheck.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "metadata/WhitelistChecker.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/notify/QVLNotificationCenter.h"
#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

constexpr const char* kRun = "-[QVLDemoManifestCheck runSecurityCheck]";
constexpr const char* kIconState = "/var/mobile/Library/Tessaro/IconState.plist";

// A file record as the device manifest writes it.
Dictionary record(const char* type = "NSFileTypeRegular", int64_t mode = 0644, std::string target = "") {
    Dictionary attributes;
    attributes.set("NSFileType", type);
    attributes.set("NSFilePosixPermissions", mode);
    attributes.set("NSFileOwnerAccountID", 501);
    attributes.set("NSFileGroupOwnerAccountID", 501);
    attributes.set("NSFileOwnerAccountName", "mobile");
    attributes.set("NSFileGroupOwnerAccountName", "mobile");
    Dictionary r;
    r.set("QVLManifestFileAttributes", attributes);
    r.set("QVLManifestFileExtendedAttributes", Dictionary());
    r.set("QVLManifestFileHash", Data(20, 0xab));
    r.set("QVLManifestSymbolicLinkTargetFile", std::move(target));
    return r;
}

// `d` with `key` set, or removed when `value` is empty.
Dictionary with(Dictionary d, const char* key, std::optional<Value> value) {
    if (value)
        d.set(key, std::move(*value));
    else
        d.erase(key);
    return d;
}

Dictionary withAttribute(const Dictionary& r, const char* key, std::optional<Value> value) {
    return with(r, "QVLManifestFileAttributes",
                with(*r.getDictionary("QVLManifestFileAttributes"), key, value));
}

Dictionary files(std::initializer_list<std::pair<std::string, Dictionary>> entries) {
    Dictionary d;
    for (const auto& [path, r] : entries) d.set(path, r);
    return d;
}

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

    // The general checks of one file in one section.
    bool checkOne(const char* sectionName, const std::string& path, const Dictionary& r) {
        const Value manifest(files({{path, r}}));
        return checker_->runSecurityChecksForSection(&manifest, sectionName);
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

TEST_F(QVLDemoManifestCheckTest, SetIdBitsAreRefusedInEverySection) {
    QVLLogCapture capture;
    EXPECT_FALSE(checkOne("Backup", "/var/mobile/Media/tool", record("NSFileTypeRegular", 04755)));
    EXPECT_TRUE(capture.contains("File permissions failed for file:/var/mobile/Media/tool(2541)"));
    EXPECT_FALSE(checkOne("AppData", "/Documents/tool", record("NSFileTypeRegular", 02755)));
    EXPECT_TRUE(capture.contains("File permissions failed for file:/Documents/tool(1517)"));
    // The sticky bit and ordinary bits are not restricted.
    EXPECT_TRUE(checkOne("Backup", "/var/mobile/Media/shared", record("NSFileTypeDirectory", 01777)));
    // A mode that is not a number is refused; no mode at all restores none.
    EXPECT_FALSE(checkOne("GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", "0644")));
    EXPECT_TRUE(capture.contains("File permissions failed for file:/x(-1)"));
    EXPECT_TRUE(checkOne("GroupData", "/x", withAttribute(record(), "NSFilePosixPermissions", std::nullopt)));
}

TEST_F(QVLDemoManifestCheckTest, FileTypesAndMissingAttributes) {
    QVLLogCapture capture;
    for (const char* sectionName : {"Backup", "AppData", "GroupData", "ExtensionData"}) {
        EXPECT_FALSE(checkOne(sectionName, "/var/mobile/Media/s", record("NSFileTypeSocket"))) << sectionName;
        EXPECT_FALSE(checkOne(sectionName, "/var/mobile/Media/d", record("NSFileTypeCharacterSpecial")));
        EXPECT_TRUE(checkOne(sectionName, "/var/mobile/Media/f", record("NSFileTypeRegular")));
        EXPECT_TRUE(checkOne(sectionName, "/var/mobile/Media/dir", record("NSFileTypeDirectory")));
    }
    EXPECT_TRUE(capture.contains("Not a valid fileType(NSFileTypeSocket) for file:/var/mobile/Media/s"));

    EXPECT_FALSE(checkOne("AppData", "/notype", withAttribute(record(), "NSFileType", std::nullopt)));
    EXPECT_TRUE(capture.containsPrefix("Not a valid fileType("));

    Dictionary noAttributes = record();
    noAttributes.erase("QVLManifestFileAttributes");
    EXPECT_FALSE(checkOne("AppData", "/bare", noAttributes));
    EXPECT_TRUE(capture.contains("File attributes are nil for /bare"));

    // A file manifest or record of the wrong kind fails; a missing or empty one passes.
    const Value notAManifest("files");
    EXPECT_FALSE(checker_->runSecurityChecksForSection(&notAManifest, "AppData"));
    Dictionary stringRecord;
    stringRecord.set("/x", "record");
    const Value badRecord(stringRecord);
    EXPECT_FALSE(checker_->runSecurityChecksForSection(&badRecord, "AppData"));
    const Value empty{Dictionary()};
    EXPECT_TRUE(checker_->runSecurityChecksForSection(&empty, "Backup"));
    EXPECT_TRUE(checker_->runSecurityChecksForSection(nullptr, "Backup"));
}

TEST_F(QVLDemoManifestCheckTest, SymbolicLinksInBackupsFollowTheTable) {
    QVLLogCapture capture;
    const char* link = "NSFileTypeSymbolicLink";
    EXPECT_TRUE(checkOne("Backup", "/var/db/timezone/localtime",
                         record(link, 0755, "/var/db/timezone/zoneinfo/Europe/Paris")));
    EXPECT_FALSE(checkOne("Backup", "/var/db/timezone/localtime", record(link, 0755, "/etc/shadow")));
    EXPECT_TRUE(
        capture.contains("Not a valid fileType(NSFileTypeSymbolicLink) for file:/var/db/timezone/localtime"));
    EXPECT_TRUE(checkOne("Backup", "/var/mobile/Media/Books/b.epub/cover.jpg",
                         record(link, 0755, "OPS/images/c.jpg")));
    EXPECT_TRUE(checkOne("Backup", "/var/mobile/Library/Preferences/com.ostrel.carrier.plist",
                         record(link, 0755, "/var/mobile/Library/Carrier Bundles/Overlay/x.plist")));
    // A target allowed for one row does not serve another row's path.
    EXPECT_FALSE(
        checkOne("Backup", "/var/mobile/Media/Books/b", record(link, 0755, "/var/db/timezone/zoneinfo/UTC")));
    // A link record without a target text is refused.
    Dictionary noTarget = record(link);
    noTarget.erase("QVLManifestSymbolicLinkTargetFile");
    EXPECT_FALSE(checkOne("Backup", "/var/db/timezone/localtime", noTarget));
    // Any link in the data sections.
    for (const char* sectionName : {"AppData", "GroupData", "ExtensionData"}) {
        EXPECT_TRUE(checkOne(sectionName, "/Library/anything", record(link, 0755, "/etc/shadow")))
            << sectionName;
    }
}

TEST_F(QVLDemoManifestCheckTest, BackupDomainsAnnotationsAndSystemContainers) {
    QVLLogCapture capture;
    EXPECT_FALSE(checkOne("Backup", "/etc/passwd", record()));
    EXPECT_TRUE(capture.contains("-[WhitelistChecker checkManifest:]:/etc/passwd failed the check."));
    EXPECT_TRUE(capture.contains("Whitelist checker failed\n"));
    // Data sections never consult the domains.
    EXPECT_TRUE(checkOne("AppData", "/etc/passwd", record()));

    Dictionary annotated = record();
    Dictionary xattrs;
    const std::string annotation = "NotRestored";
    xattrs.set("MBRestoreAnnotation", Data(annotation.begin(), annotation.end()));
    annotated.set("QVLManifestFileExtendedAttributes", xattrs);
    EXPECT_TRUE(checkOne("Backup", "/etc/passwd", annotated));

    const std::string top = "/var/mobile/Library/Backup/SystemContainers/Data/com.example.health";
    EXPECT_TRUE(checkOne("Backup", top, record("NSFileTypeDirectory", 0755)));
    containers_.excluded = true;
    capture.clear();
    EXPECT_FALSE(checkOne("Backup", top, record("NSFileTypeDirectory", 0755)));
    EXPECT_TRUE(capture.contains("System container check failed for file:" + top));
    EXPECT_TRUE(checkOne("AppData", top, record("NSFileTypeDirectory", 0755)));
}

TEST_F(QVLDemoManifestCheckTest, ComponentsAreVisitedUntilTheFirstFailure) {
    QVLLogCapture capture;
    Dictionary manifest;
    manifest.set("Version", 3);
    manifest.set("App", files({{"com.example.app", component("Bogus", Dictionary())}}));
    manifest.set("AppData", files({{"com.example.ok", component("Skip", Dictionary())},
                                   {"com.example.bad", component("Strict", Dictionary())},
                                   {"com.example.never", component("Also bad", Dictionary())}}));
    EXPECT_FALSE(checkSegmented(manifest));
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "Starting rigorous security checks\n",
            std::string(kRun) + ": Unknown rigorous check type (Strict) for com.example.bad (from AppData).",
            std::string(kRun) + ": Failed rigorous check for:com.example.bad (from AppData)\n",
            std::string(kRun) + ": Security checks failed\n",
            "-[QVLDemoManifestCheck secureManifestCheckForSegmentedManifest:]: Security checks failed\n",
        }));
    // The manifest is kept whatever the verdict; no observer for a failure.
    EXPECT_EQ(checker_->segmentedManifestWithRigorousFlag()->size(), 3u);
    EXPECT_EQ(center_.observerCount(), 0u);

    capture.clear();
    Dictionary good;
    good.set("AppData", files({{"com.example.ok", component("Skip", Dictionary())}}));
    good.set("Backup",
             files({{"backup.A", component("Default", files({{"/var/mobile/Media/x", record()}}))}}));
    EXPECT_TRUE(checkSegmented(good));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "Starting rigorous security checks\n",
                  std::string(kRun) + ":Cleared all checks for manifest. Approving future installations\n",
              }));
    EXPECT_EQ(center_.observerCount(), 1u);
}

TEST_F(QVLDemoManifestCheckTest, ManifestsWithoutCheckedComponentsFail) {
    Dictionary onlyApps;
    onlyApps.set("App", files({{"com.example.app", component("Skip", Dictionary())}}));
    onlyApps.set("Backup", Dictionary());
    EXPECT_FALSE(checkSegmented(onlyApps));
    EXPECT_FALSE(checkSegmented(Dictionary()));

    QVLLogCapture capture;
    EXPECT_FALSE(checker_->secureManifestCheckForSegmentedManifest(std::shared_ptr<const Dictionary>()));
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(nullptr));
    EXPECT_TRUE(
        capture.contains("-[QVLDemoManifestCheck secureManifestCheckForSegmentedManifest:]: Passed a null "
                         "manifest for security checks"));
    EXPECT_TRUE(
        capture.contains("-[QVLDemoManifestCheck secureManifestCheckForUnsegmentedManifest:]: Passed a null "
                         "manifest for security checks"));

    // Sections and components of the wrong kind fail in order.
    Dictionary badSection;
    badSection.set("GroupData", Array{});
    EXPECT_FALSE(checkSegmented(badSection));
    Dictionary badComponent;
    badComponent.set("GroupData", files({}));
    Dictionary components;
    components.set("group.x", "not a component");
    badComponent.set("ExtensionData", components);
    EXPECT_FALSE(checkSegmented(badComponent));
    EXPECT_TRUE(
        capture.contains(std::string(kRun) + ": Failed rigorous check for:group.x (from ExtensionData)\n"));
}

TEST_F(QVLDemoManifestCheckTest, MonolithicManifestsAreConvertedOnACopy) {
    Dictionary appEntry;
    appEntry.set("CFBundleShortVersionString", "2.1");
    appEntry.set("Manifest", files({{"/Documents/a", record()}}));
    appEntry.set("Extra", true);
    Dictionary raw;
    raw.set("Version", 2);
    raw.set("AppData", files({{"com.example.app", appEntry}}));
    raw.set("GroupData", files({{"group.empty", Dictionary()}, {"group.full", files({{"/g", record()}})}}));
    raw.set("Backup", files({{"/var/mobile/Media/m", record()}}));
    raw.set("InstallationOrder", Array{Value("whatever")});

    Dictionary converted = raw;
    ASSERT_TRUE(checker_->unsegmentedToSegmentedWithRigorousFlag(converted));
    Dictionary expectedApp = appEntry;
    expectedApp.erase("CFBundleShortVersionString");
    expectedApp.set("RigorousCheckType", "Default");
    EXPECT_EQ(Value(*converted.getDictionary("AppData")), Value(files({{"com.example.app", expectedApp}})));
    EXPECT_EQ(Value(*converted.getDictionary("GroupData")),
              Value(files({{"group.full", component("Default", files({{"/g", record()}}))}})));
    EXPECT_EQ(Value(*converted.getDictionary("ExtensionData")), Value(Dictionary()));
    EXPECT_EQ(Value(*converted.getDictionary("Backup")),
              Value(files({{"backup.BaseBackup",
                            component("Default", files({{"/var/mobile/Media/m", record()}}))}})));
    EXPECT_EQ(Value(*converted.getArray("InstallationOrder")),
              Value(Array{Value("backup.BaseBackup"), Value("systemappdata")}));
    EXPECT_EQ(*converted.find("Version"), Value(2));

    const Value before(raw);
    EXPECT_TRUE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_EQ(Value(raw), before);
    EXPECT_EQ(Value(*checker_->segmentedManifestWithRigorousFlag()), Value(converted));

    // A data section of the wrong kind survives the conversion and is refused.
    Dictionary oddSection = raw;
    oddSection.set("GroupData", Array{Value("group.x")});
    ASSERT_TRUE(checker_->unsegmentedToSegmentedWithRigorousFlag(oddSection));
    EXPECT_EQ(*oddSection.find("GroupData"), Value(Array{Value("group.x")}));
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&oddSection));

    // Every part of a monolithic manifest is checked by default.
    raw.set("Backup", files({{"/var/mobile/Media/m", record("NSFileTypeRegular", 04755)}}));
    QVLLogCapture capture;
    EXPECT_FALSE(checker_->secureManifestCheckForUnsegmentedManifest(&raw));
    EXPECT_TRUE(capture.contains(std::string(kRun) +
                                 ": Failed rigorous check for:backup.BaseBackup (from Backup)\n"));
}

class LayoutTest : public QVLDemoManifestCheckTest {
  protected:
    // Checks a Vantor component and returns the one log line it wrote ("" for none).
    std::string layoutFailure(const Dictionary& manifest) {
        QVLLogCapture capture;
        const Value v(manifest);
        EXPECT_FALSE(checker_->runAppLayoutSecurityCheck(&v));
        const auto lines = capture.lines();
        return lines.empty() ? "" : lines.back();
    }
};

TEST_F(LayoutTest, OnlyMobileOwnedIconLayoutFiles) {
    const Value good(
        files({{kIconState, record()}, {"/var/mobile/Library/Tessaro/DesiredIconState.plist", record()}}));
    EXPECT_TRUE(checker_->runAppLayoutSecurityCheck(&good));

    const std::string other = "/var/mobile/Library/Preferences/x.plist";
    const std::string notAllowed = other + " is not allowed in Vantor signed component.";
    EXPECT_EQ(layoutFailure(files({{kIconState, record()}, {other, record()}})), notAllowed);
    EXPECT_EQ(layoutFailure(files({{other, record()}, {kIconState, record()}})), notAllowed);
    EXPECT_EQ(layoutFailure(Dictionary()), "");
    EXPECT_FALSE(checker_->runAppLayoutSecurityCheck(nullptr));
    Dictionary stringRecord;
    stringRecord.set(kIconState, "record");
    EXPECT_EQ(layoutFailure(stringRecord),
              std::string("Vantor signed component in wrong format (no manifest) for ") + kIconState);
}

TEST_F(LayoutTest, RecordsAndAttributesOfIconLayoutFiles) {
    const std::string notMobile =
        std::string("Vantor signed compoennt can only contain mobile owned file - ") + kIconState;
    const struct {
        Dictionary record;
        std::string logLine;  // a short text is a wrong format reason
    } cases[] = {
        {with(record(), "Extra", Value(1)), "manifest keys"},
        {with(record(), "QVLManifestFileExtendedAttributes", std::nullopt), "manifest keys"},
        {record("NSFileTypeRegular", 0644, "/etc/shadow"), "symlink target"},
        {with(record(), "QVLManifestFileAttributes", Value("attributes")), "no file attributes"},
        {withAttribute(record(), "NSFileType", Value(1)), "file type"},
        {withAttribute(record(), "NSFileType", Value("NSFileTypeDirectory")),
         std::string("Vantor signed compoennt can only contain regular files - ") + kIconState},
        {withAttribute(record(), "NSFileOwnerAccountID", Value("501")), "owner ID"},
        {withAttribute(record(), "NSFileOwnerAccountID", Value(0)), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountID", Value("501")), "owner ID"},
        {withAttribute(record(), "NSFileGroupOwnerAccountID", Value(0)), notMobile},
        {withAttribute(record(), "NSFileOwnerAccountName", Value(501)), "owner name"},
        {withAttribute(record(), "NSFileOwnerAccountName", Value("root")), notMobile},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", Value(501)), "onwer name"},
        {withAttribute(record(), "NSFileGroupOwnerAccountName", Value("wheel")), notMobile},
        {withAttribute(record(), "NSFilePosixPermissions", Value("0644")), "permission"},
        {withAttribute(record(), "NSFilePosixPermissions", Value(02755)),
         std::string("Vantor signed compoennt contains setuid item: ") + kIconState},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases) + ": " + c.logLine);
        const std::string expected =
            c.logLine.starts_with("Vantor")
                ? c.logLine
                : "Vantor signed compoennt in wrong format (" + c.logLine + ") for " + kIconState;
        EXPECT_EQ(layoutFailure(files({{kIconState, c.record}})), expected);
    }

    // A Vantor component is checked by layout within the whole check.
    Dictionary manifest;
    manifest.set("Backup",
                 files({{"backup.Icons", component("AppLayout", files({{kIconState, cases[9].record}}))}}));
    EXPECT_FALSE(checkSegmented(manifest));
    manifest.set("Backup",
                 files({{"backup.Icons", component("AppLayout", files({{kIconState, record()}}))}}));
    EXPECT_TRUE(checkSegmented(manifest));
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
            files({{"backup.B0", component("Default", files({{"/var/mobile/Media/first", record()}}))},
                   {"backup.B1", component("Skip", files({{"/var/mobile/Media/shared", record()}}))},
                   {"backup.B2", component("Skip", files({{"/var/mobile/Media/other", record()}}))},
                   {"backup.B3", component("Default", files({{"/var/mobile/Media/shared", record()}}))}}));
        manifest.set("AppData",
                     files({{"com.example.checked", component("Default", files({{"/bin", record()}}))},
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
    // In backups 1 (Skip) and 3 (Default): index 3 decides.
    EXPECT_FALSE(check("/var/mobile/Media/shared"));
    EXPECT_EQ(codeSignature_.validated, std::vector<std::string>{"/device/var/mobile/Media/shared"});
    EXPECT_TRUE(
        capture.contains("-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]:"
                         "There is unexpected valid signature/entitlements:00000000\n"));
    // Only in backup 0, before the range: still judged by it.
    EXPECT_FALSE(check("/var/mobile/Media/first"));
    EXPECT_TRUE(check("/var/mobile/Media/other"));  // "Skip": no validation
    EXPECT_EQ(codeSignature_.validated.size(), 2u);

    announce("Backup", Array{Value(1), Value(1)});   // the same range as an array
    EXPECT_TRUE(check("/var/mobile/Media/shared"));  // now backup 1 (Skip) decides
    codeSignature_.status = platform::kCodeSignatureUnsigned;
    announce("Backup", range(0, 4));
    EXPECT_TRUE(check("/var/mobile/Media/shared"));

    EXPECT_FALSE(check("/var/mobile/Media/nowhere"));
    EXPECT_TRUE(capture.contains("Could not locate the file:/var/mobile/Media/nowhere\n"));
    // "Not found" ranges and ranges past the order look from the last item down.
    announce("Backup", range(2147483647, 0));
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
    EXPECT_TRUE(
        capture.contains("-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:] "
                         "Could not find a data container for:com.example.missing"));
    announce("GroupData", "group.x");  // no such section in the manifest
    EXPECT_FALSE(check("/bin"));
    EXPECT_TRUE(
        capture.contains("-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]: "
                         "GroupData section is not a dictionary"));
    announce("App", "com.example.checked");
    EXPECT_FALSE(check("/bin"));
}

TEST_F(EntitlementTest, EachPassingCheckAddsAnObserver) {
    Dictionary again;
    again.set("AppData", files({{"com.example.trusted", component("Skip", Dictionary())}}));
    ASSERT_TRUE(checkSegmented(again));
    EXPECT_EQ(center_.observerCount(), 2u);
    QVLLogCapture capture;
    announce("AppData", "com.example.trusted");
    size_t received = 0;
    for (const auto& line : capture.lines()) received += line.starts_with("Notification received") ? 1 : 0;
    EXPECT_EQ(received, 2u);
    checker_.reset();  // a checker that goes away takes its observers with it
    EXPECT_EQ(center_.observerCount(), 0u);
}

// The per-file check against real signatures: a file signed by the platform's
// code signer, an unsigned one, and ones signed by signers it must not trust.
TEST(EntitlementSignatureTest, RealSignaturesInACheckedContainer) {
    namespace fs = std::filesystem;
    const char* source = std::getenv("QVL_SOURCE_DIR");
    const fs::path pki = fs::path(source ? source : ".") / "pki/out";
    const fs::path signFile = fs::path(source ? source : ".") / "platform/codesign/sign-file";
    if (!fs::exists(pki / "anchors") || !fs::exists(pki / "codesign-signer.key")) {
        GTEST_SKIP() << "the development PKI is not in " << pki;
    }
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
    manifest.set("AppData", files({{"com.example.app", component("Default", files({{"/tool", record()}}))}}));
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
}

TEST(QVLDemoManifestCheckSharedTest, SharedInstanceIsMadeOnce) {
    QVLDemoManifestCheck* first = QVLDemoManifestCheck::sharedInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, QVLDemoManifestCheck::sharedInstance());
    EXPECT_EQ(first->allowedSymLinks().size(), 4u);
    EXPECT_EQ(first->whitelistChecker().domains().size(), 15u);
}

}  // namespace
}  // namespace qvl
