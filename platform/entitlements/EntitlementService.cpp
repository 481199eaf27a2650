#include "platform/entitlements/EntitlementService.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "plist/PropertyList.h"

namespace qvl::entitlements {

namespace {

// A registry holds a handful of files; more than this is not a registry
// anyone maintains, and the rest are ignored rather than read on every request.
constexpr size_t kMaxRegistryFiles = 4096;

// What identifies one version of a registry file. Any write changes ctime,
// so a file whose stamp is unchanged still holds what was parsed.
struct Stamp {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    int64_t mtimeNs = 0;
    int64_t ctimeNs = 0;
    friend bool operator==(const Stamp&, const Stamp&) = default;
};

struct CachedFile {
    Stamp stamp;
    std::shared_ptr<const plist::Value> root;  // null: the file did not parse
};

// The registry is consulted on every request and parsing its files was most
// of a request's cost, so parsed files are kept and each lookup only lists the
// folder and compares stamps: a changed, added or removed file still takes
// effect at the very next lookup.
class RegistryCache {
  public:
    static RegistryCache& sharedInstance() {
        static RegistryCache cache;
        return cache;
    }

    // The parsed registry files of `dir`, in name order.
    std::vector<std::shared_ptr<const plist::Value>> load(const std::string& dir) {
        std::vector<std::shared_ptr<const plist::Value>> roots;
        std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
        if (!d) return roots;
        std::vector<std::pair<std::string, Stamp>> listing;
        while (dirent* e = ::readdir(d.get())) {
            const std::string_view name = e->d_name;
            if (name.starts_with('.') || !name.ends_with(".plist")) continue;
            struct stat st;
            if (::fstatat(::dirfd(d.get()), e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
            listing.emplace_back(std::string(name), stampOf(st));
            if (listing.size() >= kMaxRegistryFiles) break;
        }
        std::sort(listing.begin(), listing.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });

        std::lock_guard lock(mu_);
        if (folders_.size() > kMaxFolders && !folders_.contains(dir)) folders_.clear();
        std::map<std::string, CachedFile>& cached = folders_[dir];
        std::map<std::string, CachedFile> current;
        for (auto& [name, stamp] : listing) {
            auto it = cached.find(name);
            if (it == cached.end() || !(it->second.stamp == stamp))
                current[name] = CachedFile{stamp, parse(dir + "/" + name)};
            else
                current[name] = std::move(it->second);
            roots.push_back(current[name].root);
        }
        cached = std::move(current);  // forgets removed files
        return roots;
    }

  private:
    static constexpr size_t kMaxFolders = 16;

    static std::shared_ptr<const plist::Value> parse(const std::string& path) {
        std::optional<plist::Value> root = plist::readFile(path);
        return root ? std::make_shared<const plist::Value>(std::move(*root)) : nullptr;
    }

    static Stamp stampOf(const struct stat& st) {
        return Stamp{st.st_dev, st.st_ino, st.st_size,
                     st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec,
                     st.st_ctim.tv_sec * 1'000'000'000LL + st.st_ctim.tv_nsec};
    }

    std::mutex mu_;
    std::map<std::string, std::map<std::string, CachedFile>> folders_;
};

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
    for (const auto& root : RegistryCache::sharedInstance().load(registryDirectory_)) {
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
