#include "platform/trust/TrustService.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "base/DescriptorIO.h"
#include "base/UniqueFd.h"

namespace qvl::platform {

namespace {

// Statuses of operations that could not run at all.
constexpr int kStatusBadParameter = -1;
constexpr int kStatusNoMemory = -2;
constexpr int kStatusInvalidSignature = -3;

// Bounds on what an anchor folder can make us read.
constexpr uint64_t kMaxAnchorFileSize = 1 << 20;
constexpr size_t kMaxAnchors = 256;

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct StoreFree {
    void operator()(X509_STORE* s) const { X509_STORE_free(s); }
};
struct StoreCtxFree {
    void operator()(X509_STORE_CTX* c) const { X509_STORE_CTX_free(c); }
};
struct StackFree {
    void operator()(STACK_OF(X509) * s) const { sk_X509_free(s); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct UsageFree {
    void operator()(EXTENDED_KEY_USAGE* e) const { EXTENDED_KEY_USAGE_free(e); }
};

}  // namespace

class Certificate {
  public:
    explicit Certificate(X509* x) : x509_(x) {}
    X509* get() const { return x509_.get(); }

  private:
    std::unique_ptr<X509, X509Free> x509_;
};

class PublicKey {
  public:
    explicit PublicKey(EVP_PKEY* k) : pkey_(k) {}
    EVP_PKEY* get() const { return pkey_.get(); }

