#include "manifest/QVLSignedManifest.h"

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/QVLLog.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/fs/LinuxFileSystem.h"
#include "plist/PropertyList.h"

namespace qvl {

namespace {

constexpr const char* kInit = "-[QVLSignedManifest initWithNSStream:]";
constexpr std::string_view kBackupPrefix = "backup.";
constexpr std::string_view kSystemAppDataPrefix = "systemappdata";
constexpr std::string_view kAppPrefix = "app.";
constexpr const char* kBaseBackup = "backup.BaseBackup";

}  // namespace

QVLSignedManifest::QVLSignedManifest(Services services) : services_(std::move(services)) {}
QVLSignedManifest::~QVLSignedManifest() = default;

std::unique_ptr<QVLSignedManifest> QVLSignedManifest::loadFromFile(const std::string& path,
                                                                   Services services) {
    platform::FileSystem& files =
        services.files ? *services.files : platform::LinuxFileSystem::sharedInstance();
    std::optional<plist::Value> root;
    {
        std::vector<uint8_t> bytes;
        if (files.readFile(path, kMaxSignedManifestSize, &bytes, platform::RegularFileOptions()) != 0) {
            const int err = errno;
            const std::string message = err == EFBIG
                                            ? std::string("the manifest is larger than the largest accepted")
                                            : path + ": " + strerror(err);
            QVLLog("%s: Cannot convert to property list - %@(0x%x).", kInit, message,
                   static_cast<int>(plist::ReadError::kIO));
            return nullptr;
        }
        // The file's bytes go as soon as they are parsed: verification works
        // on the values, and a manifest is large.
        root = parse(bytes);
    }
    return load(std::move(root), std::move(services));
}

std::unique_ptr<QVLSignedManifest> QVLSignedManifest::loadFromBytes(std::span<const uint8_t> bytes,
                                                                    Services services) {
    return load(parse(bytes), std::move(services));
}

std::unique_ptr<QVLSignedManifest> QVLSignedManifest::load(std::optional<plist::Value> root,
                                                           Services services) {
    if (!root) return nullptr;
    std::unique_ptr<QVLSignedManifest> manifest(new QVLSignedManifest(std::move(services)));
    if (!manifest->initWithPropertyList(std::move(*root))) return nullptr;
    return manifest;
}

std::unique_ptr<QVLSignedManifest> QVLSignedManifest::verifier(Services services) {
    return std::unique_ptr<QVLSignedManifest>(new QVLSignedManifest(std::move(services)));
}

std::optional<plist::Value> QVLSignedManifest::parse(std::span<const uint8_t> bytes) {
    plist::ReadError error;
    auto root = plist::read(bytes, &error);
    if (!root) QVLLog("%s: Cannot convert to property list - %@(0x%x).", kInit, error.message, error.code);
    return root;
}

bool QVLSignedManifest::initWithPropertyList(plist::Value root) {
    plist::Dictionary* outer = root.asDictionary();
    if (!outer) {
        QVLLog("%s: format not correct.", kInit);
        return false;
    }
    const plist::Value* version = outer->find("Version");
    if (!version) {
        QVLLog("%s: required key (version) not found.", kInit);
        return false;
    }
    if (!services_.manifestVerifier) {
        QVLLog("Could not initialize manifestVerifier\n");
        return false;
    }
    // A "Version" that is not a number has no integer value and counts as 0.
    const int64_t v = version->isNumber() ? version->integerValue().value_or(0) : 0;
    if (v < 2 || v > 5) {
        QVLLog("%s: signed manifest version %d is not supported yet", kInit, v);
        return false;
    }
    monolithic_ = v == 2;
    auto verified =
        v == 2 ? verifyMonolithicManifestSignature(*outer) : verifyManifestSignature(std::move(*outer));
    if (!verified) return false;
    return finishLoading(std::move(verified));
}

bool QVLSignedManifest::finishLoading(std::shared_ptr<plist::Dictionary> verified) {
    const plist::Dictionary& result = *verified;
    const plist::Value* info = result.find("Info");
    if (!info || !info->isDictionary()) {
        QVLLog("%s: no Info section or in wrong format.", kInit);
        return false;
    }
    if (const plist::Value* orderValue = result.find("InstallationOrder")) {
        const plist::Array* order = orderValue->asArray();
        // Every item must be a string: an item of another kind could never be
        // installed and would make the count rule meaningless.
        bool allStrings = order != nullptr;
        if (order)
            for (const plist::Value& item : *order) allStrings = allStrings && item.isString();
        if (!allStrings) {
            QVLLog("%s: InstallationOrder section in wrong format.", kInit);
            return false;
        }
        const plist::Dictionary* backups = result.getDictionary("Backup");
        if (!backups) {
            QVLLog("%s: no Backup section or in wrong format.", kInit);
            return false;
        }
        const plist::Value* apps = result.find("App");
        if (apps && !apps->isDictionary()) {
            QVLLog("%s: App section in wrong format.", kInit);
            return false;
        }
        bool hasSystemAppData = false;
        for (const plist::Value& item : *order)
            hasSystemAppData = hasSystemAppData || *item.asString() == "systemappdata";
        const size_t expected =
            backups->size() + (apps ? apps->asDictionary()->size() : 0) + (hasSystemAppData ? 1 : 0);
        if (order->size() != expected) {
            QVLLog("InstallationOrder entry count does not match components listed in manifest.");
            return false;
        }
    }
    payload_ = std::move(verified);
    return true;
}

platform::TrustService& QVLSignedManifest::trust() const {
    return services_.trust ? *services_.trust : platform::TrustService::sharedInstance();
}

platform::DeviceInfo& QVLSignedManifest::deviceInfo() const {
    return services_.deviceInfo ? *services_.deviceInfo : platform::DeviceInfo::sharedInstance();
}

std::shared_ptr<const plist::Dictionary> QVLSignedManifest::section(std::string_view key) const {
    if (!payload_) return nullptr;
    const plist::Dictionary* d = payload_->getDictionary(key);
    if (!d) return nullptr;
    return {payload_, d};
}

int32_t QVLSignedManifest::getVersion() const {
    if (!payload_) return 0;
    const plist::Value* version = payload_->find("Version");
    if (!version || !version->isNumber()) return 0;
    return static_cast<int32_t>(version->integerValue().value_or(0));
}

std::shared_ptr<const plist::Array> QVLSignedManifest::getInstallationOrder() const {
    if (!payload_) return nullptr;
    const plist::Array* order = payload_->getArray("InstallationOrder");
    if (!order) return nullptr;
    return {payload_, order};
}

std::shared_ptr<const plist::Dictionary> QVLSignedManifest::getBackup() const {
    if (getVersion() >= 5) {
        QVLLog("getBackup is only for old manifest.");
        return nullptr;
    }
    return section("Backup");
}

std::shared_ptr<const plist::Dictionary> QVLSignedManifest::getBackupList() const {
    if (getVersion() >= 5) return section("Backup");
    auto backup = getBackup();
    if (!backup) return nullptr;
    auto list = std::make_shared<plist::Dictionary>();
    list->set(kBaseBackup, plist::Value(*backup));
    return list;
}

// The start index must name an installation item. One outside the order (or
// a manifest without one) is refused with kNotFound, as a start item that is
// not a backup is, and logged.
QVLRange QVLSignedManifest::rangeOfGroupedBackups(uint32_t start) const {
    if (getVersion() < 5) return {start, 1};
    const auto order = getInstallationOrder();
    if (!order || start >= order->size()) {
        QVLLog("Start item %u is outside the installation order.", start);
        return {};
    }
    auto isBackupAt = [&](size_t i) {
        const std::string* item = (*order)[i].asString();
        return item && isItemBackup(*item);
    };
    if (!isBackupAt(start)) {
        QVLLog("Start item is not a backup.");
        return {};
    }
    uint32_t length = 1;
    while (start + length < order->size() && isBackupAt(start + length)) ++length;
    return {start, length};
}

// A range must lie within the installation order; one that does not is
// refused with no manifest at all rather than a partial one.
std::shared_ptr<const plist::Dictionary> QVLSignedManifest::mergedBackupManifest(QVLRange range) const {
    if (getVersion() < 5) return getBackup();
    const uint64_t end = static_cast<uint64_t>(range.location) + range.length;
    QVLLog("Merging manifest item [%d..%d)", range.location, end);
    const auto order = getInstallationOrder();
    const size_t count = order ? order->size() : 0;
    if (end > count) {
        QVLLog("Range [%u..%llu) is outside the installation order of %lu items.", range.location,
               static_cast<unsigned long long>(end), static_cast<unsigned long>(count));
        return nullptr;
    }
    // Collect first, then build: a path met again keeps its first position
    // and takes the later backup's record.
    std::unordered_map<std::string_view, size_t> position;
    std::vector<std::pair<std::string_view, const plist::Value*>> pairs;
    const auto backups = getBackupList();
    for (uint64_t i = range.location; i < end; ++i) {
        const std::string* item = (*order)[i].asString();
        const plist::Value* entry = (item && backups) ? backups->find(*item) : nullptr;
        const plist::Dictionary* files = entry ? fileManifestOf(*entry) : nullptr;
        if (!files) continue;
        for (const auto& [path, record] : *files) {
            const auto [at, inserted] = position.try_emplace(path, pairs.size());
            if (inserted)
                pairs.emplace_back(path, &record);
            else
                pairs[at->second].second = &record;
        }
    }
    auto merged = std::make_shared<plist::Dictionary>();
    merged->reserve(pairs.size());
    for (const auto& [path, record] : pairs) merged->appendUnchecked(std::string(path), *record);
    return merged;
}

// In the old layout an entry is either a file manifest or holds one under
// "Manifest". A component of the segmented form is signed over its
// "Manifest" only, so nothing else in it may ever be read as a file record:
// without a dictionary there, it stands for an empty manifest.
const plist::Dictionary* QVLSignedManifest::fileManifestOf(const plist::Value& entry) const {
    const plist::Dictionary* fields = entry.asDictionary();
    if (!fields) return nullptr;
    const plist::Value* inner = fields->find("Manifest");
    if (inner) return inner->asDictionary();
    return monolithic_ ? fields : nullptr;
}

bool QVLSignedManifest::isItemBackup(std::string_view item) {
    return item.starts_with(kBackupPrefix);
}

bool QVLSignedManifest::isItemSystemAppData(std::string_view item) {
    return item.starts_with(kSystemAppDataPrefix);
}

std::optional<std::string> QVLSignedManifest::appIdentifierFromOrderItem(std::string_view item) {
    if (item.starts_with(kAppPrefix)) return std::string(item.substr(kAppPrefix.size()));
    QVLLog("Wrong app identifer to install: %@", item);
    return std::nullopt;
}

bool QVLSignedManifest::isOstrelWatch() const {
    return deviceInfo().productName() == "Kelto OS";
}

}  // namespace qvl
