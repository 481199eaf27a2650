#include "platform/trust/TrustService.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>


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

TEST_F(TrustServiceTest, PoliciesJudgeEachSignerKind) {
    const auto production = TrustPolicy::ProductionStoreSigning, test = TrustPolicy::TestStoreSigning;
    const std::vector<CertificateRef> vantor{cert("vantor-root")}, vantorSigner{cert("vantor-signer")};
    auto der = readBytes(pkiPath("auto-signer.der"));
    der[der.size() - 5] ^= 0x40;  // inside the issuer's signature
    const struct {
        std::vector<CertificateRef> chain;
        TrustPolicy policy;
        const std::vector<CertificateRef>* anchors;
        int verdict;
    } cases[] = {
        {chain("manual-signer"), production, nullptr, kTrustUnspecified},
        {chain("auto-signer"), production, nullptr, kTrustUnspecified},
        {chain("uat-signer"), test, nullptr, kTrustUnspecified},
        // Wrong or missing key usage, expiry, unknown issuer: recoverable.
        {chain("uat-signer"), production, nullptr, kTrustRecoverableFailure},
        {chain("auto-signer"), test, nullptr, kTrustRecoverableFailure},
        {chain("noeku-signer"), production, nullptr, kTrustRecoverableFailure},
        {chain("expired-signer"), production, nullptr, kTrustRecoverableFailure},
        {{cert("unknown-signer"), cert("unknown-root")}, production, nullptr, kTrustRecoverableFailure},
        // The intermediate is not an anchor: without it the chain has a gap.
        {chain("auto-signer", false), production, nullptr, kTrustRecoverableFailure},
        // The basic policy trusts only the anchors set, and setting anchors
        // replaces the platform roots.
        {vantorSigner, TrustPolicy::BasicX509, &vantor, kTrustUnspecified},
        {vantorSigner, TrustPolicy::BasicX509, nullptr, kTrustRecoverableFailure},
        {chain("auto-signer"), production, &vantor, kTrustRecoverableFailure},
        {vantorSigner, production, nullptr, kTrustRecoverableFailure},
        // A tampered signer is fatal.
        {{service.createCertificate(der), cert("store-ca")}, production, nullptr, kTrustFatalFailure},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(verdict(cases[i].chain, cases[i].policy, cases[i].anchors), cases[i].verdict) << "case " << i;
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

TEST(TrustAnchorsTest, MissingFolderHasNoAnchors) {
    EXPECT_TRUE(TrustService::loadAnchors("/nonexistent/anchors").empty());
    EXPECT_EQ(TrustService::loadAnchors(pkiPath("anchors")).size(), 1u);
}

}  // namespace
}  // namespace qvl::platform
