// TrustService: the device's certificate trust service, on OpenSSL.
//
// Certificates are made from DER; a trust object judges a chain (signer first,
// the later elements untrusted intermediates) under one of three policies:
//   - production store signing: the chain leads to a platform root under the
//     usual X.509 rules at the current time, and the signer's extended key
//     usage holds the production store-signing usage;
//   - test store signing: the same with the test store-signing usage;
//   - basic X.509: the usual rules, trusting only the anchors that were set.
// The platform roots are every certificate in the PEM files of one folder
// ("/etc/ostrel/trust/anchors" on the device), read when a trust is made.
//
// Every operation is virtual so that tests can put a faulty service in its
// place. Certificates, policies, trusts and keys are reference-counted handles
// that free their OpenSSL objects with their last owner.
//
// Thread-safety: the service keeps no mutable state; a trust object must not
// be used from two threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace qvl::platform {

class Certificate;  // one X.509 certificate
class PublicKey;    // a public key taken from a certificate
class Trust;        // a chain under a policy, with optional anchors

using CertificateRef = std::shared_ptr<const Certificate>;
using PublicKeyRef = std::shared_ptr<const PublicKey>;
using TrustRef = std::shared_ptr<Trust>;

enum class TrustPolicy { ProductionStoreSigning, TestStoreSigning, BasicX509 };

// Verdicts of an evaluation, as the device numbers them.
enum TrustVerdict : int {
    kTrustInvalid = 0,
    kTrustProceed = 1,
    kTrustDeny = 3,
    kTrustUnspecified = 4,         // trusted through its anchors
    kTrustRecoverableFailure = 5,  // time validity, missing issuer, missing key usage
    kTrustFatalFailure = 6,        // anything else
    kTrustOtherError = 7,
};

// Extended key usages the policies ask of a signer.
inline constexpr const char* kProductionStoreSigningUsage = "2.25.298669800930777386560449070858873769647";
inline constexpr const char* kTestStoreSigningUsage = "2.25.287578814968824745997839581089553210683";

inline constexpr const char* kDefaultAnchorsFolder = "/etc/ostrel/trust/anchors";

class TrustService {
  public:
    explicit TrustService(std::string anchorsFolder = kDefaultAnchorsFolder)
        : anchorsFolder_(std::move(anchorsFolder)) {}
    virtual ~TrustService() = default;

    // The service over the device's anchor folder.
    static TrustService& sharedInstance();

    // Null when the bytes are not one DER certificate.
    virtual CertificateRef createCertificate(std::span<const uint8_t> der) const;

    // Always answers on this platform; a null answer is a platform failure.
    virtual std::optional<TrustPolicy> createPolicy(TrustPolicy policy) const { return policy; }

    // Status 0 and `trust` set on success. An empty chain is refused.
    virtual int createTrust(const std::vector<CertificateRef>& chain, TrustPolicy policy,
                            TrustRef* trust) const;

    // Makes `anchors` the only trusted roots of `trust`. Status 0 on success.
    virtual int setAnchors(Trust& trust, const std::vector<CertificateRef>& anchors) const;

    // Status 0 and a verdict on success; non-zero when the evaluation could
    // not run at all.
    virtual int evaluate(Trust& trust, int* verdict) const;

    // The signer certificate's key, after a successful evaluation; else null.
    virtual PublicKeyRef copyPublicKey(const Trust& trust) const;

    // For RSA the DER RSAPublicKey (PKCS #1); nullopt for other key kinds.
    virtual std::optional<std::vector<uint8_t>> exportPublicKey(const PublicKey& key) const;

    // RSASSA-PKCS1-v1_5 with SHA-1 over a 20-byte digest that the caller has
    // already computed. Status 0 when the signature is valid.
    virtual int rawVerify(const PublicKey& key, std::span<const uint8_t> digest,
                          std::span<const uint8_t> signature) const;

    // Reads every certificate of the PEM files in `folder`; unreadable files
    // and non-certificate blocks are skipped.
    static std::vector<CertificateRef> loadAnchors(const std::string& folder);

    const std::string& anchorsFolder() const { return anchorsFolder_; }

  private:
    std::string anchorsFolder_;
};

}  // namespace qvl::platform
