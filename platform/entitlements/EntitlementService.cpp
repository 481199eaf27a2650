#include "platform/entitlements/EntitlementService.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "base/UniqueFd.h"
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
// folder's stamp and asks the folder's change watch whether anything in it
// was written, created, removed or renamed since the last listing: one stat
// and one poll, however many files there are, and the poll also tells
// whether the client still runs. Only when something changed is
// the folder listed again (and a file named by the change parsed again), so
// a changed, added or removed file still takes effect at the very next
// lookup. Without a watch (none could be made), or for a folder holding
// links, whose targets the watch can't see, each known file's stamp is
// compared instead.
class RegistryCache {
  public:
    static RegistryCache& sharedInstance() {
        static RegistryCache cache;
        return cache;
    }

    using Roots = std::vector<std::shared_ptr<const plist::Value>>;
    using Snapshot = std::shared_ptr<const Roots>;

    // The parsed registry files of `dir`, in name order, while the process
    // pinned by `pidfd` still runs; nullopt once it has ended. For a settled
    // folder with nothing new on its watch, one poll asks both questions.
    std::optional<Snapshot> loadWhileAlive(const std::string& dir, int pidfd) {
        struct stat dirStat;
        const bool isFolder = ::stat(dir.c_str(), &dirStat) == 0 && S_ISDIR(dirStat.st_mode);
        const Stamp dirStamp = isFolder ? stampOf(dirStat) : Stamp{};
        if (isFolder) {
            std::lock_guard lock(mu_);
            auto it = folders_.find(dir);
            if (it != folders_.end() && it->second.settled && it->second.stamp == dirStamp &&
                it->second.watch && !it->second.hasLinks) {
                pollfd ready[2] = {{pidfd, POLLIN, 0}, {it->second.watch.get(), POLLIN, 0}};
                if (::poll(ready, 2, 0) >= 0) {
                    if (ready[0].revents != 0) return std::nullopt;
                    if (ready[1].revents == 0) return it->second.roots;
                }
            }
        }
        if (exited(pidfd)) return std::nullopt;
        if (!isFolder) return std::make_shared<const Roots>();
        {
            std::lock_guard lock(mu_);
            auto it = folders_.find(dir);
            if (it != folders_.end() && it->second.settled && it->second.stamp == dirStamp &&
                unchanged(dir, it->second))
                return it->second.roots;
        }
        return relist(dir, dirStamp);
    }

  private:
    static constexpr size_t kMaxFolders = 16;
    static constexpr uint32_t kWatchedEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE |
                                               IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                               IN_MOVE_SELF | IN_ONLYDIR;

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
        bool hasLinks = false;  // an entry that may be a link: its stamps are compared
        UniqueFd watch;         // inotify on the folder; invalid: none could be made
        std::map<std::string, CachedFile> files;
        Snapshot roots;  // the files' roots in name order, as last listed
    };

    static bool unchanged(const std::string& dir, Folder& folder) {
        if (!folder.watch) return filesUnchanged(dir, folder.files);
        return watchQuiet(folder) && (!folder.hasLinks || filesUnchanged(dir, folder.files));
    }

    // Reads what the watch saw; true when it saw nothing. A file it names is
    // forgotten, so that it is parsed again whatever its stamp says (an edit
    // within one clock tick keeps the stamp). A lost event forgets them all.
    static bool watchQuiet(Folder& folder) {
        alignas(inotify_event) char buffer[4096];
        bool quiet = true;
        for (;;) {
            const ssize_t n = ::read(folder.watch.get(), buffer, sizeof buffer);
            if (n <= 0) break;  // EAGAIN: nothing (more) to read
            quiet = false;
            for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if (event->mask & IN_Q_OVERFLOW) folder.files.clear();
                if (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
                    folder.watch.reset();  // the folder went: the next listing watches anew
                    return false;
                }
                if (event->len > 0)
                    folder.files.erase(std::string(event->name, ::strnlen(event->name, event->len)));
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return quiet;
    }

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

    // Readable (or an error): the process is gone.
    static bool exited(int pidfd) {
        pollfd ready{pidfd, POLLIN, 0};
        return ::poll(&ready, 1, 0) != 0;
    }

    static bool settledAt(const Stamp& stamp) {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        const int64_t now = ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
        const bool wholeSeconds = stamp.mtimeNs % 1'000'000'000LL == 0;
        return stamp.mtimeNs < now - (wholeSeconds ? kWholeSecondSettleNs : kSettleNs);
    }

    // Watches the folder before it is listed, so that a change made while
    // it is read shows at the next lookup; what the watch saw until now is
    // read and dropped, since the listing comes after it.
    void watchBeforeListing(const std::string& dir) {
        std::lock_guard lock(mu_);
        if (folders_.size() > kMaxFolders && !folders_.contains(dir)) folders_.clear();
        Folder& folder = folders_[dir];
        if (folder.watch) {
            watchQuiet(folder);
            if (folder.watch) return;
        }
        UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (watch && ::inotify_add_watch(watch.get(), dir.c_str(), kWatchedEvents) >= 0)
            folder.watch = std::move(watch);
    }

    Snapshot relist(const std::string& dir, const Stamp& dirStamp) {
        auto roots = std::make_shared<Roots>();
        watchBeforeListing(dir);
        std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
        if (!d) return roots;
        std::vector<std::pair<std::string, Stamp>> listing;
        bool hasLinks = false;
        while (dirent* e = ::readdir(d.get())) {
            const std::string_view name = e->d_name;
            if (name.starts_with('.') || !name.ends_with(".plist")) continue;
            struct stat st;
            if (::fstatat(::dirfd(d.get()), e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
            if (e->d_type != DT_REG) hasLinks = true;
            listing.emplace_back(std::string(name), stampOf(st));
            if (listing.size() >= kMaxRegistryFiles) break;
        }
        std::sort(listing.begin(), listing.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });

        std::lock_guard lock(mu_);
        Folder& folder = folders_[dir];
        std::map<std::string, CachedFile> current;
        for (auto& [name, stamp] : listing) {
            auto it = folder.files.find(name);
            if (it == folder.files.end() || !(it->second.stamp == stamp))
                current[name] = CachedFile{stamp, parse(dir + "/" + name)};
            else
                current[name] = std::move(it->second);
            roots->push_back(current[name].root);
        }
        folder.files = std::move(current);  // forgets removed files
        folder.roots = roots;
        folder.stamp = dirStamp;
        folder.hasLinks = hasLinks;
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

std::optional<Task> Task::createWithAuditToken(const zrp::AuditToken& token,
                                               const std::string& registryDirectory) {
    if (token.executablePath.empty() || !token.pidfd || !token.pidfd->valid()) return std::nullopt;
    std::optional<Registry> registry =
        RegistryCache::sharedInstance().loadWhileAlive(registryDirectory, token.pidfd->get());
    if (!registry) return std::nullopt;
    return Task(token.executablePath, token.uid, std::move(*registry));
}

std::optional<plist::Value> Task::valueForEntitlement(std::string_view name) const {
    for (const auto& root : *registry_) {
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
