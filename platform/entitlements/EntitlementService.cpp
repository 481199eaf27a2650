#include "platform/entitlements/EntitlementService.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"

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
// of a request's cost, so parsed files are kept. A lookup compares the
// folder's stamp and each known file's stamp; only when one of them changed
// is the folder listed again, so a changed, added or removed file still takes
// effect at the very next lookup.
class RegistryCache {
  public:
    static RegistryCache& sharedInstance() {
        static RegistryCache cache;
        return cache;
    }

    // The parsed registry files of `dir`, in name order.
    std::vector<std::shared_ptr<const plist::Value>> load(const std::string& dir) {
        struct stat dirStat;
        if (::stat(dir.c_str(), &dirStat) != 0 || !S_ISDIR(dirStat.st_mode)) return {};
        const Stamp dirStamp = stampOf(dirStat);
        {
            std::lock_guard lock(mu_);
            auto it = folders_.find(dir);
            if (it != folders_.end() && it->second.settled && it->second.stamp == dirStamp &&
                filesUnchanged(dir, it->second.files))
                return rootsOf(it->second.files);
        }
        return relist(dir, dirStamp);
    }

  private:
    static constexpr size_t kMaxFolders = 16;

    // Timestamps only move on at the file system's clock tick, so a folder
    // changed twice within one tick keeps its stamp. A folder is trusted
    // without listing only once its modification time is further in the past
    // than a tick; any later change of its entries sets it to the present
    // again. Ticks are a few milliseconds, but a file system that keeps whole
    // seconds only (a time without nanoseconds) gets two of them.
    static constexpr int64_t kSettleNs = 100'000'000LL;
    static constexpr int64_t kWholeSecondSettleNs = 2'000'000'000LL;

    struct Folder {
        Stamp stamp;
        bool settled = false;
        std::map<std::string, CachedFile> files;
    };

    static bool filesUnchanged(const std::string& dir, const std::map<std::string, CachedFile>& files) {
        std::string path;
        for (const auto& [name, file] : files) {
            path.assign(dir).append("/").append(name);
            struct stat st;
            if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !(stampOf(st) == file.stamp))
                return false;
        }
        return true;
    }

    static std::vector<std::shared_ptr<const plist::Value>> rootsOf(
        const std::map<std::string, CachedFile>& files) {
        std::vector<std::shared_ptr<const plist::Value>> roots;
        roots.reserve(files.size());
        for (const auto& entry : files) roots.push_back(entry.second.root);
        return roots;
    }

    static bool settledAt(const Stamp& stamp) {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        const int64_t now = ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
        const bool wholeSeconds = stamp.mtimeNs % 1'000'000'000LL == 0;
        return stamp.mtimeNs < now - (wholeSeconds ? kWholeSecondSettleNs : kSettleNs);
    }

    std::vector<std::shared_ptr<const plist::Value>> relist(const std::string& dir, const Stamp& dirStamp) {
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
        Folder& folder = folders_[dir];
        std::map<std::string, CachedFile> current;
        for (auto& [name, stamp] : listing) {
            auto it = folder.files.find(name);
            if (it == folder.files.end() || !(it->second.stamp == stamp))
                current[name] = CachedFile{stamp, parse(dir + "/" + name)};
            else
                current[name] = std::move(it->second);
            roots.push_back(current[name].root);
        }
        folder.files = std::move(current);  // forgets removed files
        folder.stamp = dirStamp;
        // A folder past its limit was only partly listed: keep listing it.
        folder.settled = settledAt(dirStamp) && listing.size() < kMaxRegistryFiles;
        return roots;
    }

    static std::shared_ptr<const plist::Value> parse(const std::string& path) {
        std::optional<plist::Value> root =
            platform::readPropertyListFile(platform::LinuxFileSystem::sharedInstance(), path);
        return root ? std::make_shared<const plist::Value>(std::move(*root)) : nullptr;
    }

    static Stamp stampOf(const struct stat& st) {
        return Stamp{st.st_dev, st.st_ino, st.st_size,
                     st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec,
                     st.st_ctim.tv_sec * 1'000'000'000LL + st.st_ctim.tv_nsec};
    }

    std::mutex mu_;
    std::map<std::string, Folder> folders_;
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
