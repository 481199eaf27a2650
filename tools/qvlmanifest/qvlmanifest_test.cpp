// qvlmanifest run as a program: scan and compare over a small tree; sign,
// verify and digest over recipes made from the development PKI, with the
// signatures cross-checked by the openssl command. What the loader logs is
// checked word for word by the manifest library's own tests; here only the
// tool's own output and exit statuses are.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::testing {
namespace {

namespace fs = std::filesystem;
using plist::Value;

std::vector<std::string> keysOf(const std::optional<Value>& manifest) {
    std::vector<std::string> keys;
    if (manifest && manifest->isDictionary())
        for (const auto& e : *manifest->asDictionary()) keys.push_back(e.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

class QvlmanifestTool : public ::testing::Test {
  protected:
    void SetUp() override {
        umask(022);  // the scanned folders above the content are closed to group and others
        tree_.file("private/var/a/one", "1");
        tree_.file("private/var/a/two", "22");
        tree_.file("private/var/skipme/three", "333");
        tree_.symlink("private/var/link", "a/one");
    }
    ToolRun run(const std::string& args) { return runTool(std::string(QVLMANIFEST_PATH) + " " + args); }
    std::string var() const { return tree_.path("private/var"); }

    // A recipe of `version`: certificate "Store" of `signer` (and, above
    // version 2, "Test" of the test signer), a base backup scanned from
    // content/ under "Store", and a container in each data section from
    // data.plist under `dataCert`.
    std::string recipe(int version, const std::string& signer, const std::string& dataCert = "Store") {
        tree_.file("content/var/mobile/Documents/notes/a.txt", "hello\n");
        tree_.file("content/var/mobile/Documents/b.txt", "world\n");
        const auto regular = dict({{"NSFileType", "NSFileTypeRegular"}});
        tree_.file(
            "data.plist",
            plist::writeXML(dict({{"/Documents/c.txt", dict({{"QVLManifestFileAttributes", regular}})}})));
        auto certificate = [](const std::string& who, const char* type) {
            return dict({{"Chain", pkiPath(who + "-chain.pem")},
                         {"PrivateKey", pkiPath(who + ".key")},
                         {"TypeOfSignature", type}});
        };
        plist::Dictionary certificates = dict({{"Store", certificate(signer, "Production")}});
        if (version != 2) certificates.set("Test", certificate("uat-signer", "UAT"));
        plist::Array components{Value(dict({{"Section", "Backup"},
                                            {"Name", "backup.BaseBackup"},
                                            {"Certificate", "Store"},
                                            {"Folder", "content"}}))};
        for (const char* section : {"AppData", "GroupData", "ExtensionData"})
            components.push_back(Value(dict({{"Section", section},
                                             {"Name", "com.example.data"},
                                             {"Certificate", dataCert},
                                             {"ManifestFile", "data.plist"}})));
        return tree_.file(
            "recipe.plist",
            plist::writeXML(
                dict({{"Version", version}, {"Certificates", certificates}, {"Components", components}})));
    }
    ToolRun verify(const std::string& options) {
        return run("verify " + tree_.path("m.signed") + " --anchors " + pkiPath("anchors") + " " + options);
    }

    TempTree tree_;
};

TEST_F(QvlmanifestTool, ScanWithRootSkipsAndSupersetAndItsErrors) {
    const std::string out = tree_.path("m.plist");
    const std::string options =
        " --relative-to " + tree_.path("private") + " --skip " + var() + "/skipme -o " + out;
    ASSERT_EQ(run("scan " + var() + options).status, 0);
    EXPECT_EQ(readText(out).substr(0, 8), "bplist00");
    EXPECT_EQ(keysOf(plist::read(readText(out))),
              (std::vector<std::string>{"/var", "/var/a", "/var/a/one", "/var/a/two", "/var/link"}));

    // The superset names absolute paths, as the helper's does.
    const std::string superset =
        tree_.file("superset.plist", plist::writeXML(plist::Array{Value(var() + "/a/two")}));
    ToolRun r = run("scan " + var() + " --superset " + superset + " --xml");
    EXPECT_TRUE(r.status == 0 && r.says("<?xml")) << r.err;
    EXPECT_EQ(keysOf(plist::read(r.out)), std::vector<std::string>{"/a/two"});

    const std::string garbage = tree_.file("garbage.plist", "not a property list"),
                      never = tree_.path("never");
    const std::pair<std::string, std::string> refusals[] = {
        {"scan " + tree_.path("missing") + " -o " + never, "does not exist"},
        {"scan " + var() + " --relative-to /nowhere -o " + never, "is not below /nowhere"},
        {"scan " + var() + " --superset " + garbage, "cannot read " + garbage},
        {"scan --skip", "--skip needs a value"},
        {"frobnicate", ""},
    };
    for (const auto& [args, complaint] : refusals) {
        r = run(args);
        EXPECT_TRUE(r.status == 2 && r.logs(complaint)) << args << ": " << r.err;
    }
    EXPECT_FALSE(tree_.exists("never"));
}

TEST_F(QvlmanifestTool, CompareNamesEachDifferenceAndExitsOneWhenThereAreAny) {
    const std::string a = tree_.path("a.plist"), b = tree_.path("b.plist");
    ASSERT_EQ(run("scan " + var() + " -o " + a).status, 0);
    EXPECT_EQ(run("compare " + a + " " + a).status, 0);
    EXPECT_EQ(run("compare " + a + " " + a).out, "");

    tree_.file("private/var/a/one", "changed");
    fs::permissions(var() + "/a/two", fs::perms::owner_read);
    fs::remove(var() + "/link");
    tree_.symlink("private/var/link", "a/two");
    fs::remove_all(var() + "/skipme");
    tree_.file("private/var/new");
    ASSERT_EQ(run("scan " + var() + " -o " + b).status, 0);
    const ToolRun r = run("compare " + a + " " + b);
    EXPECT_EQ(r.status, 1);
    for (const char* line : {"/a/one: content digest differs (356a192b7913b04c54574d18c28d46e6395428ab / ",
                             "/a/two: owner, group or mode differs (", ", mode 0644 / ",
                             "/link: symbolic link target differs (\"a/one\" / \"a/two\")",
                             "/new: missing in A", "/skipme/three: missing in B"})
        EXPECT_TRUE(r.says(line)) << line << "\n" << r.out;
    EXPECT_EQ(run("compare " + tree_.file("garbage.plist", "not a property list") + " " + a).status, 2);
}

// What an honest signer makes with the auto signing key passes every content
// check, in every layout and either encoding.
TEST_F(QvlmanifestTool, EveryLayoutOfTheAutoSigningKeyIsAccepted) {
    for (int version : {2, 3, 4, 5}) {
        for (const char* encoding : {"", " --xml"}) {
            SCOPED_TRACE(std::to_string(version) + encoding);
            ASSERT_EQ(
                run("sign " + recipe(version, "auto-signer") + " -o " + tree_.path("m.signed") + encoding)
                    .status,
                0);
            const ToolRun r = verify("--production-device -v");
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_TRUE(r.says("verdict: accepted\n"));
            if (version == 2) {
                EXPECT_TRUE(r.says("certificate: production signer (auto signing key), check Default\n"));
                EXPECT_TRUE(r.says("the signature covers:\n  the whole \"Payload\", byte for byte"));
            } else {
                EXPECT_TRUE(r.says("component GroupData/com.example.data: Default\n"));
                EXPECT_TRUE(
                    r.says("  Backup/backup.BaseBackup: its name and its \"Manifest\" (7 records)\n"));
                EXPECT_TRUE(r.says("  \"InstallationOrder\": its items can be reordered"));
            }
        }
    }
}

TEST_F(QvlmanifestTool, SegmentedManifestIsJudgedByTheDevicesFuse) {
    ASSERT_EQ(run("sign " + recipe(5, "manual-signer", "Test") + " -o " + tree_.path("m.signed")).status, 0);
    const ToolRun development = verify("--development-device");
    EXPECT_EQ(development.status, 0) << development.err;
    for (const char* line :
         {"version: 5\n", "certificate Store: production signer (manual key), check Skip\n",
          "certificate Test: test signer, check Skip\n", "component AppData/com.example.data: Skip\n",
          "verdict: accepted\n"})
        EXPECT_TRUE(development.says(line)) << line;
    const ToolRun production = verify("--production-device");
    EXPECT_TRUE(production.status == 1 && production.says("verdict: refused\n")) << production.out;
    // Without the platform's roots nothing is trusted.
    EXPECT_EQ(
        run("verify " + tree_.path("m.signed") + " --anchors " + tree_.path("none") + " --development-device")
            .status,
        1);
}

TEST_F(QvlmanifestTool, DigestMatchesTheSignatureUnderOpenSSL) {
    if (system("command -v openssl >/dev/null") != 0) GTEST_SKIP() << "openssl command not installed";
    const std::string signedFile = tree_.path("m.signed");
    ASSERT_EQ(run("sign " + recipe(4, "auto-signer") + " -o " + signedFile + " --xml").status, 0);
    const ToolRun digest = run("digest " + signedFile);
    const std::string prefix = "Backup/backup.BaseBackup ";
    const size_t at = digest.out.find(prefix);
    ASSERT_TRUE(digest.status == 0 && at != std::string::npos) << digest.out;
    const auto manifest = plist::read(readText(signedFile));
    ASSERT_TRUE(manifest);
    const plist::Data* signature = manifest->asDictionary()
                                       ->getDictionary("Backup")
                                       ->getDictionary("backup.BaseBackup")
                                       ->getData("Signature");
    ASSERT_TRUE(signature);
    tree_.file("sig.bin", std::string(signature->begin(), signature->end()));
    const std::string shell =
        "python3 -c 'import sys;open(sys.argv[1],\"wb\").write(bytes.fromhex(sys.argv[2]))' " +
        tree_.path("digest.bin") + " " + digest.out.substr(at + prefix.size(), 40) +
        " && openssl x509 -pubkey -noout -in " + pkiPath("auto-signer.pem") + " > " + tree_.path("pub.pem") +
        " && openssl pkeyutl -verify -pubin -inkey " + tree_.path("pub.pem") + " -pkeyopt digest:sha1 -in " +
        tree_.path("digest.bin") + " -sigfile " + tree_.path("sig.bin") + " >/dev/null";
    EXPECT_EQ(system(shell.c_str()), 0);

    ASSERT_EQ(run("sign " + recipe(2, "auto-signer") + " -o " + signedFile).status, 0);
    EXPECT_EQ(run("digest " + signedFile).out.rfind("payload ", 0), 0u);
}

TEST_F(QvlmanifestTool, SigningBadUsageAndUnreadableFilesExitWithTwo) {
    const std::string missing = tree_.path("missing"), out = tree_.path("out");
    for (const std::string& args : std::vector<std::string>{
             "verify", "verify " + missing, "verify x --production-device --development-device",
             "sign " + missing + " -o " + out, "digest " + missing,
             "sign " + tree_.file("bad-recipe.plist", plist::writeXML(dict({{"Version", 7}}))) + " -o " +
                 out})
        EXPECT_EQ(run(args).status, 2) << args;
    EXPECT_FALSE(tree_.exists("out"));
    EXPECT_EQ(run("verify " + tree_.file("junk", "junk") + " --anchors " + pkiPath("anchors")).status,
              1);  // read and refused
}

}  // namespace
}  // namespace qvl::testing
