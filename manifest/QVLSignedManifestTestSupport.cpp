#include "manifest/QVLSignedManifestTestSupport.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "plist/PropertyList.h"

namespace qvl::testing {

using plist::Dictionary;
using plist::Value;

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

std::optional<Value> FakeDeviceInfo::copyAnswer(std::string_view question) const {
    if (question == "SigningFuse" && fuse) return Value(*fuse);
    if (question == "ProductName") return Value("Kelto OS");
    return std::nullopt;
}

TestEnvironment::TestEnvironment() : trust(pkiPath("anchors")) {}

QVLSignedManifest::Services TestEnvironment::services() {
    QVLSignedManifest::Services s;
    s.trust = &trust;
    s.deviceInfo = &device;
    s.manifestVerifier.segmented = [this](std::shared_ptr<const Dictionary> manifest) {
        ++segmentedChecks;
        lastChecked = std::move(manifest);
        return checksPass;
    };
    s.manifestVerifier.unsegmented = [this](const Dictionary&) {
        ++unsegmentedChecks;
        return checksPass;
    };
    return s;
}

Dictionary record(const char* type, int64_t mode, std::string target) {
    Dictionary attributes;
    attributes.set("NSFileType", type);
    attributes.set("NSFilePosixPermissions", mode);
    attributes.set("NSFileOwnerAccountID", 501);
    attributes.set("NSFileGroupOwnerAccountID", 501);
    attributes.set("NSFileOwnerAccountName", "mobile");
    attributes.set("NSFileGroupOwnerAccountName", "mobile");
    Dictionary r;
    r.set("QVLManifestFileAttributes", attributes);
    r.set("QVLManifestFileExtendedAttributes", Dictionary());
    r.set("QVLManifestFileHash", plist::Data(20, 0xab));
    r.set("QVLManifestSymbolicLinkTargetFile", std::move(target));
    return r;
}

Dictionary withAttribute(Dictionary r, std::string_view key, std::optional<Value> value) {
    Dictionary& attributes = sub(r, "QVLManifestFileAttributes");
    if (value)
        attributes.set(std::string(key), std::move(*value));
    else
        attributes.erase(key);
    return r;
}

Dictionary files(std::initializer_list<std::pair<std::string, Dictionary>> entries) {
    Dictionary d;
    for (const auto& [path, r] : entries) d.set(path, r);
    return d;
}

Dictionary fileManifest(const std::vector<std::string>& paths) {
    Dictionary d;
    for (const auto& path : paths) d.set(path, record());
    return d;
}

Dictionary& sub(Dictionary& d, const std::string& key) {
    return *d.find(key)->asDictionary();
}

Value certificateEntry(const std::string& signer, std::optional<std::string> type) {
    Dictionary entry;
    if (type) entry.set("TypeOfSignature", *type);
    entry.set("Certificate", identity(signer).chain);
    return entry;
}

Value signedComponent(const std::string& name, const std::string& certificate, const std::string& signer,
                      const Value& manifest) {
    Dictionary component;
    component.set("Manifest", manifest);
    if (!QVLManifestSigner::signComponent(component, name, certificate, identity(signer))) abort();
    return component;
}

Dictionary segmented(const std::string& signer, std::optional<std::string> type, const Dictionary& backup) {
    Dictionary certificates;
    certificates.set("Main", certificateEntry(signer, type));
    Dictionary backups;
    backups.set("backup.BaseBackup", signedComponent("backup.BaseBackup", "Main", signer, backup));
    Dictionary info;
    info.set("Name", "Store demo");
    Dictionary outer;
    outer.set("Version", 5);
    outer.set("Certificates", certificates);
    outer.set("Info", info);
    outer.set("InstallationOrder", plist::Array{Value("backup.BaseBackup")});
    outer.set("Backup", backups);
    return outer;
}

bool loadsWith(const QVLSignedManifest::Services& services, const Dictionary& outer) {
    const std::string bytes = plist::writeBinary(Value(outer));
    QVLSignedManifest manifest(services);
    return manifest.initWithBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::unique_ptr<QVLSignedManifest> load(const Dictionary& outer, TestEnvironment& env) {
    const std::string bytes = plist::writeBinary(Value(outer));
    auto manifest = std::make_unique<QVLSignedManifest>(env.services());
    if (!manifest->initWithBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}))
        return nullptr;
    return manifest;
}

}  // namespace qvl::testing
