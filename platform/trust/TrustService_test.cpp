#include "platform/trust/TrustService.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace qvl::platform {
namespace {

std::string pkiPath(const std::string& name) {
    const char* src = getenv("QVL_SOURCE_DIR");
    return std::string(src ? src : ".") + "/pki/out/" + name;
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class TrustServiceTest : public ::testing::Test {
  protected:
    TrustService service{pkiPath("anchors")};

    CertificateRef cert(const std::string& name) {
        return service.createCertificate(readBytes(pkiPath(name + ".der")));
    }

    std::vector<CertificateRef> chain(const std::string& signer, bool withStoreCA = true) {
        std::vector<CertificateRef> result{cert(signer)};
        if (withStoreCA) result.push_back(cert("store-ca"));
        return result;
    }

    // Verdict of `chain` under `policy`, with `anchors` when given.
    int verdict(const std::vector<CertificateRef>& certs, TrustPolicy policy,
                const std::vector<CertificateRef>* anchors = nullptr) {
        TrustRef trust;
        EXPECT_EQ(service.createTrust(certs, policy, &trust), 0);
        if (anchors) {
            EXPECT_EQ(service.setAnchors(*trust, *anchors), 0);
        }
        int result = -1;
        EXPECT_EQ(service.evaluate(*trust, &result), 0);
        return result;
    }
};

TEST_F(TrustServiceTest, StoreSigningPoliciesJudgeEachSignerKind) {
    const auto production = TrustPolicy::ProductionStoreSigning;
    const auto test = TrustPolicy::TestStoreSigning;
    EXPECT_EQ(verdict(chain("manual-signer"), production), kTrustUnspecified);
    EXPECT_EQ(verdict(chain("auto-signer"), production), kTrustUnspecified);
    EXPECT_EQ(verdict(chain("uat-signer"), test), kTrustUnspecified);
    // Wrong or missing key usage, expiry, unknown issuer: recoverable.
    EXPECT_EQ(verdict(chain("uat-signer"), production), kTrustRecoverableFailure);
    EXPECT_EQ(verdict(chain("auto-signer"), test), kTrustRecoverableFailure);
    EXPECT_EQ(verdict(chain("noeku-signer"), production), kTrustRecoverableFailure);
    EXPECT_EQ(verdict(chain("expired-signer"), production), kTrustRecoverableFailure);
    EXPECT_EQ(verdict({cert("unknown-signer"), cert("unknown-root")}, production), kTrustRecoverableFailure);
    // The intermediate is not an anchor: without it the chain has a gap.
    EXPECT_EQ(verdict(chain("auto-signer", false), production), kTrustRecoverableFailure);
}

TEST_F(TrustServiceTest, BasicPolicyTrustsOnlyTheAnchorsSet) {
    const std::vector<CertificateRef> vantor{cert("vantor-root")};
    const std::vector<CertificateRef> signer{cert("vantor-signer")};
    EXPECT_EQ(verdict(signer, TrustPolicy::BasicX509, &vantor), kTrustUnspecified);
    EXPECT_EQ(verdict(signer, TrustPolicy::BasicX509), kTrustRecoverableFailure);
    // Setting anchors replaces the platform roots.
    EXPECT_EQ(verdict(chain("auto-signer"), TrustPolicy::ProductionStoreSigning, &vantor),
              kTrustRecoverableFailure);
    EXPECT_EQ(verdict(signer, TrustPolicy::ProductionStoreSigning), kTrustRecoverableFailure);
}

TEST_F(TrustServiceTest, TamperedSignerIsFatal) {
    auto der = readBytes(pkiPath("auto-signer.der"));
    der[der.size() - 5] ^= 0x40;  // inside the issuer's signature
    auto tampered = service.createCertificate(der);
    ASSERT_TRUE(tampered);
    EXPECT_EQ(verdict({tampered, cert("store-ca")}, TrustPolicy::ProductionStoreSigning), kTrustFatalFailure);
}

TEST_F(TrustServiceTest, CertificatesMustBeExactlyOneDERCertificate) {
    auto der = readBytes(pkiPath("auto-signer.der"));
    EXPECT_FALSE(service.createCertificate({}));
    EXPECT_FALSE(service.createCertificate(std::span(der).first(der.size() - 1)));
    der.push_back(0);
    EXPECT_FALSE(service.createCertificate(der));
    TrustRef trust;
    EXPECT_NE(service.createTrust({}, TrustPolicy::BasicX509, &trust), 0);
    EXPECT_NE(service.createTrust({nullptr}, TrustPolicy::BasicX509, &trust), 0);
}

TEST_F(TrustServiceTest, KeyIsHandedOutOnlyAfterTrustAndExportsAsPKCS1) {
    TrustRef trust;
    ASSERT_EQ(service.createTrust(chain("manual-signer"), TrustPolicy::ProductionStoreSigning, &trust), 0);
    EXPECT_FALSE(service.copyPublicKey(*trust));
    int result = 0;
    ASSERT_EQ(service.evaluate(*trust, &result), 0);
    auto key = service.copyPublicKey(*trust);
    ASSERT_TRUE(key);
    auto exported = service.exportPublicKey(*key);
    ASSERT_TRUE(exported);
    EXPECT_EQ(exported->size(), 270u);
    EXPECT_EQ(*exported, readBytes(pkiPath("manual-key.der")));
}

TEST_F(TrustServiceTest, RawVerifyChecksPKCS1SHA1OverTheGivenDigest) {
    TrustRef trust;
    ASSERT_EQ(service.createTrust(chain("auto-signer"), TrustPolicy::ProductionStoreSigning, &trust), 0);
    int result = 0;
    ASSERT_EQ(service.evaluate(*trust, &result), 0);
    auto key = service.copyPublicKey(*trust);
    ASSERT_TRUE(key);

    FILE* file = fopen(pkiPath("auto-signer.key").c_str(), "re");
    ASSERT_TRUE(file);
    EVP_PKEY* priv = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    fclose(file);
    ASSERT_TRUE(priv);
    const std::vector<uint8_t> digest(20, 0xA5);
    auto sign = [&](int padding, const EVP_MD* md) {
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(priv, nullptr);
        EVP_PKEY_sign_init(ctx);
        EVP_PKEY_CTX_set_rsa_padding(ctx, padding);
        if (md) EVP_PKEY_CTX_set_signature_md(ctx, md);
        std::vector<uint8_t> sig(256);
        size_t length = sig.size();
        EXPECT_EQ(EVP_PKEY_sign(ctx, sig.data(), &length, digest.data(), digest.size()), 1);
        EVP_PKEY_CTX_free(ctx);
        sig.resize(length);
        return sig;
    };
    auto good = sign(RSA_PKCS1_PADDING, EVP_sha1());
    auto noDigestInfo = sign(RSA_PKCS1_PADDING, nullptr);
    EVP_PKEY_free(priv);

    EXPECT_EQ(service.rawVerify(*key, digest, good), 0);
    EXPECT_NE(service.rawVerify(*key, digest, noDigestInfo), 0);
    auto otherDigest = digest;
    otherDigest[0] ^= 1;
    EXPECT_NE(service.rawVerify(*key, otherDigest, good), 0);
    EXPECT_NE(service.rawVerify(*key, std::span(digest).first(19), good), 0);
    good.pop_back();
    EXPECT_NE(service.rawVerify(*key, digest, good), 0);
}

TEST(TrustAnchorsTest, MissingFolderHasNoAnchors) {
    EXPECT_TRUE(TrustService::loadAnchors("/nonexistent/anchors").empty());
    EXPECT_EQ(TrustService::loadAnchors(pkiPath("anchors")).size(), 1u);
}

}  // namespace
}  // namespace qvl::platform
