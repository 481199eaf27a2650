// QVLSignedManifest: the signed content manifest, read from a file, verified,
// and then answering questions about its sections, its installation order and
// its backups.
//
// Loading reads one property list (XML or binary), checks its "Version",
// verifies the signatures (version 2: one signature over the "Payload";
// versions 3 to 5: one per component over its property-list digest), lets the
// content checker inspect what less trusted signers sent, and checks the
// sections of what verification returned. The loading factories answer an
// object only when every step passed; it is not changed afterwards. Each
// refusal is logged once with its cause.
//
// Signers and what their content still has to pass:
//   test signer ("UAT"), test store-signing usage     "Skip" (refused on production hardware)
//   production signer holding the manual key           "Skip"
//   any other production signer (the auto signing key) "Default"
//   signer under the Vantor root                       "AppLayout"
//
// Thread-safety: loading runs on one thread. A loaded object is immutable and
// may be read from any number of threads; the section handles it gives out
// keep the payload alive on their own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/trust/TrustService.h"
#include "plist/PlistValue.h"

namespace qvl {

class QVLDemoManifestCheck;
namespace platform {
class DeviceInfo;
class FileSystem;
}  // namespace platform

// A range of installation items. kNotFound as location means "not found".
struct QVLRange {
    static constexpr uint32_t kNotFound = 0x7FFFFFFF;
    uint32_t location = kNotFound;
    uint32_t length = 0;
    friend bool operator==(const QVLRange&, const QVLRange&) = default;
};

// Largest manifest file read (bytes).
inline constexpr uint64_t kMaxSignedManifestSize = 1ull << 30;

class QVLSignedManifest {
  public:
    // The rigorous content checks that verification asks for.
    struct ContentChecks {
        std::function<bool(std::shared_ptr<const plist::Dictionary>)> segmented;
        std::function<bool(const plist::Dictionary&)> unsegmented;
        explicit operator bool() const { return segmented && unsegmented; }
    };

    // The services loading uses. Null or empty members take the device's own
    // (the shared trust, device-information and file-system services, the
    // built-in manual key and Vantor root); an empty manifestVerifier means
    // there is none, and no manifest loads.
    struct Services {
        platform::TrustService* trust = nullptr;
        platform::DeviceInfo* deviceInfo = nullptr;
        platform::FileSystem* files = nullptr;
        ContentChecks manifestVerifier;
        std::span<const uint8_t> manualKey;
        std::span<const uint8_t> vantorRoot;
    };

    // The helper's services: the shared QVLDemoManifestCheck as verifier.
    static Services defaultServices();
    // Content checks run by `checker`, which must outlive their use.
    static ContentChecks contentChecksOf(QVLDemoManifestCheck& checker);

    // Reads the manifest file at `path` and verifies it: the loaded manifest,
    // or null. The file is opened as one in a folder another user can write:
    // a link at the name is not followed and a fifo there can't block the
    // load. At most kMaxSignedManifestSize bytes are read.
    static std::unique_ptr<QVLSignedManifest> loadFromFile(const std::string& path);
    static std::unique_ptr<QVLSignedManifest> loadFromFile(const std::string& path, Services services);
    // The same from bytes already read (tools, fuzzing).
    static std::unique_ptr<QVLSignedManifest> loadFromBytes(std::span<const uint8_t> bytes,
                                                            Services services);
    // An object that holds no manifest, for asking how verification would
    // judge a certificate chain (tools); its accessors answer null.
    static std::unique_ptr<QVLSignedManifest> verifier(Services services);

    ~QVLSignedManifest();
    QVLSignedManifest(const QVLSignedManifest&) = delete;
    QVLSignedManifest& operator=(const QVLSignedManifest&) = delete;

