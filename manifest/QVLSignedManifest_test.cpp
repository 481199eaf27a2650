// Loads of manifests signed with the development PKI, with content checks
// that record their calls: what the content checks themselves refuse is the
// work of QVLDemoManifestCheck_test, and the signed-manifest fuzzer holds
// every accepted manifest to signatures it verifies on its own.
#include "manifest/QVLSignedManifest.h"

#include <gtest/gtest.h>

#include "base/QVLLogCapture.h"
#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLSignedManifestTestSupport.h"
#include "platform/containers/ContainerLookup.h"

namespace qvl {
namespace {

using namespace qvl::testing;
using plist::Array;
using plist::Data;

const std::string kInit = "-[QVLSignedManifest initWithNSStream:]";
const std::string kSegmented = "-[QVLSignedManifest verifyManifestSignature:]";
const std::string kMonolithic = "-[QVLSignedManifest verifyMonolithicManifestSignature:]";
const std::string kCreateKey = "-[QVLSignedManifest createPublicKey:usingPolicy:anchors:]";
const std::string kBase = "backup.BaseBackup";

// The check type of a component, "" when nothing loaded.
std::string checkTypeOf(const QVLSignedManifest* manifest, const std::string& section,
                        const std::string& name) {
    if (!manifest) return "";
    const Dictionary* components = manifest->payload()->getDictionary(section);
    const Dictionary* c = components ? components->getDictionary(name) : nullptr;
    const std::string* type = c ? c->getString("RigorousCheckType") : nullptr;
    return type ? *type : "(none)";
}

// A version 2 manifest of the raw manifest `raw` ("Version" 4 unless given).
Dictionary monolithic(Dictionary raw, const std::string& signer = "manual-signer") {
    if (!raw.contains("Version")) raw.set("Version", 4);
    if (!raw.contains("Info")) raw.set("Info", Dictionary());
    const std::string bytes = plist::writeBinary(Value(std::move(raw)));
    return *QVLManifestSigner::monolithicManifest(Data(bytes.begin(), bytes.end()), identity(signer));
}

// Old-layout data entries: wrapped (with the app's version) and bare.
Dictionary rawManifest() {
    const auto wrapped =
        dict({{"Manifest", fileManifest({"/Documents/c"})}, {"CFBundleShortVersionString", "1.0"}});
    return dict({{"Backup", fileManifest({"/var/mobile/Media/x", "/var/mobile/Media/y"})},
                 {"AppData", dict({{"com.example.app", wrapped}})},
                 {"ExtensionData", dict({{"com.example.ext", fileManifest({"/Library/e"})}})}});
}

// Whether loading `outer` fails with `line` among the lines logged or, when
// `line` is empty, answers a manifest.
::testing::AssertionResult refusedWith(const Dictionary& outer, const QVLSignedManifest::Services& services,
                                       const std::string& line) {
    QVLLogCapture capture;
    const bool loaded = load(outer, services) != nullptr;
    if (loaded == line.empty() && (loaded || capture.contains(line))) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << (loaded ? "accepted" : "refused")
           << ", last line: " << (capture.lines().empty() ? "" : capture.lines().back());
}

TEST(QVLSignedManifestTest, EachSignerKindOnProductionAndDevelopmentHardware) {
    const std::string notValid = kSegmented + ": Certificate not valid.",
                      verdict5 = kCreateKey + ": certificate trust evaluation failed: 5";
    const std::string skipping = kSegmented + ":Skipping rigorous manifest testing\n";
    const std::string prodFused = kSegmented + ": Manifest contains UAT component on prodFused device\n";
    const struct {
        const char* signer;
        std::optional<std::string> type;
        std::optional<bool> fuse;  // true: production, false: development, nullopt: no answer
        std::string checkType;     // "": refused
        std::string logLine;
    } cases[] = {
        {"manual-signer", std::nullopt, true, "Skip", skipping},
        {"manual-signer", "Production", false, "Skip", skipping},
        {"auto-signer", std::nullopt, std::nullopt, "Default", "Verifying strong signing"},
        {"uat-signer", "UAT", std::nullopt, "", prodFused},
        {"uat-signer", "UAT", false, "Skip", "Verifying development signing"},
        {"vantor-signer", std::nullopt, true, "AppLayout", verdict5},
        {"expired-signer", std::nullopt, true, "", verdict5},
        {"noeku-signer", std::nullopt, true, "", notValid},
        {"unknown-signer", std::nullopt, false, "", notValid},
        {"uat-signer", std::nullopt, false, "", notValid},  // a test signer must say so
        {"auto-signer", "UAT", false, "", notValid},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.signer) + " fuse " + (c.fuse ? std::to_string(*c.fuse) : "none"));
        TestEnvironment env;
        env.fuse = c.fuse;
        QVLLogCapture capture;
        auto manifest = load(segmented(c.signer, c.type), env.services());
        EXPECT_TRUE(capture.contains(c.logLine));
        const bool rigorous = !c.checkType.empty() && c.checkType != "Skip";
        EXPECT_EQ(env.segmentedChecks, rigorous ? 1 : 0);
        ASSERT_EQ(checkTypeOf(manifest.get(), "Backup", kBase), c.checkType);
        if (rigorous) {
            EXPECT_EQ(env.lastChecked, manifest->payload());  // the checker sees the payload itself
        }
    }

