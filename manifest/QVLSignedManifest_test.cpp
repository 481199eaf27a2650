#include "manifest/QVLSignedManifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLSignedManifestTestSupport.h"
#include "platform/containers/ContainerLookup.h"
#include "plist/PropertyList.h"
#include "qvald_helper/QVLLogCapture.h"

namespace qvl {
namespace {

namespace fs = std::filesystem;
using namespace qvl::testing;
using plist::Array;
using plist::Data;
using plist::Dictionary;
using plist::Value;

const std::string kInit = "-[QVLSignedManifest initWithNSStream:]";
const std::string kSegmented = "-[QVLSignedManifest verifyManifestSignature:]";
const std::string kMonolithic = "-[QVLSignedManifest verifyMonolithicManifestSignature:]";
const std::string kCreateKey = "-[QVLSignedManifest createPublicKey:usingPolicy:anchors:]";
const std::string kBase = "backup.BaseBackup";

std::string checkTypeOf(const QVLSignedManifest& manifest, const std::string& component) {
    const auto backups = manifest.getBackupList();
    const Dictionary* c = backups ? backups->getDictionary(component) : nullptr;
    const std::string* type = c ? c->getString("RigorousCheckType") : nullptr;
    return type ? *type : "(none)";
}

// A version 2 manifest of `raw` (the raw manifest's sections; "Version" 4 unless given).
Dictionary monolithic(Dictionary raw, const std::string& signer) {
    if (!raw.contains("Version")) raw.set("Version", 4);
    if (!raw.contains("Info")) raw.set("Info", Dictionary());
    const std::string bytes = plist::writeBinary(Value(std::move(raw)));
    return *QVLManifestSigner::monolithicManifest(Data(bytes.begin(), bytes.end()), identity(signer));
}

Dictionary rawManifest() {
    Dictionary entry = files({{"Manifest", fileManifest({"/Documents/c"})}});
    entry.set("CFBundleShortVersionString", "1.0");
    Dictionary raw;
    raw.set("Backup", fileManifest({"/var/mobile/Media/x", "/var/mobile/Media/y"}));
    raw.set("AppData", files({{"com.example.app", entry}}));
    raw.set("ExtensionData", files({{"com.example.ext", fileManifest({"/Library/e"})}}));  // bare entry
    return raw;
}

TEST(QVLSignedManifestTest, EachSignerKindOnProductionAndDevelopmentHardware) {
    const std::string notValid = kSegmented + ": Certificate not valid.";
    const std::string skipping = kSegmented + ":Skipping rigorous manifest testing\n";
    const std::string prodFused = kSegmented + ": Manifest contains UAT component on prodFused device\n";
    const std::string verdict5 = kCreateKey + ": certificate trust evaluation failed: 5";
    const struct {
        const char* signer;
        std::optional<std::string> type;
        std::optional<bool> fuse;  // true: production, false: development, nullopt: no answer
        const char* checkType;     // nullptr: refused
        std::string logLine;
    } cases[] = {
        {"manual-signer", std::nullopt, true, "Skip", skipping},
        {"manual-signer", "Production", false, "Skip", skipping},
        {"auto-signer", std::nullopt, std::nullopt, "Default", "Verifying strong signing"},
        {"uat-signer", "UAT", true, nullptr, prodFused},
        {"uat-signer", "UAT", std::nullopt, nullptr, prodFused},
        {"uat-signer", "UAT", false, "Skip", "Verifying development signing"},
        {"vantor-signer", std::nullopt, true, "AppLayout", verdict5},
        {"expired-signer", std::nullopt, true, nullptr, verdict5},
        {"noeku-signer", std::nullopt, true, nullptr, notValid},
        {"unknown-signer", std::nullopt, false, nullptr, notValid},
        {"uat-signer", std::nullopt, false, nullptr, notValid},  // a test signer must say so
        {"auto-signer", "UAT", false, nullptr, notValid},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.signer) + " fuse " + (c.fuse ? std::to_string(*c.fuse) : "none"));
        TestEnvironment env;
        env.device.fuse = c.fuse;
        QVLLogCapture capture;
        auto manifest = load(segmented(c.signer, c.type), env);
        EXPECT_TRUE(capture.contains(c.logLine));
        const bool rigorous = c.checkType && std::string(c.checkType) != "Skip";
        EXPECT_EQ(env.segmentedChecks, rigorous ? 1 : 0);
        ASSERT_EQ(manifest != nullptr, c.checkType != nullptr);
        if (!manifest) continue;
        EXPECT_EQ(checkTypeOf(*manifest, kBase), c.checkType);
        if (rigorous) {
            EXPECT_EQ(env.lastChecked, manifest->payload());  // the checker sees the payload itself
        }
    }
}

