#include "manifest/QVLSignedManifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
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

Dictionary info() {
    Dictionary d;
    d.set("Name", Value("Store demo"));
    return d;
}

// A version 5 manifest: one certificate "Main" of `signer`, one base backup.
Dictionary segmented(const std::string& signer, std::optional<std::string> type = std::nullopt) {
    Dictionary certificates;
    certificates.set("Main", certificateEntry(signer, type));
    Dictionary backups;
    backups.set(kBase,
                signedComponent(kBase, "Main", signer, fileManifest({"/var/mobile/a", "/var/mobile/b"})));
    Dictionary outer;
    outer.set("Version", Value(5));
    outer.set("Certificates", Value(certificates));
    outer.set("Info", Value(info()));
    outer.set("InstallationOrder", Value(Array{Value(kBase)}));
    outer.set("Backup", Value(backups));
    return outer;
}

Dictionary& sub(Dictionary& d, const std::string& key) {
    return *d.find(key)->asDictionary();
}

std::string checkTypeOf(const QVLSignedManifest& manifest, const std::string& component) {
    const auto backups = manifest.getBackupList();
    const Dictionary* c = backups ? backups->getDictionary(component) : nullptr;
    const std::string* type = c ? c->getString("RigorousCheckType") : nullptr;
    return type ? *type : "(none)";
}

// Serializes `outer` and loads it with `services`.
bool loadsWith(const QVLSignedManifest::Services& services, const Dictionary& outer) {
    const std::string bytes = plist::writeBinary(Value(outer));
    QVLSignedManifest manifest(services);
    return manifest.initWithBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct SignerCase {
    const char* signer;
    std::optional<std::string> type;
    std::optional<bool> fuse;  // true: production, false: development, nullopt: no answer
    const char* checkType;     // nullptr: refused
    int rigorousChecks;
    const char* logLine;  // a line the load must log
};

TEST(QVLSignedManifestTest, EachSignerKindOnProductionAndDevelopmentHardware) {
    const std::string notValid = kSegmented + ": Certificate not valid.";
    const std::string skipping = kSegmented + ":Skipping rigorous manifest testing\n";
    const std::string prodFused = kSegmented + ": Manifest contains UAT component on prodFused device\n";
    const std::string verdict5 = kCreateKey + ": certificate trust evaluation failed: 5";
    const SignerCase cases[] = {
        {"manual-signer", std::nullopt, true, "Skip", 0, skipping.c_str()},
        {"manual-signer", "Production", false, "Skip", 0, skipping.c_str()},
        {"auto-signer", std::nullopt, true, "Default", 1, "Verifying strong signing"},
        {"auto-signer", std::nullopt, false, "Default", 1, "Verifying strong signing"},
        {"uat-signer", "UAT", true, nullptr, 0, prodFused.c_str()},
        {"uat-signer", "UAT", std::nullopt, nullptr, 0, prodFused.c_str()},
        {"uat-signer", "UAT", false, "Skip", 0, "Verifying development signing"},
        {"vantor-signer", std::nullopt, true, "AppLayout", 1, verdict5.c_str()},
        {"expired-signer", std::nullopt, true, nullptr, 0, verdict5.c_str()},
        {"noeku-signer", std::nullopt, true, nullptr, 0, notValid.c_str()},
        {"unknown-signer", std::nullopt, false, nullptr, 0, notValid.c_str()},
        {"uat-signer", std::nullopt, false, nullptr, 0, notValid.c_str()},  // a test signer must say so
        {"auto-signer", "UAT", false, nullptr, 0, notValid.c_str()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.signer) + (!c.fuse   ? " on unknown"
                                              : *c.fuse ? " on production"
                                                        : " on development"));
        TestEnvironment env;
        env.device.fuse = c.fuse;
        QVLLogCapture capture;
        auto manifest = load(segmented(c.signer, c.type), env);
        EXPECT_TRUE(capture.contains(c.logLine));
        EXPECT_EQ(env.segmentedChecks, c.rigorousChecks);
        if (!c.checkType) {
            EXPECT_FALSE(manifest);
            continue;
        }
        ASSERT_TRUE(manifest);
        EXPECT_EQ(checkTypeOf(*manifest, kBase), c.checkType);
        // The checker sees the very dictionary that becomes the payload.
        if (c.rigorousChecks) {
            EXPECT_EQ(env.lastChecked, manifest->payload());
        }
    }
}

