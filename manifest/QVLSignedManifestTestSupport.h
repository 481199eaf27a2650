// Helpers for the signed-manifest and content-check tests: the development
// PKI's identities, a device whose signing fuse the test sets, recording
// content checks, file records and builders of signed manifests.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manifest/QVLManifestSigner.h"
#include "manifest/QVLSignedManifest.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/trust/TrustService.h"

namespace qvl::testing {

using plist::Dictionary;
using plist::Value;

std::string pkiPath(const std::string& name);
// "<signer>-chain.pem" and "<signer>.key" of the development PKI, loaded once.
const QVLManifestSigner::Identity& identity(const std::string& signer);

// Everything a load needs, with content checks that record their calls.
struct TestEnvironment : platform::DeviceInfo {
    std::optional<bool> fuse;  // nullopt: no answer (production hardware)
    platform::TrustService trust{pkiPath("anchors")};
    bool checksPass = true;
    int segmentedChecks = 0, unsegmentedChecks = 0;
    std::shared_ptr<const Dictionary> lastChecked;
    std::optional<Value> copyAnswer(std::string_view question) const override;
    QVLSignedManifest::Services services();
};

// A file record as the device manifest writes it, owned by mobile (501).
Dictionary record(const char* type = "NSFileTypeRegular", int64_t mode = 0644, std::string target = "");
// `r` with the attribute `key` set, or removed when `value` is nullopt.
Dictionary withAttribute(Dictionary r, std::string_view key, std::optional<Value> value);
Dictionary files(std::initializer_list<std::pair<std::string, Value>> entries);
Dictionary fileManifest(const std::vector<std::string>& paths);  // regular files
Dictionary& sub(Dictionary& d, const std::string& key);

// A component holding `manifest`, signed under `name` by `signer`, naming certificate "Main".
Value signedComponent(const std::string& name, const std::string& signer, const Value& manifest);
// A version 5 manifest: certificate "Main" of `signer`, one base backup of `backup`.
Dictionary segmented(const std::string& signer, std::optional<std::string> type = std::nullopt,
                     const Dictionary& backup = fileManifest({"/var/mobile/Media/a", "/var/mobile/Media/b"}));
// Serializes and loads.
std::unique_ptr<QVLSignedManifest> load(const Dictionary& outer, const QVLSignedManifest::Services& services);

}  // namespace qvl::testing
