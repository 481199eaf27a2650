// The helper's own services for QVLSignedManifest: the shared content checker.
// Kept apart so that programs that bring their own checks (tests, fuzzing) do
// not pull in the checker and its domain table.

#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLSignedManifest.h"

namespace qvl {

QVLSignedManifest::ContentChecks QVLSignedManifest::contentChecksOf(QVLDemoManifestCheck& checker) {
    ContentChecks checks;
    checks.segmented = [&checker](std::shared_ptr<const plist::Dictionary> manifest) {
        return checker.secureManifestCheckForSegmentedManifest(std::move(manifest));
    };
    checks.unsegmented = [&checker](const plist::Dictionary& rawManifest) {
        return checker.secureManifestCheckForUnsegmentedManifest(&rawManifest);
    };
    return checks;
}

QVLSignedManifest::Services QVLSignedManifest::defaultServices() {
    Services services;
    if (QVLDemoManifestCheck* checker = QVLDemoManifestCheck::sharedInstance())
        services.manifestVerifier = contentChecksOf(*checker);
    return services;
}

std::unique_ptr<QVLSignedManifest> QVLSignedManifest::loadFromFile(const std::string& path) {
    return loadFromFile(path, defaultServices());
}

}  // namespace qvl