TEST(QVLSignedManifestTest, EveryCertificateEntryIsJudgedButOnlyUsedOnesMatterForUAT) {
    TestEnvironment env;
    env.setProductionHardware();
    auto outer = segmented("manual-signer");
    sub(outer, "Certificates").set("Test", certificateEntry("uat-signer", "UAT"));
    EXPECT_TRUE(load(outer, env));

    // One component under the test signer refuses the manifest on production hardware.
    sub(outer, "Backup")
        .set("backup.Extra", signedComponent("backup.Extra", "Test", "uat-signer", fileManifest({"/x"})));
    outer.set("InstallationOrder", Value(Array{Value(kBase), Value("backup.Extra")}));
    EXPECT_FALSE(load(outer, env));
    env.setDevelopmentHardware();
    auto manifest = load(outer, env);
    ASSERT_TRUE(manifest);
    EXPECT_EQ(checkTypeOf(*manifest, "backup.Extra"), "Skip");

    // An invalid certificate refuses the manifest even when nothing uses it.
    sub(outer, "Certificates").set("Old", certificateEntry("expired-signer"));
    QVLLogCapture capture;
    EXPECT_FALSE(load(outer, env));
    EXPECT_TRUE(capture.contains(kSegmented + ": Certificate not valid."));
}

TEST(QVLSignedManifestTest, MixedSignersRunTheChecksOnceWithEachComponentsType) {
    TestEnvironment env;
    auto outer = segmented("manual-signer");
    sub(outer, "Certificates").set("Auto", certificateEntry("auto-signer"));
    Dictionary appData;
    appData.set("com.example.app",
                signedComponent("com.example.app", "Auto", "auto-signer", fileManifest({"/d"})));
    outer.set("AppData", Value(appData));
    auto manifest = load(outer, env);
    ASSERT_TRUE(manifest);
    EXPECT_EQ(env.segmentedChecks, 1);
    EXPECT_EQ(checkTypeOf(*manifest, kBase), "Skip");
    EXPECT_EQ(*manifest->getAppDataList()->getDictionary("com.example.app")->getString("RigorousCheckType"),
              "Default");

    env.checksPass = false;
    QVLLogCapture capture;
    EXPECT_FALSE(load(outer, env));
    EXPECT_TRUE(capture.contains("rigorousTesting failed\n"));
}

