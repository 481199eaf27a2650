#include "metadata/WhitelistChecker.h"

#include <cerrno>

#include "base/QVLLog.h"
#include "metadata/DomainTable.h"
#include "metadata/QVLFileMetadata.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace qvl {
namespace {

constexpr std::string_view kAlwaysAllowed[] = {
    "/var/mobile/Media",
    "/var/mobile/Library/Backup/SystemContainers/",
    "/var/wireless/Library/Preferences/com.ostrel.kromd.persistent.plist",
    "/var/wireless/Library/Preferences/com.ostrel.kromd.plist",
};

constexpr std::string_view kRestoreAnnotation = "MBRestoreAnnotation";
constexpr const char* kWhiteSpace = " \t\n\r\v\f";

std::string_view trim(std::string_view s) {
    const size_t first = s.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) return {};
    const size_t last = s.find_last_not_of(kWhiteSpace);
    return s.substr(first, last - first + 1);
}

// Joins a relative path to a root as one more path component: one "/" between
// them, repeated "/" collapsed and no trailing "/" (except for "/" itself).
std::string appendPathComponent(std::string_view root, std::string_view component) {
    std::string joined;
    joined.reserve(root.size() + component.size() + 1);
    joined.append(root);
    joined.push_back('/');
    joined.append(component);
    std::string out;
    out.reserve(joined.size());
    for (char c : joined) {
        if (c == '/' && !out.empty() && out.back() == '/') continue;
        out.push_back(c);
    }
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

// Whether `path` is a folder on the way to `place` (a strict parent of it).
bool above(std::string_view path, std::string_view place) {
    while (place.size() > 1 && place.back() == '/') place.remove_suffix(1);
    return path != place && WhitelistChecker::pathAtOrBelow(place, path);
}

// A parent of an allowed place is restored as a whole folder over device
// folders such as "/", "/var" and "/var/mobile": only a directory that gives
// no write to group or others and carries no set-id bit may stand there.
bool safeParentRecord(const plist::Value& metaData) {
    const plist::Dictionary* record = metaData.asDictionary();
    const plist::Dictionary* attributes =
        record ? record->getDictionary(kQVLManifestFileAttributes) : nullptr;
    const std::string* type = attributes ? attributes->getString(kNSFileType) : nullptr;
    const plist::Value* mode = attributes ? attributes->find(kNSFilePosixPermissions) : nullptr;
    const std::optional<int64_t> bits = mode && mode->isNumber() ? mode->integerValue() : std::nullopt;
    return type && *type == kNSFileTypeDirectory && bits && *bits >= 0 && (*bits & 06022) == 0;
}

std::vector<std::string_view> splitAtSlash(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    while (true) {
        const size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            parts.push_back(path.substr(start));
            return parts;
        }
        parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
}

std::string removeAll(std::string_view text, std::string_view what) {
    std::string out;
    size_t start = 0;
    for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, start)) {
        out.append(text.substr(start, at - start));
        start = at + what.size();
    }
    out.append(text.substr(start));
    return out;
}

void appendStrings(plist::Array& to, const plist::Dictionary& domain, std::string_view key) {
    if (const plist::Array* entries = domain.getArray(key))
        to.insert(to.end(), entries->begin(), entries->end());
}

// Anything there, even what can't be looked at, exists.
bool pathExists(platform::FileSystem& files, const std::string& path) {
    platform::ItemStat st;
    return files.statItem(path, &st) == 0 || errno != ENOENT;
}

}  // namespace

WhitelistChecker::WhitelistChecker(platform::ContainerLookup& containers, platform::FileSystem& files)
    : containers_(containers), files_(files) {}

void WhitelistChecker::setDomains(plist::Dictionary domains) {
    std::vector<Domain> compiled;
    compiled.reserve(domains.size());
    for (const auto& [name, value] : domains) compiled.push_back(compile(name, value));
    domains_ = std::move(domains);
    compiled_ = std::move(compiled);
}

