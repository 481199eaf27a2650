// qvlmanifest sign, verify and digest, run as a program over recipes made from
// the development PKI; signatures are cross-checked with the openssl command.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "plist/PropertyList.h"

namespace {

namespace fs = std::filesystem;

std::string pki(const std::string& name) {
    const char* src = getenv("QVL_SOURCE_DIR");
    return std::string(src ? src : ".") + "/pki/out/" + name;
}

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

class QvlmanifestSignTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qvlmanifest-sign-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
        fs::create_directories(dir_ + "/content/var/mobile/Documents/notes");
        std::ofstream(dir_ + "/content/var/mobile/Documents/notes/a.txt") << "hello\n";
        std::ofstream(dir_ + "/content/var/mobile/Documents/b.txt") << "world\n";
        const std::string record =
            "<dict><key>QVLManifestFileAttributes</key><dict><key>NSFileType</key><string>NSFileTypeRegular</"
            "string>"
            "<key>NSFilePosixPermissions</key><integer>420</integer></dict>"
            "<key>QVLManifestFileHash</key><data>AAECAwQFBgcICQoLDA0ODxAREhM=</data></dict>";
        write("data.plist", "<dict><key>/Documents/c.txt</key>" + record + "</dict>");
    }
    void TearDown() override { fs::remove_all(dir_); }

    void write(const std::string& name, const std::string& body) {
        std::ofstream(dir_ + "/" + name)
            << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
            << body << "\n</plist>\n";
    }

    static std::string certificate(const std::string& name, const std::string& signer,
                                   const std::string& type) {
        return "<key>" + name + "</key><dict><key>Chain</key><string>" + pki(signer + "-chain.pem") +
               "</string><key>PrivateKey</key><string>" + pki(signer + ".key") +
               "</string><key>TypeOfSignature</key><string>" + type + "</string></dict>";
    }

    // A recipe of `version` with a base backup scanned from content/ and an
    // app data container from data.plist.
    void writeRecipe(int version, const std::string& certificates, const std::string& backupCert,
                     const std::string& dataCert) {
        write("recipe.plist",
              "<dict><key>Version</key><integer>" + std::to_string(version) +
                  "</integer><key>Certificates</key><dict>" + certificates +
                  "</dict><key>Info</key><dict><key>Name</key><string>Demo</string></dict>"
                  "<key>Components</key><array>"
                  "<dict><key>Section</key><string>Backup</string><key>Name</key><string>backup.BaseBackup</"
                  "string>"
                  "<key>Certificate</key><string>" +
                  backupCert +
                  "</string><key>Folder</key><string>content</string></dict>"
                  "<dict><key>Section</key><string>AppData</string><key>Name</key><string>com.example.app</"
                  "string>"
                  "<key>Certificate</key><string>" +
                  dataCert +
                  "</string><key>ManifestFile</key><string>data.plist</string></dict></array></dict>");
    }

    Result run(const std::string& args) {
        Result r;
        const std::string errFile = dir_ + "/stderr.txt";
        FILE* pipe = popen((std::string(QVLMANIFEST_PATH) + " " + args + " 2>" + errFile).c_str(), "r");
        if (!pipe) return r;
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) r.out.append(buffer, n);
        const int status = pclose(pipe);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::stringstream err;
        err << std::ifstream(errFile).rdbuf();
        r.err = err.str();
        return r;
    }

    std::string file(const std::string& name) { return dir_ + "/" + name; }
    std::string dir_;
};

