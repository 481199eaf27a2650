#include "platform/volumes/Volumes.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"

namespace qvl::platform {

namespace {

struct Table {
    plist::Value value;
    plist::Format format = plist::Format::XML;
    // The entries that count as mounted: the first kMaxVolumes.
    size_t visible() const { return std::min(value.asArray()->size(), Volumes::kMaxVolumes); }
    plist::Dictionary* entry(size_t i) { return (*value.asArray())[i].asDictionary(); }
};

// No file: an empty table. A file that is not an array: nullopt.
std::optional<Table> readTable(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) return Table{plist::Value(plist::Array{})};
    Table table;
    auto value = readPropertyListFile(LinuxFileSystem::sharedInstance(), path, nullptr, &table.format);
    if (!value || !value->isArray()) return std::nullopt;
    table.value = std::move(*value);
    return table;
}

std::string stringEntry(const plist::Dictionary& d, std::string_view key) {
    const std::string* s = d.getString(key);
    return s ? *s : std::string();
}

std::optional<int64_t> signedEntry(const plist::Dictionary& d, std::string_view key) {
    const plist::Integer* n = d.getInteger(key);
    if (!n || (n->isUnsigned && n->bits > uint64_t(std::numeric_limits<int64_t>::max()))) return std::nullopt;
    return n->asSigned();
}

// A table entry that is not a dictionary is a mount the table can't
// describe: it is listed with empty fields, so it counts but never matches.
Volumes::Volume volumeOf(const plist::Value& entry) {
    Volumes::Volume v;
    const plist::Dictionary* d = entry.asDictionary();
    if (!d) return v;
    v.fsTypeName = stringEntry(*d, "FSTypeName");
    v.mountedFrom = stringEntry(*d, "MountedFrom");
    v.mountedOn = stringEntry(*d, "MountedOn");
    if (const plist::Value* uuid = d->find("UUID")) v.uuid = *uuid;
    v.size = signedEntry(*d, "Size");
    v.used = signedEntry(*d, "Used");
    return v;
}

std::string_view bsdNameOf(std::string_view mountedFrom) {
    const size_t slash = mountedFrom.rfind('/');
    return slash == std::string_view::npos ? mountedFrom : mountedFrom.substr(slash + 1);
}

int fail(int error) {
    errno = error;
    return -1;
}

}  // namespace

Volumes& Volumes::sharedInstance() {
    static Volumes volumes;
    return volumes;
}

std::optional<std::vector<Volumes::Volume>> Volumes::mounted() const {
    std::optional<Table> table = readTable(tablePath_);
    if (!table) {
        errno = EIO;
        return std::nullopt;
    }
    std::vector<Volume> volumes;
    for (size_t i = 0; i < table->visible(); i++) volumes.push_back(volumeOf((*table->value.asArray())[i]));
    return volumes;
}

std::optional<Volumes::RegistryDevice> Volumes::deviceWithBSDName(std::string_view bsdName) const {
    const auto volumes = mounted();
    if (!volumes) return std::nullopt;
    for (const Volume& v : *volumes) {
        if (!v.mountedFrom.empty() && bsdNameOf(v.mountedFrom) == bsdName) return RegistryDevice{v.uuid};
    }
    return std::nullopt;
}

int Volumes::hfsResize(const std::string& mountPoint, uint64_t newSize) {
    std::optional<Table> table = readTable(tablePath_);
    if (!table) return fail(EIO);
    for (size_t i = 0; i < table->visible(); i++) {
        plist::Dictionary* d = table->entry(i);
        if (!d || stringEntry(*d, "MountedOn") != mountPoint || stringEntry(*d, "FSTypeName") != "hfs")
            continue;
        if (newSize > uint64_t(std::numeric_limits<int64_t>::max())) return fail(EINVAL);
        if (uint64_t(std::max<int64_t>(0, signedEntry(*d, "Used").value_or(0))) > newSize)
            return fail(ENOSPC);
        d->set("Size", plist::Value(int64_t(newSize)));
        return writePropertyListFile(LinuxFileSystem::sharedInstance(), tablePath_, table->value,
                                     table->format)
                   ? 0
                   : fail(EIO);
    }
    return fail(EINVAL);
}

}  // namespace qvl::platform
