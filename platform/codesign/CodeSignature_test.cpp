#include "platform/codesign/CodeSignature.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace qvl::platform {
namespace {

namespace fs = std::filesystem;

std::string sourceDir() {
    const char* dir = std::getenv("QVL_SOURCE_DIR");
    return dir ? dir : ".";
}

std::string readAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeAll(const fs::path& p, const std::string& bytes) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << bytes;
}

class CodeSignatureTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        pki_ = new fs::path(fs::temp_directory_path() / ("qvl-codesign-" + std::to_string(getpid())));
        const std::string cmd = sourceDir() + "/platform/codesign/make-test-pki " + pki_->string();
        ready_ = std::system(cmd.c_str()) == 0;
    }
    static void TearDownTestSuite() {
        std::error_code ec;
        fs::remove_all(*pki_, ec);
        delete pki_;
    }
    void SetUp() override {
        if (!ready_) GTEST_SKIP() << "openssl could not make the test PKI";
    }

    // Writes `content` to a new file and signs it with the named signer.
    fs::path signedFile(const std::string& name, const std::string& signer, const std::string& content) {
        const fs::path file = *pki_ / name;
        writeAll(file, content);
        const std::string cmd = sourceDir() + "/platform/codesign/sign-file " +
                                (*pki_ / (signer + ".pem")).string() + " " +
                                (*pki_ / (signer + ".key")).string() + " " + file.string();
        EXPECT_EQ(std::system(cmd.c_str()), 0);
        return file;
    }
    int validate(const fs::path& file) {
        ModuleSignatureValidator validator((*pki_ / "anchors").string());
        return validator.validateCodeSignature(file.string());
    }

    static inline fs::path* pki_ = nullptr;
    static inline bool ready_ = false;
};

TEST_F(CodeSignatureTest, SignerJudgedByRootAndUsage) {
    EXPECT_EQ(validate(signedFile("good", "signer", "#!/bin/sh\necho hi\n")), kCodeSignatureValid);
    EXPECT_EQ(validate(signedFile("nousage", "nousage", "binary")), kCodeSignatureWrongUsage);
    EXPECT_EQ(validate(signedFile("stranger", "stranger", "binary")), kCodeSignatureUntrusted);
    // An empty file can be signed too: the signature covers zero bytes.
    EXPECT_EQ(validate(signedFile("empty", "signer", "")), kCodeSignatureValid);
    ModuleSignatureValidator withoutAnchors((*pki_ / "no-such-folder").string());
    EXPECT_EQ(withoutAnchors.validateCodeSignature((*pki_ / "good").string()), kCodeSignatureNoAnchors);
}

TEST_F(CodeSignatureTest, UnsignedUnreadableChangedAndHostileFiles) {
    const fs::path plain = *pki_ / "plain";
    writeAll(plain, "just some bytes that are long enough to hold a trailer and a magic");
    EXPECT_EQ(validate(plain), kCodeSignatureUnsigned);
    writeAll(plain, "short");
    EXPECT_EQ(validate(plain), kCodeSignatureUnsigned);
    EXPECT_EQ(validate(*pki_ / "missing"), kCodeSignatureUnreadable);
    EXPECT_EQ(validate(*pki_), kCodeSignatureUnreadable);  // a folder

    const fs::path file = signedFile("hostile", "signer", "original content");
    const std::string good = readAll(file);
    const size_t trailerAt = good.size() - kModuleSignatureMagicLength - sizeof(ModuleSignatureTrailer);
    const struct {
        size_t at, count;
        char byte;
        int result;
    } spoils[] = {
        {0, 1, 'O', kCodeSignatureBadSignature},               // the signed content changed
        {trailerAt + 2, 1, 1, kCodeSignatureMalformed},         // an id type other than PKCS #7
        {trailerAt + 8, 4, '\xff', kCodeSignatureMalformed},   // a signature longer than the file
        {trailerAt + 8, 4, 0, kCodeSignatureMalformed},         // an empty signature
    };
    for (const auto& spoil : spoils) {
        std::string bytes = good;
        bytes.replace(spoil.at, spoil.count, spoil.count, spoil.byte);
        writeAll(file, bytes);
        EXPECT_EQ(validate(file), spoil.result) << spoil.at;
    }
}

}  // namespace
}  // namespace qvl::platform
