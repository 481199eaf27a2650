// Helpers for the signed-manifest and content-check tests: the development
// PKI's identities, a device whose signing fuse the test sets, recording
// content checks, file records and builders of signed manifests.
#pragma once

#include <initializer_list>
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

std::string pkiPath(const std::string& name);

// "<signer>-chain.pem" and "<signer>.key" of the development PKI, loaded once.
const QVLManifestSigner::Identity& identity(const std::string& signer);

class FakeDeviceInfo : public platform::DeviceInfo {
  public:
    std::optional<bool> fuse;  // nullopt: no answer (production hardware)
    std::optional<plist::Value> copyAnswer(std::string_view question) const override;
};

// Everything a load needs, with content checks that record their calls.
struct TestEnvironment {
    TestEnvironment();
    platform::TrustService trust;
    FakeDeviceInfo device;
    bool checksPass = true;
    int segmentedChecks = 0;
    int unsegmentedChecks = 0;
    std::shared_ptr<const plist::Dictionary> lastChecked;
    QVLSignedManifest::Services services();
};

// A file record as the device manifest writes it, owned by mobile (501).
plist::Dictionary record(const char* type = "NSFileTypeRegular", int64_t mode = 0644,
                         std::string target = "");
// `r` with the attribute `key` set, or removed when `value` is nullopt.
plist::Dictionary withAttribute(plist::Dictionary r, std::string_view key, std::optional<plist::Value> value);
plist::Dictionary files(std::initializer_list<std::pair<std::string, plist::Dictionary>> entries);
// Regular files at `paths`.
plist::Dictionary fileManifest(const std::vector<std::string>& paths);
plist::Dictionary& sub(plist::Dictionary& d, const std::string& key);

// A certificate entry of `signer`, with "TypeOfSignature" when given.
plist::Value certificateEntry(const std::string& signer, std::optional<std::string> type = std::nullopt);
// A component holding `manifest`, signed under `name` by `signer` and naming `certificate`.
plist::Value signedComponent(const std::string& name, const std::string& certificate,
                             const std::string& signer, const plist::Value& manifest);
// A version 5 manifest: certificate "Main" of `signer`, one base backup of `backup`.
plist::Dictionary segmented(const std::string& signer, std::optional<std::string> type = std::nullopt,
                            const plist::Dictionary& backup = fileManifest({"/var/mobile/Media/a",
                                                                            "/var/mobile/Media/b"}));

// Serializes and loads.
std::unique_ptr<QVLSignedManifest> load(const plist::Dictionary& outer, TestEnvironment& env);
bool loadsWith(const QVLSignedManifest::Services& services, const plist::Dictionary& outer);

}  // namespace qvl::testing
