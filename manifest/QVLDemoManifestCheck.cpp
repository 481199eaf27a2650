#include "manifest/QVLDemoManifestCheck.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

#include "base/QVLLog.h"
#include "manifest/QVLDemoManifestKeys.h"
#include "metadata/QVLFileMetadata.h"
#include "metadata/WhitelistChecker.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/notify/QVLNotificationCenter.h"

namespace qvl {
namespace {

using namespace demo_manifest;
using plist::Dictionary;
using plist::Value;

// A copy of a data section entry wrapped as a component checked by default.
Value defaultComponent(const Value* manifest) {
    Dictionary component;
    if (manifest) component.set(std::string(kManifest), *manifest);
    component.set(std::string(kRigorousCheckType), std::string(kDefault));
    return component;
}

// The device's "/var" is "/private/var": both spellings name one place.
std::string_view withoutPrivate(std::string_view path) {
    if (path == "/private/var" || path.starts_with("/private/var/")) path.remove_prefix(8);
    return path;
}

// Whether the resolved link target `place` stays in the place a rule's target
// fragment allows. An absolute fragment names a folder (or file) the target
// must lie in. A relative one ("OPS/images") names folders inside the rule's
// own place ("/var/mobile/Media/Books"), so the target must stay there and
// pass through them.
bool targetWithin(std::string_view place, std::string_view fragment, std::string_view rulePath) {
    if (fragment.starts_with('/')) return WhitelistChecker::pathAtOrBelow(place, withoutPrivate(fragment));
    if (!WhitelistChecker::pathAtOrBelow(place, rulePath)) return false;
    const std::string inner = "/" + std::string(fragment) + "/";
    return std::string(place).append("/").find(inner) != std::string::npos;
}

// The collection of paths in `files` whose records are symbolic links.
std::unordered_set<std::string_view> symbolicLinksOf(const Dictionary& files) {
    std::unordered_set<std::string_view> links;
    for (const auto& [path, record] : files) {
        const Dictionary* dict = record.asDictionary();
        const Dictionary* attributes = dict ? dict->getDictionary(kQVLManifestFileAttributes) : nullptr;
        const std::string* type = attributes ? attributes->getString(kNSFileType) : nullptr;
        if (type && *type == kNSFileTypeSymbolicLink) links.insert(path);
    }
    return links;
}

// A link's target, resolved by text alone as the file system would resolve it
// from the link's folder: relative targets are joined to that folder, "." and
// ".." folded ("/.." stays "/"), and "/private/var" read as "/var". Nothing is
// looked up on this machine. Nullopt for an empty target or one holding NUL.
std::optional<std::string> linkTargetPlace(std::string_view linkPath, std::string_view target) {
    if (target.empty() || target.find('\0') != std::string_view::npos) return std::nullopt;
    std::string joined;
    if (!target.starts_with('/')) {
        const size_t slash = linkPath.rfind('/');
        joined.assign(linkPath.substr(0, slash == std::string_view::npos ? 0 : slash));
        joined.push_back('/');
    }
    joined.append(target);
    std::vector<std::string_view> parts;
    for (size_t start = 0; start <= joined.size();) {
        size_t end = joined.find('/', start);
        if (end == std::string::npos) end = joined.size();
        const std::string_view part(joined.data() + start, end - start);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = end + 1;
    }
    std::string place;
    for (std::string_view part : parts) place.append("/").append(part);
    if (place.empty()) place = "/";
    return std::string(withoutPrivate(place));
}

}  // namespace

QVLDemoManifestCheck* QVLDemoManifestCheck::sharedInstance() {
    // Made once; a failure is remembered, so every later caller sees no checker.
    static const std::unique_ptr<QVLDemoManifestCheck> shared = create();
    return shared.get();
}

std::unique_ptr<QVLDemoManifestCheck> QVLDemoManifestCheck::create(Services services) {
    std::unique_ptr<QVLDemoManifestCheck> checker(new QVLDemoManifestCheck(services));
    if (!checker->init()) return nullptr;
    return checker;
}

QVLDemoManifestCheck::QVLDemoManifestCheck(Services services) : services_(services) {
    if (!services_.codeSignature)
        services_.codeSignature = &platform::ModuleSignatureValidator::sharedInstance();
    if (!services_.notifications)
        services_.notifications = &platform::QVLNotificationCenter::sharedInstance();
    if (!services_.containers) services_.containers = &platform::FileContainerLookup::sharedInstance();
    if (!services_.files) services_.files = &platform::LinuxFileSystem::sharedInstance();
}

QVLDemoManifestCheck::~QVLDemoManifestCheck() {
    for (uint64_t token : observerTokens_) services_.notifications->removeObserver(token);
}

bool QVLDemoManifestCheck::init() {
    allowedSymLinks_ = {
        {"/var/mobile/Library/Preferences/com.ostrel.carrier",
         {"/System/Library/Carrier Bundles/", "/var/mobile/Library/Carrier Bundles/Overlay/"}},
        {"/var/db/timezone/localtime", {"/var/db/timezone/zoneinfo"}},
        {"/var/mobile/Media/Books", {"OPS/images", "OEBPS/images"}},
        {"/var/mobile/Containers/",
         {"/var/mobile/Containers/Data/Application/", "/var/mobile/Containers/Shared/AppGroup/",
          "/var/mobile/Containers/Shared/Extension/", "/var/mobile/Library/Cookies",
          "/private/var/mobile/Library/Preferences/com.ostrel.PeoplePicker.plist",
          "/private/var/mobile/Library/Preferences/.GlobalPreferences.plist"}},
    };
    whitelistChecker_ = std::make_unique<WhitelistChecker>(*services_.containers, *services_.files);
    if (!whitelistChecker_->loadFromData()) {
        QVLLog("Loading Domains.plist failed\n");
        return false;
    }
    return true;
}

// Properties --------------------------------------------------------------

std::shared_ptr<const Dictionary> QVLDemoManifestCheck::segmentedManifestWithRigorousFlag() const {
    std::lock_guard guard(propertyLock_);
    return segmentedManifestWithRigorousFlag_;
}

void QVLDemoManifestCheck::setSegmentedManifestWithRigorousFlag(std::shared_ptr<const Dictionary> manifest) {
    std::lock_guard guard(propertyLock_);
    segmentedManifestWithRigorousFlag_ = std::move(manifest);
}

std::shared_ptr<const Dictionary> QVLDemoManifestCheck::itemBeingInstalled() const {
    std::lock_guard guard(propertyLock_);
    return itemBeingInstalled_;
}

void QVLDemoManifestCheck::setItemBeingInstalled(std::shared_ptr<const Dictionary> item) {
    std::lock_guard guard(propertyLock_);
    itemBeingInstalled_ = std::move(item);
}

// Whole-manifest checks ---------------------------------------------------

bool QVLDemoManifestCheck::secureManifestCheckForSegmentedManifest(
    std::shared_ptr<const Dictionary> manifest) {
    static constexpr const char* kSignature =
        "-[QVLDemoManifestCheck secureManifestCheckForSegmentedManifest:]";
    if (!manifest) {
        QVLLog("%s: Passed a null manifest for security checks", kSignature);
        return false;
    }
    return keepAndCheck(kSignature, std::move(manifest));
}

bool QVLDemoManifestCheck::secureManifestCheckForSegmentedManifest(const Dictionary* manifest) {
    return secureManifestCheckForSegmentedManifest(manifest ? std::make_shared<const Dictionary>(*manifest)
                                                            : nullptr);
}

bool QVLDemoManifestCheck::secureManifestCheckForUnsegmentedManifest(const Dictionary* rawManifest) {
    static constexpr const char* kSignature =
        "-[QVLDemoManifestCheck secureManifestCheckForUnsegmentedManifest:]";
    if (!rawManifest) {
        QVLLog("%s: Passed a null manifest for security checks", kSignature);
        return false;
    }
    // The raw manifest is what loading keeps as the payload: work on a copy.
    auto copy = std::make_shared<Dictionary>(*rawManifest);
    if (!unsegmentedToSegmentedWithRigorousFlag(*copy)) {
        QVLLog("%s: Not able to convert old manifest file\n", kSignature);
        return false;
    }
    return keepAndCheck(kSignature, std::move(copy));
}

bool QVLDemoManifestCheck::keepAndCheck(const char* signature, std::shared_ptr<const Dictionary> manifest) {
    setSegmentedManifestWithRigorousFlag(std::move(manifest));
    if (runSecurityCheck()) {
        registerEntitlementNotificationHandler();
        return true;
    }
    QVLLog("%s: Security checks failed\n", signature);
    return false;
}

bool QVLDemoManifestCheck::unsegmentedToSegmentedWithRigorousFlag(Dictionary& manifestCopy) {
    // Each data section entry becomes a component holding the file manifest
    // that readers of the old layout take from it: its "Manifest" when it has
    // one, else the entry itself. Inspecting that, and nothing else, means no
    // record can be restored unseen. An entry of another kind than a
    // dictionary is carried over unchanged, and the security check refuses it.
    auto wrapSection = [&](std::string_view name) {
        Dictionary section;
        if (const Dictionary* old = manifestCopy.getDictionary(name)) {
            for (const auto& [identifier, entry] : *old) {
                const Dictionary* fields = entry.asDictionary();
                if (!fields) {
                    section.set(identifier, entry);
                    continue;
                }
                const Value* files = fields->find(kManifest);
                if (!files) files = &entry;
                const Dictionary* filesDict = files->asDictionary();
                if (filesDict && filesDict->empty()) continue;  // nothing to install
                section.set(identifier, defaultComponent(files));
            }
        }
        return section;
    };
    Dictionary appData = wrapSection(kAppData);
    Dictionary groupData = wrapSection(kGroupData);
    Dictionary extensionData = wrapSection(kExtensionData);
    Dictionary backup;
    backup.set(std::string(kBaseBackup), defaultComponent(manifestCopy.find(kBackup)));

    // A data section of another kind is left as it is, so that the check
    // refuses it instead of the conversion dropping it unseen.
    auto replaceSection = [&](std::string_view name, Dictionary converted) {
        const Value* old = manifestCopy.find(name);
        if (!old || old->isDictionary()) manifestCopy.set(std::string(name), std::move(converted));
    };
    replaceSection(kAppData, std::move(appData));
    replaceSection(kGroupData, std::move(groupData));
    replaceSection(kExtensionData, std::move(extensionData));
    manifestCopy.set(std::string(kBackup), std::move(backup));
    manifestCopy.set(std::string(kInstallationOrder),
                     plist::Array{Value(kBaseBackup), Value("systemappdata")});
    return true;
}

bool QVLDemoManifestCheck::runSecurityCheck() {
    static constexpr const char* kSignature = "-[QVLDemoManifestCheck runSecurityCheck]";
    QVLLog("Starting rigorous security checks\n");
    // The verdict is set by each component checked; the first failure ends
    // the visit, and a manifest without any checked component fails.
    bool verdict = false;
    const std::shared_ptr<const Dictionary> manifest = segmentedManifestWithRigorousFlag();
    auto visit = [&] {
        if (!manifest) return;
        for (const auto& [sectionName, section] : *manifest) {
            if (!isCheckedSection(sectionName)) continue;
            const Dictionary* components = section.asDictionary();
            if (!components) {
                QVLLog("%s: %@ section is not a dictionary", kSignature, sectionName);
                verdict = false;
                return;
            }
            for (const auto& [componentName, component] : *components) {
                verdict = checkComponent(component, componentName, sectionName);
                if (!verdict) {
                    QVLLog("%s: Failed rigorous check for:%@ (from %@)\n", kSignature, componentName,
                           sectionName);
                    return;
                }
            }
        }
    };
    visit();
    if (verdict) {
        QVLLog("%s:Cleared all checks for manifest. Approving future installations\n", kSignature);
    } else {
        QVLLog("%s: Security checks failed\n", kSignature);
    }
    return verdict;
}

bool QVLDemoManifestCheck::checkComponent(const Value& component, const std::string& componentName,
                                          const std::string& section) {
    const Dictionary* dict = component.asDictionary();
    const Value* type = dict ? dict->find(kRigorousCheckType) : nullptr;
    const std::string* typeName = type ? type->asString() : nullptr;
    if (typeName && *typeName == kSkip) return true;
    if (typeName && *typeName == kDefault) return runSecurityChecksForSection(dict->find(kManifest), section);
    if (typeName && *typeName == kAppLayout) return runAppLayoutSecurityCheck(dict->find(kManifest));
    QVLLog("%s: Unknown rigorous check type (%@) for %@ (from %@).",
           "-[QVLDemoManifestCheck runSecurityCheck]", type, componentName, section);
    return false;
}

// General file checks -----------------------------------------------------

bool QVLDemoManifestCheck::runSecurityChecksForSection(const Value* fileManifest, std::string_view dataType) {
    if (!fileManifest) return true;
    const Dictionary* files = fileManifest->asDictionary();
    if (!files) {
        QVLLog("%s: Manifest in %@ section is not a dictionary",
               "-[QVLDemoManifestCheck runSecurityChecksForSection:dataType:]", dataType);
        return false;
    }
    if (dataType == kBackup && !whitelistChecker_->checkManifest(*files)) {
        QVLLog("Whitelist checker failed\n");
        return false;
    }
    const std::unordered_set<std::string_view> links = symbolicLinksOf(*files);
    for (const auto& [path, record] : *files) {
        if (!checkFileRecord(path, record, dataType)) return false;
        // Restoring below a link would act on wherever the link points.
        for (size_t slash = path.find('/', 1); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            const std::string_view parent(path.data(), slash);
            if (links.contains(parent)) {
                QVLLog("File %@ lies below the symbolic link %@", path, parent);
                return false;
            }
        }
    }
    return true;
}

bool QVLDemoManifestCheck::checkFileRecord(const std::string& path, const Value& record,
                                           std::string_view section) {
    if (!WhitelistChecker::isCanonicalAbsolutePath(path)) {
        QVLLog(WhitelistChecker::kNotCanonicalPathMessage, path);
        return false;
    }
    const Dictionary* dict = record.asDictionary();
    const Dictionary* attributes = dict ? dict->getDictionary(kQVLManifestFileAttributes) : nullptr;
    if (!attributes) {
        QVLLog("File attributes are nil for %@", path);
        return false;
    }

    const Value* type = attributes->find(kNSFileType);
    const std::string* typeName = type ? type->asString() : nullptr;
    bool typeAcceptable = false;
    if (typeName && (*typeName == kNSFileTypeRegular || *typeName == kNSFileTypeDirectory)) {
        typeAcceptable = true;
    } else if (typeName && *typeName == kNSFileTypeSymbolicLink) {
        typeAcceptable = isDataSection(section) || (section == kBackup && symLinkAllowed(path, *dict));
    }
    if (!typeAcceptable) {
        QVLLog("Not a valid fileType(%@) for file:%@", type, path);
        return false;
    }

    // No recorded mode means none is restored. A value that is not a number
    // counts as every bit set, so it is refused.
    const Value* mode = attributes->find(kNSFilePosixPermissions);
    const int64_t permissions = mode ? mode->integerValue().value_or(-1) : 0;
    if ((permissions & (kSetUserID | kSetGroupID)) != 0) {
        QVLLog("File permissions failed for file:%@(%ld)", path, permissions);
        return false;
    }

    if (section == kBackup && !whitelistChecker_->handleSystemContainerFiles(path, record)) {
        QVLLog("System container check failed for file:%@", path);
        return false;
    }
    return true;
}

bool QVLDemoManifestCheck::symLinkAllowed(std::string_view path, const Dictionary& record) const {
    const std::string* target = record.getString(kQVLManifestSymbolicLinkTargetFile);
    if (!target) return false;
    const std::optional<std::string> place = linkTargetPlace(path, *target);
    if (!place) return false;
    for (const SymLinkRule& rule : allowedSymLinks_) {
        if (!path.starts_with(rule.pathFragment)) continue;
        for (const std::string& fragment : rule.targetFragments) {
            if (targetWithin(*place, fragment, rule.pathFragment)) return true;
        }
    }
    return false;
}

// App layout --------------------------------------------------------------

bool QVLDemoManifestCheck::runAppLayoutSecurityCheck(const Value* fileManifest) {
    const Dictionary* files = fileManifest ? fileManifest->asDictionary() : nullptr;
    if (!files || files->empty()) return false;
    for (const auto& [path, record] : *files) {
        if (!layoutRecordAcceptable(path, record)) return false;
    }
    return true;
}

bool QVLDemoManifestCheck::layoutRecordAcceptable(const std::string& path, const Value& record) {
    if (std::find(std::begin(kAllowedLayoutPaths), std::end(kAllowedLayoutPaths), path) ==
        std::end(kAllowedLayoutPaths)) {
        QVLLog("%@ is not allowed in Vantor signed component.", path);
        return false;
    }
    const Dictionary* dict = record.asDictionary();
    if (!dict) {
        QVLLog("Vantor signed component in wrong format (no manifest) for %@", path);
        return false;
    }
    if (dict->size() != 4 || !dict->contains(kQVLManifestFileAttributes) ||
        !dict->contains(kQVLManifestFileExtendedAttributes) || !dict->contains(kQVLManifestFileHash) ||
        !dict->contains(kQVLManifestSymbolicLinkTargetFile)) {
        QVLLog("Vantor signed compoennt in wrong format (manifest keys) for %@", path);
        return false;
    }
    const std::string* target = dict->getString(kQVLManifestSymbolicLinkTargetFile);
    if (!target || !target->empty()) {
        QVLLog("Vantor signed compoennt in wrong format (symlink target) for %@", path);
        return false;
    }
    const Dictionary* attributes = dict->getDictionary(kQVLManifestFileAttributes);
    if (!attributes) {
        QVLLog("Vantor signed compoennt in wrong format (no file attributes) for %@", path);
        return false;
    }
    const std::string* type = attributes->getString(kNSFileType);
    if (!type) {
        QVLLog("Vantor signed compoennt in wrong format (file type) for %@", path);
        return false;
    }
    if (*type != kNSFileTypeRegular) {
        QVLLog("Vantor signed compoennt can only contain regular files - %@", path);
        return false;
    }

    static constexpr const char* kNotMobileOwned =
        "Vantor signed compoennt can only contain mobile owned file - %@";
    for (std::string_view key : {kNSFileOwnerAccountID, kNSFileGroupOwnerAccountID}) {
        const Value* id = attributes->find(key);
        if (!id || !id->isNumber()) {
            QVLLog("Vantor signed compoennt in wrong format (owner ID) for %@", path);
            return false;
        }
        if (!(*id == Value(kMobileID))) {
            QVLLog(kNotMobileOwned, path);
            return false;
        }
    }
    // The group name has its own message, misspelling included.
    const std::pair<std::string_view, const char*> names[] = {
        {kNSFileOwnerAccountName, "Vantor signed compoennt in wrong format (owner name) for %@"},
        {kNSFileGroupOwnerAccountName, "Vantor signed compoennt in wrong format (onwer name) for %@"},
    };
    for (const auto& [key, wrongFormat] : names) {
        const std::string* name = attributes->getString(key);
        if (!name) {
            QVLLog(wrongFormat, path);
            return false;
        }
        if (*name != kMobileName) {
            QVLLog(kNotMobileOwned, path);
            return false;
        }
    }

    const Value* mode = attributes->find(kNSFilePosixPermissions);
    if (!mode || !mode->isNumber()) {
        QVLLog("Vantor signed compoennt in wrong format (permission) for %@", path);
        return false;
    }
    if ((mode->integerValue().value_or(-1) & (kSetUserID | kSetGroupID)) != 0) {
        QVLLog("Vantor signed compoennt contains setuid item: %@", path);
        return false;
    }
    return true;
}

}  // namespace qvl
