// QVLDemoManifestCheck: the content checks that a signed manifest from a less
// trusted signer must pass before any of it is used. Each component carries a
// "RigorousCheckType" chosen by signature verification: "Skip" passes,
// "Default" runs the general file checks (file types, allowed symbolic links,
// set-id bits, the backup domain lists and system containers), "AppLayout"
// runs the icon-layout check. Monolithic (version 2) manifests are first
// converted into the segmented form, every component marked "Default".
//
// The checker also answers, per file, whether a file being installed may carry
// a valid code signature: content that needed rigorous checks may not bring
// signed executables (and their entitlements) onto the device. The item being
// installed is announced by the in-process notification
// "CheckEntitlementsNotify"; each passing check registers one more observer.
//
// Thread-safety: sharedInstance() may be called from any thread and creates
// the checker once. The properties are individually atomic (each is read and
// replaced under a lock), but two checks must not run on the same checker at
// the same time; the helper serves one request at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/PlistValue.h"

namespace qvl {

class WhitelistChecker;
namespace platform {
class ContainerLookup;
class CodeSignatureValidator;
class FileSystem;
class QVLNotificationCenter;
}  // namespace platform

class QVLDemoManifestCheck {
  public:
    // One row of the allowed symbolic links of backups: a link whose path
    // contains `pathFragment` may point at a target containing any of
    // `targetFragments`.
    struct SymLinkRule {
        std::string pathFragment;
        std::vector<std::string> targetFragments;
    };

    // The platform services the checker uses. A null member means the
    // process-wide default service.
    struct Services {
        platform::ContainerLookup* containers = nullptr;
        platform::CodeSignatureValidator* codeSignature = nullptr;
        platform::QVLNotificationCenter* notifications = nullptr;
        platform::FileSystem* files = nullptr;
    };

    // The process-wide checker, made on first use. Null when it could not be
    // made (the domain table failed to load); it then stays null for the life
    // of the process, and no manifest can be accepted.
    static QVLDemoManifestCheck* sharedInstance();

    // A separate checker over the given services (tests, tools). Null when the
    // domain table fails to load ("Loading Domains.plist failed\n" is logged).
    static std::unique_ptr<QVLDemoManifestCheck> create(Services services);
    static std::unique_ptr<QVLDemoManifestCheck> create() { return create(Services()); }

    ~QVLDemoManifestCheck();
    QVLDemoManifestCheck(const QVLDemoManifestCheck&) = delete;
    QVLDemoManifestCheck& operator=(const QVLDemoManifestCheck&) = delete;

    // Checks a segmented manifest whose components already carry their
    // "RigorousCheckType". Keeps it as segmentedManifestWithRigorousFlag
    // (whatever the verdict) and, when it passes, registers the entitlement
    // notification observer. A null manifest is refused.
    bool secureManifestCheckForSegmentedManifest(std::shared_ptr<const plist::Dictionary> manifest);
    bool secureManifestCheckForSegmentedManifest(const plist::Dictionary* manifest);

    // Checks a raw monolithic manifest: converts a copy to the segmented form
    // and checks that. `rawManifest` itself is never changed.
    bool secureManifestCheckForUnsegmentedManifest(const plist::Dictionary* rawManifest);

    // Rewrites a copy of a raw monolithic manifest in place into the segmented
    // form, every component "Default". Always answers true.
    bool unsegmentedToSegmentedWithRigorousFlag(plist::Dictionary& manifestCopy);

    // Runs every component's check over segmentedManifestWithRigorousFlag.
    // True only when at least one component was checked and none failed.
    bool runSecurityCheck();

    // The general file checks of one component's file manifest in `dataType`
    // ("Backup", "AppData", "GroupData" or "ExtensionData"). A missing (null)
    // or empty manifest passes; one that is not a dictionary fails.
    bool runSecurityChecksForSection(const plist::Value* fileManifest, std::string_view dataType);

    // The icon-layout check of a component signed by a Vantor signer.
    bool runAppLayoutSecurityCheck(const plist::Value* fileManifest);

    // Adds one observer of "CheckEntitlementsNotify" that stores the
    // notification's user information as itemBeingInstalled.
    void registerEntitlementNotificationHandler();

    // Whether the file at `path` on the device, listed under `manifestEntry`
    // in its component's file manifest, may be installed: false when it needs
    // rigorous checking and carries a valid code signature, or when it cannot
    // be placed in the manifest.
    //
    // The item being installed is {"TypeOfFiles": section, "Identifier": id}.
    // For "Backup" the identifier is the range of installation items being
    // installed, given as a dictionary {"location": n, "length": n} or as an
    // array [location, length] of unsigned 32-bit integers; for the data
    // sections it is the container's identifier string.
    bool checkFileForEntitlements(const std::string& path, const std::string& manifestEntry);

    // Properties.
    std::shared_ptr<const plist::Dictionary> segmentedManifestWithRigorousFlag() const;
    void setSegmentedManifestWithRigorousFlag(std::shared_ptr<const plist::Dictionary> manifest);
    std::shared_ptr<const plist::Dictionary> itemBeingInstalled() const;
    void setItemBeingInstalled(std::shared_ptr<const plist::Dictionary> item);
    const std::vector<SymLinkRule>& allowedSymLinks() const { return allowedSymLinks_; }
    WhitelistChecker& whitelistChecker() const { return *whitelistChecker_; }

  private:
    explicit QVLDemoManifestCheck(Services services);
    bool init();
    // Keeps `manifest` as segmentedManifestWithRigorousFlag and checks it; on
    // success starts listening for the items being installed. `signature`
    // names the caller in the failure's log line.
    bool keepAndCheck(const char* signature, std::shared_ptr<const plist::Dictionary> manifest);

    bool checkComponent(const plist::Value& component, const std::string& componentName,
                        const std::string& section);
    bool checkFileRecord(const std::string& path, const plist::Value& record, std::string_view section);
    bool symLinkAllowed(std::string_view path, const plist::Dictionary& record) const;
    static bool layoutRecordAcceptable(const std::string& path, const plist::Value& record);
    // Whether the file listed under `manifestEntry` of the item being
    // installed needs rigorous checking; nullopt (logged) when it can't be placed.
    std::optional<bool> needsRigorousCheck(const plist::Dictionary* manifest, const plist::Dictionary& item,
                                           const std::string& manifestEntry);

    Services services_;
    std::vector<SymLinkRule> allowedSymLinks_;
    std::unique_ptr<WhitelistChecker> whitelistChecker_;

    std::vector<uint64_t> observerTokens_;  // removed again when a non-shared checker goes away

    mutable std::mutex propertyLock_;
    std::shared_ptr<const plist::Dictionary> segmentedManifestWithRigorousFlag_;
    std::shared_ptr<const plist::Dictionary> itemBeingInstalled_;
};

}  // namespace qvl