    // Accessors: null when the section is absent or of another kind.
    std::shared_ptr<const plist::Dictionary> payload() const { return payload_; }
    int32_t getVersion() const;
    std::shared_ptr<const plist::Dictionary> getInfo() const { return section("Info"); }
    std::shared_ptr<const plist::Dictionary> getAppList() const { return section("App"); }
    std::shared_ptr<const plist::Dictionary> getAppDataList() const { return section("AppData"); }
    std::shared_ptr<const plist::Dictionary> getGroupDataList() const { return section("GroupData"); }
    std::shared_ptr<const plist::Dictionary> getPlugInDataList() const { return section("ExtensionData"); }
    std::shared_ptr<const plist::Array> getInstallationOrder() const;
    std::shared_ptr<const plist::Dictionary> getBackup() const;
    std::shared_ptr<const plist::Dictionary> getBackupList() const;

    // The run of consecutive backups that starts at installation item `start`.
    QVLRange rangeOfGroupedBackups(uint32_t start) const;
    // The union of the file manifests of the backups in `range`, later ones
    // winning. Null when the range lies outside the installation order.
    std::shared_ptr<const plist::Dictionary> mergedBackupManifest(QVLRange range) const;

    // The file manifest of a backup or data container entry of this
    // manifest's sections: its "Manifest", or, in a version 2 manifest only,
    // the entry itself when it has none. Null stands for an empty manifest.
    const plist::Dictionary* fileManifestOf(const plist::Value& entry) const;

    static bool isItemBackup(std::string_view item);
    static bool isItemSystemAppData(std::string_view item);
    static std::optional<std::string> appIdentifierFromOrderItem(std::string_view item);

    // Signature verification.
    std::shared_ptr<plist::Dictionary> verifyManifestSignature(plist::Dictionary outer);
    std::shared_ptr<plist::Dictionary> verifyMonolithicManifestSignature(const plist::Dictionary& outer);
    platform::PublicKeyRef createPublicKeyForStrongSigning(const plist::Array& chain);
    platform::PublicKeyRef createPublicKeyForDevelopmentSigning(const plist::Array& chain);
    platform::PublicKeyRef createPublicKeyForDevelopmentSigningStandard(const plist::Array& chain);
    platform::PublicKeyRef createPublicKeyForVantorSigning(const plist::Array& chain);
    // `anchors`, when given, are the only trusted roots; else the policy's own.
    platform::PublicKeyRef createPublicKey(const plist::Array& chain, platform::TrustPolicy policy,
                                           const std::vector<platform::CertificateRef>* anchors);
    bool verifySignature(std::span<const uint8_t> signature, std::span<const uint8_t> data,
                         const platform::PublicKey& key);
    bool publicKeyMatches(const platform::PublicKey& key);
    bool isOstrelWatch() const;

    const ContentChecks& manifestVerifier() const { return services_.manifestVerifier; }

  private:
    explicit QVLSignedManifest(Services services);
    // The property list of a manifest file, or nullopt (logged).
    static std::optional<plist::Value> parse(std::span<const uint8_t> bytes);
    // The manifest verified from its parsed root, or null.
    static std::unique_ptr<QVLSignedManifest> load(std::optional<plist::Value> root, Services services);
    // The loading algorithm; true when the object is ready.
    bool initWithPropertyList(plist::Value root);
    std::shared_ptr<const plist::Dictionary> section(std::string_view key) const;
    bool finishLoading(std::shared_ptr<plist::Dictionary> verified);
    bool isDevelopmentHardware() const;
    // One row of the certificate table of a segmented verification.
    struct SignerRecord {
        platform::PublicKeyRef key;
        std::optional<std::string> signatureType;
        std::string rigorousCheckType;
    };
    using CertificateTable = std::unordered_map<std::string, SignerRecord>;
    bool enterSigner(const std::string& name, const plist::Value& entry, CertificateTable& table);
    bool verifyComponent(const std::string& name, plist::Value& component, const CertificateTable& table,
                         bool development, bool& needsRigorousChecks);
    platform::TrustService& trust() const;
    platform::DeviceInfo& deviceInfo() const;

    Services services_;
    bool monolithic_ = false;  // loaded from a version 2 manifest
    std::shared_ptr<const plist::Dictionary> payload_;
};

}  // namespace qvl
