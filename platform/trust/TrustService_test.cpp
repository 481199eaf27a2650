// The trust service beyond what the signed-manifest tests show through their
// loads (each signer kind of the development PKI under the policy its
// manifest asks for, the manual key's bytes, a folder without roots): chains
// with a gap, anchors that replace the platform roots, a tampered signer,
// certificates that are not exactly one DER certificate, and a key handed out
// only after the evaluation.
#include "platform/trust/TrustService.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace qvl::platform {
namespace {

using testing::pkiPath;

std::vector<uint8_t> der(const std::string& name) {
    const std::string bytes = testing::readText(pkiPath(name + ".der"));
    return {bytes.begin(), bytes.end()};
}

TEST(TrustServiceTest, ChainsAnchorsAndTamperedSigners) {
    TrustService service(pkiPath("anchors"));
    auto cert = [&](const std::string& name) { return service.createCertificate(der(name)); };
    auto tampered = der("auto-signer");
    tampered[tampered.size() - 5] ^= 0x40;  // inside the issuer's signature
    const auto production = TrustPolicy::ProductionStoreSigning, basic = TrustPolicy::BasicX509;
    const std::vector<CertificateRef> vantor{cert("vantor-root")}, vantorSigner{cert("vantor-signer")};
    const struct {
        std::vector<CertificateRef> chain;
        TrustPolicy policy;
        const std::vector<CertificateRef>* anchors;
        int verdict;
    } cases[] = {
        {{cert("auto-signer"), cert("store-ca")}, production, nullptr, kTrustUnspecified},
        // The intermediate is not an anchor: without it the chain has a gap.
        {{cert("auto-signer")}, production, nullptr, kTrustRecoverableFailure},
        // The basic policy trusts only the anchors set, and setting anchors
        // replaces the platform roots.
        {vantorSigner, basic, &vantor, kTrustUnspecified},
        {vantorSigner, basic, nullptr, kTrustRecoverableFailure},
        {{cert("auto-signer"), cert("store-ca")}, production, &vantor, kTrustRecoverableFailure},
        {{service.createCertificate(tampered), cert("store-ca")}, production, nullptr, kTrustFatalFailure},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        TrustRef trust;
        ASSERT_EQ(service.createTrust(cases[i].chain, cases[i].policy, &trust), 0) << i;
        if (cases[i].anchors) {
            EXPECT_EQ(service.setAnchors(*trust, *cases[i].anchors), 0);
        }
        EXPECT_FALSE(service.copyPublicKey(*trust));  // not before the evaluation
        int verdict = -1;
        EXPECT_EQ(service.evaluate(*trust, &verdict), 0);
        EXPECT_EQ(verdict, cases[i].verdict) << "case " << i;
        EXPECT_EQ(service.copyPublicKey(*trust) != nullptr, verdict == kTrustUnspecified) << "case " << i;
    }
}

TEST(TrustServiceTest, CertificatesMustBeExactlyOneDERCertificate) {
    TrustService service(pkiPath("anchors"));
    auto bytes = der("auto-signer");
    EXPECT_FALSE(service.createCertificate({}));
    EXPECT_FALSE(service.createCertificate(std::span(bytes).first(bytes.size() - 1)));
    bytes.push_back(0);
    EXPECT_FALSE(service.createCertificate(bytes));
    TrustRef trust;
    EXPECT_NE(service.createTrust({}, TrustPolicy::BasicX509, &trust), 0);
    EXPECT_NE(service.createTrust({nullptr}, TrustPolicy::BasicX509, &trust), 0);
}

}  // namespace
}  // namespace qvl::platform
