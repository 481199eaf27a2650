#include "metadata/QVLFileMetadata.h"

namespace qvl {

const plist::Data* QVLFileMetadata::getHash() const {
    return dict_.getData(kQVLManifestFileHash);
}

const plist::Dictionary* QVLFileMetadata::getFileAttributes() const {
    return dict_.getDictionary(kQVLManifestFileAttributes);
}

const plist::Dictionary* QVLFileMetadata::getExtendedAttributes() const {
    return dict_.getDictionary(kQVLManifestFileExtendedAttributes);
}

const std::string* QVLFileMetadata::getFileType() const {
    const plist::Dictionary* attributes = getFileAttributes();
    return attributes ? attributes->getString(kNSFileType) : nullptr;
}

const std::string* QVLFileMetadata::getTargetFile() const {
    return dict_.getString(kQVLManifestSymbolicLinkTargetFile);
}

int64_t QVLFileMetadata::getFileSize() const {
    const std::string* type = getFileType();
    if (!type || *type != kNSFileTypeRegular) return 0;
    const plist::Value* size = getFileAttributes()->find(kNSFileSize);
    if (!size) return 0;
    return size->integerValue().value_or(0);
}

}  // namespace qvl
