#include "platform/entitlements/EntitlementService.h"

#include <dirent.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "plist/PropertyList.h"

namespace qvl::entitlements {

namespace {

// A registry holds a handful of files; more than this is not a registry
// anyone maintains, and reading them all on every request would be a cost a
// stray folder could impose on each client.
constexpr size_t kMaxRegistryFiles = 4096;

// The registry files (*.plist, not hidden) in byte order of their names.
std::vector<std::string> registryFiles(const std::string& dir) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) return names;
    while (dirent* e = ::readdir(d.get())) {
        const std::string_view name = e->d_name;
        if (name.starts_with('.') || !name.ends_with(".plist")) continue;
        names.emplace_back(name);
        if (names.size() >= kMaxRegistryFiles) break;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool entryApplies(const plist::Dictionary& entry, const std::string& executable, uid_t uid) {
    const std::string* path = entry.getString("Executable");
    if (!path || *path != executable) return false;
    const plist::Value* userID = entry.find("UserID");
    if (!userID) return true;
    // A "UserID" that is not an integer binds to no uid at all.
    const plist::Integer* n = userID->asInteger();
    return n && !n->isNegative() && n->asUnsigned() == static_cast<uint64_t>(uid);
}

}  // namespace

std::optional<Task> Task::createWithAuditToken(const zrp::AuditToken& token, std::string registryDirectory) {
    if (token.executablePath.empty() || !token.processAlive()) return std::nullopt;
    return Task(token.executablePath, token.uid, std::move(registryDirectory));
}

std::optional<plist::Value> Task::valueForEntitlement(std::string_view name) const {
    for (const std::string& file : registryFiles(registryDirectory_)) {
        std::optional<plist::Value> root = plist::readFile(registryDirectory_ + "/" + file);
        const plist::Dictionary* entry = root ? root->asDictionary() : nullptr;
        if (!entry || !entryApplies(*entry, executablePath_, uid_)) continue;
        // The first matching entry decides, even when it lacks the entitlement.
        const plist::Dictionary* granted = entry->getDictionary("Entitlements");
        const plist::Value* value = granted ? granted->find(name) : nullptr;
        if (!value) return std::nullopt;
        return *value;
    }
    return std::nullopt;
}

}  // namespace qvl::entitlements
