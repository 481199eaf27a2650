#include "platform/deviceinfo/DeviceInfo.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <limits>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"

namespace qvl::platform {

namespace {

plist::Value usageAnswer(int64_t capacity, int64_t available) {
    plist::Dictionary usage;
    usage.set("TotalDataCapacity", plist::Value(capacity));
    usage.set("TotalDataAvailable", plist::Value(available));
    return plist::Value(std::move(usage));
}

}  // namespace

DeviceInfo& DeviceInfo::sharedInstance() {
    static DeviceInfo service;
    return service;
}

std::optional<plist::Value> DeviceInfo::copyAnswer(std::string_view question) const {
    const auto file = readPropertyListFile(LinuxFileSystem::sharedInstance(), paths_.infoFile);
    const plist::Dictionary* info = file ? file->asDictionary() : nullptr;

    if (question == "DiskUsage") return diskUsage(info);
    if (!info) return std::nullopt;
    const plist::Value* answer = info->find(question);
    if (!answer) return std::nullopt;
    // The known questions have fixed kinds; anything else in the file is no answer.
    if (question == "SigningFuse" && !answer->isBoolean()) return std::nullopt;
    if (question == "ProductName" && !answer->isString()) return std::nullopt;
    return *answer;
}

std::optional<bool> DeviceInfo::signingFuse() const {
    const auto answer = copyAnswer("SigningFuse");
    if (!answer || !answer->isBoolean()) return std::nullopt;
    return *answer->asBoolean();
}

std::optional<std::string> DeviceInfo::productName() const {
    const auto answer = copyAnswer("ProductName");
    if (!answer || !answer->isString()) return std::nullopt;
    return *answer->asString();
}

std::optional<plist::Value> DeviceInfo::diskUsage(const plist::Dictionary* info) const {
    if (info) {
        if (const plist::Value* given = info->find("DiskUsage"); given && given->isDictionary()) return *given;
    }
    if (auto fromVolumes = diskUsageFromVolumes()) return fromVolumes;
    return diskUsageFromFileSystem();
}

std::optional<plist::Value> DeviceInfo::diskUsageFromVolumes() const {
    const auto volumes = Volumes(paths_.volumesFile).mounted();
    if (!volumes) return std::nullopt;
    for (const Volumes::Volume& volume : *volumes) {
        if (volume.mountedOn != paths_.dataMountPoint) continue;
        if (!volume.size || !volume.used || *volume.size < 0 || *volume.used < 0) return std::nullopt;
        // A volume that claims more use than size has nothing available.
        return usageAnswer(*volume.size, std::max<int64_t>(0, *volume.size - *volume.used));
    }
    return std::nullopt;
}

std::optional<plist::Value> DeviceInfo::diskUsageFromFileSystem() const {
    struct statvfs st;
    if (statvfs(paths_.dataMountPoint.c_str(), &st) != 0) return std::nullopt;
    const unsigned __int128 capacity = static_cast<unsigned __int128>(st.f_blocks) * st.f_frsize;
    const unsigned __int128 available = static_cast<unsigned __int128>(st.f_bavail) * st.f_frsize;
    constexpr auto kMax = static_cast<unsigned __int128>(std::numeric_limits<int64_t>::max());
    if (capacity > kMax || available > kMax) return std::nullopt;
    return usageAnswer(static_cast<int64_t>(capacity), static_cast<int64_t>(available));
}

}  // namespace qvl::platform