TEST_F(QvlmanifestSignTest, SegmentedManifestIsJudgedByTheDevicesFuse) {
    writeRecipe(
        5, certificate("Store", "manual-signer", "Production") + certificate("Test", "uat-signer", "UAT"),
        "Store", "Test");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed")).status, 0);

    const std::string anchors = " --anchors " + pki("anchors");
    Result dev = run("verify " + file("m.signed") + anchors + " --development-device");
    EXPECT_EQ(dev.status, 0) << dev.err;
    EXPECT_NE(dev.out.find("version: 5\n"), std::string::npos);
    EXPECT_NE(dev.out.find("certificate Store: production signer (manual key), check Skip\n"),
              std::string::npos);
    EXPECT_NE(dev.out.find("certificate Test: test signer, check Skip\n"), std::string::npos);
    EXPECT_NE(dev.out.find("component AppData/com.example.app: Skip\n"), std::string::npos);
    EXPECT_NE(dev.out.find("verdict: accepted\n"), std::string::npos);
    EXPECT_NE(
        dev.err.find("-[QVLSignedManifest verifyManifestSignature:]:Skipping rigorous manifest testing\n"),
        std::string::npos);

    Result prod = run("verify " + file("m.signed") + anchors + " --production-device");
    EXPECT_EQ(prod.status, 1);
    EXPECT_NE(
        prod.err.find("-[QVLSignedManifest verifyManifestSignature:]: Manifest contains UAT component on "
                      "prodFused device\n"),
        std::string::npos);
    EXPECT_NE(prod.out.find("verdict: refused\n"), std::string::npos);

    // Without the platform's roots nothing is trusted.
    EXPECT_EQ(
        run("verify " + file("m.signed") + " --anchors " + file("none") + " --development-device").status, 1);
}

TEST_F(QvlmanifestSignTest, DigestMatchesTheSignatureUnderOpenSSL) {
    if (system("command -v openssl >/dev/null") != 0) GTEST_SKIP() << "openssl command not installed";
    writeRecipe(4, certificate("Store", "auto-signer", "Production"), "Store", "Store");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed") + " --xml").status, 0);
    Result digest = run("digest " + file("m.signed"));
    ASSERT_EQ(digest.status, 0);
    const std::string prefix = "Backup/backup.BaseBackup ";
    const size_t at = digest.out.find(prefix);
    ASSERT_NE(at, std::string::npos) << digest.out;
    const std::string hex = digest.out.substr(at + prefix.size(), 40);

    auto manifest = qvl::plist::readFile(file("m.signed"));
    ASSERT_TRUE(manifest);
    const auto* signature = manifest->asDictionary()
                                ->getDictionary("Backup")
                                ->getDictionary("backup.BaseBackup")
                                ->getData("Signature");
    ASSERT_TRUE(signature);
    std::ofstream(file("sig.bin"), std::ios::binary)
        .write(reinterpret_cast<const char*>(signature->data()), signature->size());
    ASSERT_EQ(system(("python3 -c 'import sys;open(sys.argv[1],\"wb\").write(bytes.fromhex(sys.argv[2]))' " +
                      file("digest.bin") + " " + hex)
                         .c_str()),
              0);
    ASSERT_EQ(
        system(
            ("openssl x509 -pubkey -noout -in " + pki("auto-signer.pem") + " > " + file("pub.pem")).c_str()),
        0);
    EXPECT_EQ(
        system(("openssl pkeyutl -verify -pubin -inkey " + file("pub.pem") + " -pkeyopt digest:sha1 -in " +
                file("digest.bin") + " -sigfile " + file("sig.bin") + " >/dev/null")
                   .c_str()),
        0);

    // Signed by the auto signing key: the content checks run and pass.
    Result verify =
        run("verify " + file("m.signed") + " --anchors " + pki("anchors") + " --production-device");
    EXPECT_EQ(verify.status, 0) << verify.err;
    EXPECT_NE(verify.out.find("component Backup/backup.BaseBackup: Default\n"), std::string::npos);
}

TEST_F(QvlmanifestSignTest, MonolithicManifest) {
    writeRecipe(2, certificate("Store", "auto-signer", "Production"), "Store", "Store");
    ASSERT_EQ(run("sign " + file("recipe.plist") + " -o " + file("m.signed")).status, 0);
    Result verify = run("verify " + file("m.signed") + " --anchors " + pki("anchors"));
    EXPECT_EQ(verify.status, 0) << verify.err;
    EXPECT_NE(verify.out.find("certificate: production signer (auto signing key), check Default\n"),
              std::string::npos);
    EXPECT_NE(verify.err.find("Found the auto signing key. Running rigorous checks\n"), std::string::npos);
    Result digest = run("digest " + file("m.signed"));
    EXPECT_EQ(digest.status, 0);
    EXPECT_EQ(digest.out.rfind("payload ", 0), 0u);
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
    // A file that is not a property list is read and refused: exit 1.
    std::ofstream(file("junk")) << "junk";
    EXPECT_EQ(run("verify " + file("junk") + " --anchors " + pki("anchors")).status, 1);
}

}  // namespace
