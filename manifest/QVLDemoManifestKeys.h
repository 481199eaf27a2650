// The keys, names and fixed values the content checks of less trusted
// manifests read; shared by the two files of QVLDemoManifestCheck.
#pragma once

#include <cstdint>
#include <string_view>

namespace qvl::demo_manifest {

inline constexpr std::string_view kBackup = "Backup";
inline constexpr std::string_view kAppData = "AppData";
inline constexpr std::string_view kGroupData = "GroupData";
inline constexpr std::string_view kExtensionData = "ExtensionData";
inline constexpr std::string_view kManifest = "Manifest";
inline constexpr std::string_view kRigorousCheckType = "RigorousCheckType";
inline constexpr std::string_view kInstallationOrder = "InstallationOrder";
inline constexpr std::string_view kBaseBackup = "backup.BaseBackup";
inline constexpr std::string_view kSkip = "Skip";
inline constexpr std::string_view kDefault = "Default";
inline constexpr std::string_view kAppLayout = "AppLayout";
inline constexpr std::string_view kNotificationName = "CheckEntitlementsNotify";

inline constexpr int64_t kSetUserID = 04000;
inline constexpr int64_t kSetGroupID = 02000;
inline constexpr int64_t kMobileID = 501;
inline constexpr std::string_view kMobileName = "mobile";

inline constexpr std::string_view kAllowedLayoutPaths[] = {
    "/var/mobile/Library/Tessaro/DesiredIconState.plist",
    "/var/mobile/Library/Tessaro/IconState.plist",
};

inline bool isCheckedSection(std::string_view name) {
    return name == kBackup || name == kAppData || name == kGroupData || name == kExtensionData;
}

inline bool isDataSection(std::string_view name) {
    return name == kAppData || name == kGroupData || name == kExtensionData;
}

}  // namespace qvl::demo_manifest