  private:
    std::unique_ptr<EVP_PKEY, PkeyFree> pkey_;
};

class Trust {
  public:
    std::vector<CertificateRef> chain;
    TrustPolicy policy = TrustPolicy::BasicX509;
    std::optional<std::vector<CertificateRef>> anchors;  // set: only these are trusted
    bool trusted = false;                                // last evaluation succeeded
};

namespace {

// An anchor file: a regular file, reached without following a link at its
// name, of at most kMaxAnchorFileSize bytes.
std::optional<std::vector<uint8_t>> readAnchorFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat st;
    std::vector<uint8_t> bytes;
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        readAll(fd.get(), kMaxAnchorFileSize, &bytes) != 0)
        return std::nullopt;
    return bytes;
}

bool hasUsage(X509* cert, const char* oid) {
    std::unique_ptr<EXTENDED_KEY_USAGE, UsageFree> usages(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
    if (!usages) return false;
    const int count = sk_ASN1_OBJECT_num(usages.get());
    for (int i = 0; i < count; ++i) {
        char text[128];
        const int length = OBJ_obj2txt(text, sizeof text, sk_ASN1_OBJECT_value(usages.get(), i), 1);
        if (length > 0 && static_cast<size_t>(length) < sizeof text && strcmp(text, oid) == 0) return true;
    }
    return false;
}

const char* requiredUsage(TrustPolicy policy) {
    switch (policy) {
        case TrustPolicy::ProductionStoreSigning:
            return kProductionStoreSigningUsage;
        case TrustPolicy::TestStoreSigning:
            return kTestStoreSigningUsage;
        case TrustPolicy::BasicX509:
            return nullptr;
    }
    return nullptr;
}

// Failures of time validity or of a missing issuer can be put right by the
// user (a clock, a missing root); everything else is fatal.
int verdictForError(int error) {
    switch (error) {
        case X509_V_ERR_CERT_NOT_YET_VALID:
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return kTrustRecoverableFailure;
        default:
            return kTrustFatalFailure;
    }
}

}  // namespace

TrustService& TrustService::sharedInstance() {
    static TrustService service;
    return service;
}

CertificateRef TrustService::createCertificate(std::span<const uint8_t> der) const {
    if (der.empty() || der.size() > static_cast<size_t>(INT32_MAX)) return nullptr;
    const unsigned char* p = der.data();
    X509* x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    if (!x) return nullptr;
    // Trailing bytes mean this was not one certificate.
    if (p != der.data() + der.size()) {
        X509_free(x);
        return nullptr;
    }
    return std::make_shared<const Certificate>(x);
}

int TrustService::createTrust(const std::vector<CertificateRef>& chain, TrustPolicy policy,
                              TrustRef* trust) const {
    if (!trust || chain.empty()) return kStatusBadParameter;
    for (const auto& cert : chain)
        if (!cert) return kStatusBadParameter;
    auto made = std::make_shared<Trust>();
    made->chain = chain;
    made->policy = policy;
    *trust = std::move(made);
    return 0;
}

int TrustService::setAnchors(Trust& trust, const std::vector<CertificateRef>& anchors) const {
    for (const auto& cert : anchors)
        if (!cert) return kStatusBadParameter;
    trust.anchors = anchors;
    trust.trusted = false;
    return 0;
}

int TrustService::evaluate(Trust& trust, int* verdict) const {
    if (!verdict || trust.chain.empty()) return kStatusBadParameter;
    trust.trusted = false;

    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    std::unique_ptr<STACK_OF(X509), StackFree> untrusted(sk_X509_new_null());
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> context(X509_STORE_CTX_new());
    if (!store || !untrusted || !context) return kStatusNoMemory;

    // Without anchors of its own, a store-signing policy trusts the platform
    // roots; the basic policy trusts nothing but what was set.
    std::vector<CertificateRef> roots;
    if (trust.anchors)
        roots = *trust.anchors;
    else if (trust.policy != TrustPolicy::BasicX509)
        roots = loadAnchors(anchorsFolder_);
    for (const auto& root : roots)
        if (X509_STORE_add_cert(store.get(), root->get()) != 1) return kStatusNoMemory;
    for (size_t i = 1; i < trust.chain.size(); ++i)
        if (!sk_X509_push(untrusted.get(), trust.chain[i]->get())) return kStatusNoMemory;

    X509* signer = trust.chain.front()->get();
    if (X509_STORE_CTX_init(context.get(), store.get(), signer, untrusted.get()) != 1) return kStatusNoMemory;
    if (X509_verify_cert(context.get()) != 1) {
        *verdict = verdictForError(X509_STORE_CTX_get_error(context.get()));
        return 0;
    }
    const char* usage = requiredUsage(trust.policy);
    if (usage && !hasUsage(signer, usage)) {
        *verdict = kTrustRecoverableFailure;
        return 0;
    }
    trust.trusted = true;
    *verdict = kTrustUnspecified;
    return 0;
}

PublicKeyRef TrustService::copyPublicKey(const Trust& trust) const {
    if (!trust.trusted || trust.chain.empty()) return nullptr;
    EVP_PKEY* key = X509_get_pubkey(trust.chain.front()->get());
    if (!key) return nullptr;
    return std::make_shared<const PublicKey>(key);
}

std::optional<std::vector<uint8_t>> TrustService::exportPublicKey(const PublicKey& key) const {
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) return std::nullopt;
    unsigned char* der = nullptr;
    const int length = i2d_PublicKey(key.get(), &der);
    if (length <= 0) return std::nullopt;
    std::vector<uint8_t> bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

int TrustService::rawVerify(const PublicKey& key, std::span<const uint8_t> digest,
                            std::span<const uint8_t> signature) const {
    if (digest.size() != 20 || signature.empty()) return kStatusBadParameter;
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) return kStatusBadParameter;
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> context(EVP_PKEY_CTX_new(key.get(), nullptr));
    if (!context) return kStatusNoMemory;
    if (EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) != 1)
        return kStatusNoMemory;
    const int ok =
        EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size());
    return ok == 1 ? 0 : kStatusInvalidSignature;
}

std::vector<CertificateRef> TrustService::loadAnchors(const std::string& folder) {
    std::vector<CertificateRef> anchors;
    DIR* dir = opendir(folder.c_str());
    if (!dir) return anchors;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.ends_with(".pem")) names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    for (const auto& name : names) {
        const auto text = readAnchorFile(folder + "/" + name);
        if (!text) continue;
        std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(text->data(), static_cast<int>(text->size())));
        if (!bio) continue;
        while (anchors.size() < kMaxAnchors) {
            X509* x = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
            if (!x) break;
            anchors.push_back(std::make_shared<const Certificate>(x));
        }
    }
    // PEM reading leaves an end-of-data error behind; it belongs to no caller.
    ERR_clear_error();
    return anchors;
}

}  // namespace qvl::platform