    // Each component gets its own signer's type; an unused test signer is
    // harmless on production hardware, an unused invalid signer is not.
    TestEnvironment env;
    auto outer = segmented("manual-signer");
    sub(outer, "Certificates")
        .set("Test", dict({{"Certificate", identity("uat-signer").chain}, {"TypeOfSignature", "UAT"}}));
    sub(outer, "Certificates").set("Auto", dict({{"Certificate", identity("auto-signer").chain}}));
    Value app = signedComponent("com.example.app", "auto-signer", fileManifest({"/Documents/d"}));
    app.asDictionary()->set("Certificate", "Auto");
    outer.set("AppData", dict({{"com.example.app", app}}));
    auto manifest = load(outer, env.services());
    EXPECT_EQ(checkTypeOf(manifest.get(), "Backup", kBase), "Skip");
    EXPECT_EQ(checkTypeOf(manifest.get(), "AppData", "com.example.app"), "Default");
    env.checksPass = false;
    EXPECT_TRUE(refusedWith(outer, env.services(), "rigorousTesting failed\n"));
    sub(outer, "Certificates").set("Old", dict({{"Certificate", identity("expired-signer").chain}}));
    env.checksPass = true;
    EXPECT_TRUE(refusedWith(outer, env.services(), notValid));
}