TEST(QVLSignedManifestTest, EveryCertificateIsJudgedAndEachComponentGetsItsSignersType) {
    TestEnvironment env;
    env.device.fuse = true;
    auto outer = segmented("manual-signer");
    sub(outer, "Certificates").set("Test", certificateEntry("uat-signer", "UAT"));
    sub(outer, "Certificates").set("Auto", certificateEntry("auto-signer"));
    outer.set("AppData", files({}));
    sub(outer, "AppData")
        .set("com.example.app",
             signedComponent("com.example.app", "Auto", "auto-signer", fileManifest({"/Documents/d"})));
    auto manifest = load(outer, env);  // an unused test signer is harmless on production hardware
    ASSERT_TRUE(manifest);
    EXPECT_EQ(env.segmentedChecks, 1);
    EXPECT_EQ(checkTypeOf(*manifest, kBase), "Skip");
    EXPECT_EQ(*manifest->getAppDataList()->getDictionary("com.example.app")->getString("RigorousCheckType"),
              "Default");
    env.checksPass = false;
    QVLLogCapture capture;
    EXPECT_FALSE(load(outer, env));
    EXPECT_TRUE(capture.contains("rigorousTesting failed\n"));

    // An invalid certificate refuses the manifest even when nothing uses it.
    env.checksPass = true;
    sub(outer, "Certificates").set("Old", certificateEntry("expired-signer"));
    EXPECT_FALSE(load(outer, env));
    EXPECT_TRUE(capture.contains(kSegmented + ": Certificate not valid."));
}