WhitelistChecker::Domain WhitelistChecker::compile(const std::string& name, const plist::Value& value) {
    Domain domain;
    domain.name = name;
    const plist::Dictionary* dict = value.asDictionary();
    const std::string* root = dict ? dict->getString("RootPath") : nullptr;
    if (!root) return domain;  // refused when a path reaches it
    domain.hasRootPath = true;

    // Without the main allow array the other two are not consulted either: the
    // domain then has no entry and allows its whole root.
    plist::Array allow;
    if (dict->getArray("RelativePathsToBackupAndRestore")) {
        appendStrings(allow, *dict, "RelativePathsToBackupAndRestore");
        appendStrings(allow, *dict, "RelativePathsToOnlyBackupEncrypted");
        appendStrings(allow, *dict, "RelativePathsToRestoreOnly");
    }
    domain.allow = createFullPathList(allow, *root, true);
    plist::Array deny;
    appendStrings(deny, *dict, "RelativePathsNotToRestore");
    domain.deny = createFullPathList(deny, *root, false);
    return domain;
}

bool WhitelistChecker::loadFromData() {
    const std::span<const uint8_t> table = QVLBuiltInDomainTable();
    const std::optional<plist::Value> parsed = plist::read(table);
    const plist::Dictionary* top = parsed ? parsed->asDictionary() : nullptr;
    const plist::Value* systemDomains = top ? top->find("SystemDomains") : nullptr;
    if (!top || (systemDomains && !systemDomains->isDictionary())) {
        QVLLog("Cannot load domains.plist from data.");
        return false;
    }
    setDomains(systemDomains ? *systemDomains->asDictionary() : plist::Dictionary());
    return true;
}

bool WhitelistChecker::load(const std::string& path) {
    if (!pathExists(files_, path)) {
        QVLLog("%@ does not exist.", path);
        return false;
    }
    const std::optional<plist::Value> parsed = platform::readPropertyListFile(files_, path);
    const plist::Dictionary* top = parsed ? parsed->asDictionary() : nullptr;
    const plist::Value* systemDomains = top ? top->find("SystemDomains") : nullptr;
    if (!top || (systemDomains && !systemDomains->isDictionary())) {
        QVLLog("Cannot load %@", path);
        return false;
    }
    setDomains(systemDomains ? *systemDomains->asDictionary() : plist::Dictionary());
    return true;
}

bool WhitelistChecker::checkManifest(const plist::Dictionary& manifest) {
    bool allPassed = true;
    for (const auto& [path, record] : manifest) {
        if (!checkFile(path, record)) {
            QVLLog("%s:%@ failed the check.", "-[WhitelistChecker checkManifest:]", path);
            allPassed = false;
        }
    }
    return allPassed;
}

bool WhitelistChecker::checkManifestFile(const std::string& path) {
    if (!pathExists(files_, path)) {
        QVLLog("%@ does not exist.", path);
        return false;
    }
    const std::optional<plist::Value> parsed = platform::readPropertyListFile(files_, path);
    const plist::Dictionary* top = parsed ? parsed->asDictionary() : nullptr;
    const plist::Value* backup = top ? top->find("Backup") : nullptr;
    if (!top || (backup && !backup->isDictionary())) {
        QVLLog("Cannot load %@", path);
        return false;
    }
    // A file without a backup section has nothing to restore.
    return backup ? checkManifest(*backup->asDictionary()) : true;
}

bool WhitelistChecker::pathAtOrBelow(std::string_view path, std::string_view place) {
    while (place.size() > 1 && place.back() == '/') place.remove_suffix(1);
    if (place == "/") return path.starts_with('/');
    return path.starts_with(place) && (path.size() == place.size() || path[place.size()] == '/');
}

bool WhitelistChecker::isCanonicalAbsolutePath(std::string_view path) {
    if (path == "/") return true;
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return false;
    for (size_t start = 1; start <= path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        const std::string_view part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") return false;
        start = end + 1;
    }
    return true;
}