// Each spoilt manifest is refused with its log line: a key of the outer
// dictionary of a version 5 manifest, of its certificate "Main", of its base
// backup set (or, with no value, removed), or of a version 2 manifest.
TEST(QVLSignedManifestTest, LoadingAndVerificationRefusals) {
    const std::string badCertificates =
        kSegmented + ": cannot find certificates, or certificate format not correct.";
    const std::string badSignature = kSegmented + ":signature verification failed for backup.BaseBackup\n";
    const std::string prefs = "/var/root/Library/Preferences/evil";
    const Value base = signedComponent(kBase, "manual-signer", fileManifest({"/var/mobile/Media/a"}));
    const struct {
        const char* where;
        std::string key;
        std::optional<Value> value;
        std::string logLine;
    } refusals[] = {
        {"", "Version", std::nullopt, kInit + ": required key (version) not found."},
        {"", "Version", 1, kInit + ": signed manifest version 1 is not supported yet"},
        {"", "Version", 6, kInit + ": signed manifest version 6 is not supported yet"},
        {"", "Version", "5", kInit + ": signed manifest version 0 is not supported yet"},
        {"", "Info", std::nullopt, kInit + ": no Info section or in wrong format."},
        {"", "InstallationOrder", Array{Value(1)}, kInit + ": InstallationOrder section in wrong format."},
        {"", "Backup", std::nullopt, kInit + ": no Backup section or in wrong format."},
        {"", "InstallationOrder", Array{Value(kBase), Value("backup.More")},
         "InstallationOrder entry count does not match components listed in manifest."},
        {"", "Certificates", std::nullopt, "No certificated found in the manifest\n"},
        {"", "Certificates", Array{}, badCertificates},
        {"", "GroupData", Array{Value(1)}, kSegmented + ": GroupData section in wrong format."},
        {"Main", "Certificate", std::nullopt, badCertificates},
        {"Main", "TypeOfSignature", 1, badCertificates},
        {"Main", "Certificate", Array{Value("x")}, kCreateKey + ": Cannot load certificate."},
        {"Main", "Certificate", Array{}, kCreateKey + ": Cannot create secure trust object: -1"},
        {"Base", "Certificate", "Other", kSegmented + ":No matching certificate for Other\n"},
        {"Base", "Signature", "sig", badSignature},
        {"Base", "Manifest", fileManifest({"/var/evil"}), badSignature},  // a file added after signing
        // Nothing but the name and the manifest is signed: a record beside them is refused.
        {"Base", prefs, record("NSFileTypeRegular", 04755),
         kSegmented + ": component backup.BaseBackup holds the unsigned key " + prefs + "."},
        {"Backup", kBase, Data{1}, kSegmented + ": component backup.BaseBackup in wrong format."},
        {"Backup", "backup.Other", base, kSegmented + ":signature verification failed for backup.Other\n"},
        {"V2", "Certificate", "x",
         kMonolithic + ": cannot find certificates, or certificate format not correct."},
        {"V2", "Payload", std::nullopt, kMonolithic + ": Manifest format not correct."},
        {"V2", "Payload", Data{1, 2}, "Verifying strong signing"},  // no longer what was signed
    };
    TestEnvironment env;
    for (const auto& r : refusals) {
        SCOPED_TRACE(r.logLine);
        const std::string where = r.where;
        auto outer = where == "V2" ? monolithic(rawManifest()) : segmented("manual-signer");
        Dictionary& at = where.empty() || where == "V2" ? outer
                         : where == "Main"              ? sub(sub(outer, "Certificates"), "Main")
                         : where == "Base"              ? sub(sub(outer, "Backup"), kBase)
                                                        : sub(outer, where);
        if (r.value)
            at.set(r.key, *r.value);
        else
            at.erase(r.key);
        EXPECT_TRUE(refusedWith(outer, env.services(), r.logLine));
    }
    EXPECT_TRUE(
        refusedWith(monolithic(dict({{"Version", 5}})), env.services(),
                    kMonolithic + ":Raw manifest version:5 for monolithic manifest is not supported."));
    const std::string array = plist::writeBinary(Value(Array{Value(1)}));
    EXPECT_TRUE(refusedWith(
        *QVLManifestSigner::monolithicManifest(Data(array.begin(), array.end()), identity("manual-signer")),
        env.services(), kMonolithic + ": rawManifest format not correct."));
    QVLLogCapture capture;
    EXPECT_FALSE(QVLSignedManifest::loadFromBytes({}, env.services()));
    EXPECT_TRUE(capture.contains(kInit + ": Cannot convert to property list - property list is empty(0x1)."));
    EXPECT_FALSE(QVLSignedManifest::loadFromBytes(
        {reinterpret_cast<const uint8_t*>(array.data()), array.size()}, env.services()));
    EXPECT_TRUE(capture.contains(kInit + ": format not correct."));
    auto services = env.services();
    services.manifestVerifier = {};  // without a content checker nothing loads
    EXPECT_TRUE(refusedWith(segmented("manual-signer"), services, "Could not initialize manifestVerifier\n"));
}

