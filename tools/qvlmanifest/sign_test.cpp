// qvlmanifest sign, verify and digest, run as a program over recipes made from
// the development PKI; signatures are cross-checked with the openssl command.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace {

namespace fs = std::filesystem;

std::string pki(const std::string& name) {
    const char* src = getenv("QVL_SOURCE_DIR");
    return std::string(src ? src : ".") + "/pki/out/" + name;
}

struct Result {
    int status = -1;
    std::string out, err;
    bool says(const std::string& text) const { return out.find(text) != std::string::npos; }
    bool logs(const std::string& text) const { return err.find(text) != std::string::npos; }
};

class QvlmanifestSignTest : public ::testing::Test {
  protected:
    void SetUp() override {
        umask(022);  // the scanned folders above the content are closed to group and others
        char pattern[] = "/tmp/qvlmanifest-sign-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
        fs::create_directories(dir_ + "/content/var/mobile/Documents/notes");
        std::ofstream(dir_ + "/content/var/mobile/Documents/notes/a.txt") << "hello\n";
        std::ofstream(dir_ + "/content/var/mobile/Documents/b.txt") << "world\n";
        write("data.plist",
              "<dict><key>/Documents/c.txt</key><dict><key>QVLManifestFileAttributes</key>"
              "<dict><key>NSFileType</key><string>NSFileTypeRegular</string></dict></dict></dict>");
    }
    void TearDown() override { fs::remove_all(dir_); }

    void write(const std::string& name, const std::string& dict) {
        std::ofstream(file(name)) << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">"
                                  << dict << "</plist>";
    }
    // A recipe of `version`: certificate "Store" of `signer` (and, above
    // version 2, "Test" of the test signer), a base backup scanned from
    // content/ under "Store", and a container in each data section from
    // data.plist under `dataCert`.
    void writeRecipe(int version, const std::string& signer, const std::string& dataCert = "Store") {
        auto certificate = [](const std::string& name, const std::string& who, const std::string& type) {
            return "<key>" + name + "</key><dict><key>Chain</key><string>" + pki(who + "-chain.pem") +
                   "</string><key>PrivateKey</key><string>" + pki(who + ".key") +
                   "</string><key>TypeOfSignature</key><string>" + type + "</string></dict>";
        };
        auto component = [](const std::string& section, const std::string& cert, const std::string& source) {
            return "<dict><key>Section</key><string>" + section + "</string><key>Name</key><string>" +
                   (section == "Backup" ? "backup.BaseBackup" : "com.example.data") +
                   "</string><key>Certificate</key><string>" + cert + "</string>" + source + "</dict>";
        };
        const std::string data = "<key>ManifestFile</key><string>data.plist</string>";
        write("recipe.plist",
              "<dict><key>Version</key><integer>" + std::to_string(version) +
                  "</integer><key>Certificates</key><dict>" + certificate("Store", signer, "Production") +
                  (version == 2 ? "" : certificate("Test", "uat-signer", "UAT")) +
                  "</dict><key>Components</key><array>" +
                  component("Backup", "Store", "<key>Folder</key><string>content</string>") +
                  component("AppData", dataCert, data) + component("GroupData", dataCert, data) +
                  component("ExtensionData", dataCert, data) + "</array></dict>");
    }

    Result run(const std::string& args) {
        Result r;
        FILE* pipe =
            popen((std::string(QVLMANIFEST_PATH) + " " + args + " 2>" + file("stderr.txt")).c_str(), "r");
        if (!pipe) return r;
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) r.out.append(buffer, n);
        const int status = pclose(pipe);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::stringstream err;
        err << std::ifstream(file("stderr.txt")).rdbuf();
        r.err = err.str();
        return r;
    }
    Result verify(const std::string& options) {
        return run("verify " + file("m.signed") + " --anchors " + pki("anchors") + " " + options);
    }

    std::string file(const std::string& name) { return dir_ + "/" + name; }
    std::string dir_;
};