// Each spoilt manifest is refused with the given log line and keeps no payload.
TEST(QVLSignedManifestTest, LoadingAndVerificationRefusals) {
    const std::string badCertificates =
        kSegmented + ": cannot find certificates, or certificate format not correct.";
    const std::string badSignature = kSegmented + ":signature verification failed for backup.BaseBackup\n";
    auto main = [](Dictionary& o) -> Dictionary& { return sub(sub(o, "Certificates"), "Main"); };
    auto base = [](Dictionary& o) -> Dictionary& { return sub(sub(o, "Backup"), kBase); };
    struct Refusal {
        const char* what;
        std::function<void(Dictionary&)> spoil;
        std::string logLine;
    };
    const Refusal refusals[] = {
        {"no version", [](Dictionary& o) { o.erase("Version"); },
         kInit + ": required key (version) not found."},
        {"version 1", [](Dictionary& o) { o.set("Version", Value(1)); },
         kInit + ": signed manifest version 1 is not supported yet"},
        {"version 6", [](Dictionary& o) { o.set("Version", Value(6)); },
         kInit + ": signed manifest version 6 is not supported yet"},
        {"version text", [](Dictionary& o) { o.set("Version", Value("5")); },
         kInit + ": signed manifest version 0 is not supported yet"},
        {"no info", [](Dictionary& o) { o.erase("Info"); }, kInit + ": no Info section or in wrong format."},
        {"info text", [](Dictionary& o) { o.set("Info", Value("x")); },
         kInit + ": no Info section or in wrong format."},
        {"order text", [](Dictionary& o) { o.set("InstallationOrder", Value(kBase)); },
         kInit + ": InstallationOrder section in wrong format."},
        {"order of numbers", [](Dictionary& o) { o.set("InstallationOrder", Value(Array{Value(1)})); },
         kInit + ": InstallationOrder section in wrong format."},
        {"no backups",
         [](Dictionary& o) {
             o.set("App", *o.find("Backup"));
             o.erase("Backup");
         },
         kInit + ": no Backup section or in wrong format."},
        {"order too long",
         [](Dictionary& o) {
             o.set("InstallationOrder", Value(Array{Value(kBase), Value("backup.More")}));
         },
         "InstallationOrder entry count does not match components listed in manifest."},
        {"no certificates", [](Dictionary& o) { o.erase("Certificates"); },
         "No certificated found in the manifest\n"},
        {"certificates not a dictionary", [](Dictionary& o) { o.set("Certificates", Value(Array{})); },
         badCertificates},
        {"entry without chain", [&](Dictionary& o) { main(o).erase("Certificate"); }, badCertificates},
        {"type not a string", [&](Dictionary& o) { main(o).set("TypeOfSignature", Value(1)); },
         badCertificates},
        {"chain element not data",
         [&](Dictionary& o) { main(o).set("Certificate", Value(Array{Value("x")})); },
         kCreateKey + ": Cannot load certificate."},
        {"empty chain", [&](Dictionary& o) { main(o).set("Certificate", Value(Array{})); },
         kCreateKey + ": Cannot create secure trust object: -1"},
        {"unknown certificate name", [&](Dictionary& o) { base(o).set("Certificate", Value("Other")); },
         kSegmented + ":No matching certificate for Other\n"},
        {"file added after signing",
         [&](Dictionary& o) { sub(base(o), "Manifest").set("/var/evil", fileRecord("/var/evil")); },
         badSignature},
        {"component renamed",
         [](Dictionary& o) {
             Value c = *sub(o, "Backup").find(kBase);
             sub(o, "Backup").erase(kBase);
             sub(o, "Backup").set("backup.Other", c);
             o.set("InstallationOrder", Value(Array{Value("backup.Other")}));
         },
         kSegmented + ":signature verification failed for backup.Other\n"},
        {"signature missing", [&](Dictionary& o) { base(o).erase("Signature"); }, badSignature},
        {"signature not data", [&](Dictionary& o) { base(o).set("Signature", Value("sig")); }, badSignature},
        {"section not a dictionary", [](Dictionary& o) { o.set("GroupData", Value(Array{Value(1)})); },
         kSegmented + ": GroupData section in wrong format."},
        {"component not a dictionary", [](Dictionary& o) { sub(o, "Backup").set(kBase, Value(Data{1})); },
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
        SCOPED_TRACE(r.what);
        auto outer = segmented("manual-signer");
        r.spoil(outer);
        refused(plist::writeBinary(Value(outer)), r.logLine);
    }
    refused(plist::writeBinary(Value(Array{Value(1)})), kInit + ": format not correct.");
    {
        QVLLogCapture capture;
        QVLSignedManifest manifest(env.services());
        EXPECT_FALSE(manifest.initWithBytes(std::span<const uint8_t>()));
        ASSERT_FALSE(capture.lines().empty());
        EXPECT_TRUE(capture.lines().front().starts_with(kInit + ": Cannot convert to property list - "));
        EXPECT_TRUE(capture.lines().front().ends_with("(0x1)."));
    }

    // Without a content checker nothing loads.
    auto services = env.services();
    services.manifestVerifier = {};
    QVLLogCapture capture;
    EXPECT_FALSE(loadsWith(services, segmented("manual-signer")));
    EXPECT_TRUE(capture.contains("Could not initialize manifestVerifier\n"));
}

// A trust service that fails where a test tells it to.
class FaultyTrust : public platform::TrustService {
  public:
    using TrustService::TrustService;
    bool noPolicy = false;
    bool noKey = false;
    int anchorsStatus = 0;
    int evaluateStatus = 0;
    std::optional<int> forcedVerdict;
    std::optional<platform::TrustPolicy> createPolicy(platform::TrustPolicy p) const override {
        if (noPolicy) return std::nullopt;
        return p;
    }
    int setAnchors(platform::Trust& trust,
                   const std::vector<platform::CertificateRef>& anchors) const override {
        return anchorsStatus ? anchorsStatus : TrustService::setAnchors(trust, anchors);
    }
    platform::PublicKeyRef copyPublicKey(const platform::Trust& trust) const override {
        return noKey ? nullptr : TrustService::copyPublicKey(trust);
    }
    int evaluate(platform::Trust& trust, int* verdict) const override {
        if (evaluateStatus) return evaluateStatus;
        const int status = TrustService::evaluate(trust, verdict);
        if (forcedVerdict) *verdict = *forcedVerdict;
        return status;
    }
};

TEST(QVLSignedManifestTest, TrustServiceFailuresRefuseTheSigner) {
    struct Fault {
        const char* signer;
        std::function<void(FaultyTrust&)> inject;
        std::string logLine;  // "": the load succeeds
    };
    const Fault faults[] = {
        {"manual-signer", [](FaultyTrust& f) { f.forcedVerdict = 5; },
         kCreateKey + ": certificate trust evaluation failed: 5"},
        {"manual-signer", [](FaultyTrust& f) { f.forcedVerdict = 6; },
         kCreateKey + ": certificate trust evaluation failed: 6"},
        {"manual-signer", [](FaultyTrust& f) { f.evaluateStatus = 7; },
         kCreateKey + ": Cannot evaluate trust: 7"},
        {"manual-signer", [](FaultyTrust& f) { f.noPolicy = true; },
         "-[QVLSignedManifest createPublicKeyForStrongSigning:]: Cannot create policy."},
        {"manual-signer", [](FaultyTrust& f) { f.noKey = true; },
         kCreateKey + ": Cannot extract public key."},
        // Only the Vantor key sets anchors.
        {"manual-signer", [](FaultyTrust& f) { f.anchorsStatus = 9; }, ""},
        {"vantor-signer", [](FaultyTrust& f) { f.anchorsStatus = 9; },
         kCreateKey + ": Cannot set anchor certificates: 9"},
        // Verdict 1 (proceed) is accepted like 4.
        {"manual-signer", [](FaultyTrust& f) { f.forcedVerdict = 1; }, ""},
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

TEST(QVLSignedManifestTest, CountRule) {
    TestEnvironment env;
    auto outer = segmented("manual-signer");
    Dictionary apps;
    apps.set("app.com.example",
             signedComponent("app.com.example", "Main", "manual-signer", fileManifest({"/a"})));
    outer.set("App", Value(apps));
    outer.set("InstallationOrder",
              Value(Array{Value(kBase), Value("systemappdata"), Value("app.com.example")}));
    EXPECT_TRUE(load(outer, env));
    outer.set("InstallationOrder", Value(Array{Value(kBase), Value("systemappdata"), Value("systemappdata"),
                                               Value("app.com.example")}));
    EXPECT_FALSE(load(outer, env));

    // Without an installation order, Backup and App are not looked at.
    outer.erase("InstallationOrder");
    outer.erase("Backup");
    outer.set("App", Value(apps));
    EXPECT_TRUE(load(outer, env));
}

TEST(QVLSignedManifestTest, LoadsFromAnOpenFileAndLeavesItOpen) {
    TestEnvironment env;
    char path[] = "/tmp/signed-manifest-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string bytes = plist::writeXML(Value(segmented("auto-signer")));
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    auto manifest = QVLSignedManifest::signedManifestWithNSStream(fd, env.services());
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->getVersion(), 5);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);  // still open
    close(fd);
    unlink(path);
}

// backup.A, backup.B, app.x, backup.C
Dictionary groupedManifest() {
    auto outer = segmented("manual-signer");
    Dictionary backups;
    auto a = fileManifest({"/shared", "/only-a"});
    auto b = fileManifest({"/shared", "/only-b"});
    b.set("/shared", fileRecord("/shared-from-b"));
    backups.set("backup.A", signedComponent("backup.A", "Main", "manual-signer", a));
    backups.set("backup.B", signedComponent("backup.B", "Main", "manual-signer", b));
    backups.set("backup.C", signedComponent("backup.C", "Main", "manual-signer", fileManifest({"/only-c"})));
    Dictionary apps;
    apps.set("app.x", signedComponent("app.x", "Main", "manual-signer", fileManifest({"/app"})));
    outer.set("Backup", Value(backups));
    outer.set("App", Value(apps));
    outer.set("InstallationOrder",
              Value(Array{Value("backup.A"), Value("backup.B"), Value("app.x"), Value("backup.C")}));
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
    ASSERT_TRUE(merged);
    EXPECT_TRUE(capture.contains("Merging manifest item [0..2)"));
    EXPECT_EQ(merged->size(), 3u);
    EXPECT_EQ(*merged->find("/shared"), fileRecord("/shared-from-b"));
    EXPECT_TRUE(merged->contains("/only-a") && merged->contains("/only-b"));
    // An app item adds nothing; an empty range gives an empty manifest.
    EXPECT_EQ(manifest->mergedBackupManifest({2, 2})->size(), 1u);
    EXPECT_TRUE(manifest->mergedBackupManifest({4, 0})->empty());
    // Ranges reaching outside the installation order are refused.
    EXPECT_EQ(manifest->mergedBackupManifest({3, 2}), nullptr);
    EXPECT_EQ(manifest->mergedBackupManifest({0xFFFFFFFF, 2}), nullptr);
    EXPECT_EQ(manifest->mergedBackupManifest({QVLRange::kNotFound, 0}), nullptr);

    // Older segmented versions use the whole backup section.
    auto outer = groupedManifest();
    outer.set("Version", Value(4));
    manifest = load(outer, env);
    ASSERT_TRUE(manifest);
    const auto backup = manifest->getBackup();
    ASSERT_TRUE(backup);
    EXPECT_EQ(backup->size(), 3u);
    EXPECT_EQ(manifest->mergedBackupManifest({7, 9}), backup);
    EXPECT_EQ(manifest->rangeOfGroupedBackups(2), (QVLRange{2, 1}));
    EXPECT_EQ(manifest->getBackupList()->size(), 1u);
}

// The raw manifest of a version 2 manifest.
Data rawPayload(int version = 4) {
    Dictionary raw;
    raw.set("Version", Value(version));
    raw.set("Backup", Value(fileManifest({"/var/mobile/x", "/var/mobile/y"})));
    Dictionary appData;
    Dictionary entry;
    entry.set("Manifest", Value(fileManifest({"/c"})));
    entry.set("CFBundleShortVersionString", Value("1.0"));
    appData.set("com.example.app", Value(entry));
    raw.set("AppData", Value(appData));
    raw.set("Info", Value(info()));
    const std::string bytes = plist::writeBinary(Value(raw));
    return Data(bytes.begin(), bytes.end());
}

std::unique_ptr<QVLSignedManifest> loadMonolithic(const std::string& signer, TestEnvironment& env,
                                                  int version = 4) {
    auto outer = QVLManifestSigner::monolithicManifest(rawPayload(version), identity(signer));
    return outer ? load(*outer, env) : nullptr;
}

TEST(QVLSignedManifestTest, MonolithicSigners) {
    TestEnvironment env;
    QVLLogCapture capture;
    auto manifest = loadMonolithic("manual-signer", env);
    ASSERT_TRUE(manifest);
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the manual key. Bypassing checking\n"));
    EXPECT_EQ(env.unsegmentedChecks, 0);
    EXPECT_EQ(manifest->getVersion(), 4);
    const auto list = manifest->getBackupList();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->size(), 1u);
    EXPECT_EQ(*list->find(kBase), Value(*manifest->getBackup()));
    EXPECT_EQ(manifest->mergedBackupManifest({5, 5}), manifest->getBackup());

    EXPECT_TRUE(loadMonolithic("auto-signer", env));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the auto signing key. Running rigorous checks\n"));
    EXPECT_EQ(env.unsegmentedChecks, 1);
    env.checksPass = false;
    EXPECT_FALSE(loadMonolithic("auto-signer", env));

    env.setDevelopmentHardware();
    EXPECT_TRUE(loadMonolithic("uat-signer", env));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Test Signed"));
    EXPECT_FALSE(loadMonolithic("vantor-signer", env));  // not accepted in this form
    env.setProductionHardware();
    EXPECT_FALSE(loadMonolithic("uat-signer", env));
    EXPECT_TRUE(capture.contains(kMonolithic + ": Certificate not valid."));
}

