// Helpers for the signed-manifest tests: the development PKI's identities, a
// device whose signing fuse the test sets, recording content checks, and
// builders of signed manifests.
#pragma once

#include <memory>
#include <optional>
#include <string>
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

    void setDevelopmentHardware() { device.fuse = false; }
    void setProductionHardware() { device.fuse = true; }
};

// A file record with a hash derived from `path`.
plist::Value fileRecord(const std::string& path);
plist::Dictionary fileManifest(const std::vector<std::string>& paths);

// A certificate entry of `signer`, with "TypeOfSignature" when given.
plist::Value certificateEntry(const std::string& signer, std::optional<std::string> type = std::nullopt);

// A component of `files`, signed under `name` by `signer` and naming `certificate`.
plist::Value signedComponent(const std::string& name, const std::string& certificate,
                             const std::string& signer, const plist::Dictionary& files);

// Serializes and loads.
std::unique_ptr<QVLSignedManifest> load(const plist::Dictionary& outer, TestEnvironment& env);

}  // namespace qvl::testing