// Each spoilt manifest is refused with the given log line and keeps no payload.
TEST(QVLSignedManifestTest, LoadingAndVerificationRefusals) {
    const std::string badCertificates =
        kSegmented + ": cannot find certificates, or certificate format not correct.";
    const std::string badSignature = kSegmented + ":signature verification failed for backup.BaseBackup\n";
    auto main = [](Dictionary& o) -> Dictionary& { return sub(sub(o, "Certificates"), "Main"); };
    auto base = [](Dictionary& o) -> Dictionary& { return sub(sub(o, "Backup"), kBase); };
    const struct {
        std::function<void(Dictionary&)> spoil;
        std::string logLine;
    } refusals[] = {
        {[](Dictionary& o) { o.erase("Version"); }, kInit + ": required key (version) not found."},
        {[](Dictionary& o) { o.set("Version", 1); },
         kInit + ": signed manifest version 1 is not supported yet"},
        {[](Dictionary& o) { o.set("Version", 6); },
         kInit + ": signed manifest version 6 is not supported yet"},
        {[](Dictionary& o) { o.set("Version", "5"); },
         kInit + ": signed manifest version 0 is not supported yet"},
        {[](Dictionary& o) { o.erase("Info"); }, kInit + ": no Info section or in wrong format."},
        {[](Dictionary& o) { o.set("InstallationOrder", Array{Value(1)}); },
         kInit + ": InstallationOrder section in wrong format."},
        {[](Dictionary& o) {
             o.set("App", *o.find("Backup"));
             o.erase("Backup");
         },
         kInit + ": no Backup section or in wrong format."},
        {[](Dictionary& o) {
             o.set("InstallationOrder", Array{Value(kBase), Value("backup.More")});
         },
         "InstallationOrder entry count does not match components listed in manifest."},
        {[](Dictionary& o) { o.erase("Certificates"); }, "No certificated found in the manifest\n"},
        {[](Dictionary& o) { o.set("Certificates", Array{}); }, badCertificates},
        {[&](Dictionary& o) { main(o).erase("Certificate"); }, badCertificates},
        {[&](Dictionary& o) { main(o).set("TypeOfSignature", 1); }, badCertificates},
        {[&](Dictionary& o) { main(o).set("Certificate", Array{Value("x")}); },
         kCreateKey + ": Cannot load certificate."},
        {[&](Dictionary& o) { main(o).set("Certificate", Array{}); },
         kCreateKey + ": Cannot create secure trust object: -1"},
        {[&](Dictionary& o) { base(o).set("Certificate", "Other"); },
         kSegmented + ":No matching certificate for Other\n"},
        {[&](Dictionary& o) { sub(base(o), "Manifest").set("/var/evil", record()); }, badSignature},
        {[](Dictionary& o) {  // a component renamed
             sub(o, "Backup").set("backup.Other", *sub(o, "Backup").find(kBase));
             sub(o, "Backup").erase(kBase);
             o.set("InstallationOrder", Array{Value("backup.Other")});
         },
         kSegmented + ":signature verification failed for backup.Other\n"},
        {[&](Dictionary& o) { base(o).set("Signature", "sig"); }, badSignature},
        {[](Dictionary& o) { o.set("GroupData", Array{Value(1)}); },
         kSegmented + ": GroupData section in wrong format."},
        {[](Dictionary& o) { sub(o, "Backup").set(kBase, Data{1}); },
         kSegmented + ": component backup.BaseBackup in wrong format."},
    };
    TestEnvironment env;
    auto refused = [&](const std::string& bytes, const std::string& line) {
        QVLLogCapture capture;
        QVLSignedManifest manifest(env.services());
        EXPECT_FALSE(manifest.initWithBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}));
        EXPECT_TRUE(capture.contains(line)) << (capture.lines().empty() ? "" : capture.lines().back());
        EXPECT_FALSE(manifest.payload());
    };
    for (const auto& r : refusals) {
        SCOPED_TRACE(r.logLine);
        auto outer = segmented("manual-signer");
        r.spoil(outer);
        refused(plist::writeBinary(Value(outer)), r.logLine);
    }
    refused(plist::writeBinary(Value(Array{Value(1)})), kInit + ": format not correct.");
    refused("", kInit + ": Cannot convert to property list - property list is empty(0x1).");

    // Version 2: only the payload and the signer matter.
    const auto outer = monolithic(rawManifest(), "manual-signer");
    auto spoilt = outer;
    spoilt.set("Certificate", "x");
    refused(plist::writeBinary(Value(spoilt)),
            kMonolithic + ": cannot find certificates, or certificate format not correct.");
    spoilt = outer;
    spoilt.erase("Payload");
    refused(plist::writeBinary(Value(spoilt)), kMonolithic + ": Manifest format not correct.");
    Dictionary raw5;
    raw5.set("Version", 5);
    refused(plist::writeBinary(Value(monolithic(raw5, "manual-signer"))),
            kMonolithic + ":Raw manifest version:5 for monolithic manifest is not supported.");
    const std::string arrayBytes = plist::writeBinary(Value(Array{Value(1)}));
    refused(plist::writeBinary(Value(*QVLManifestSigner::monolithicManifest(
                Data(arrayBytes.begin(), arrayBytes.end()), identity("manual-signer")))),
            kMonolithic + ": rawManifest format not correct.");
    spoilt = outer;
    Data payload = *spoilt.getData("Payload");
    payload[payload.size() / 2] ^= 1;
    spoilt.set("Payload", payload);
    EXPECT_FALSE(load(spoilt, env));

    auto services = env.services();
    services.manifestVerifier = {};  // without a content checker nothing loads
    QVLLogCapture capture;
    EXPECT_FALSE(loadsWith(services, segmented("manual-signer")));
    EXPECT_TRUE(capture.contains("Could not initialize manifestVerifier\n"));
}