TEST(QVLSignedManifestTest, MonolithicRefusals) {
    TestEnvironment env;
    QVLLogCapture capture;
    EXPECT_FALSE(loadMonolithic("manual-signer", env, 5));
    EXPECT_TRUE(
        capture.contains(kMonolithic + ":Raw manifest version:5 for monolithic manifest is not supported."));

    auto outer = *QVLManifestSigner::monolithicManifest(rawPayload(), identity("manual-signer"));
    auto tampered = outer;
    Data payload = *tampered.getData("Payload");
    payload[payload.size() / 2] ^= 1;
    tampered.set("Payload", Value(payload));
    EXPECT_FALSE(load(tampered, env));

    auto noPayload = outer;
    noPayload.erase("Payload");
    EXPECT_FALSE(load(noPayload, env));
    EXPECT_TRUE(capture.contains(kMonolithic + ": Manifest format not correct."));

    auto noChain = outer;
    noChain.set("Certificate", Value("x"));
    EXPECT_FALSE(load(noChain, env));
    EXPECT_TRUE(
        capture.contains(kMonolithic + ": cannot find certificates, or certificate format not correct."));

    // A payload that is signed but is not a dictionary.
    const std::string arrayBytes = plist::writeBinary(Value(Array{Value(1)}));
    auto notDictionary = *QVLManifestSigner::monolithicManifest(Data(arrayBytes.begin(), arrayBytes.end()),
                                                                identity("manual-signer"));
    EXPECT_FALSE(load(notDictionary, env));
    EXPECT_TRUE(capture.contains(kMonolithic + ": rawManifest format not correct."));
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
    void writeFile(const std::string& name, const void* bytes, size_t size) {
        std::ofstream(file(name), std::ios::binary).write(static_cast<const char*>(bytes), size);
    }
    std::string dir_;
};

