// Loads arbitrary bytes as a signed manifest, with the helper's own content
// checks. Besides never crashing, an accepted manifest must hold only
// components whose signatures verify, checked here independently of the
// loader with plain OpenSSL calls against the signer certificates the manifest
// names, and every file manifest that readers take from inspected content must
// have clean absolute keys only.
#include <cstdint>
#include <cstdlib>
#include <span>

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLPropertyListDigest.h"
#include "manifest/QVLSignedManifest.h"
#include "metadata/WhitelistChecker.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/notify/QVLNotificationCenter.h"
#include "platform/trust/TrustService.h"
#include "plist/PropertyList.h"

namespace {

using qvl::plist::Data;
using qvl::plist::Dictionary;
using qvl::plist::Value;

class FixedDevice : public qvl::platform::DeviceInfo {
  public:
    bool development = false;
    std::optional<Value> copyAnswer(std::string_view question) const override {
        if (question == "SigningFuse") return Value(!development);
        return std::nullopt;
    }
};

// No system container exists: the domain checks stay on this machine's files.
class NoContainers : public qvl::platform::ContainerLookup {
  public:
    std::optional<qvl::platform::ContainerInfo> containerPath(std::string_view,
                                                              qvl::platform::ContainerClass) override {
        return std::nullopt;
    }
    std::optional<bool> excludedFromBackup(const std::string&) override { return std::nullopt; }
};

class Unsigned : public qvl::platform::CodeSignatureValidator {
  public:
    int validateCodeSignature(const std::string&) override { return qvl::platform::kCodeSignatureUnsigned; }
};

// Content checks by a checker made for the one check, so that the observers a
// passing check registers go with it.
struct Checks {
    NoContainers containers;
    Unsigned codeSignature;
    qvl::platform::QVLNotificationCenter center;
    bool unsegmentedRan = false;
    template <typename Run>
    bool check(Run run) {
        auto checker = qvl::QVLDemoManifestCheck::create({&containers, &codeSignature, &center});
        return checker && run(*checker);
    }
};

void requireCleanKeys(const Dictionary* files) {
    if (!files) return;
    for (const auto& entry : *files)
        if (!qvl::WhitelistChecker::isCanonicalAbsolutePath(entry.first)) abort();
}

// Whether `signature` over the 20-byte `digest` verifies with the key of the
// DER certificate `der`.
bool signatureVerifies(const Data& der, std::span<const uint8_t> digest, const Data& signature) {
    const unsigned char* p = der.data();
    X509* cert = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    if (!cert) return false;
    EVP_PKEY* key = X509_get_pubkey(cert);
    X509_free(cert);
    if (!key) return false;
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    const bool ok =
        ctx && EVP_PKEY_verify_init(ctx) == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha1()) == 1 &&
        EVP_PKEY_verify(ctx, signature.data(), signature.size(), digest.data(), digest.size()) == 1;
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    return ok;
}

const Data* signerOf(const Dictionary& certificates, const Value* name) {
    const std::string* n = name ? name->asString() : nullptr;
    const Dictionary* entry = n ? certificates.getDictionary(*n) : nullptr;
    const auto* chain = entry ? entry->getArray("Certificate") : nullptr;
    return chain && !chain->empty() ? (*chain)[0].asData() : nullptr;
}

void checkSegmented(const Dictionary& payload, const qvl::QVLSignedManifest& manifest) {
    const Dictionary* certificates = payload.getDictionary("Certificates");
    if (!certificates) abort();
    for (const char* section : {"Backup", "App", "AppData", "GroupData", "ExtensionData"}) {
        const Value* value = payload.find(section);
        if (!value) continue;
        if (!value->isDictionary()) abort();
        for (const auto& [name, componentValue] : *value->asDictionary()) {
            const Dictionary* component = componentValue.asDictionary();
            if (!component || !component->getString("RigorousCheckType")) abort();
            const Data* signer = signerOf(*certificates, component->find("Certificate"));
            const Data* signature = component->getData("Signature");
            const auto digest = qvl::QVLComponentDigest(name, component->find("Manifest"));
            if (!signer || !signature || !digest || !signatureVerifies(*signer, *digest, *signature)) abort();
            if (std::string_view(section) != "App" && *component->getString("RigorousCheckType") != "Skip")
                requireCleanKeys(manifest.fileManifestOf(componentValue));
        }
    }
}

// A raw manifest that went through the content checks.
void checkInspectedRaw(const qvl::QVLSignedManifest& manifest) {
    requireCleanKeys(manifest.getBackup().get());
    for (const auto& section :
         {manifest.getAppDataList(), manifest.getGroupDataList(), manifest.getPlugInDataList()}) {
        if (!section) continue;
        for (const auto& entry : *section) requireCleanKeys(manifest.fileManifestOf(entry.second));
    }
}

void checkMonolithic(std::span<const uint8_t> input) {
    const auto outer = qvl::plist::read(input);
    const Dictionary* d = outer ? outer->asDictionary() : nullptr;
    const auto* chain = d ? d->getArray("Certificate") : nullptr;
    const Data* payload = d ? d->getData("Payload") : nullptr;
    const Data* signature = d ? d->getData("Signature") : nullptr;
    if (!chain || chain->empty() || !(*chain)[0].asData() || !payload || !signature) abort();
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(payload->data(), payload->size(), digest, &length, EVP_sha1(), nullptr);
    if (!signatureVerifies(*(*chain)[0].asData(), {digest, length}, *signature)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static qvl::platform::TrustService trust(QVL_PKI_DIR "/anchors");
    static FixedDevice device;
    device.development = size > 0 && (data[size - 1] & 1);

    qvl::QVLSignedManifest::Services services;
    services.trust = &trust;
    services.deviceInfo = &device;
    static Checks checks;
    checks.unsegmentedRan = false;
    services.manifestVerifier.segmented = [](std::shared_ptr<const Dictionary> m) {
        return checks.check(
            [&](qvl::QVLDemoManifestCheck& c) { return c.secureManifestCheckForSegmentedManifest(m); });
    };
    services.manifestVerifier.unsegmented = [](const Dictionary& raw) {
        checks.unsegmentedRan = true;
        return checks.check(
            [&](qvl::QVLDemoManifestCheck& c) { return c.secureManifestCheckForUnsegmentedManifest(&raw); });
    };

    const auto manifest = qvl::QVLSignedManifest::loadFromBytes({data, size}, services);
    if (!manifest) return 0;
    const auto payload = manifest->payload();
    if (!payload) abort();
    // A version 2 payload is the raw manifest; its signature covers the outer "Payload".
    const auto outer = qvl::plist::read(std::span<const uint8_t>(data, size));
    const Value* version = outer && outer->asDictionary() ? outer->asDictionary()->find("Version") : nullptr;
    if (version && version->integerValue() == 2) {
        checkMonolithic({data, size});
        if (checks.unsegmentedRan) checkInspectedRaw(*manifest);
    } else {
        checkSegmented(*payload, *manifest);
    }
    return 0;
}
