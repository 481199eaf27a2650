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

std::optional<Value> TestEnvironment::copyAnswer(std::string_view question) const {
    if (question == "SigningFuse" && fuse) return Value(*fuse);
    return std::nullopt;
}

QVLSignedManifest::Services TestEnvironment::services() {
    QVLSignedManifest::Services s;
    s.trust = &trust;
    s.deviceInfo = this;
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
    Dictionary attributes = files({{"NSFileType", type},
                                   {"NSFilePosixPermissions", mode},
                                   {"NSFileOwnerAccountID", 501},
                                   {"NSFileGroupOwnerAccountID", 501},
                                   {"NSFileOwnerAccountName", "mobile"},
                                   {"NSFileGroupOwnerAccountName", "mobile"}});
    return files({{"QVLManifestFileAttributes", attributes},
                  {"QVLManifestFileExtendedAttributes", Dictionary()},
                  {"QVLManifestFileHash", plist::Data(20, 0xab)},
                  {"QVLManifestSymbolicLinkTargetFile", target}});
}

Dictionary withAttribute(Dictionary r, std::string_view key, std::optional<Value> value) {
    Dictionary& attributes = sub(r, "QVLManifestFileAttributes");
    if (value)
        attributes.set(std::string(key), std::move(*value));
    else
        attributes.erase(key);
    return r;
}

Dictionary files(std::initializer_list<std::pair<std::string, Value>> entries) {
    Dictionary d;
    for (const auto& [key, value] : entries) d.set(key, value);
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

Value signedComponent(const std::string& name, const std::string& signer, const Value& manifest) {
    Dictionary component = files({{"Manifest", manifest}});
    if (!QVLManifestSigner::signComponent(component, name, "Main", identity(signer))) abort();
    return component;
}

Dictionary segmented(const std::string& signer, std::optional<std::string> type, const Dictionary& backup) {
    Dictionary main = files({{"Certificate", identity(signer).chain}});
    if (type) main.set("TypeOfSignature", *type);
    return files(
        {{"Version", 5},
         {"Certificates", files({{"Main", main}})},
         {"Info", files({{"Name", "Store demo"}})},
         {"InstallationOrder", plist::Array{Value("backup.BaseBackup")}},
         {"Backup", files({{"backup.BaseBackup", signedComponent("backup.BaseBackup", signer, backup)}})}});
}

std::unique_ptr<QVLSignedManifest> load(const Dictionary& outer,
                                        const QVLSignedManifest::Services& services) {
    const std::string bytes = plist::writeBinary(Value(outer));
    return QVLSignedManifest::loadFromBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()},
                                            services);
}

}  // namespace qvl::testing