TEST_F(ExternalToolsTest, SignaturesMadeByOpenSSLVerify) {
    if (!run("command -v openssl >/dev/null")) GTEST_SKIP() << "openssl command not installed";
    TestEnvironment env;
    auto outer = segmented("auto-signer");
    Dictionary& component = sub(sub(outer, "Backup"), kBase);
    const auto digest = QVLComponentDigest(kBase, component.find("Manifest"));
    ASSERT_TRUE(digest);
    writeFile("digest.bin", digest->data(), digest->size());
    ASSERT_TRUE(run("openssl pkeyutl -sign -inkey " + pkiPath("auto-signer.key") +
                    " -pkeyopt digest:sha1 -in " + file("digest.bin") + " -out " + file("sig.bin")));
    component.set("Signature", Value(Data(readBytes(file("sig.bin")))));
    EXPECT_TRUE(load(outer, env));

    // A monolithic payload signed whole.
    const Data payload = rawPayload();
    writeFile("payload.bin", payload.data(), payload.size());
    ASSERT_TRUE(run("openssl dgst -sha1 -sign " + pkiPath("manual-signer.key") + " -out " + file("sig.bin") +
                    " " + file("payload.bin")));
    auto monolithic = *QVLManifestSigner::monolithicManifest(payload, identity("manual-signer"));
    monolithic.set("Signature", Value(Data(readBytes(file("sig.bin")))));
    EXPECT_TRUE(load(monolithic, env));
}

