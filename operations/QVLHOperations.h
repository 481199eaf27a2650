// QVLHOperations: the root operations behind the helper's commands, one shared
// object for the whole process. Each operation answers with a flag and logs the
// cause of a failure once, where it is found; the client only ever sees the
// flag.
//
// The firmware-variable store and the restart are reached through narrow
// platform interfaces that tests may replace before calling the operations.
//
// Thread-safety: the helper runs one command at a time; the operations keep no
// state between calls apart from the platform layers, which are set once
// before use.
#pragma once

#include <memory>
#include <string>

#include "plist/PlistValue.h"

namespace qvl::platform {
class NvramStore;
class SystemRestart;
}  // namespace qvl::platform

namespace qvl {

class QVLHOperations {
  public:
    static QVLHOperations& sharedInstance();

    QVLHOperations(const QVLHOperations&) = delete;
    QVLHOperations& operator=(const QVLHOperations&) = delete;

    // Preferences and containers.
    bool migratePreferencesFile();
    bool prepareDirectory(const std::string& path, bool writableByMobile);
    bool prepareLogContainer(const std::string& path);
    bool removeDirectory(const std::string& path);

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

    // Test seams: replace the platform layers (null restores the real ones).
    void setNvramStoreForTesting(std::shared_ptr<platform::NvramStore> store);
    void setSystemRestartForTesting(std::shared_ptr<platform::SystemRestart> restart);

  private:
    QVLHOperations();
    ~QVLHOperations();

    std::shared_ptr<platform::NvramStore> nvram_;
    std::shared_ptr<platform::SystemRestart> restart_;
};

}  // namespace qvl