// Manifests of the auto signing key, so that every content check runs: each
// attack is refused with its line, the manifest an honest signer makes of the
// same content is accepted.
TEST(QVLSignedManifestTest, AttacksBesideWhatHonestSignersMake) {
    std::string signer = "auto-signer";
    auto signedAs = [&](const std::string& section, const std::string& name, const Value& content) {
        auto outer = segmented(signer);
        if (section == "Backup") {
            sub(outer, "Backup").set(kBase, signedComponent(kBase, "Main", signer, content));
        } else {
            outer.set(section, files({}));
            sub(outer, section).set(name, signedComponent(name, "Main", signer, content));
        }
        return outer;
    };
    auto backup = [&](const Dictionary& content) { return signedAs("Backup", kBase, content); };
    const std::string climbing = "/../../../../etc/sudoers";
    const std::string notCanonical =
        climbing + " is not an absolute path without empty, \".\" or \"..\" parts.";
    const std::string books = "/var/mobile/Media/Books/x";
    const char* link = "NSFileTypeSymbolicLink";
    const struct {
        std::function<Dictionary(bool attack)> make;
        std::string logLine;
    } attacks[] = {
        {[&](bool attack) {  // a record put into a component whose manifest was dropped after signing
             const std::string prefs = "/var/root/Library/Preferences/";
             auto outer = backup(attack ? Dictionary() : fileManifest({prefs + "com.example.plist"}));
             if (attack) {
                 sub(sub(outer, "Backup"), kBase).erase("Manifest");
                 sub(sub(outer, "Backup"), kBase).set(prefs + "evil", record("NSFileTypeRegular", 04755));
             }
             return outer;
         },
         kSegmented +
             ": component backup.BaseBackup holds the unsigned key /var/root/Library/Preferences/evil."},
        {[&](bool attack) {  // version 2: a bare "AppData" entry is inspected like a wrapped one
             Dictionary raw = rawManifest();
             if (attack)
                 sub(raw, "AppData")
                     .set("com.example.app", files({{climbing, record("NSFileTypeRegular", 04755)}}));
             raw.set("GroupData", files({{"group.x", files({{"Manifest", fileManifest({"/Library/g"})}})}}));
             return monolithic(raw, signer);
         },
         notCanonical},
        {[&](bool attack) {
             return signedAs("AppData", "com.example.app",
                             files({{attack ? climbing : "/Library/Preferences/x.plist",
                                     record("NSFileTypeRegular", 0666)}}));
         },
         notCanonical},
        {[&](bool attack) {
             return backup(fileManifest({attack ? "/var/mobile/MediaEvil/x" : "/var/mobile/Media/x"}));
         },
         "-[WhitelistChecker checkManifest:]:/var/mobile/MediaEvil/x failed the check."},
        {[&](bool attack) {
             const auto folder = record("NSFileTypeDirectory", attack ? 0777 : 0755);
             return backup(files({{"/", folder}, {"/var", folder}, {"/var/mobile/Media/x", record()}}));
         },
         "/var is a folder above an allowed place, so it must be a directory without group or other write "
         "and without set-id bits."},
        {[&](bool attack) {
             const std::string zone = "/var/db/timezone/zoneinfo/";
             return backup(
                 files({{"/var/db/timezone/localtime",
                         record(link, 0755, zone + (attack ? "../../../../etc/shadow" : "Europe/Paris"))}}));
         },
         "Not a valid fileType(NSFileTypeSymbolicLink) for file:/var/db/timezone/localtime"},
        {[&](bool attack) {
             return backup(
                 files({{books, record(link, 0755, attack ? "OPS/images/../../../../etc" : "OPS/images")}}));
         },
         "Not a valid fileType(NSFileTypeSymbolicLink) for file:" + books},
        {[&](bool attack) {
             return backup(files({{books, record(link, 0755, "OPS/images")},
                                  {attack ? books + "/sudoers" : books + "-sudoers", record()}}));
         },
         "File " + books + "/sudoers lies below the symbolic link " + books},
    };
    platform::FileContainerLookup containers(platform::FileContainerLookup::kDefaultRoot, true);
    auto checker = QVLDemoManifestCheck::create({&containers});
    ASSERT_TRUE(checker);
    TestEnvironment env;
    auto services = env.services();
    services.manifestVerifier = QVLSignedManifest::contentChecksOf(*checker);
    for (const auto& a : attacks) {
        SCOPED_TRACE(a.logLine);
        QVLLogCapture capture;
        EXPECT_TRUE(loadsWith(services, a.make(false)));
        EXPECT_FALSE(loadsWith(services, a.make(true)));
        EXPECT_TRUE(capture.contains(a.logLine)) << (capture.lines().empty() ? "" : capture.lines().back());
    }
    signer = "manual-signer";  // content the manual key signs is not inspected
    EXPECT_TRUE(loadsWith(services, attacks[2].make(true)));
}

