// QVLHOperations: the root operations behind the helper's commands, one shared
// object for the whole process. Each operation answers with a flag and logs the
// cause of a failure once, where it is found; the client only ever sees the
// flag.
//
// The file system, the firmware-variable store, the restart, the verification
// of the signed manifest and the message service's busy transactions are
// reached through the services given at construction; sharedInstance() uses
// the device's own.
//
// Thread-safety: the helper runs one command at a time, and the operations are
// called from that one thread. Their only state between calls is the signed
// manifest, loaded at most once successfully and then kept unchanged for the
// life of the object.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "operations/QVLHClientPath.h"
#include "manifest/QVLSignedManifest.h"
#include "plist/PlistValue.h"

namespace qvl::platform {
class FileSystem;
class NvramStore;
class SystemRestart;
}  // namespace qvl::platform

namespace qvl {

class QVLManifest;

class QVLHOperations {
  public:
    // The layers the operations use; a null member means the device's own
    // (the Linux file system, the store under /private/var/db/platform/nvram,
    // the Linux restart). The layers must outlive the object.
    struct Services {
        platform::FileSystem* files = nullptr;
        platform::NvramStore* nvram = nullptr;
        platform::SystemRestart* restart = nullptr;
        // How the signed manifest is verified; nullopt: the helper's own
        // content checks, trust and device information. Its file system, when
        // not given, is `files`.
        std::optional<QVLSignedManifest::Services> manifests = std::nullopt;
        // Opens one busy transaction with the message service; empty: the
        // ZRP service's own.
        std::function<void()> openTransaction = nullptr;
    };

    // A range of installation items as a client sends it: native signed
    // integers, checked only where the signed manifest uses a range.
    struct ItemRange {
        int32_t location = static_cast<int32_t>(QVLRange::kNotFound);
        int32_t length = 0;
    };

    static QVLHOperations& sharedInstance();

    explicit QVLHOperations(Services services);
    ~QVLHOperations();
    QVLHOperations(const QVLHOperations&) = delete;
    QVLHOperations& operator=(const QVLHOperations&) = delete;

    // Preferences and containers.
    bool migratePreferencesFile();
    bool prepareDirectory(const std::string& path, bool writableByMobile);
    bool prepareLogContainer(const std::string& path);
    bool removeDirectory(const std::string& path);
    // Whether a client's folder path stays below /private/var with no ".."
    // and no symbolic link on the part of its way that exists. Nothing is
    // logged or changed; the operations hold every path they are given to
    // the same confinement themselves.
    bool pathIsConfined(const std::string& path);

    // Staging and installation moves.
    bool createHardLinks(const std::string& path, const std::string& stagingPath);
    bool moveStagingToFinal(const std::string& path);

    // Device manifests and attribute restore. The signed manifest is loaded
    // on first use by any of them; every attempt made while none is loaded
    // opens one more busy transaction, which is never closed.
    const QVLSignedManifest* signedManifest() const { return signedManifest_.get(); }
    void loadManifest();
    bool createDeviceManifest(const std::string& path, bool forBackup, ItemRange range);
    bool restoreBackupAttributesUnder(const std::string& root, ItemRange range);
    bool restoreAppDataAttributesUnder(const std::string& root, const std::string& containerType,
                                       const std::string& identifier);
    bool restoreAttributesUnder(const std::string& root, const QVLManifest& manifest);

    // Firmware variables, restart and exit.
    bool deleteNvram(const std::string& name);
    // `value` must be a string; any other kind answers false.
    bool writeNVRam(const std::string& name, const plist::Value& value);
    // Returns only when the restart did not happen, always with false.
    bool reboot();
    [[noreturn]] void quitHelper();

  private:
    // A client's item: the folder holding it, opened confined, and its name.
    struct Place {
        UniqueFd parent;
        std::string name;
        QVLHClientPath path;
    };
    // confine's answer when it refused the path and said why in the log.
    static constexpr int kRefused = -1;

    // Opens the folder holding the item at a client's `path` (with `create`,
    // making missing folders on the way). A path that leads outside or
    // through a link is logged under `operation` and kRefused; other
    // failures answer their errno unlogged.
    int confine(const char* operation, const std::string& path, bool create, Place* out);
    UniqueFd prepareFolder(const std::string& path, bool writableByMobile, bool* ok);
    bool openToAll(const Place& place, const std::string& path);
    bool nvramReachable();
    bool ensureManifestLoaded();
    UniqueFd openStagingRoot(const std::string& root);
    std::optional<std::shared_ptr<const plist::Dictionary>> selectBackups(const char* operation,
                                                                          ItemRange range);

    std::unique_ptr<platform::NvramStore> ownNvram_;
    std::unique_ptr<platform::SystemRestart> ownRestart_;
    platform::FileSystem& files_;
    // Threads reading files ahead of a manifest walk: the Linux file system
    // takes calls from any thread; one given in Services is driven from one.
    const unsigned manifestCollectors_;
    platform::NvramStore& nvram_;
    platform::SystemRestart& restart_;
    const std::optional<QVLSignedManifest::Services> manifestServices_;
    const std::function<void()> openTransaction_;
    std::unique_ptr<QVLSignedManifest> signedManifest_;
};

}  // namespace qvl