// What an honest signer makes with the auto signing key passes every content
// check, in every layout and either encoding.
TEST_F(QvlmanifestSignTest, EveryLayoutOfTheAutoSigningKeyIsAccepted) {
    for (int version : {2, 3, 4, 5}) {
        for (const char* encoding : {"", " --xml"}) {
            SCOPED_TRACE(std::to_string(version) + encoding);
            writeRecipe(version, "auto-signer");
            ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed") + encoding).status, 0);
            Result r = verify("--production-device -v");
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_TRUE(r.says("verdict: accepted\n"));
            if (version == 2) {
                EXPECT_TRUE(r.says("certificate: production signer (auto signing key), check Default\n"));
                EXPECT_TRUE(r.logs("Found the auto signing key. Running rigorous checks\n"));
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

TEST_F(QvlmanifestSignTest, SegmentedManifestIsJudgedByTheDevicesFuse) {
    writeRecipe(5, "manual-signer", "Test");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed")).status, 0);
    Result dev = verify("--development-device");
    EXPECT_EQ(dev.status, 0) << dev.err;
    EXPECT_TRUE(dev.says("version: 5\n"));
    EXPECT_TRUE(dev.says("certificate Store: production signer (manual key), check Skip\n"));
    EXPECT_TRUE(dev.says("certificate Test: test signer, check Skip\n"));
    EXPECT_TRUE(dev.says("component AppData/com.example.data: Skip\n"));
    EXPECT_TRUE(
        dev.logs("-[QVLSignedManifest verifyManifestSignature:]:Skipping rigorous manifest testing\n"));

    Result prod = verify("--production-device");
    EXPECT_EQ(prod.status, 1);
    EXPECT_TRUE(
        prod.logs("-[QVLSignedManifest verifyManifestSignature:]: Manifest contains UAT component on "
                  "prodFused device\n"));
    EXPECT_TRUE(prod.says("verdict: refused\n"));
    // Without the platform's roots nothing is trusted.
    EXPECT_EQ(
        run("verify " + file("m.signed") + " --anchors " + file("none") + " --development-device").status, 1);
}

TEST_F(QvlmanifestSignTest, DigestMatchesTheSignatureUnderOpenSSL) {
    if (system("command -v openssl >/dev/null") != 0) GTEST_SKIP() << "openssl command not installed";
    writeRecipe(4, "auto-signer");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed") + " --xml").status, 0);
    Result digest = run("digest " + file("m.signed"));
    ASSERT_EQ(digest.status, 0);
    const std::string prefix = "Backup/backup.BaseBackup ";
    const size_t at = digest.out.find(prefix);
    ASSERT_NE(at, std::string::npos) << digest.out;
    auto manifest = qvl::platform::readPropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), file("m.signed"));
    ASSERT_TRUE(manifest);
    const auto* signature = manifest->asDictionary()
                                ->getDictionary("Backup")
                                ->getDictionary("backup.BaseBackup")
                                ->getData("Signature");
    ASSERT_TRUE(signature);
    std::ofstream(file("sig.bin"), std::ios::binary)
        .write(reinterpret_cast<const char*>(signature->data()), signature->size());
    const std::string shell =
        "python3 -c 'import sys;open(sys.argv[1],\"wb\").write(bytes.fromhex(sys.argv[2]))' " +
        file("digest.bin") + " " + digest.out.substr(at + prefix.size(), 40) +
        " && openssl x509 -pubkey -noout -in " + pki("auto-signer.pem") + " > " + file("pub.pem") +
        " && openssl pkeyutl -verify -pubin -inkey " + file("pub.pem") + " -pkeyopt digest:sha1 -in " +
        file("digest.bin") + " -sigfile " + file("sig.bin") + " >/dev/null";
    EXPECT_EQ(system(shell.c_str()), 0);

    writeRecipe(2, "auto-signer");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed")).status, 0);
    EXPECT_EQ(run("digest " + file("m.signed")).out.rfind("payload ", 0), 0u);
}

TEST_F(QvlmanifestSignTest, BadUsageAndUnreadableFilesExitWithTwo) {
    EXPECT_EQ(run("verify").status, 2);
    EXPECT_EQ(run("verify " + file("missing")).status, 2);
    EXPECT_EQ(run("verify " + file("x") + " --production-device --development-device").status, 2);
    EXPECT_EQ(run("sign " + file("missing") + " -o " + file("out")).status, 2);
    write("recipe.plist", "<dict><key>Version</key><integer>7</integer></dict>");
    EXPECT_EQ(run("sign " + file("recipe.plist") + " -o " + file("out")).status, 2);
    EXPECT_FALSE(fs::exists(file("out")));
    EXPECT_EQ(run("digest " + file("missing")).status, 2);
    std::ofstream(file("junk")) << "junk";  // read and refused: exit 1
    EXPECT_EQ(run("verify " + file("junk") + " --anchors " + pki("anchors")).status, 1);
}

}  // namespace