TEST(QVLSignedManifestTest, TrustServiceFailuresRefuseTheSigner) {
    class FaultyTrust : public platform::TrustService {
      public:
        using TrustService::TrustService;
        bool noPolicy = false, noKey = false;
        int anchorsStatus = 0, evaluateStatus = 0;
        std::optional<int> forcedVerdict;
        std::optional<platform::TrustPolicy> createPolicy(platform::TrustPolicy p) const override {
            return noPolicy ? std::nullopt : std::optional(p);
        }
        int setAnchors(platform::Trust& t, const std::vector<platform::CertificateRef>& a) const override {
            return anchorsStatus ? anchorsStatus : TrustService::setAnchors(t, a);
        }
        platform::PublicKeyRef copyPublicKey(const platform::Trust& t) const override {
            return noKey ? nullptr : TrustService::copyPublicKey(t);
        }
        int evaluate(platform::Trust& t, int* verdict) const override {
            if (evaluateStatus) return evaluateStatus;
            const int status = TrustService::evaluate(t, verdict);
            if (forcedVerdict) *verdict = *forcedVerdict;
            return status;
        }
    };
    const struct {
        const char* signer;
        std::function<void(FaultyTrust&)> inject;
        std::string logLine;  // "": the load succeeds
    } faults[] = {
        {"manual-signer", [](FaultyTrust& f) { f.forcedVerdict = 6; },
         kCreateKey + ": certificate trust evaluation failed: 6"},
        {"manual-signer", [](FaultyTrust& f) { f.evaluateStatus = 7; },
         kCreateKey + ": Cannot evaluate trust: 7"},
        {"manual-signer", [](FaultyTrust& f) { f.noPolicy = true; },
         "-[QVLSignedManifest createPublicKeyForStrongSigning:]: Cannot create policy."},
        {"manual-signer", [](FaultyTrust& f) { f.noKey = true; },
         kCreateKey + ": Cannot extract public key."},
        {"manual-signer", [](FaultyTrust& f) { f.anchorsStatus = 9; },
         ""},  // only the Vantor key sets anchors
        {"vantor-signer", [](FaultyTrust& f) { f.anchorsStatus = 9; },
         kCreateKey + ": Cannot set anchor certificates: 9"},
        {"manual-signer", [](FaultyTrust& f) { f.forcedVerdict = 1; }, ""},  // proceed, like unspecified
    };
    for (const auto& f : faults) {
        SCOPED_TRACE(std::string(f.signer) + " / " + f.logLine);
        TestEnvironment env;
        FaultyTrust faulty(pkiPath("anchors"));
        f.inject(faulty);
        auto services = env.services();
        services.trust = &faulty;
        QVLLogCapture capture;
        EXPECT_EQ(loadsWith(services, segmented(f.signer)), f.logLine.empty());
        if (!f.logLine.empty()) {
            EXPECT_TRUE(capture.contains(f.logLine));
        }
    }
}

// backup.A, backup.B, app.x, backup.C; "/shared" lies in A and B.
Dictionary groupedManifest() {
    auto outer = segmented("manual-signer");
    auto b = fileManifest({"/shared", "/only-b"});
    b.set("/shared", record("NSFileTypeRegular", 0600));
    Dictionary backups;
    backups.set("backup.A",
                signedComponent("backup.A", "Main", "manual-signer", fileManifest({"/shared", "/only-a"})));
    backups.set("backup.B", signedComponent("backup.B", "Main", "manual-signer", b));
    // Without a dictionary under "Manifest" a component stands for an empty manifest.
    backups.set("backup.C", signedComponent("backup.C", "Main", "manual-signer", Value("not a manifest")));
    outer.set("Backup", backups);
    outer.set("App", files({}));
    sub(outer, "App").set("app.x", signedComponent("app.x", "Main", "manual-signer", fileManifest({"/app"})));
    outer.set("InstallationOrder",
              Array{Value("backup.A"), Value("backup.B"), Value("app.x"), Value("backup.C")});
    return outer;
}

