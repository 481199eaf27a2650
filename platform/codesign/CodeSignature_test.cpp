// Files signed by the openssl command (make-test-pki and sign-file), judged
// by the validator: each signer kind, and each way a file can be unsigned,
// unreadable or spoilt.
#include "platform/codesign/CodeSignature.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::sourcePath;

class CodeSignatureTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        pki_ = new testing::TempTree;
        ready_ = std::system((sourcePath("platform/codesign/make-test-pki ") + pki_->root()).c_str()) == 0;
    }
    static void TearDownTestSuite() { delete pki_; }
    void SetUp() override {
        if (!ready_) GTEST_SKIP() << "openssl could not make the test PKI";
    }

    // A new file of `content`, signed by `signer`.
    std::string signedFile(const std::string& name, const std::string& signer, const std::string& content) {
        const std::string file = pki_->file(name, content);
        EXPECT_EQ(std::system((sourcePath("platform/codesign/sign-file ") + pki_->path(signer + ".pem") +
                               " " + pki_->path(signer + ".key") + " " + file)
                                  .c_str()),
                  0);
        return file;
    }
    int validate(const std::string& file, const std::string& anchors = "anchors") {
        return ModuleSignatureValidator(pki_->path(anchors)).validateCodeSignature(file);
    }

    static inline testing::TempTree* pki_ = nullptr;
    static inline bool ready_ = false;
};

TEST_F(CodeSignatureTest, SignerJudgedByRootAndUsage) {
    EXPECT_EQ(validate(signedFile("good", "signer", "#!/bin/sh\necho hi\n")), kCodeSignatureValid);
    EXPECT_EQ(validate(signedFile("nousage", "nousage", "binary")), kCodeSignatureWrongUsage);
    EXPECT_EQ(validate(signedFile("stranger", "stranger", "binary")), kCodeSignatureUntrusted);
    // An empty file can be signed too: the signature covers zero bytes.
    EXPECT_EQ(validate(signedFile("empty", "signer", "")), kCodeSignatureValid);
    EXPECT_EQ(validate(pki_->path("good"), "no-such-folder"), kCodeSignatureNoAnchors);
}

TEST_F(CodeSignatureTest, UnsignedUnreadableChangedAndHostileFiles) {
    EXPECT_EQ(validate(pki_->file("plain", "bytes that are long enough to hold a trailer and a magic")),
              kCodeSignatureUnsigned);
    EXPECT_EQ(validate(pki_->file("short", "short")), kCodeSignatureUnsigned);
    EXPECT_EQ(validate(pki_->path("missing")), kCodeSignatureUnreadable);
    EXPECT_EQ(validate(pki_->root()), kCodeSignatureUnreadable);  // a folder

    const std::string file = signedFile("hostile", "signer", "original content"),
                      good = testing::readText(file);
    const size_t trailerAt = good.size() - kModuleSignatureMagicLength - sizeof(ModuleSignatureTrailer);
    const struct {
        size_t at, count;
        char byte;
        int result;
    } spoils[] = {
        {0, 1, 'O', kCodeSignatureBadSignature},              // the signed content changed
        {trailerAt + 2, 1, 1, kCodeSignatureMalformed},       // an id type other than PKCS #7
        {trailerAt + 8, 4, '\xff', kCodeSignatureMalformed},  // a signature longer than the file
        {trailerAt + 8, 4, 0, kCodeSignatureMalformed},       // an empty signature
    };
    for (const auto& spoil : spoils) {
        std::string bytes = good;
        testing::writeText(file, bytes.replace(spoil.at, spoil.count, spoil.count, spoil.byte));
        EXPECT_EQ(validate(file), spoil.result) << spoil.at;
    }
}

}  // namespace
}  // namespace qvl::platform
