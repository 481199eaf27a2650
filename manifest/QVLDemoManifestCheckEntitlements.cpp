// QVLDemoManifestCheck, its entitlement check: whether a file the installer
// is about to place must be refused for carrying a valid signature, decided by
// the component of the loaded manifest that holds it.
#include <algorithm>

#include "base/QVLLog.h"
#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLDemoManifestKeys.h"
#include "platform/codesign/CodeSignature.h"
#include "platform/notify/QVLNotificationCenter.h"

namespace qvl {
namespace {

using namespace demo_manifest;
using plist::Dictionary;
using plist::Value;

// Reads a range given as {"location", "length"} or [location, length] of
// unsigned 32-bit integers.
std::optional<std::pair<int64_t, int64_t>> rangeOf(const Value* value) {
    const Value* location = nullptr;
    const Value* length = nullptr;
    if (const Dictionary* d = value ? value->asDictionary() : nullptr) {
        location = d->find("location");
        length = d->find("length");
    } else if (const plist::Array* a = value ? value->asArray() : nullptr; a && a->size() == 2) {
        location = &(*a)[0];
        length = &(*a)[1];
    }
    const plist::Integer* loc = location ? location->asInteger() : nullptr;
    const plist::Integer* len = length ? length->asInteger() : nullptr;
    if (!loc || !len || loc->isNegative() || len->isNegative() || loc->asUnsigned() > UINT32_MAX ||
        len->asUnsigned() > UINT32_MAX) {
        return std::nullopt;
    }
    return std::pair{static_cast<int64_t>(loc->asUnsigned()), static_cast<int64_t>(len->asUnsigned())};
}

}  // namespace

// Entitlement check -------------------------------------------------------

void QVLDemoManifestCheck::registerEntitlementNotificationHandler() {
    const uint64_t token = services_.notifications->addObserver(
        std::string(kNotificationName), [this](const platform::QVLNotification& notification) {
            const Value* none = nullptr;
            if (notification.userInfo) {
                QVLLog("Notification received for entitlement check for: %@ %@\n", notification.name,
                       *notification.userInfo);
            } else {
                QVLLog("Notification received for entitlement check for: %@ %@\n", notification.name, none);
            }
            setItemBeingInstalled(notification.userInfo);
        });
    std::lock_guard guard(propertyLock_);
    observerTokens_.push_back(token);
}

bool QVLDemoManifestCheck::checkFileForEntitlements(const std::string& path,
                                                    const std::string& manifestEntry) {
    static constexpr const char* kSignature =
        "-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]";
    const std::shared_ptr<const Dictionary> item = itemBeingInstalled();
    if (!item) return true;
    const std::shared_ptr<const Dictionary> manifest = segmentedManifestWithRigorousFlag();
    const std::optional<bool> needsCheck = needsRigorousCheck(manifest.get(), *item, manifestEntry);
    if (!needsCheck) return false;
    if (*needsCheck) {
        const int status = services_.codeSignature->validateCodeSignature(path);
        if (status == platform::kCodeSignatureValid) {
            QVLLog("%s:There is unexpected valid signature/entitlements:%08x\n", kSignature, status);
            return false;
        }
    }
    return true;
}

std::optional<bool> QVLDemoManifestCheck::needsRigorousCheck(const Dictionary* manifest,
                                                             const Dictionary& item,
                                                             const std::string& manifestEntry) {
    static constexpr const char* kSignature =
        "-[QVLDemoManifestCheck checkFileForEntitlements:forCorrespondingManifestEntry:]";
    const Value* typeOfFiles = item.find("TypeOfFiles");
    const std::string* type = typeOfFiles ? typeOfFiles->asString() : nullptr;
    const Dictionary* section = (manifest && type) ? manifest->getDictionary(*type) : nullptr;
    if (!section) {
        QVLLog("%s: %@ section is not a dictionary", kSignature, typeOfFiles);
        return std::nullopt;
    }
    auto needsCheckFor = [](const Dictionary& component) {
        const std::string* checkType = component.getString(kRigorousCheckType);
        return !(checkType && *checkType == kSkip);
    };

    if (*type == kBackup) {
        // The latest backup at or before the end of the range that holds the
        // file decides; earlier ones are shadowed by it.
        const auto range = rangeOf(item.find("Identifier"));
        const plist::Array* order = manifest->getArray(kInstallationOrder);
        if (range && order) {
            // Items past the end of the order hold nothing: start at the last one.
            const int64_t last = static_cast<int64_t>(order->size()) - 1;
            for (int64_t i = std::min(range->first + range->second - 1, last); i >= 0; --i) {
                const std::string* name = (*order)[static_cast<size_t>(i)].asString();
                const Dictionary* component = name ? section->getDictionary(*name) : nullptr;
                const Dictionary* files = component ? component->getDictionary(kManifest) : nullptr;
                if (files && files->contains(manifestEntry)) return needsCheckFor(*component);
            }
        }
        QVLLog("Could not locate the file:%@\n", manifestEntry);
        return std::nullopt;
    }
    if (isDataSection(*type)) {
        const Value* identifier = item.find("Identifier");
        const std::string* name = identifier ? identifier->asString() : nullptr;
        const Dictionary* component = name ? section->getDictionary(*name) : nullptr;
        if (!component) {
            QVLLog("%s Could not find a data container for:%@", kSignature, identifier);
            return std::nullopt;
        }
        return needsCheckFor(*component);
    }
    QVLLog("Could not locate the file:%@\n", manifestEntry);
    return std::nullopt;
}

}  // namespace qvl