// The real content checks behind a load: what the auto signing key signs is
// inspected, in both forms, and what the manual key signs is not. The content
// checks' own cases are QVLDemoManifestCheck_test's.
TEST(QVLSignedManifestTest, RealContentChecksJudgeWhatTheAutoKeySigns) {
    platform::FileContainerLookup containers(platform::FileContainerLookup::kDefaultRoot, true);
    auto checker = QVLDemoManifestCheck::create({&containers});
    ASSERT_TRUE(checker);
    TestEnvironment env;
    auto services = env.services();
    services.manifestVerifier = QVLSignedManifest::contentChecksOf(*checker);
    const Dictionary evil = fileManifest({"/var/mobile/MediaEvil/x"});
    EXPECT_TRUE(load(segmented("auto-signer"), services));
    EXPECT_TRUE(refusedWith(segmented("auto-signer", std::nullopt, evil), services,
                            "-[WhitelistChecker checkManifest:]:/var/mobile/MediaEvil/x failed the check."));
    EXPECT_TRUE(load(segmented("manual-signer", std::nullopt, evil), services));

    // Version 2: a bare "AppData" entry is inspected like a wrapped one.
    Dictionary raw = rawManifest();
    EXPECT_TRUE(load(monolithic(raw, "auto-signer"), services));
    const std::string climbing = "/../../../../etc/sudoers";
    sub(raw, "AppData").set("com.example.app", dict({{climbing, record()}}));
    EXPECT_TRUE(refusedWith(monolithic(raw, "auto-signer"), services,
                            climbing + " is not an absolute path without empty, \".\" or \"..\" parts."));

    // A record put into a component whose empty manifest was dropped after signing.
    auto outer = segmented("auto-signer", std::nullopt, Dictionary());
    sub(sub(outer, "Backup"), kBase).erase("Manifest");
    sub(sub(outer, "Backup"), kBase).set("/var/root/evil", record("NSFileTypeRegular", 04755));
    EXPECT_TRUE(
        refusedWith(outer, services,
                    kSegmented + ": component backup.BaseBackup holds the unsigned key /var/root/evil."));
}

// A trust service whose step `fault` fails: 1 no policy, 2 evaluation status
// 7, 3 verdict 6, 4 verdict 1 (proceed), 5 no key, 6 anchors not set (status 9).
class FaultyTrust : public platform::TrustService {
  public:
    explicit FaultyTrust(int fault) : TrustService(pkiPath("anchors")), fault_(fault) {}
    std::optional<platform::TrustPolicy> createPolicy(platform::TrustPolicy p) const override {
        return fault_ == 1 ? std::nullopt : std::optional(p);
    }
    int evaluate(platform::Trust& t, int* verdict) const override {
        const int status = fault_ == 2 ? 7 : TrustService::evaluate(t, verdict);
        if (fault_ == 3 || fault_ == 4) *verdict = fault_ == 3 ? 6 : 1;
        return status;
    }
    platform::PublicKeyRef copyPublicKey(const platform::Trust& t) const override {
        return fault_ == 5 ? nullptr : TrustService::copyPublicKey(t);
    }
    int setAnchors(platform::Trust& t, const std::vector<platform::CertificateRef>& a) const override {
        return fault_ == 6 ? 9 : TrustService::setAnchors(t, a);
    }

  private:
    int fault_;
};

