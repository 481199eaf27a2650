// Signature verification of QVLSignedManifest: who signed the manifest, and
// how much of its content must still be inspected.

#include <openssl/evp.h>

#include "base/QVLLog.h"
#include "manifest/QVLBuiltinKeys.h"
#include "manifest/QVLPropertyListDigest.h"
#include "manifest/QVLSignedManifest.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "plist/PropertyList.h"

namespace qvl {

namespace {

using platform::TrustPolicy;

constexpr const char* kVerifySegmented = "-[QVLSignedManifest verifyManifestSignature:]";
constexpr const char* kVerifyMonolithic = "-[QVLSignedManifest verifyMonolithicManifestSignature:]";
constexpr const char* kStrongSigning = "-[QVLSignedManifest createPublicKeyForStrongSigning:]";
constexpr const char* kDevelopmentSigning =
    "-[QVLSignedManifest createPublicKeyForDevelopmentSigningStandard:]";
constexpr const char* kVantorSigning = "-[QVLSignedManifest createPublicKeyForVantorSigning:]";
constexpr const char* kCreatePublicKey = "-[QVLSignedManifest createPublicKey:usingPolicy:anchors:]";

constexpr const char* kSkip = "Skip";
constexpr const char* kDefault = "Default";
constexpr const char* kAppLayout = "AppLayout";

// Real chains hold a signer and one or two issuers; a longer one is refused
// before any certificate is parsed.
constexpr size_t kMaxChainLength = 16;

constexpr const char* kSections[] = {"Backup", "App", "AppData", "GroupData", "ExtensionData"};

}  // namespace

bool QVLSignedManifest::isDevelopmentHardware() const {
    // Only a definite "false" fuse is development hardware; no answer is production.
    return deviceInfo().signingFuse() == false;
}

std::shared_ptr<plist::Dictionary> QVLSignedManifest::verifyManifestSignature(plist::Dictionary outer) {
    QVLLog("%s:Verifying a separate component manifest\n", kVerifySegmented);
    const bool development = isDevelopmentHardware();

    const plist::Value* certificatesValue = outer.find("Certificates");
    if (!certificatesValue) {
        QVLLog("No certificated found in the manifest\n");
        return nullptr;
    }
    const plist::Dictionary* certificates = certificatesValue->asDictionary();
    if (!certificates) {
        QVLLog("%s: cannot find certificates, or certificate format not correct.", kVerifySegmented);
        return nullptr;
    }
    // Every entry is judged, even one that no component uses.
    CertificateTable table;
    for (const auto& [name, entry] : *certificates)
        if (!enterSigner(name, entry, table)) return nullptr;

    bool needsRigorousChecks = false;
    for (const char* sectionName : kSections) {
        plist::Value* sectionValue = outer.find(sectionName);
        if (!sectionValue) continue;
        plist::Dictionary* section = sectionValue->asDictionary();
        if (!section) {
            QVLLog("%s: %s section in wrong format.", kVerifySegmented, sectionName);
            return nullptr;
        }
        std::vector<std::string> names;
        names.reserve(section->size());
        for (const auto& entry : *section) names.push_back(entry.first);
        for (const std::string& name : names)
            if (!verifyComponent(name, *section->find(name), table, development, needsRigorousChecks))
                return nullptr;
    }

    auto verified = std::make_shared<plist::Dictionary>(std::move(outer));
    if (!needsRigorousChecks) {
        QVLLog("%s:Skipping rigorous manifest testing\n", kVerifySegmented);
        return verified;
    }
    if (!services_.manifestVerifier.segmented(verified)) {
        QVLLog("rigorousTesting failed\n");
        return nullptr;
    }
    return verified;
}

bool QVLSignedManifest::enterSigner(const std::string& name, const plist::Value& entryValue,
                                    CertificateTable& table) {
    const plist::Dictionary* entry = entryValue.asDictionary();
    const plist::Value* typeValue = entry ? entry->find("TypeOfSignature") : nullptr;
    const plist::Array* chain = entry ? entry->getArray("Certificate") : nullptr;
    // A signature type that is not a string could be neither a test nor a
    // production signer's: refuse it with the entry.
    if (!chain || (typeValue && !typeValue->isString())) {
        QVLLog("%s: cannot find certificates, or certificate format not correct.", kVerifySegmented);
        return false;
    }
    SignerRecord record;
    if (typeValue) record.signatureType = *typeValue->asString();
    if (record.signatureType == "UAT") {
        record.key = createPublicKeyForDevelopmentSigning(*chain);
        record.rigorousCheckType = kSkip;
    } else if ((record.key = createPublicKeyForStrongSigning(*chain))) {
        record.rigorousCheckType = publicKeyMatches(*record.key) ? kSkip : kDefault;
    } else {
        record.key = createPublicKeyForVantorSigning(*chain);
        record.rigorousCheckType = kAppLayout;
    }
    if (!record.key) {
        QVLLog("%s: Certificate not valid.", kVerifySegmented);
        return false;
    }
    table.insert_or_assign(name, std::move(record));
    return true;
}

bool QVLSignedManifest::verifyComponent(const std::string& name, plist::Value& componentValue,
                                        const CertificateTable& table, bool development,
                                        bool& needsRigorousChecks) {
    plist::Dictionary* component = componentValue.asDictionary();
    if (!component) {
        QVLLog("%s: component %@ in wrong format.", kVerifySegmented, name);
        return false;
    }
    // Nothing but the name and "Manifest" is signed: any key beyond the
    // format's own could only have been added by someone else.
    for (const auto& [key, value] : *component) {
        if (key != "Certificate" && key != "Manifest" && key != "Signature" && key != "RigorousCheckType") {
            QVLLog("%s: component %@ holds the unsigned key %@.", kVerifySegmented, name, key);
            return false;
        }
    }
    const plist::Value* certificateName = component->find("Certificate");
    const auto row = certificateName && certificateName->isString() ? table.find(*certificateName->asString())
                                                                    : table.end();
    if (row == table.end()) {
        QVLLog("%s:No matching certificate for %@\n", kVerifySegmented, certificateName);
        return false;
    }
    const SignerRecord& signer = row->second;
    if (signer.signatureType == "UAT" && !development) {
        QVLLog("%s: Manifest contains UAT component on prodFused device\n", kVerifySegmented);
        return false;
    }
    const auto digest = QVLComponentDigest(name, component->find("Manifest"));
    const plist::Data* signature = component->getData("Signature");
    if (!digest || !signature || trust().rawVerify(*signer.key, *digest, *signature) != 0) {
        QVLLog("%s:signature verification failed for %@\n", kVerifySegmented, name);
        return false;
    }
    component->set("RigorousCheckType", plist::Value(signer.rigorousCheckType));
    if (signer.rigorousCheckType != kSkip) needsRigorousChecks = true;
    return true;
}

std::shared_ptr<plist::Dictionary> QVLSignedManifest::verifyMonolithicManifestSignature(
    const plist::Dictionary& outer) {
    QVLLog("%s:Verifying manifest in monolithic format\n", kVerifyMonolithic);
    const plist::Array* chain = outer.getArray("Certificate");
    if (!chain) {
        QVLLog("%s: cannot find certificates, or certificate format not correct.", kVerifyMonolithic);
        return nullptr;
    }
    bool testSigned = false;
    platform::PublicKeyRef key = createPublicKeyForStrongSigning(*chain);
    if (!key && isDevelopmentHardware()) {
        key = createPublicKeyForDevelopmentSigning(*chain);
        testSigned = key != nullptr;
    }
    if (!key) {
        QVLLog("%s: Certificate not valid.", kVerifyMonolithic);
        return nullptr;
    }
    const plist::Data* payload = outer.getData("Payload");
    if (!payload) {
        QVLLog("%s: Manifest format not correct.", kVerifyMonolithic);
        return nullptr;
    }
    const plist::Data* signature = outer.getData("Signature");
    if (!signature || !verifySignature(*signature, *payload, *key)) return nullptr;

    plist::ReadError error;
    auto decoded = plist::read(std::span<const uint8_t>(*payload), &error);
    if (!decoded) {
        QVLLog("%s: Cannot convert to property list - %@(0x%lx).", kVerifyMonolithic, error.message,
               error.code);
        return nullptr;
    }
    plist::Dictionary* raw = decoded->asDictionary();
    if (!raw) {
        QVLLog("%s: rawManifest format not correct.", kVerifyMonolithic);
        return nullptr;
    }
    const plist::Value* version = raw->find("Version");
    if (!version) {
        QVLLog("%s: required key (version) not found.", kVerifyMonolithic);
        return nullptr;
    }
    if (!version->isNumber() || version->integerValue() != 4) {
        QVLLog("%s:Raw manifest version:%@ for monolithic manifest is not supported.", kVerifyMonolithic,
               version);
        return nullptr;
    }
    auto rawManifest = std::make_shared<plist::Dictionary>(std::move(*raw));
    if (testSigned) {
        QVLLog("%s:Test Signed", kVerifyMonolithic);
        return rawManifest;
    }
    if (publicKeyMatches(*key)) {
        QVLLog("%s:Found the manual key. Bypassing checking\n", kVerifyMonolithic);
        return rawManifest;
    }
    QVLLog("%s:Found the auto signing key. Running rigorous checks\n", kVerifyMonolithic);
    if (!services_.manifestVerifier.unsegmented(*rawManifest)) return nullptr;
    return rawManifest;
}

platform::PublicKeyRef QVLSignedManifest::createPublicKeyForStrongSigning(const plist::Array& chain) {
    const auto policy = trust().createPolicy(TrustPolicy::ProductionStoreSigning);
    if (!policy) {
        QVLLog("%s: Cannot create policy.", kStrongSigning);
        return nullptr;
    }
    QVLLog("Verifying strong signing");
    return createPublicKey(chain, *policy, nullptr);
}

platform::PublicKeyRef QVLSignedManifest::createPublicKeyForDevelopmentSigning(const plist::Array& chain) {
    QVLLog("Verifying development signing");
    return createPublicKeyForDevelopmentSigningStandard(chain);
}

platform::PublicKeyRef QVLSignedManifest::createPublicKeyForDevelopmentSigningStandard(
    const plist::Array& chain) {
    const auto policy = trust().createPolicy(TrustPolicy::TestStoreSigning);
    if (!policy) {
        QVLLog("%s: Cannot create policy.", kDevelopmentSigning);
        return nullptr;
    }
    return createPublicKey(chain, *policy, nullptr);
}

platform::PublicKeyRef QVLSignedManifest::createPublicKeyForVantorSigning(const plist::Array& chain) {
    const auto policy = trust().createPolicy(TrustPolicy::BasicX509);
    if (!policy) {
        QVLLog("%s: Cannot create policy.", kVantorSigning);
        return nullptr;
    }
    const std::span<const uint8_t> rootBytes =
        services_.vantorRoot.empty() ? std::span<const uint8_t>(kQVLVantorRootDER) : services_.vantorRoot;
    if (rootBytes.empty()) {
        QVLLog("%s: Cannot load certificate data.", kVantorSigning);
        return nullptr;
    }
    auto root = trust().createCertificate(rootBytes);
    if (!root) {
        QVLLog("%s: Cannot load certificate.", kVantorSigning);
        return nullptr;
    }
    const std::vector<platform::CertificateRef> anchors{root};
    return createPublicKey(chain, *policy, &anchors);
}

platform::PublicKeyRef QVLSignedManifest::createPublicKey(
    const plist::Array& chain, TrustPolicy policy, const std::vector<platform::CertificateRef>* anchors) {
    platform::TrustService& service = trust();
    std::vector<platform::CertificateRef> certificates;
    if (chain.size() > kMaxChainLength) {
        QVLLog("%s: Cannot load certificate.", kCreatePublicKey);
        return nullptr;
    }
    for (const plist::Value& element : chain) {
        const plist::Data* der = element.asData();
        auto certificate = der ? service.createCertificate(*der) : nullptr;
        if (!certificate) {
            QVLLog("%s: Cannot load certificate.", kCreatePublicKey);
            return nullptr;
        }
        certificates.push_back(std::move(certificate));
    }
    platform::TrustRef trustObject;
    if (const int status = service.createTrust(certificates, policy, &trustObject);
        status != 0 || !trustObject) {
        QVLLog("%s: Cannot create secure trust object: %ld", kCreatePublicKey, status);
        return nullptr;
    }
    if (anchors) {
        if (const int status = service.setAnchors(*trustObject, *anchors); status != 0) {
            QVLLog("%s: Cannot set anchor certificates: %ld", kCreatePublicKey, status);
            return nullptr;
        }
    }
    int verdict = platform::kTrustInvalid;
    if (const int status = service.evaluate(*trustObject, &verdict); status != 0) {
        QVLLog("%s: Cannot evaluate trust: %ld", kCreatePublicKey, status);
        return nullptr;
    }
    if (verdict != platform::kTrustProceed && verdict != platform::kTrustUnspecified) {
        QVLLog("%s: certificate trust evaluation failed: %ld", kCreatePublicKey, verdict);
        return nullptr;
    }
    auto key = service.copyPublicKey(*trustObject);
    if (!key) QVLLog("%s: Cannot extract public key.", kCreatePublicKey);
    return key;
}

bool QVLSignedManifest::verifySignature(std::span<const uint8_t> signature, std::span<const uint8_t> data,
                                        const platform::PublicKey& key) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha1(), nullptr) != 1 || length != 20)
        return false;
    return trust().rawVerify(key, std::span<const uint8_t>(digest, length), signature) == 0;
}

bool QVLSignedManifest::publicKeyMatches(const platform::PublicKey& key) {
    const std::span<const uint8_t> manual =
        services_.manualKey.empty() ? std::span<const uint8_t>(kQVLManualKeyDER) : services_.manualKey;
    const auto exported = trust().exportPublicKey(key);
    return exported && exported->size() == manual.size() &&
           std::equal(exported->begin(), exported->end(), manual.begin());
}

}  // namespace qvl
