// QVLHOperations: the root operations behind the helper's commands, one shared
// object for the whole process. Each operation answers with a flag and logs the
// cause of a failure once, where it is found; the client only ever sees the
// flag.
//
// The file system, the firmware-variable store and the restart are reached
// through the platform layers given at construction; sharedInstance() uses
// the device's own.
//
// Thread-safety: the helper runs one command at a time; the operations keep no
// state between calls apart from the platform layers, which are fixed at
// construction.
#pragma once

#include <memory>
#include <string>

#include "base/UniqueFd.h"
#include "operations/QVLHClientPath.h"
#include "plist/PlistValue.h"

namespace qvl::platform {
class FileSystem;
class NvramStore;
class SystemRestart;
}  // namespace qvl::platform

namespace qvl {

class QVLHOperations {
  public:
    // The layers the operations use; a null member means the device's own
    // (the Linux file system, the store under /private/var/db/platform/nvram,
    // the Linux restart). The layers must outlive the object.
    struct Services {
        platform::FileSystem* files = nullptr;
        platform::NvramStore* nvram = nullptr;
        platform::SystemRestart* restart = nullptr;
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

    std::unique_ptr<platform::NvramStore> ownNvram_;
    std::unique_ptr<platform::SystemRestart> ownRestart_;
    platform::FileSystem& files_;
    platform::NvramStore& nvram_;
    platform::SystemRestart& restart_;
};

}  // namespace qvl