TEST(QVLSignedManifestTest, TrustServiceFailuresRefuseTheSigner) {
    const struct {
        const char* signer;
        int fault;
        std::string logLine;  // "": the load succeeds
    } faults[] = {
        {"manual-signer", 1, "-[QVLSignedManifest createPublicKeyForStrongSigning:]: Cannot create policy."},
        {"manual-signer", 2, kCreateKey + ": Cannot evaluate trust: 7"},
        {"manual-signer", 3, kCreateKey + ": certificate trust evaluation failed: 6"},
        {"manual-signer", 4, ""},
        {"manual-signer", 5, kCreateKey + ": Cannot extract public key."},
        {"manual-signer", 6, ""},  // only the Vantor key sets anchors
        {"vantor-signer", 6, kCreateKey + ": Cannot set anchor certificates: 9"},
    };
    for (const auto& f : faults) {
        TestEnvironment env;
        FaultyTrust faulty(f.fault);
        auto services = env.services();
        services.trust = &faulty;
        EXPECT_TRUE(refusedWith(segmented(f.signer), services, f.logLine)) << f.fault;
    }
}

// backup.A, backup.B, app.x, backup.C; "/shared" lies in A and B, C has no file manifest.
Dictionary groupedManifest() {
    auto outer = segmented("manual-signer");
    auto b = fileManifest({"/only-b"});
    b.set("/shared", record("NSFileTypeRegular", 0600));
    outer.set("Backup", dict({{"backup.A", signedComponent("backup.A", "manual-signer",
                                                           fileManifest({"/shared", "/only-a"}))},
                              {"backup.B", signedComponent("backup.B", "manual-signer", b)},
                              {"backup.C", signedComponent("backup.C", "manual-signer", "not a manifest")}}));
    outer.set("App", dict({{"app.x", signedComponent("app.x", "manual-signer", fileManifest({"/app"}))}}));
    outer.set("InstallationOrder",
              Array{Value("backup.A"), Value("backup.B"), Value("app.x"), Value("backup.C")});
    return outer;
}

TEST(QVLSignedManifestTest, GroupedBackupRangesAndMergedManifests) {
    TestEnvironment env;
    auto manifest = load(groupedManifest(), env.services());
    ASSERT_TRUE(manifest);
    QVLLogCapture capture;
    const QVLRange none{QVLRange::kNotFound, 0};
    for (auto [start, range] :
         {std::pair{0u, QVLRange{0, 2}}, {1u, {1, 1}}, {3u, {3, 1}}, {2u, none}, {4u, none}})
        EXPECT_EQ(manifest->rangeOfGroupedBackups(start), range) << start;
    EXPECT_TRUE(capture.contains("Start item is not a backup."));
    EXPECT_EQ(manifest->getBackup(), nullptr);
    EXPECT_TRUE(capture.contains("getBackup is only for old manifest."));

    auto merged = manifest->mergedBackupManifest({0, 2});
    EXPECT_TRUE(capture.contains("Merging manifest item [0..2)"));
    ASSERT_TRUE(merged);
    EXPECT_EQ(merged->size(), 3u);
    EXPECT_EQ(Value(*merged->find("/shared")),
              Value(record("NSFileTypeRegular", 0600)));  // the later backup's
    // An app and a manifest-less backup add nothing.
    for (auto [range, size] : {std::pair{QVLRange{1, 3}, 2u}, {{4, 0}, 0u}})
        EXPECT_EQ(manifest->mergedBackupManifest(range)->size(), size);
    EXPECT_EQ(manifest->mergedBackupManifest({3, 2}), nullptr);  // outside the installation order
    EXPECT_EQ(manifest->mergedBackupManifest({0xFFFFFFFF, 2}), nullptr);

    auto outer = groupedManifest();
    outer.set("Version", 4);  // older segmented versions use the whole backup section
    manifest = load(outer, env.services());
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->getBackup()->size(), 3u);
    EXPECT_EQ(manifest->mergedBackupManifest({7, 9}), manifest->getBackup());
    EXPECT_EQ(manifest->rangeOfGroupedBackups(2), (QVLRange{2, 1}));
}

