#include "bench/plist/ManifestFixture.h"

#include <cstdio>
#include <random>

namespace qvl::bench {

using plist::Array;
using plist::Data;
using plist::Date;
using plist::Dictionary;
using plist::Value;

namespace {

Data randomBytes(std::mt19937_64& rng, size_t n) {
    Data d(n);
    for (auto& b : d) b = static_cast<uint8_t>(rng());
    return d;
}

Value record(std::mt19937_64& rng, size_t i) {
    const bool isLink = i % 50 == 7;
    const bool isFolder = i % 20 == 0;
    // Sub-second dates, as file systems report them.
    const double modified = 1.7e9 + static_cast<double>(rng() % 50'000'000) + static_cast<double>(rng() % 1'000'000) / 1e6;

    Dictionary attributes;
    attributes.set("NSFileType", Value(isLink ? "NSFileTypeSymbolicLink" : isFolder ? "NSFileTypeDirectory"
                                                                                      : "NSFileTypeRegular"));
    attributes.set("NSFileSize", Value(static_cast<uint64_t>(isFolder ? 160 : rng() % 50'000'000)));
    attributes.set("NSFilePosixPermissions", Value(isFolder || isLink ? 0755 : 0644));
    attributes.set("NSFileOwnerAccountID", Value(501));
    attributes.set("NSFileGroupOwnerAccountID", Value(501));
    attributes.set("NSFileOwnerAccountName", Value("mobile"));
    attributes.set("NSFileGroupOwnerAccountName", Value("mobile"));
    attributes.set("NSFileCreationDate", Value(Date::fromUnix(modified - static_cast<double>(rng() % 1000))));
    attributes.set("NSFileModificationDate", Value(Date::fromUnix(modified)));
    attributes.set("NSFileProtectionKey", Value(i % 3 ? "NSFileProtectionCompleteUntilFirstUserAuthentication"
                                                      : "NSFileProtectionNone"));
    attributes.set("NSFileReferenceCount", Value(isFolder ? 3 : 1));
    attributes.set("NSFileSystemNumber", Value(16777220));
    attributes.set("NSFileSystemFileNumber", Value(static_cast<int64_t>(1'000'000 + i)));

    Dictionary xattrs;
    if (i % 4 == 0) xattrs.set("com.ostrel.quorvale.origin", Value(Data{'s', 't', 'o', 'r', 'e'}));
    if (i % 10 == 0) xattrs.set("com.ostrel.backup.exclude", Value(randomBytes(rng, 12)));

    Dictionary r;
    r.set("QVLManifestFileAttributes", Value(std::move(attributes)));
    r.set("QVLManifestFileExtendedAttributes", Value(std::move(xattrs)));
    r.set("QVLManifestFileHash", Value(isFolder || isLink ? Data{} : randomBytes(rng, 20)));
    r.set("QVLManifestSymbolicLinkTargetFile", Value(isLink ? "../Shared/current-face.bundle" : ""));
    return Value(std::move(r));
}

}  // namespace

Value makeManifest(size_t count) {
    std::mt19937_64 rng(20261122);
    Dictionary manifest;
    manifest.reserve(count);
    char path[128];
    for (size_t i = 0; i < count; ++i) {
        snprintf(path, sizeof path, "/private/var/mobile/Library/Quorvale/Content/%03zu/item-%06zu.bundle", i / 1000,
                 i);
        manifest.appendUnchecked(path, record(rng, i));
    }
    return Value(std::move(manifest));
}

}  // namespace qvl::bench
