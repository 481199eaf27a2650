// QVLManifestSigner: the content author's side of signed manifests. It loads
// a signing identity (certificate chain and private key, PEM files), signs a
// 20-byte SHA-1 value with RSASSA-PKCS1-v1_5, and signs components and
// monolithic payloads exactly as QVLSignedManifest verifies them.
//
// Thread-safety: an identity may be used from several threads; each call
// makes its own OpenSSL contexts.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "manifest/QVLPropertyListDigest.h"
#include "plist/PlistValue.h"

namespace qvl {

class QVLManifestSigner {
  public:
    // The certificate chain (DER, signer first) and the signer's private key.
    struct Identity {
        plist::Array chain;
        std::shared_ptr<void> privateKey;  // EVP_PKEY, freed with the last owner
    };

    // Reads every certificate of `chainPem` (signer first) and the key of
    // `keyPem`. On failure nullopt, with the reason in `error`.
    static std::optional<Identity> loadIdentity(const std::string& chainPem, const std::string& keyPem,
                                                std::string* error = nullptr);

    // PKCS #1 v1.5 signature of a SHA-1 value (the value is placed in the
    // SHA-1 DigestInfo). nullopt when the key cannot sign.
    static std::optional<plist::Data> signDigest(const Identity& identity, const QVLDigest& digest);

    // Signs `component` (a dictionary with its "Manifest") under `name`:
    // sets "Certificate" to `certificateName` and "Signature" to the signature
    // of QVLComponentDigest(name, "Manifest"). False when it cannot sign.
    static bool signComponent(plist::Dictionary& component, std::string_view name,
                              const std::string& certificateName, const Identity& identity);

    // The outer dictionary of a version 2 manifest carrying `payload` (the
    // serialized raw manifest), signed over the SHA-1 of the payload bytes.
    static std::optional<plist::Dictionary> monolithicManifest(const plist::Data& payload,
                                                               const Identity& identity);

    // SHA-1 of `bytes`.
    static QVLDigest sha1(std::span<const uint8_t> bytes);
};

}  // namespace qvl
