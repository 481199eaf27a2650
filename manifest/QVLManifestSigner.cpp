#include "manifest/QVLManifestSigner.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace qvl {

namespace {

struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};

void setError(std::string* error, std::string text) {
    if (error) *error = std::move(text);
}

std::unique_ptr<BIO, BioFree> openFile(const std::string& path) {
    return std::unique_ptr<BIO, BioFree>(BIO_new_file(path.c_str(), "re"));
}

}  // namespace

std::optional<QVLManifestSigner::Identity> QVLManifestSigner::loadIdentity(const std::string& chainPem,
                                                                           const std::string& keyPem,
                                                                           std::string* error) {
    constexpr size_t kMaxChainLength = 16;
    Identity identity;
    auto chainFile = openFile(chainPem);
    if (!chainFile) {
        setError(error, "cannot open " + chainPem);
        return std::nullopt;
    }
    while (identity.chain.size() < kMaxChainLength) {
        X509* cert = PEM_read_bio_X509(chainFile.get(), nullptr, nullptr, nullptr);
        if (!cert) break;
        unsigned char* der = nullptr;
        const int length = i2d_X509(cert, &der);
        X509_free(cert);
        if (length <= 0) break;
        identity.chain.push_back(plist::Value(plist::Data(der, der + length)));
        OPENSSL_free(der);
    }
    ERR_clear_error();
    if (identity.chain.empty()) {
        setError(error, "no certificate in " + chainPem);
        return std::nullopt;
    }
    auto keyFile = openFile(keyPem);
    EVP_PKEY* key = keyFile ? PEM_read_bio_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr) : nullptr;
    ERR_clear_error();
    if (!key || EVP_PKEY_base_id(key) != EVP_PKEY_RSA) {
        EVP_PKEY_free(key);
        setError(error, "no RSA private key in " + keyPem);
        return std::nullopt;
    }
    identity.privateKey =
        std::shared_ptr<void>(key, [](void* k) { EVP_PKEY_free(static_cast<EVP_PKEY*>(k)); });
    return identity;
}

std::optional<plist::Data> QVLManifestSigner::signDigest(const Identity& identity, const QVLDigest& digest) {
    auto* key = static_cast<EVP_PKEY*>(identity.privateKey.get());
    if (!key) return std::nullopt;
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) != 1)
        return std::nullopt;
    size_t length = 0;
    if (EVP_PKEY_sign(context.get(), nullptr, &length, digest.data(), digest.size()) != 1)
        return std::nullopt;
    plist::Data signature(length);
    if (EVP_PKEY_sign(context.get(), signature.data(), &length, digest.data(), digest.size()) != 1)
        return std::nullopt;
    signature.resize(length);
    return signature;
}

bool QVLManifestSigner::signComponent(plist::Dictionary& component, std::string_view name,
                                      const std::string& certificateName, const Identity& identity) {
    const auto digest = QVLComponentDigest(name, component.find("Manifest"));
    if (!digest) return false;
    auto signature = signDigest(identity, *digest);
    if (!signature) return false;
    component.set("Certificate", plist::Value(certificateName));
    component.set("Signature", plist::Value(std::move(*signature)));
    return true;
}

std::optional<plist::Dictionary> QVLManifestSigner::monolithicManifest(const plist::Data& payload,
                                                                       const Identity& identity) {
    auto signature = signDigest(identity, sha1(payload));
    if (!signature) return std::nullopt;
    plist::Dictionary outer;
    outer.set("Version", plist::Value(2));
    outer.set("Certificate", plist::Value(identity.chain));
    outer.set("Payload", plist::Value(payload));
    outer.set("Signature", plist::Value(std::move(*signature)));
    return outer;
}

QVLDigest QVLManifestSigner::sha1(std::span<const uint8_t> bytes) {
    QVLDigest out{};
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), out.data(), &length, EVP_sha1(), nullptr);
    return out;
}

}  // namespace qvl