TEST_F(ExternalToolsTest, ManifestRewrittenByPythonPlistlibIsRead) {
    if (!run("python3 -c 'import plistlib' 2>/dev/null"))
        GTEST_SKIP() << "python3 with plistlib not available";
    TestEnvironment env;
    const std::string xml = plist::writeXML(Value(groupedManifest()));
    writeFile("ours.plist", xml.data(), xml.size());
    for (const char* format : {"FMT_BINARY", "FMT_XML"}) {
        SCOPED_TRACE(format);
        ASSERT_TRUE(
            run("python3 -c 'import plistlib,sys; v=plistlib.load(open(sys.argv[1],\"rb\")); "
                "plistlib.dump(v, open(sys.argv[2],\"wb\"), fmt=plistlib." +
                std::string(format) + ")' " + file("ours.plist") + " " + file("python.plist")));
        const int fd = open(file("python.plist").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        auto manifest = QVLSignedManifest::signedManifestWithNSStream(fd, env.services());
        close(fd);
        ASSERT_TRUE(manifest);
        EXPECT_EQ(manifest->mergedBackupManifest({0, 2})->size(), 3u);
    }
}

// The real content checker behind verification: what the auto signing key
// sends is inspected, what the manual key sends is not.
TEST(QVLSignedManifestTest, ContentCheckerJudgesOnlyLessTrustedSigners) {
    platform::FileContainerLookup containers(platform::FileContainerLookup::kDefaultRoot, true);
    auto checker = QVLDemoManifestCheck::create({&containers});
    ASSERT_TRUE(checker);

    const auto clean = fileManifest({"/var/mobile/Documents/tool"});
    auto files = clean;
    Dictionary& record = *files.find("/var/mobile/Documents/tool")->asDictionary();
    sub(record, "QVLManifestFileAttributes").set("NSFilePosixPermissions", Value(04755));
    auto manifestSignedBy = [&](const std::string& signer, const Dictionary& content) {
        auto outer = segmented(signer);
        sub(outer, "Backup").set(kBase, signedComponent(kBase, "Main", signer, content));
        return outer;
    };

    TestEnvironment env;
    auto services = env.services();
    services.manifestVerifier = QVLSignedManifest::contentChecksOf(*checker);
    QVLLogCapture capture;
    EXPECT_FALSE(loadsWith(services, manifestSignedBy("auto-signer", files)));
    EXPECT_TRUE(capture.contains("rigorousTesting failed\n"));
    EXPECT_TRUE(loadsWith(services, manifestSignedBy("manual-signer", files)));
    EXPECT_TRUE(loadsWith(services, manifestSignedBy("auto-signer", clean)));
}

TEST(QVLSignedManifestTest, OrderItemHelpers) {
    EXPECT_TRUE(QVLSignedManifest::isItemBackup("backup.BaseBackup"));
    EXPECT_FALSE(QVLSignedManifest::isItemBackup("app.backup."));
    EXPECT_TRUE(QVLSignedManifest::isItemSystemAppData("systemappdata"));
    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("app.com.example"), "com.example");
    QVLLogCapture capture;
    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("backup.x"), std::nullopt);
    EXPECT_TRUE(capture.contains("Wrong app identifer to install: backup.x"));
}

}  // namespace
}  // namespace qvl
