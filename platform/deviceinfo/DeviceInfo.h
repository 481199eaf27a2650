// DeviceInfo: the device-information service. It answers named questions
// from the device's information file, a dictionary:
//   "SigningFuse" (boolean) and "ProductName" (string) straight from it;
//   "DiskUsage", a dictionary of "TotalDataCapacity" and "TotalDataAvailable"
//   (bytes): the file's own "DiskUsage" dictionary as it stands (checking it
//   is the asker's business), else from the simulated volume mounted on the
//   data folder, else from statvfs of the data folder.
// A missing file or key, or a value of another kind than expected, is no
// answer. The file is read anew on every question: answers are never cached.
//
// Every question goes through one virtual function, so tests can swap in a
// service with answers of their own.
//
// Thread-safety: keeps no mutable state; may be asked from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/volumes/Volumes.h"
#include "plist/PlistValue.h"

namespace qvl::platform {

inline constexpr const char* kDeviceInfoPath = "/etc/ostrel/deviceinfo.plist";
inline constexpr const char* kDataVolumeMountPoint = "/private/var";

class DeviceInfo {
  public:
    struct Paths {
        std::string infoFile = kDeviceInfoPath;
        std::string volumesFile = kVolumesPath;
        std::string dataMountPoint = kDataVolumeMountPoint;
    };

    DeviceInfo() = default;
    explicit DeviceInfo(Paths paths) : paths_(std::move(paths)) {}
    virtual ~DeviceInfo() = default;

    // The service over the device's own files.
    static DeviceInfo& sharedInstance();

    // The answer to `question`, or nullopt when there is none.
    virtual std::optional<plist::Value> copyAnswer(std::string_view question) const;

    // Typed shortcuts over copyAnswer.
    std::optional<bool> signingFuse() const;
    std::optional<std::string> productName() const;

    const Paths& paths() const { return paths_; }

  private:
    std::optional<plist::Value> diskUsage(const plist::Dictionary* info) const;
    std::optional<plist::Value> diskUsageFromVolumes() const;
    std::optional<plist::Value> diskUsageFromFileSystem() const;

    Paths paths_;
};

}  // namespace qvl::platform