bool WhitelistChecker::checkFile(const std::string& path, const plist::Value& metaData) {
    // The place tests compare text, so a path that climbs out of a folder
    // with ".." could pass for the place it names: such paths are refused first.
    if (!isCanonicalAbsolutePath(path)) {
        QVLLog(kNotCanonicalPathMessage, path);
        return false;
    }
    for (std::string_view allowed : kAlwaysAllowed) {
        if (pathAtOrBelow(path, allowed)) return true;
    }
    if (annotated(metaData)) return true;

    for (const Domain& domain : compiled_) {
        if (!domain.hasRootPath) {
            QVLLog("No root path find in domain %@", domain.name);
            return false;
        }
        if (!fileWhitelisted(path, domain.allow)) continue;
        if (fileBlacklisted(path, domain.deny)) QVLLog("%@ is black listed in %@", path, domain.name);
        return true;
    }

    bool isParent = false;
    for (std::string_view allowed : kAlwaysAllowed) isParent = isParent || above(path, allowed);
    for (const Domain& domain : compiled_) isParent = isParent || fileLeadsToWhitelisted(path, domain.allow);
    if (!isParent) return false;
    if (!safeParentRecord(metaData)) {
        QVLLog(
            "%@ is a folder above an allowed place, so it must be a directory without group or other "
            "write and without set-id bits.",
            path);
        return false;
    }
    return true;
}

bool WhitelistChecker::annotated(const plist::Value& metaData) {
    const plist::Dictionary* record = metaData.asDictionary();
    const plist::Dictionary* xattrs =
        record ? record->getDictionary(kQVLManifestFileExtendedAttributes) : nullptr;
    if (!xattrs || xattrs->empty()) return false;
    const plist::Data* value = xattrs->getData(kRestoreAnnotation);
    if (!value) return false;
    const std::string_view text(reinterpret_cast<const char*>(value->data()), value->size());
    return text == "NotRestored" || text == "NotBackedUp";
}

std::vector<std::string> WhitelistChecker::createFullPathList(const plist::Array& entries,
                                                              std::string_view rootPath, bool isAllowList) {
    std::vector<std::string> paths;
    for (const plist::Value& entry : entries) {
        const std::string* text = entry.asString();
        if (!text) continue;  // a table value of another kind names no path
        const std::string_view relative = trim(std::string_view(*text).substr(0, text->find('#')));
        if (!relative.empty()) paths.push_back(appendPathComponent(rootPath, relative));
    }
    if (isAllowList && paths.empty()) paths.emplace_back(rootPath);
    return paths;
}

bool WhitelistChecker::fileWhitelisted(std::string_view path, const std::vector<std::string>& list) {
    for (const std::string& entry : list) {
        if (pathAtOrBelow(path, entry)) return true;
    }
    return false;
}

bool WhitelistChecker::fileLeadsToWhitelisted(std::string_view path, const std::vector<std::string>& list) {
    for (const std::string& entry : list) {
        if (above(path, entry)) return true;
    }
    return false;
}

bool WhitelistChecker::fileBlacklisted(std::string_view path, const std::vector<std::string>& list) {
    for (const std::string& entry : list) {
        if (path.starts_with(entry) && (path.size() == entry.size() || path[entry.size()] == '/'))
            return true;
    }
    return false;
}

bool WhitelistChecker::shouldRestore(const std::string& identifier, bool shared) {
    const auto container = containers_.containerPath(
        identifier, shared ? platform::ContainerClass::kSystemGroup : platform::ContainerClass::kSystemData);
    if (!container || container->path.empty() || !container->existed) return true;
    const std::optional<bool> excluded = containers_.excludedFromBackup(container->path);
    if (excluded.value_or(false)) {
        QVLLog("%s:Not restoring (attribute set locally):%@", "-[WhitelistChecker shouldRestore:shared:]",
               identifier);
        return false;
    }
    return true;
}

bool WhitelistChecker::handleSystemContainerFiles(const std::string& path, const plist::Value& metaData) {
    std::string identifier;
    bool shared = false;
    if (path.find(kDataContainerPrefix) != std::string::npos) {
        identifier = removeAll(path, kDataContainerPrefix);
    } else if (path.find(kGroupContainerPrefix) != std::string::npos) {
        identifier = removeAll(path, kGroupContainerPrefix);
        shared = true;
    } else {
        return true;
    }
    // Only the container's top folder: the prefix and one name.
    if (splitAtSlash(path).size() != 8) return true;
    if (annotated(metaData)) return true;
    if (!shouldRestore(identifier, shared)) {
        QVLLog("%s:Container check failed for %@",
               "-[WhitelistChecker handleSystemContainerFiles:withMetadata:]", path);
        return false;
    }
    return true;
}

}  // namespace qvl