TEST(QVLSignedManifestTest, MonolithicSignersAndTheOldLayout) {
    TestEnvironment env;
    QVLLogCapture capture;
    auto manifest = load(monolithic(rawManifest()), env.services());
    ASSERT_TRUE(manifest);
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the manual key. Bypassing checking\n"));
    EXPECT_EQ(manifest->getVersion(), 4);
    EXPECT_EQ(Value(*manifest->getBackupList()), Value(dict({{kBase, *manifest->getBackup()}})));
    EXPECT_EQ(manifest->fileManifestOf(*manifest->getAppDataList()->find("com.example.app"))->size(), 1u);
    EXPECT_EQ(Value(*manifest->fileManifestOf(*manifest->getPlugInDataList()->find("com.example.ext"))),
              Value(fileManifest({"/Library/e"})));
    EXPECT_EQ(env.unsegmentedChecks, 0);

    EXPECT_TRUE(load(monolithic(rawManifest(), "auto-signer"), env.services()));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Found the auto signing key. Running rigorous checks\n"));
    EXPECT_EQ(env.unsegmentedChecks, 1);
    env.checksPass = false;
    EXPECT_FALSE(load(monolithic(rawManifest(), "auto-signer"), env.services()));
    env.fuse = false;
    EXPECT_TRUE(load(monolithic(rawManifest(), "uat-signer"), env.services()));
    EXPECT_TRUE(capture.contains(kMonolithic + ":Test Signed"));
    EXPECT_FALSE(load(monolithic(rawManifest(), "vantor-signer"), env.services()));  // not in this form
    env.fuse = true;
    EXPECT_TRUE(refusedWith(monolithic(rawManifest(), "uat-signer"), env.services(),
                            kMonolithic + ": Certificate not valid."));
}

TEST(QVLSignedManifestTest, CountRuleAndOrderItems) {
    TestEnvironment env;
    auto outer = segmented("manual-signer");
    outer.set("App", dict({{"app.x", signedComponent("app.x", "manual-signer", fileManifest({"/a"}))}}));
    outer.set("InstallationOrder", Array{Value(kBase), Value("systemappdata"), Value("app.x")});
    EXPECT_TRUE(load(outer, env.services()));
    outer.set("InstallationOrder",
              Array{Value(kBase), Value("systemappdata"), Value("systemappdata"), Value("app.x")});
    EXPECT_FALSE(load(outer, env.services()));  // "systemappdata" counts once

    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("app.com.example"), "com.example");
    QVLLogCapture capture;
    EXPECT_EQ(QVLSignedManifest::appIdentifierFromOrderItem("backup.x"), std::nullopt);
    EXPECT_TRUE(capture.contains("Wrong app identifer to install: backup.x"));
}

// A monolithic payload signed whole by the openssl command (component
// signatures are cross-checked by the qvlmanifest tool's test), and the file
// opened as one in a folder another user can write: a link at the name is not
// followed.
TEST(QVLSignedManifestExternalTest, OpenSSLSignatureAndALinkAtTheName) {
    if (system("command -v openssl >/dev/null") != 0) GTEST_SKIP() << "openssl not available";
    TempTree tree;
    TestEnvironment env;
    auto whole = monolithic(rawManifest());
    const Data& payload = *whole.getData("Payload");
    ASSERT_EQ(system(("openssl dgst -sha1 -sign " + pkiPath("manual-signer.key") + " -out " +
                      tree.path("sig.bin") + " " + tree.file("payload.bin", {payload.begin(), payload.end()}))
                         .c_str()),
              0);
    const std::string signature = readText(tree.path("sig.bin"));
    whole.set("Signature", Data(signature.begin(), signature.end()));
    const std::string file = tree.file("m.plist", plist::writeBinary(Value(whole)));
    EXPECT_TRUE(QVLSignedManifest::loadFromFile(file, env.services()));

    const std::string link = tree.symlink("link", file);
    QVLLogCapture capture;
    EXPECT_FALSE(QVLSignedManifest::loadFromFile(link, env.services()));
    EXPECT_TRUE(capture.contains(kInit + ": Cannot convert to property list - " + link +
                                 ": Too many levels of symbolic links(0x6)."));
}

}  // namespace
}  // namespace qvl