TEST(QVLSignedManifestTest, GroupedBackupRangesAndMergedManifests) {
    TestEnvironment env;
    auto manifest = load(groupedManifest(), env);
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->rangeOfGroupedBackups(0), (QVLRange{0, 2}));
    EXPECT_EQ(manifest->rangeOfGroupedBackups(1), (QVLRange{1, 1}));
    EXPECT_EQ(manifest->rangeOfGroupedBackups(3), (QVLRange{3, 1}));
    QVLLogCapture capture;
    EXPECT_EQ(manifest->rangeOfGroupedBackups(2), (QVLRange{QVLRange::kNotFound, 0}));
    EXPECT_TRUE(capture.contains("Start item is not a backup."));
    EXPECT_EQ(manifest->rangeOfGroupedBackups(4), (QVLRange{QVLRange::kNotFound, 0}));
    EXPECT_EQ(manifest->getBackup(), nullptr);
    EXPECT_TRUE(capture.contains("getBackup is only for old manifest."));

    auto merged = manifest->mergedBackupManifest({0, 2});
    EXPECT_TRUE(capture.contains("Merging manifest item [0..2)"));
    ASSERT_TRUE(merged);
    EXPECT_EQ(merged->size(), 3u);
    EXPECT_EQ(Value(*merged->find("/shared")),
              Value(record("NSFileTypeRegular", 0600)));  // the later backup's
    EXPECT_EQ(manifest->mergedBackupManifest({1, 3})->size(),
              2u);  // an app and a manifest-less backup add nothing
    EXPECT_TRUE(manifest->mergedBackupManifest({4, 0})->empty());
    EXPECT_EQ(manifest->mergedBackupManifest({3, 2}), nullptr);  // outside the installation order
    EXPECT_EQ(manifest->mergedBackupManifest({0xFFFFFFFF, 2}), nullptr);

    // Older segmented versions use the whole backup section.
    auto outer = groupedManifest();
    outer.set("Version", 4);
    manifest = load(outer, env);
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->getBackup()->size(), 3u);
    EXPECT_EQ(manifest->mergedBackupManifest({7, 9}), manifest->getBackup());
    EXPECT_EQ(manifest->rangeOfGroupedBackups(2), (QVLRange{2, 1}));
    EXPECT_EQ(manifest->getBackupList()->size(), 1u);
}

TEST(QVLSignedManifestTest, MonolithicSignersAndTheOldLayout) {
    TestEnvironment env;
    QVLLogCapture capture;
    auto manifest = load(monolithic(rawManifest(), "manual-signer"), env);
    ASSERT_TRUE(manifest);
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the manual key. Bypassing checking\n"));
    EXPECT_EQ(manifest->getVersion(), 4);
    EXPECT_EQ(Value(*manifest->getBackupList()), Value(files({{kBase, *manifest->getBackup()}})));
    EXPECT_EQ(manifest->mergedBackupManifest({5, 5}), manifest->getBackup());
    // Entries of the old layout are wrapped or bare.
    EXPECT_EQ(manifest->fileManifestOf(*manifest->getAppDataList()->find("com.example.app"))->size(), 1u);
    EXPECT_TRUE(manifest->fileManifestOf(*manifest->getPlugInDataList()->find("com.example.ext"))
                    ->contains("/Library/e"));
    EXPECT_EQ(env.unsegmentedChecks, 0);

    EXPECT_TRUE(load(monolithic(rawManifest(), "auto-signer"), env));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the auto signing key. Running rigorous checks\n"));
    EXPECT_EQ(env.unsegmentedChecks, 1);
    env.checksPass = false;
    EXPECT_FALSE(load(monolithic(rawManifest(), "auto-signer"), env));

    env.device.fuse = false;
    EXPECT_TRUE(load(monolithic(rawManifest(), "uat-signer"), env));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Test Signed"));
    EXPECT_FALSE(load(monolithic(rawManifest(), "vantor-signer"), env));  // not accepted in this form
    env.device.fuse = true;
    EXPECT_FALSE(load(monolithic(rawManifest(), "uat-signer"), env));
    EXPECT_TRUE(capture.contains(kMonolithic + ": Certificate not valid."));
}

