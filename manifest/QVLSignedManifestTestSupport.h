// Helpers for the signed-manifest and content-check tests: the development
// PKI's identities, a device whose signing fuse the test sets, content checks
// that record their calls and builders of signed manifests.
#pragma once

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manifest/QVLManifestSigner.h"
#include "manifest/QVLSignedManifest.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/trust/TrustService.h"
#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::testing {

using plist::Dictionary;
using plist::Value;

// "<signer>-chain.pem" and "<signer>.key" of the development PKI, loaded once.
inline const QVLManifestSigner::Identity& identity(const std::string& signer) {
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

// Everything a load needs, with content checks that record their calls.
struct TestEnvironment : platform::DeviceInfo {
    std::optional<bool> fuse;  // nullopt: no answer (production hardware)
    platform::TrustService trust{pkiPath("anchors")};
    bool checksPass = true;
    int segmentedChecks = 0, unsegmentedChecks = 0;
    std::shared_ptr<const Dictionary> lastChecked;

    std::optional<Value> copyAnswer(std::string_view question) const override {
        return question == "SigningFuse" && fuse ? std::optional(Value(*fuse)) : std::nullopt;
    }
    QVLSignedManifest::Services services() {
        QVLSignedManifest::Services s;
        s.trust = &trust;
        s.deviceInfo = this;
        s.manifestVerifier.segmented = [this](std::shared_ptr<const Dictionary> manifest) {
            ++segmentedChecks;
            lastChecked = std::move(manifest);
            return checksPass;
        };
        s.manifestVerifier.unsegmented = [this](const Dictionary&) {
            return ++unsegmentedChecks, checksPass;
        };
        return s;
    }
};

// Regular files at `paths`.
inline Dictionary fileManifest(const std::vector<std::string>& paths) {
    Dictionary d;
    for (const auto& path : paths) d.set(path, record());
    return d;
}

// A component holding `manifest`, signed under `name` by `signer`, naming certificate "Main".
inline Value signedComponent(const std::string& name, const std::string& signer, const Value& manifest) {
    Dictionary component = dict({{"Manifest", manifest}});
    if (!QVLManifestSigner::signComponent(component, name, "Main", identity(signer))) abort();
    return component;
}

// A version 5 manifest: certificate "Main" of `signer`, one base backup of `backup`.
inline Dictionary segmented(const std::string& signer, std::optional<std::string> type = std::nullopt,
                            const Dictionary& backup = fileManifest({"/var/mobile/Media/a",
                                                                     "/var/mobile/Media/b"})) {
    Dictionary main = dict({{"Certificate", identity(signer).chain}});
    if (type) main.set("TypeOfSignature", *type);
    return dict(
        {{"Version", 5},
         {"Certificates", dict({{"Main", main}})},
         {"Info", dict({{"Name", "Store demo"}})},
         {"InstallationOrder", plist::Array{Value("backup.BaseBackup")}},
         {"Backup", dict({{"backup.BaseBackup", signedComponent("backup.BaseBackup", signer, backup)}})}});
}

// Serializes and loads.
inline std::unique_ptr<QVLSignedManifest> load(const Dictionary& outer,
                                               const QVLSignedManifest::Services& services) {
    const std::string bytes = plist::writeBinary(Value(outer));
    return QVLSignedManifest::loadFromBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()},
                                            services);
}

}  // namespace qvl::testing
