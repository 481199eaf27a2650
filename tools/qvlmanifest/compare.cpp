// qvlmanifest compare: which paths of two manifests differ, and how, in the
// order in which a record comparison looks at them.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "metadata/QVLFileDigest.h"
#include "metadata/QVLManifest.h"
#include "platform/fs/LinuxFileSystem.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

std::optional<plist::Dictionary> readManifest(const std::string& path) {
    std::optional<plist::Value> value = readPropertyListFile(path);
    if (!value) return std::nullopt;
    plist::Dictionary* manifest = value->asDictionary();
    if (!manifest) {
        fail(path + " is not a manifest (its top level is not a dictionary)");
        return std::nullopt;
    }
    return std::move(*manifest);
}

std::string textOr(const std::string* text, const char* missing) {
    return text ? "\"" + *text + "\"" : missing;
}

std::string digestText(const plist::Data* digest) {
    if (!digest) return "none";
    if (digest->empty()) return "empty";
    return createDigestHexString(*digest).value_or(std::to_string(digest->size()) + " bytes");
}

std::string ownershipText(const QVLFileMetadata& m) {
    const plist::Dictionary* attributes = m.getFileAttributes();
    auto number = [&](std::string_view key, bool octal) -> std::string {
        const plist::Value* value = attributes ? attributes->find(key) : nullptr;
        std::optional<int64_t> n = value ? value->integerValue() : std::nullopt;
        if (!n) return "-";
        char buffer[32];
        std::snprintf(buffer, sizeof(buffer), octal ? "%04llo" : "%lld", static_cast<long long>(*n));
        return buffer;
    };
    return "owner " + number(kNSFileOwnerAccountID, false) + ", group " +
           number(kNSFileGroupOwnerAccountID, false) + ", mode " + number(kNSFilePosixPermissions, true);
}

// What differs, in the words of the comparison's result.
std::string difference(int result, const QVLFileMetadata& a, const QVLFileMetadata& b) {
    switch (result) {
        case QVLFileMetadata::kTypeDiffers:
            return "file type differs (" + textOr(a.getFileType(), "none") + " / " +
                   textOr(b.getFileType(), "none") + ")";
        case QVLFileMetadata::kDigestDiffers:
            return "content digest differs (" + digestText(a.getHash()) + " / " + digestText(b.getHash()) +
                   ")";
        case QVLFileMetadata::kLinkTargetDiffers:
            return "symbolic link target differs (" + textOr(a.getTargetFile(), "none") + " / " +
                   textOr(b.getTargetFile(), "none") + ")";
        case QVLFileMetadata::kOwnershipOrModeDiffers:
            return "owner, group or mode differs (" + ownershipText(a) + " / " + ownershipText(b) + ")";
        case QVLFileMetadata::kExtendedAttributesDiffer:
            return "extended attributes differ";
        default:
            return "differs (" + std::to_string(result) + ")";
    }
}

}  // namespace

int compareVerb(Arguments args) {
    std::vector<std::string> files;
    for (const std::string& arg : args) {
        if (arg == "-v" || arg == "--verbose") {
            logToStandardError();
        } else if (!arg.empty() && arg[0] == '-') {
            return fail("compare: unknown option " + arg);
        } else {
            files.push_back(arg);
        }
    }
    if (files.size() != 2) return fail("compare: needs exactly two manifests, A and B");
    std::optional<plist::Dictionary> a = readManifest(files[0]);
    if (!a) return kExitFailure;
    std::optional<plist::Dictionary> b = readManifest(files[1]);
    if (!b) return kExitFailure;
    const QVLManifest left(platform::LinuxFileSystem::sharedInstance(), &*a),
        right(platform::LinuxFileSystem::sharedInstance(), &*b);

    std::vector<std::string> keys;
    keys.reserve(a->size() + b->size());
    for (const auto& entry : *a) keys.push_back(entry.first);
    for (const auto& entry : *b) {
        if (!a->contains(entry.first)) keys.push_back(entry.first);
    }
    std::sort(keys.begin(), keys.end());

    size_t differing = 0;
    for (const std::string& key : keys) {
        const std::optional<QVLFileMetadata> mine = left.metadataForFile(key);
        const std::optional<QVLFileMetadata> theirs = right.metadataForFile(key);
        std::string what;
        if (!a->contains(key)) {
            what = "missing in A";
        } else if (!b->contains(key)) {
            what = "missing in B";
        } else if (!mine || !theirs) {
            what = std::string("not a metadata record in ") + (!mine ? "A" : "B");
        } else if (int result = mine->compareWith(&*theirs); result != QVLFileMetadata::kSame) {
            what = difference(result, *mine, *theirs);
        } else {
            continue;
        }
        ++differing;
        std::printf("%s: %s\n", key.c_str(), what.c_str());
    }
    std::fflush(stdout);
    return differing == 0 ? kExitSuccess : kExitDifferent;
}

}  // namespace qvl::qvlmanifest