TEST(QVLSignedManifestTest, CountRuleAndOrderItems) {
    TestEnvironment env;
    auto outer = segmented("manual-signer");
    outer.set("App", files({}));
    sub(outer, "App").set("app.x", signedComponent("app.x", "Main", "manual-signer", fileManifest({"/a"})));
    outer.set("InstallationOrder", Array{Value(kBase), Value("systemappdata"), Value("app.x")});
    EXPECT_TRUE(load(outer, env));
    outer.set("InstallationOrder",
              Array{Value(kBase), Value("systemappdata"), Value("systemappdata"), Value("app.x")});
    EXPECT_FALSE(load(outer, env));  // "systemappdata" counts once
    outer.erase("InstallationOrder");
    outer.erase("Backup");  // without an installation order, Backup and App are not looked at
    EXPECT_TRUE(load(outer, env));

    EXPECT_TRUE(QVLSignedManifest::isItemBackup("backup.BaseBackup"));
    EXPECT_FALSE(QVLSignedManifest::isItemBackup("app.backup."));
    EXPECT_TRUE(QVLSignedManifest::isItemSystemAppData("systemappdata"));
    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("app.com.example"), "com.example");
    QVLLogCapture capture;
    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("backup.x"), std::nullopt);
    EXPECT_TRUE(capture.contains("Wrong app identifer to install: backup.x"));
}

// Runs a shell command; false when it did not exit 0.
bool run(const std::string& command) {
    return system(command.c_str()) == 0;
}

class ExternalToolsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/manifest-tools-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string file(const std::string& name) { return dir_ + "/" + name; }
    void writeFile(const std::string& name, std::span<const uint8_t> bytes) {
        std::ofstream(file(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    Data readFile(const std::string& name) {
        std::ifstream in(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    std::string dir_;
};

TEST_F(ExternalToolsTest, SignaturesMadeByOpenSSLVerify) {
    if (!run("command -v openssl >/dev/null")) GTEST_SKIP() << "openssl command not installed";
    TestEnvironment env;
    auto outer = segmented("auto-signer");
    Dictionary& component = sub(sub(outer, "Backup"), kBase);
    writeFile("digest.bin", *QVLComponentDigest(kBase, component.find("Manifest")));
    ASSERT_TRUE(run("openssl pkeyutl -sign -inkey " + pkiPath("auto-signer.key") +
                    " -pkeyopt digest:sha1 -in " + file("digest.bin") + " -out " + file("sig.bin")));
    component.set("Signature", readFile("sig.bin"));
    EXPECT_TRUE(load(outer, env));

    // A monolithic payload signed whole.
    auto monolithicOuter = monolithic(rawManifest(), "manual-signer");
    writeFile("payload.bin", *monolithicOuter.getData("Payload"));
    ASSERT_TRUE(run("openssl dgst -sha1 -sign " + pkiPath("manual-signer.key") + " -out " + file("sig.bin") +
                    " " + file("payload.bin")));
    monolithicOuter.set("Signature", readFile("sig.bin"));
    EXPECT_TRUE(load(monolithicOuter, env));
}

TEST_F(ExternalToolsTest, ManifestRewrittenByPythonPlistlibLoadsFromAnOpenFile) {
    if (!run("python3 -c 'import plistlib' 2>/dev/null"))
        GTEST_SKIP() << "python3 with plistlib not available";
    TestEnvironment env;
    const std::string xml = plist::writeXML(Value(groupedManifest()));
    writeFile("ours.plist", {reinterpret_cast<const uint8_t*>(xml.data()), xml.size()});
    for (const char* format : {"FMT_BINARY", "FMT_XML"}) {
        SCOPED_TRACE(format);
        ASSERT_TRUE(
            run("python3 -c 'import plistlib,sys; v=plistlib.load(open(sys.argv[1],\"rb\")); "
                "plistlib.dump(v, open(sys.argv[2],\"wb\"), fmt=plistlib." +
                std::string(format) + ")' " + file("ours.plist") + " " + file("python.plist")));
        const int fd = open(file("python.plist").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        auto manifest = QVLSignedManifest::signedManifestWithNSStream(fd, env.services());
        EXPECT_NE(fcntl(fd, F_GETFD), -1);  // left open for the caller
        close(fd);
        ASSERT_TRUE(manifest);
        EXPECT_EQ(manifest->mergedBackupManifest({0, 2})->size(), 3u);
    }
}

}  // namespace
}  // namespace qvl
