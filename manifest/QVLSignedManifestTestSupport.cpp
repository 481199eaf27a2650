#include "manifest/QVLSignedManifestTestSupport.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "plist/PropertyList.h"

namespace qvl::testing {

std::string pkiPath(const std::string& name) {
    const char* src = getenv("QVL_SOURCE_DIR");
    return std::string(src ? src : ".") + "/pki/out/" + name;
}

const QVLManifestSigner::Identity& identity(const std::string& signer) {
    static std::mutex lock;
    static std::map<std::string, QVLManifestSigner::Identity> loaded;
    std::lock_guard<std::mutex> guard(lock);
    auto found = loaded.find(signer);
    if (found == loaded.end()) {
        auto made = QVLManifestSigner::loadIdentity(pkiPath(signer + "-chain.pem"), pkiPath(signer + ".key"));
        if (!made) abort();
        found = loaded.emplace(signer, std::move(*made)).first;
    }
    return found->second;
}

std::optional<plist::Value> FakeDeviceInfo::copyAnswer(std::string_view question) const {
    if (question == "SigningFuse" && fuse) return plist::Value(*fuse);
    if (question == "ProductName") return plist::Value("Kelto OS");
    return std::nullopt;
}

TestEnvironment::TestEnvironment() : trust(pkiPath("anchors")) {}

QVLSignedManifest::Services TestEnvironment::services() {
    QVLSignedManifest::Services s;
    s.trust = &trust;
    s.deviceInfo = &device;
    s.manifestVerifier.segmented = [this](std::shared_ptr<const plist::Dictionary> manifest) {
        ++segmentedChecks;
        lastChecked = std::move(manifest);
        return checksPass;
    };
    s.manifestVerifier.unsegmented = [this](const plist::Dictionary&) {
        ++unsegmentedChecks;
        return checksPass;
    };
    return s;
}

plist::Value fileRecord(const std::string& path) {
    plist::Dictionary attributes;
    attributes.set("NSFileType", plist::Value("NSFileTypeRegular"));
    attributes.set("NSFilePosixPermissions", plist::Value(0644));
    attributes.set("NSFileOwnerAccountName", plist::Value("mobile"));
    plist::Dictionary record;
    record.set("QVLManifestFileAttributes", plist::Value(std::move(attributes)));
    const auto hash = QVLManifestSigner::sha1({reinterpret_cast<const uint8_t*>(path.data()), path.size()});
    record.set("QVLManifestFileHash", plist::Value(plist::Data(hash.begin(), hash.end())));
    return plist::Value(std::move(record));
}

plist::Dictionary fileManifest(const std::vector<std::string>& paths) {
    plist::Dictionary files;
    for (const auto& path : paths) files.set(path, fileRecord(path));
    return files;
}

plist::Value certificateEntry(const std::string& signer, std::optional<std::string> type) {
    plist::Dictionary entry;
    if (type) entry.set("TypeOfSignature", plist::Value(*type));
    entry.set("Certificate", plist::Value(identity(signer).chain));
    return plist::Value(std::move(entry));
}

plist::Value signedComponent(const std::string& name, const std::string& certificate,
                             const std::string& signer, const plist::Dictionary& files) {
    plist::Dictionary component;
    component.set("Manifest", plist::Value(files));
    if (!QVLManifestSigner::signComponent(component, name, certificate, identity(signer))) abort();
    return plist::Value(std::move(component));
}

std::unique_ptr<QVLSignedManifest> load(const plist::Dictionary& outer, TestEnvironment& env) {
    const std::string bytes = plist::writeBinary(plist::Value(outer));
    auto manifest = std::make_unique<QVLSignedManifest>(env.services());
    if (!manifest->initWithBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}))
        return nullptr;
    return manifest;
}

}  // namespace qvl::testing
